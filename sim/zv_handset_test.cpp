// Tests of the launcher sim/zv-handset, run from the PC: the plain run path and its options, rc files
// installed only through --rc, and the --init path passing the command's exit status back.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "init/test_probe.h"

namespace {

const std::string k_launcher = ZV_LAUNCHER;
const std::string k_build = ZV_BUILD_DIR;
const std::string k_work = ZV_SIM_WORK;
const std::string k_testdata = ZV_TESTDATA_DIR;

// Runs the launcher's run mode with options, then "--" and command.
probe_run Handset(const std::vector<std::string> &options, const std::vector<std::string> &command) {
    std::vector<std::string> argv = {k_launcher, "run", "--work", k_work};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    return probe_run_program(argv);
}

std::string MakeTempDir() {
    std::string pattern = k_work + "/launcher-test.XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) return "";
    return buf.data();
}

TEST(Launcher, PlainRunGivesCommandStatusAndHandsetLayout) {
    probe_run r =
        Handset({"--build", k_build},
                {"/system/bin/sh", "-c",
                 "test -d /dev/__properties__ && test -d /dev/socket && test -x /system/bin/setprop && "
                 "test -x /system/bin/getprop && test -p /proc/kmsg && test \"$(pwd)\" = / && exit 3"});
    EXPECT_EQ(3, probe_exit_code(r)) << r.m_err;
}

// The handset's userland: mksh is its shell, and also the shell that a C library's system() runs; the
// plain tools are toybox applets; busybox answers only to its own name.
TEST(Launcher, HandsetShellIsMkshAndItsPlainToolsAreToyboxApplets) {
    probe_run r = Handset(
        {"--build", k_build},
        {"/system/bin/sh", "-c",
         "echo \"sh: ${KSH_VERSION%% *}\"; /bin/sh -c 'echo \"/bin/sh: ${KSH_VERSION%% *}\"'; "
         "readlink -f /system/bin/{sh,ls,cp,rm,mkdir,chmod,touch,mount,kill,ps,lsmod,dmesg} | sed 's|.*/||'; "
         "case $(ls --version) in toybox\\ *) echo 'ls --version: toybox';; esac; "
         "echo \"links to busybox: $(readlink -f /system/bin/* /system/xbin/* | grep -c '/busybox$')\"; "
         "busybox true && echo 'busybox runs'"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ(
        "sh: @(#)MIRBSD\n/bin/sh: @(#)MIRBSD\n"
        "mksh\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ntoybox\ndmesg\n"
        "ls --version: toybox\nlinks to busybox: 2\nbusybox runs\n",
        r.m_out);
}

TEST(Launcher, RcOptionInstallsFilesUnderSystemEtcInit) {
    std::string boot = k_testdata + "/init_boot.rc";
    std::string ctl = k_testdata + "/init_ctl.rc";
    probe_run r = Handset({"--rc", boot, "--rc", ctl}, {"/system/bin/ls", "/system/etc/init"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("init_boot.rc\ninit_ctl.rc\n", r.m_out);
    r = Handset({"--rc", boot}, {"/system/bin/cat", "/system/etc/init/init_boot.rc"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ(probe_read_file(boot), r.m_out);
}

TEST(Launcher, RcOptionTakesRelativePaths) {
    std::string dir = MakeTempDir();
    ASSERT_FALSE(dir.empty());
    ASSERT_TRUE(probe_write_file(dir + "/rel.rc", "service rel /system/bin/sleep 1\n"));
    std::vector<std::string> argv = {
        "/bin/sh",
        "-c",
        "cd \"$1\" && exec \"$2\" run --work \"$3\" --rc rel.rc -- /system/bin/cat /system/etc/init/rel.rc",
        "sh",
        dir,
        k_launcher,
        k_work};
    probe_run r = probe_run_program(argv);
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("service rel /system/bin/sleep 1\n", r.m_out);
}

TEST(Launcher, StagedRcFilesAreNotInstalledButStagedProgramsAre) {
    std::string build = MakeTempDir();
    ASSERT_FALSE(build.empty());
    ASSERT_EQ(0, mkdir((build + "/handset").c_str(), 0755));
    ASSERT_EQ(0, mkdir((build + "/handset/system").c_str(), 0755));
    ASSERT_EQ(0, mkdir((build + "/handset/system/bin").c_str(), 0755));
    ASSERT_EQ(0, mkdir((build + "/handset/system/etc").c_str(), 0755));
    ASSERT_EQ(0, mkdir((build + "/handset/system/etc/init").c_str(), 0755));
    ASSERT_TRUE(
        probe_write_file(build + "/handset/system/etc/init/auto.rc", "service auto /system/bin/sleep 1\n"));
    ASSERT_TRUE(probe_write_file(build + "/handset/system/etc/zv.cfg", "k=v\n"));
    ASSERT_TRUE(
        probe_write_file(build + "/handset/system/bin/tool", "#!/system/bin/sh\necho tool ran\n", 0755));
    probe_run r = Handset({"--build", build},
                          {"/system/bin/sh", "-c", "ls /system/etc/init; cat /system/etc/zv.cfg; tool"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("k=v\ntool ran\n", r.m_out);
}

TEST(Launcher, RcOptionWithMissingFileIsRefused) {
    probe_run r = Handset({"--rc", "/no/such.rc"}, {"/bin/true"});
    EXPECT_EQ(2, probe_exit_code(r));
    EXPECT_EQ(0u, r.m_err.find("zv-handset: --rc /no/such.rc: no such file\n")) << r.m_err;
}

TEST(Launcher, TwoRcFilesWithTheSameNameAreRefused) {
    std::string dir = MakeTempDir();
    ASSERT_FALSE(dir.empty());
    ASSERT_EQ(0, mkdir((dir + "/other").c_str(), 0755));
    ASSERT_TRUE(probe_write_file(dir + "/x.rc", "service a /system/bin/sleep 1\n"));
    ASSERT_TRUE(probe_write_file(dir + "/other/x.rc", "service b /system/bin/sleep 1\n"));
    probe_run r = Handset({"--rc", dir + "/x.rc", "--rc", dir + "/other/x.rc"}, {"/bin/true"});
    EXPECT_EQ(2, probe_exit_code(r));
    EXPECT_EQ("zv-handset: two rc files named x.rc\n", r.m_err);
}

TEST(Launcher, InitBootsServicesOfRcOptionAndPassesCommandStatus) {
    probe_run r =
        Handset({"--build", k_build, "--init", "--rc", k_testdata + "/init_boot.rc"},
                {"/system/bin/sh", "-c", "getprop init.svc.sleeper; getprop init.svc.idle; exit 9"});
    EXPECT_EQ(9, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("running\n\n", r.m_out);
}

TEST(Launcher, InitWithoutRcBootsNothing) {
    probe_run r = Handset({"--build", k_build, "--init"}, {"getprop"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("", r.m_out);
    EXPECT_EQ("", r.m_err);
}

TEST(Launcher, DataDirKeepsDataAcrossBoots) {
    std::string data = MakeTempDir();
    ASSERT_FALSE(data.empty());
    probe_run r = Handset({"--data-dir", data}, {"/system/bin/sh", "-c", "echo kept >/data/f"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    r = Handset({"--data-dir", data}, {"/system/bin/cat", "/data/f"});
    EXPECT_EQ(0, probe_exit_code(r));
    EXPECT_EQ("kept\n", r.m_out);
}

TEST(Launcher, CardNoneLeavesNoCard) {
    probe_run r = Handset({"--card", "none"},
                          {"/system/bin/sh", "-c", "test -e /storage/real_sd && echo card; exit 0"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("", r.m_out);
    r = Handset({}, {"/system/bin/sh", "-c", "test -d /storage/real_sd && echo card"});
    EXPECT_EQ("card\n", r.m_out);
}

}  // namespace

namespace {

const std::string k_source = ZV_SOURCE_DIR;

TEST(Launcher, FileOptionInstallsAFileReadOnly) {
    std::string cfg = k_source + "/sa/zv-qel-sa.cfg";
    probe_run r =
        Handset({"--file", cfg, "/system/etc/zv-qel-sa.cfg"},
                {"/bin/sh", "-c", "cat /system/etc/zv-qel-sa.cfg && ! echo x >> /system/etc/zv-qel-sa.cfg"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ(probe_read_file(cfg), r.m_out);
}

TEST(Launcher, DataLocalExistsAtBootAsOnAHandset) {
    probe_run r = Handset({}, {"/bin/sh", "-c", "stat -c %a /data/local /data/local/tmp"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ("771\n771\n", r.m_out);
}

// What ./dev.sh sim does without a terminal: init boots the daemon from its rc file and configuration,
// and the scripted session talks to it through both ptys.
TEST(Launcher, SimulatedHandsetBootsTheDaemonAndTheSessionTalksToIt) {
    probe_run r = Handset({"--build", k_build, "--init", "--rc", k_source + "/sa/zv-qel-sa.rc", "--file",
                           k_source + "/sa/zv-qel-sa.cfg", "/system/etc/zv-qel-sa.cfg"},
                          {"/bin/bash", k_source + "/sim/session.sh"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("init.svc.zv-qel-sa=running")) << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("\nzv-qel-sa: running\n")) << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("\nkernel log: off\n")) << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("\\r\\nDMESG_LOG: 1\\r\\n\\r\\nOK\\r\\n")) << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("\ndmesg log: on\n")) << r.m_out;
    // uname -n through a remote shell, and the shell's own exit status
    EXPECT_NE(std::string::npos, r.m_out.find("\nzv-handset\n== its exit status: 3\n")) << r.m_out;
}

// The handset's boot script makes /data/local/log for the shell user, so the daemon's capture children
// can write there: after boot the capture files appear and grow.
TEST(Launcher, BootedHandsetCapturesLogsIntoGrowingFiles) {
    probe_run r = Handset(
        {"--build", k_build, "--init", "--rc", k_source + "/sa/zv-qel-sa.rc", "--file",
         k_source + "/sa/zv-qel-sa.cfg", "/system/etc/zv-qel-sa.cfg"},
        {"/bin/bash", "-c",
         "stat -c '%a %u %g' /data/local/log; "
         "for i in $(seq 200); do [ -s /data/local/log/logcat.log ] && break; sleep 0.05; done; "
         "a=$(stat -c %s /data/local/log/logcat.log); "
         "for i in $(seq 200); do [ $(stat -c %s /data/local/log/logcat.log) -gt $a ] && echo grew && break; "
         "sleep 0.05; done; ls /data/local/log"});
    EXPECT_EQ(0, probe_exit_code(r)) << r.m_err;
    EXPECT_EQ(0u, r.m_out.find("771 2000 2000\n")) << r.m_out;
    EXPECT_NE(std::string::npos, r.m_out.find("grew\n")) << r.m_out;
    for (const char *file :
         {"logcat.log", "logcat-events.log", "logcat-radio.log", "kmsg.log", "ipdata.pcap0"})
        EXPECT_NE(std::string::npos, r.m_out.find(file)) << file << "\n" << r.m_out;
}

}  // namespace
