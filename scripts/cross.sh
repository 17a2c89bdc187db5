#!/usr/bin/env bash
# Cross stage for one router CPU: builds quillmorWD and its tests with Debian's
# cross compiler and runs the tests under the CPU's qemu user emulator. Tests
# that run a child of the build (label exec_child) need binfmt_misc, to hand
# that child to qemu; without it (not root, or not in the kernel) they are
# skipped, and said so. Ends with the stripped size of the router binary.
#   scripts/cross.sh mips|mipsel|armhf|aarch64
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)

arch=${1:-}
case $arch in  # preset: Debian triple, qemu name
  mips) triple=mips-linux-gnu qemu=mips ;;
  mipsel) triple=mipsel-linux-gnu qemu=mipsel ;;
  armhf) triple=arm-linux-gnueabihf qemu=arm ;;
  aarch64) triple=aarch64-linux-gnu qemu=aarch64 ;;
  *) echo "usage: $0 mips|mipsel|armhf|aarch64" >&2 && exit 2 ;;
esac
sysroot=/usr/$triple

packages=("g++-$triple" qemu-user-static)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "== $arch cross stage skipped: missing ${missing[*]} (run as root to install)" >&2
    exit 0
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# binfmt_misc, when root and the kernel has it: our own entry for the CPU's
# programs (the newest entry is tried first), removed when the stage ends. Its
# interpreter (flag P) runs qemu under the program's own path as argv[0], so
# that /proc/<pid>/cmdline names the program, as on the router, where the
# watchdog checks it; the emulator's own path would fail that check.
binfmt=/proc/sys/fs/binfmt_misc
entry=$binfmt/qwd-$arch
scratch=$(mktemp -d "/dev/shm/qwd-$arch-XXXXXX")
chmod 755 "$scratch"  # tests connect as another user below it
cleanup() {
  rm -rf "$scratch"
  [ ! -e "$entry" ] || echo -1 >"$entry"
}
trap cleanup EXIT
if [ "$(id -u)" = 0 ]; then
  [ -e $binfmt/register ] || mount -t binfmt_misc binfmt_misc $binfmt 2>/dev/null || true
  [ ! -e "$entry" ] || echo -1 >"$entry"
  printf '#!/bin/bash\nprogram=$1 name=$2\nshift 2\nexec -a "$program" qemu-%s-static -L %s -0 "$name" "$program" "$@"\n' \
    "$qemu" "$sysroot" >"$scratch/interpreter"
  chmod 755 "$scratch/interpreter"
  magic=$(sed -n 's/^magic //p' "/usr/share/binfmts/qemu-$qemu")
  mask=$(sed -n 's/^mask //p' "/usr/share/binfmts/qemu-$qemu")
  [ ! -e $binfmt/register ] ||
    echo ":qwd-$arch:M:0:$magic:$mask:$scratch/interpreter:P" >$binfmt/register || true
fi

# Google Test for the CPU, from the sources that libgtest-dev ships.
toolchain=$PWD/cmake/toolchains/$triple.cmake
if [ ! -f "build/$arch/googletest/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "build/$arch/googletest-build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DCMAKE_INSTALL_PREFIX="$PWD/build/$arch/googletest" >/dev/null
  cmake --build "build/$arch/googletest-build" -j2
  cmake --install "build/$arch/googletest-build" >/dev/null
fi

cmake --preset "$arch-static" >/dev/null
cmake --build "build/$arch-static" -j2 --target quillmorWD

# Probe with the fully static binary: it needs no loader, only the kernel's hand-over.
if [ -e "$entry" ] && { "build/$arch-static/watchdog/quillmorWD" >/dev/null 2>&1 || [ $? = 255 ]; }; then
  echo "== binfmt_misc hands $arch programs to qemu: every test runs, children too"
  emulator=""
  skip=()
else
  echo "== no binfmt_misc for $arch programs (not root, or not in this kernel):"
  emulator="$(command -v "qemu-$qemu-static");-L;$sysroot"
  skip=(-LE exec_child)
fi
cmake --preset "$arch" -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator" >/dev/null
cmake --build "build/$arch" -j2
[ -z "$emulator" ] ||
  (cd "build/$arch" && ctest -N -L exec_child | sed -n "s/^ *Test *#[0-9]*: /   skipped, it runs a $arch child: /p")

# qemu-user runs a 32-bit program on a 64-bit kernel, which hands out 64-bit
# directory offsets on ext4 that a 32-bit readdir rejects; tmpfs has small
# ones, as a router's own kernel would give. qemu also maps a guest's whole
# 8 MB stack up front where a router maps what was used: a crash trace that
# strays into the stack would read all of it, two system calls per word.
export QEMU_STACK_SIZE=1048576
(cd "build/$arch" && TMPDIR=$scratch ctest --output-on-failure --no-tests=error -j2 "${skip[@]}")

echo "== fully static quillmorWD, black-box basics"
QWD_QEMU=qemu-$qemu-static QWD_SYSROOT=$sysroot tests/mips/blackbox.sh "build/$arch-static/watchdog/quillmorWD" "$scratch"

# A router's C library is all the product may need: no C++ runtime, no libatomic.
needed=$("$triple-readelf" -d "build/$arch/watchdog/quillmorWD" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | xargs)
for lib in $needed; do
  case $lib in
    libc.so.* | ld.so.* | ld-linux*) ;;
    *) echo "quillmorWD needs $lib besides the C library" >&2 && exit 1 ;;
  esac
done
size_of() {  # binary: stripped size in bytes
  "$triple-strip" -o "$scratch/stripped" "$1"
  stat -c %s "$scratch/stripped"
}
size=$(size_of "build/$arch/watchdog/quillmorWD")
echo "== stripped $arch quillmorWD: $size bytes (static C++ runtime, needs only $needed)," \
  "$(size_of "build/$arch-static/watchdog/quillmorWD") bytes fully static"
[ "$size" -le 250000 ] || echo "== above the 250 kB goal; README, Cross-building for a router, says what costs most"
echo "== $arch cross stage took $(($(date +%s) - started)) s"
