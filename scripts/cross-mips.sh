#!/usr/bin/env bash
# Cross stage: builds quillmorWD and its tests for 32-bit big-endian MIPS (the
# routers' processor) and runs the tests under qemu-mips-static. Tests that
# run a MIPS child (label exec_child) need binfmt_misc, to hand that child to
# qemu; without it (not root, or not in the kernel) they are skipped, and said
# so. Ends with the stripped sizes of the router binaries.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)

packages=(g++-mips-linux-gnu qemu-user-static)
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

# binfmt_misc, when root and the kernel has it: our own entry for MIPS
# programs (the newest entry is tried first), removed when the stage ends.
binfmt=/proc/sys/fs/binfmt_misc
scratch=$(mktemp -d /dev/shm/qwd-mips-XXXXXX)
chmod 755 "$scratch"  # tests connect as another user below it
cleanup() {
  rm -rf "$scratch"
  [ ! -e $binfmt/qwd-mips ] || echo -1 >$binfmt/qwd-mips
}
trap cleanup EXIT
if [ "$(id -u)" = 0 ]; then
  [ -e $binfmt/register ] || mount -t binfmt_misc binfmt_misc $binfmt 2>/dev/null || true
  [ ! -e $binfmt/qwd-mips ] || echo -1 >$binfmt/qwd-mips
  magic=$(sed -n 's/^magic //p' /usr/share/binfmts/qemu-mips)
  mask=$(sed -n 's/^mask //p' /usr/share/binfmts/qemu-mips)
  [ ! -e $binfmt/register ] ||
    echo ":qwd-mips:M:0:$magic:$mask:$PWD/tests/mips/binfmt-qemu-mips.sh:P" >$binfmt/register || true
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

cmake --preset mips-static >/dev/null
cmake --build build/mips-static -j2 --target quillmorWD

# Probe with the fully static binary: it needs no loader, only the kernel's hand-over.
if [ -e $binfmt/qwd-mips ] && { build/mips-static/watchdog/quillmorWD >/dev/null 2>&1 || [ $? = 255 ]; }; then
  echo "== binfmt_misc hands MIPS programs to qemu: every test runs, children too"
  emulator=""
  skip=()
else
  echo "== no binfmt_misc for MIPS programs (not root, or not in this kernel):"
  emulator="$(command -v qemu-mips-static);-L;/usr/mips-linux-gnu"
  skip=(-LE exec_child)
fi
cmake --preset mips -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator" >/dev/null
cmake --build build/mips -j2
[ -z "$emulator" ] ||
  (cd build/mips && ctest -N -L exec_child | sed -n 's/^ *Test *#[0-9]*: /   skipped, it runs a MIPS child: /p')

# qemu-user runs a 32-bit program on a 64-bit kernel, which hands out 64-bit
# directory offsets on ext4 that a 32-bit readdir rejects; tmpfs has small
# ones, as a router's own kernel would give. qemu also maps a guest's whole
# 8 MB stack up front where a router maps what was used: a crash trace that
# strays into the stack would read all of it, two system calls per word.
export QEMU_STACK_SIZE=1048576
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
size=$(size_of build/mips/watchdog/quillmorWD)
echo "== stripped MIPS quillmorWD: $size bytes (static C++ runtime, needs only $needed)," \
  "$(size_of build/mips-static/watchdog/quillmorWD) bytes fully static"
[ "$size" -le 250000 ] || echo "== above the 250 kB goal; README, Cross-building for a router, says what costs most"
echo "== cross stage took $(($(date +%s) - started)) s"
