# The compile-only route of the handset build, for machines that cannot make the link kit
# (checks/handset-kit.sh, whose toolchain file links for real): clang-14 for aarch64-linux-android23
# against the handset C library's public headers (gated by API level) and Debian's libc++ headers. It
# compiles every translation unit of the handset build; nothing is linked, so CMake's own checks build
# static libraries and "linking" a program only leaves an empty placeholder file.
#
#   cmake -S . -B build-handset -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/handset-aarch64-android23.cmake
#
# ZV_HANDSET_SYSROOT (cache or environment) names the headers; default: the shared platform reference
# beside the checkout.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
# What the development kit's own toolchain file sets, and the API level the handset runs.
set(ANDROID TRUE)
set(ANDROID_PLATFORM_LEVEL 23)
set(ZV_HANDSET_COMPILE_ONLY ON)

if(DEFINED ENV{ZV_HANDSET_SYSROOT})
  set(ZV_HANDSET_SYSROOT "$ENV{ZV_HANDSET_SYSROOT}" CACHE PATH "handset C library headers")
else()
  get_filename_component(zv_default_sysroot
    "${CMAKE_CURRENT_LIST_DIR}/../../shared/platform/android-arm64-sysroot" ABSOLUTE)
  set(ZV_HANDSET_SYSROOT "${zv_default_sysroot}" CACHE PATH "handset C library headers")
endif()
if(NOT EXISTS "${ZV_HANDSET_SYSROOT}/usr/include/sys/system_properties.h")
  message(FATAL_ERROR "no handset C library headers at ${ZV_HANDSET_SYSROOT} (set ZV_HANDSET_SYSROOT)")
endif()

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-android${ANDROID_PLATFORM_LEVEL})
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-android${ANDROID_PLATFORM_LEVEL})
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

execute_process(COMMAND clang-14 -print-resource-dir OUTPUT_VARIABLE zv_clang_resource
                OUTPUT_STRIP_TRAILING_WHITESPACE)
set(zv_c_includes "-nostdinc -isystem ${zv_clang_resource}/include -isystem ${ZV_HANDSET_SYSROOT}/usr/include")
set(CMAKE_C_FLAGS_INIT "${zv_c_includes}")
set(CMAKE_CXX_FLAGS_INIT "-nostdinc++ -isystem /usr/lib/llvm-14/include/c++/v1 ${zv_c_includes}")

# Nothing links: a program becomes an empty placeholder, so every source still compiles.
set(CMAKE_CXX_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_C_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
