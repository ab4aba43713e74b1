# Cross build of the whole tree for 64-bit Arm with Debian's cross compiler, tests included. Test
# programs run under qemu's user-mode emulation: directly through CMAKE_CROSSCOMPILING_EMULATOR, and
# inside the simulated handset through a binfmt_misc registration of a private user namespace
# (./dev.sh test --arm64 sets that up). Needs g++-aarch64-linux-gnu, qemu-user, and the arm64 C and C++
# runtime and GoogleTest of Debian's multiarch (libc6:arm64, libstdc++6:arm64, libgtest-dev:arm64,
# libgmock-dev:arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
