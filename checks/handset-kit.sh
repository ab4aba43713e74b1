#!/usr/bin/env bash
# Builds the handset link kit: what linking a program for an arm64 handset at API 23 needs, made here from
# the platform material beside the checkout and Debian packages, where the development kit is not at hand.
#
#   stub libraries   libc.so, libm.so, libdl.so from the C library's symbol maps: every symbol an API-23
#                    program may use, under version LIBC (checks/handset_maps.py), no code
#   crt objects      crtbegin_dynamic.o, crtend_android.o (and the _so ones) from the C library's crt sources
#   builtins         compiler-rt's builtins (emulated TLS, 128-bit long double, ...) from Debian's
#                    llvm-toolchain-14 source package, the version of the installed clang-14
#   C++ runtime      libc++, libc++abi and libunwind from the same sources, static, built against the stubs
#   toolchain file   handset.toolchain.cmake: clang-14 and lld with the flags of a development-kit link
#
# Usage: checks/handset-kit.sh KIT_DIR
# KIT_DIR receives a copy of the kit. The kit is built once per key (source package version and a hash of
# every input, this script included) in ZV_HANDSET_KIT_CACHE (default /var/cache/zv-qel-sa/handset-kit,
# outside the checkout, so fresh clones on one machine share it); a later run only copies it.
# Needs: clang-14, lld-14, llvm-14, cmake, ninja, Debian's python3 and, on a cold run, the source package
# (the script adds a deb-src entry for the machine's suite when none is configured; that needs root or sudo).
# Exits non-zero, saying what it could not do, when any part is missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
say() { echo "handset-kit: $*"; }
fail() {
    echo "handset-kit: ERROR: $*" >&2
    echo "handset-kit: ERROR: no kit was made${work:+ (logs in $work)}" >&2
    exit 1
}
work=""

