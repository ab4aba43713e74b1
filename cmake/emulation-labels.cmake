# Tests that cannot pass under qemu's user-mode emulation, each with a ctest label that names the reason.
# The arm64 run (./dev.sh test --arm64) leaves these labels out; every other run ignores them. Included
# by ctest after the discovered tests of each test folder; a name that a folder lacks is ignored.

# zv_emulation_label(LABEL TEST...): gives each test the label.
macro(zv_emulation_label label)
  foreach(t ${ARGN})
    set_tests_properties(${t} PROPERTIES LABELS ${label})
  endforeach()
endmacro()
#
# qemu-cmdline: the test, or the daemon on its behalf, finds an arm64 process by the name in
#   /proc/PID/cmdline. Under user-mode emulation another process's command line begins with the
#   emulator's path, not with the program's argv[0], so the daemon's own process lookup (service start,
#   stop and query, the single-instance rule) and the tests' lookups of capture children see no such
#   process. A handset runs the programs natively and shows their argv[0].
zv_emulation_label(qemu-cmdline
    sim_init_test.InitBoot.CommandIsChildOfInitInRootFolder
    e2e_archive_test.ArchiveE2eTest.DeleteRemovesCaptureFilesKeepsTheRestAndRestartsCapture
    e2e_archive_test.ArchiveE2eTest.DeleteWithTooLittleSpaceAnswersErrorAndNoCaptureRunsAfterwards
    e2e_archive_test.ArchiveE2eTest.LaterDeleteWithRoomAgainRestartsTheCapture
    e2e_capture_test.CaptureTest.StartUpRunsTcpdumpAndThreeLogcatsWithTheirIdentitiesAndArguments
    e2e_capture_test.CaptureTest.PacketsLogOffAfterOnEndsTheDaemonsProcessGroup
    e2e_capture_test.CaptureTest.Sigusr2KillsTheCaptureChildrenAndAsksInitToStopTheDaemon
    e2e_core_test.CoreTest.SecondStartOfTheRealDaemonIsRefused
    e2e_service_test.ServiceE2eTest.StartQueryAndStopAServiceThroughTheCommandLink
    e2e_service_test.ServiceE2eTest.StartOfARunningServiceAnswersOkAtOnceAndIssuesNothing
    e2e_service_test.ServiceE2eTest.StartOfTheFamilyNameStartsTheFiveCompanionsThenItsOwnName
    e2e_service_test.ServiceE2eTest.AutoStartListIsRunAtTheNextStartOfTheDaemon
    e2e_service_test.ServiceE2eTest.EntryMla1StartsOnlyMla1AndARemovedEntryIsNotStartedAtTheNextStart
    e2e_service_test.ServiceE2eTest.BadAutoStartRequestsAnswerErrorChangeNothingAndTheDaemonGoesOn)

# qemu-memory: the test bounds the daemon's resident memory, and under user-mode emulation that includes
#   the emulator's own memory, which grows with every thread the daemon starts (tens of MiB over a soak
#   run) whatever the daemon does. The same runs' descriptor, thread and child checks are left out with
#   them; the other soak runs keep theirs under emulation.
zv_emulation_label(qemu-memory
    e2e_soak_test.SoakTest.TwoHundredRemoteShellsRunToTheirEnd
    e2e_soak_test.SoakTest.ThreeHundredKernelLogSwitchesOnAndOff)

# arm64-child: the test execs an arm64 program (the simulated handset's fake logcat, dmesg, tcpdump, sh
#   tools, or itself). Only the fallback for kernels older than 6.7 leaves these out: there each test
#   program runs under qemu-aarch64 itself, and the kernel cannot start an arm64 child.
zv_emulation_label(arm64-child
    pub_log_fault_test.LogClientFault.EmptyProcessNameStillGetsItsDashLogFolder
    pub_log_fault_test.LogClientFault.GetProcessNameEndingInSlashRefused
    sa_sa_delete_test.DeleteLogTest.CaptureIsStoppedBeforeTheDeleteAndRestartedAfterIt
    sa_sa_delete_test.DeleteLogTest.EmptyLogFolderAnswersOkWhenCaptureRestarts
    sa_sa_delete_test.DeleteLogTest.TooLittleSpaceLeftAnswersErrorAndNoCaptureRunsAfterwards
    sa_sa_kmsg_test.KmsgTest.SlotThreeStartRecordsTheThreadAndRaisesTheConsoleLevel
    sa_sa_launch_test.LaunchTest.ConcurrencyKilledChildrenAreReapedByTheirWaitersAndLeaveNoZombie
    sa_sa_launch_test.LaunchTest.LogcatRunsAsShellUserAndLogGroupInAProcessGroupOfItsOwn
    sa_sa_launch_test.LaunchTest.TcpdumpPathKeepsRootWithUmask077InTheRootFolder
    sa_sa_logcat_test.LogcatTest.EventsLabelInTheMainSlotCapturesTheEventsBuffer
    sa_sa_logcat_test.LogcatTest.StartRunsLogcatWithTheVectorAndStoresItsPid
    sa_sa_logsvc_test.LogSvcTest.ConcurrencyKillingAllCaptureChildrenLeavesNoZombie
    sa_sa_logsvc_test.LogSvcTest.DefaultStartOrderIsTcpdumpEventsRadioMainKernelReader
    sa_sa_logsvc_test.LogSvcTest.StoppingTwiceSignalsTheSameOldIdsTwice
    sa_sa_packets_test.PacketsTest.DefaultStartRunsTcpdumpWithTheFourteenEntryVector
    sa_sa_packets_test.PacketsTest.MissingXbinTcpdumpIsExportedToDataLocalTmpAndUsed
    sa_sa_packets_test.PacketsTest.SwitchOffAfterOnKillsTheCallersOwnProcessGroup
    sa_sa_save_test.SaveLogSourcesTest.DumpsAreWrittenIntoTheFolder
    sa_sa_save_test.SaveLogSourcesTest.EveryStepRunsInOrderWithItsExactLine
    sa_sa_save_test.SaveLogTest.FailingStepsNeverStopTheSequence
    sa_sa_signal_test.SignalTest.Sigusr2KillsTheCaptureChildrenAsksInitToStopAndStaysAlive
    sa_sa_switch_test.SwitchTest.DmesgSetOneThenZeroThenOneRotatesTwice)
