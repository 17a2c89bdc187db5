#!/usr/bin/env bash
# Cross stage: builds quillmorWD and its tests for 32-bit big-endian MIPS (the
# routers' processor) and runs the tests under qemu-mips-static. Tests that
# execute a MIPS program of their own (label exec_child) need the kernel to
# hand MIPS programs to the emulator (binfmt_misc); without it they are
# skipped, and said so. Ends with the stripped sizes of the router binaries.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)

packages=(g++-mips-linux-gnu qemu-user-static binfmt-support)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "== cross stage skipped: missing ${missing[*]} (run as root to install)" >&2
    exit 0
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# binfmt_misc: qemu's default loader prefix for dynamic MIPS programs is
# /etc/qemu-binfmt/mips; the F flag of Debian's entry keeps the emulator
# usable inside the tests' private mount and pid namespaces.
binfmt=/proc/sys/fs/binfmt_misc
if [ "$(id -u)" = 0 ]; then
  [ -e $binfmt/register ] || mount -t binfmt_misc binfmt_misc $binfmt 2>/dev/null || true
  [ -e $binfmt/qemu-mips ] || update-binfmts --enable qemu-mips 2>/dev/null || true
  [ -e /etc/qemu-binfmt/mips ] || { mkdir -p /etc/qemu-binfmt && ln -s /usr/mips-linux-gnu /etc/qemu-binfmt/mips; }
fi

# Google Test for MIPS, from the sources that libgtest-dev ships.
toolchain=$PWD/cmake/toolchains/mips-linux-gnu.cmake
if [ ! -f build/mips/googletest/lib/cmake/GTest/GTestConfig.cmake ]; then
  cmake -S /usr/src/googletest -B build/mips/googletest-build -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DCMAKE_INSTALL_PREFIX="$PWD/build/mips/googletest" >/dev/null
  cmake --build build/mips/googletest-build -j2
  cmake --install build/mips/googletest-build >/dev/null
fi

cmake --preset mips >/dev/null
cmake --build build/mips -j2
cmake --preset mips-static >/dev/null
cmake --build build/mips-static -j2 --target quillmorWD

# Probe with the fully static binary: it needs no loader, only the kernel's hand-over.
skip=()
if [ "$(head -n1 $binfmt/qemu-mips 2>/dev/null)" = enabled ] &&
  { build/mips-static/watchdog/quillmorWD >/dev/null 2>&1 || [ $? = 255 ]; }; then
  echo "== binfmt_misc hands MIPS programs to qemu: the tests that execute MIPS children run too"
  # A child started through binfmt_misc has the emulator's path as argv[0] in
  # /proc/<pid>/cmdline, so the watchdog's check that it names the binary fails.
  export GTEST_FILTER=-MonitoredProcessTest.ChildIsLaunchedHeardCheckedAndStoppedOnSigterm
  echo "   skipped case ${GTEST_FILTER#-}: the child's cmdline names the emulator"
else
  skip=(-LE exec_child)
  echo "== no binfmt_misc entry for MIPS (not root, or no binfmt_misc in this kernel):"
  (cd build/mips && ctest -N -L exec_child | sed -n 's/^ *Test *#[0-9]*: /   skipped test: /p')
fi

# qemu-user runs a 32-bit program on a 64-bit kernel, which hands out 64-bit
# directory offsets on ext4 that a 32-bit readdir rejects; tmpfs has small
# ones, as a router's own kernel would give.
scratch=$(mktemp -d /dev/shm/qwd-mips-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
(cd build/mips && TMPDIR=$scratch ctest --output-on-failure -j2 "${skip[@]}")

echo "== fully static quillmorWD, black-box basics"
tests/mips/blackbox.sh build/mips-static/watchdog/quillmorWD "$scratch"

# A router's C library is all the product may need: no C++ runtime, no libatomic.
needed=$(mips-linux-gnu-readelf -d build/mips/watchdog/quillmorWD | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | xargs)
for lib in $needed; do
  case $lib in
    libc.so.* | ld.so.*) ;;
    *) echo "quillmorWD needs $lib besides the C library" >&2 && exit 1 ;;
  esac
done
size_of() {  # binary: stripped size in bytes
  mips-linux-gnu-strip -o "$scratch/stripped" "$1"
  stat -c %s "$scratch/stripped"
}
echo "== stripped MIPS quillmorWD: $(size_of build/mips/watchdog/quillmorWD) bytes (static C++ runtime," \
  "needs only $needed), $(size_of build/mips-static/watchdog/quillmorWD) bytes fully static"
echo "== cross stage took $(($(date +%s) - started)) s"