[ $# = 1 ] || { sed -n '2,21p' "$0" >&2; exit 2; }
out=$1
api=23
triple=aarch64-linux-android$api
platform=${ZV_HANDSET_PLATFORM:-$(cd "$top/.." && pwd)/shared/platform}
link_src="$platform/android-arm64-link"
headers="$platform/android-arm64-sysroot/usr/include"
cache=${ZV_HANDSET_KIT_CACHE:-/var/cache/zv-qel-sa/handset-kit}
python=/usr/bin/python3   # Debian's, whatever python3 comes first in PATH

for tool in clang-14 clang++-14 ld.lld-14 llvm-ar-14 cmake ninja xz; do
    command -v "$tool" >/dev/null || fail "$tool is not installed (./dev.sh handset-check installs it)"
done
[ -f "$link_src/libc/libc.map.txt" ] || fail "no symbol maps at $link_src (set ZV_HANDSET_PLATFORM)"
[ -f "$headers/sys/system_properties.h" ] || fail "no C library headers at $headers (set ZV_HANDSET_PLATFORM)"

# The source package: the one the installed clang-14 was built from, so headers and compiler agree.
version=$(dpkg-query -W -f='${source:Version}' clang-14 2>/dev/null) || fail "clang-14 is not a Debian package here"
upstream=${version#*:}
upstream=${upstream%-*}

# The key: the package version and every input of the kit.
key=$( {
    echo "$version"
    clang-14 --version | head -n1
    cat "$0" "$top/checks/handset_maps.py"
    (cd "$platform" && find android-arm64-link android-arm64-sysroot -type f -print0 | LC_ALL=C sort -z |
        xargs -0 sha256sum)
} | sha256sum | cut -c1-16)
kit="$cache/kit-$upstream-$key"

copy_out() {
    rm -rf "$out" && mkdir -p "$(dirname "$out")"
    cp -a "$kit" "$out"
}
if [ -f "$kit/.complete" ]; then
    copy_out
    say "kit $upstream-$key reused from $kit"
    exit 0
fi

mkdir -p "$cache" || fail "cannot create the kit cache $cache (set ZV_HANDSET_KIT_CACHE)"
start=$(date +%s)
work="$cache/work-$key"
# Left-overs of kits that failed (their logs, unfinished kits) go; finished kits of other keys stay.
for old in "$cache"/kit-*; do
    [ -f "$old/.complete" ] || rm -rf "$old"
done
rm -rf "$cache"/work-* && mkdir -p "$work" "$kit"
sysroot="$kit/sysroot"
libdir="$sysroot/usr/lib/aarch64-linux-android"
mkdir -p "$libdir/$api" "$sysroot/usr/include"

# --- Headers: the C library's, and a stand-in for the development kit's version header, which libc++
# includes. Its major number only has to be above 16: the C library's headers provide the locale inlines
# that older kits left to libc++.
cp -a "$headers/." "$sysroot/usr/include/"
cat >"$sysroot/usr/include/android/ndk-version.h" <<'EOF'
#pragma once
/* Stand-in made by zv-qel-sa's checks/handset-kit.sh: no development kit here. */
#define __NDK_MAJOR__ 26
#define __NDK_MINOR__ 0
#define __NDK_BETA__ 0
#define __NDK_BUILD__ 0
#define __NDK_CANARY__ 0
EOF

# --- Stub libraries (their sources stay in the kit's stubs/, where the self-test makes variants of them).
mkdir -p "$kit/stubs"
for lib in libc libm libdl; do
    n=$("$python" "$top/checks/handset_maps.py" stub "$link_src/$lib/$lib.map.txt" $api "$kit/stubs/$lib.c" \
        "$kit/stubs/$lib.map")
    clang-14 --target=$triple -fPIC -shared -nostdlib -fuse-ld=lld -w -fno-builtin \
        -Wl,--version-script="$kit/stubs/$lib.map" -Wl,-soname,$lib.so -o "$libdir/$api/$lib.so" "$kit/stubs/$lib.c" ||
        fail "the $lib stub did not link"
    say "$lib.so: $n symbols at API $api"
done
libc_syms=$(llvm-nm-14 -D --defined-only "$libdir/$api/libc.so")
grep -q ' __system_property_get@@LIBC$' <<<"$libc_syms" || fail "the libc stub lacks __system_property_get@LIBC"
! grep -q ' getentropy@' <<<"$libc_syms" || fail "the libc stub has getentropy (API 28)"

# --- crt objects.
crt="$link_src/libc/arch-common/bionic"
crt_flags=("--target=$triple" -O2 -fPIC -nostdinc -isystem "$(clang-14 -print-resource-dir)/include"
           -isystem "$headers" -I "$link_src/libc" -I "$link_src/libc/bionic" -I "$link_src/libc/private")
clang-14 "${crt_flags[@]}" -c "$crt/crtbegin.c" -o "$work/crtbegin.o"
clang-14 "${crt_flags[@]}" -D__ASSEMBLY__ -DPLATFORM_SDK_VERSION=$api -c "$crt/crtbrand.S" -o "$work/crtbrand.o"
clang-14 "${crt_flags[@]}" -D__ASSEMBLY__ -c "$crt/crtend.S" -o "$libdir/$api/crtend_android.o"
ld.lld-14 -r "$work/crtbegin.o" "$work/crtbrand.o" -o "$libdir/$api/crtbegin_dynamic.o"
# and those of shared libraries (only the self-test's stand-in libraries are shared).
clang-14 "${crt_flags[@]}" -c "$crt/crtbegin_so.c" -o "$work/crtbegin_so.o"
ld.lld-14 -r "$work/crtbegin_so.o" "$work/crtbrand.o" -o "$libdir/$api/crtbegin_so.o"
clang-14 "${crt_flags[@]}" -D__ASSEMBLY__ -c "$crt/crtend_so.S" -o "$libdir/$api/crtend_so.o"
say "crt objects built"

# --- The sources of the C++ runtime and the builtins.
dl="$cache/src"
tarball="$dl/llvm-toolchain-14_$upstream.orig.tar.xz"
if [ ! -f "$tarball" ]; then
    mkdir -p "$dl"
    get_source() { (cd "$dl" && apt-get source --download-only -qq "llvm-toolchain-14=$version") >"$work/apt.log" 2>&1; }
    if ! get_source; then
        sudo=""
        [ "$(id -u)" = 0 ] || sudo=sudo
        suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
        list=/etc/apt/sources.list.d/zv-qel-sa-deb-src.sources
        say "no source package entry for $suite: adding $list"
        printf '%s\n' "# Added by zv-qel-sa's checks/handset-kit.sh: source packages of the machine's suite." \
            "Types: deb-src" "URIs: http://deb.debian.org/debian" "Suites: $suite $suite-updates" \
            "Components: main" "Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg" |
            $sudo tee "$list" >/dev/null || fail "cannot add $list"
        $sudo apt-get update -qq >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get update failed"; }
        get_source || { cat "$work/apt.log"; fail "apt-get source llvm-toolchain-14=$version failed"; }
    fi
    rm -f "$dl"/*.debian.tar.* "$dl"/*.dsc
    [ -f "$tarball" ] || fail "apt-get source left no $tarball"
fi
src="$work/llvm"
mkdir -p "$src"
parts=(cmake runtimes libcxx libcxxabi libunwind llvm/cmake llvm/utils/llvm-lit llvm/utils/lit compiler-rt/cmake
       compiler-rt/lib/builtins compiler-rt/include compiler-rt/CMakeLists.txt)
tar -xJf "$tarball" -C "$src" --strip-components=1 --exclude='*/test' "${parts[@]/#/llvm-toolchain-14_$upstream/}" ||
    fail "cannot unpack $tarball"
say "sources of llvm-toolchain-14 $version unpacked"

# --- The compiler's resource folder of the kit: clang's own headers, and the builtins beside them.
resource="$kit/clang"
mkdir -p "$resource/lib/linux"
ln -s "$(clang-14 -print-resource-dir)/include" "$resource/include"

# The toolchain file, written before the runtimes exist: in bootstrap mode it links C only (the
# runtimes' own build), otherwise with the static C++ runtime.
sed -e "s|@API@|$api|g" -e "s|@VERSION@|$version|g" "$top/cmake/handset-kit.toolchain.cmake.in" \
    >"$kit/handset.toolchain.cmake"

builtins="$work/builtins"
cmake -S "$src/compiler-rt/lib/builtins" -B "$builtins" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$kit/handset.toolchain.cmake" -DZV_KIT_STAGE=builtins \
    -DCMAKE_ASM_COMPILER_TARGET=$triple -DCOMPILER_RT_DEFAULT_TARGET_ONLY=ON \
    -DLLVM_CONFIG_PATH=/usr/bin/llvm-config-14 -DCOMPILER_RT_BUILTINS_HIDE_SYMBOLS=ON \
    >"$work/builtins.configure.log" 2>&1 || { tail -n 30 "$work/builtins.configure.log"; fail "builtins: configure failed"; }
cmake --build "$builtins" -j2 >"$work/builtins.build.log" 2>&1 ||
    { tail -n 30 "$work/builtins.build.log"; fail "builtins: build failed"; }
cp "$(find "$builtins" -name 'libclang_rt.builtins-aarch64*.a' | head -n1)" \
    "$resource/lib/linux/libclang_rt.builtins-aarch64-android.a" || fail "builtins: no archive"
say "compiler-rt builtins built"

runtimes="$work/runtimes"
cmake -S "$src/runtimes" -B "$runtimes" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$kit/handset.toolchain.cmake" -DZV_KIT_STAGE=runtimes \
    -DCMAKE_INSTALL_PREFIX="$sysroot/usr" \
    -DLLVM_ENABLE_RUNTIMES="libunwind;libcxxabi;libcxx" -DLLVM_INCLUDE_TESTS=OFF -DLLVM_INCLUDE_DOCS=OFF \
    -DLIBUNWIND_ENABLE_SHARED=OFF -DLIBUNWIND_USE_COMPILER_RT=ON \
    -DLIBCXXABI_ENABLE_SHARED=OFF -DLIBCXXABI_USE_COMPILER_RT=ON -DLIBCXXABI_USE_LLVM_UNWINDER=ON \
    -DLIBCXXABI_ENABLE_STATIC_UNWINDER=ON \
    -DLIBCXX_ENABLE_SHARED=OFF -DLIBCXX_USE_COMPILER_RT=ON -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON \
    -DLIBCXX_INCLUDE_BENCHMARKS=OFF -DLIBCXX_INCLUDE_TESTS=OFF -DLIBCXXABI_INCLUDE_TESTS=OFF \
    -DLIBUNWIND_INCLUDE_TESTS=OFF \
    >"$work/runtimes.configure.log" 2>&1 || { tail -n 30 "$work/runtimes.configure.log"; fail "C++ runtime: configure failed"; }
# The configure checks link against the stubs: a library the handset lacks must not be found.
for lib in pthread rt atomic; do
    if grep -qiE "Looking for .* in $lib - found|HAS_${lib^^}_LIB:.*=1" "$runtimes/CMakeCache.txt" "$work/runtimes.configure.log"; then
        fail "C++ runtime: its configure step found lib$lib, which the handset does not have"
    fi
done
cmake --build "$runtimes" -j2 --target install-unwind install-cxxabi install-cxx >"$work/runtimes.build.log" 2>&1 ||
    { tail -n 30 "$work/runtimes.build.log"; fail "C++ runtime: build failed"; }
say "libc++, libc++abi, libunwind built"

# --- Proof that the kit links: a C++ program with exceptions, thread_local and a 128-bit long double.
probe="$work/probe"
mkdir -p "$probe"
cat >"$probe/probe.cpp" <<'EOF'
#include <stdexcept>
#include <string>
thread_local int counter;
int main(int argc, char **) {
    long double wide = argc;
    try {
        if (++counter > 0) throw std::runtime_error(std::to_string(static_cast<double>(wide)));
    } catch (const std::exception &e) {
        return e.what()[0] == '1' ? 0 : 1;
    }
    return 2;
}
EOF
printf 'cmake_minimum_required(VERSION 3.22)\nproject(probe CXX)\nadd_executable(probe probe.cpp)\n' \
    >"$probe/CMakeLists.txt"
if ! { cmake -S "$probe" -B "$probe/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$kit/handset.toolchain.cmake" \
        -DCMAKE_BUILD_TYPE=Release && cmake --build "$probe/build"; } >"$work/probe.log" 2>&1; then
    cat "$work/probe.log"
    fail "a C++ program does not link with the kit"
fi
llvm-readelf-14 -d "$probe/build/probe" | grep -q 'NEEDED.*libc.so' || fail "the probe program needs no libc.so"

echo "llvm-toolchain-14 $version; key $key; built $(date -u +%FT%TZ) in $(( $(date +%s) - start )) s" >"$kit/.complete"
rm -rf "$work"
copy_out
say "kit $upstream-$key built in $(( $(date +%s) - start )) s, cached in $kit"
