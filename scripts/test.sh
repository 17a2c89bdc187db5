#!/usr/bin/env bash
# Installs what is missing (apt-get, when root), builds everything and runs
# every test twice: plain, and under AddressSanitizer + UndefinedBehaviorSanitizer.
# When clang is there, the fuzz targets are built and run for a short while.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev util-linux python3 runit s6 strace
  valgrind)  # valgrind: the memcheck road of the plain build
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  else
    echo "Missing packages (run as root to install): ${missing[*]}" >&2
  fi
fi

jobs=$(nproc)

bash scripts/check-layers.sh  # no include runs from a lower layer to a higher one

build() {  # name, extra cmake arguments...; every warning fails the build here
  local name=$1; shift
  cmake -S . -B "build/$name" -G Ninja -DQWD_WERROR=ON "$@" >/dev/null
  cmake --build "build/$name" -j "$jobs"
}

run_suite() {  # name, extra cmake arguments...
  build "$@"
  (cd "build/$1" && ctest --output-on-failure -j "$jobs")
}

run_suite plain -DCMAKE_BUILD_TYPE=RelWithDebInfo
timeout 60 sh tests/scripts/run_agent_test.sh build/plain  # your own agent in one line: both start, clean exit
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite sanitized -DCMAKE_BUILD_TYPE=Debug -DQWD_SANITIZE=ON -DQWD_BUILD_BENCH=OFF

# The build types a packager may choose, with both compilers: built (tests
# included), not run, so that a warning or error only they show is caught.
for type in Release MinSizeRel; do build "gcc-$type" -DCMAKE_BUILD_TYPE=$type -DQWD_BUILD_BENCH=OFF; done
if command -v clang++ >/dev/null; then
  for type in Release MinSizeRel RelWithDebInfo; do
    CXX=clang++ build "clang-$type" -DCMAKE_BUILD_TYPE=$type -DQWD_BUILD_BENCH=OFF
  done
fi

if command -v clang++ >/dev/null; then
  CXX=clang++ build fuzz -DQWD_FUZZ=ON -DQWD_BUILD_TESTS=OFF -DQWD_BUILD_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo
  for target in build/fuzz/fuzz/*_fuzz; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    corpus=$(mktemp -d)
    cp -r "fuzz/corpus/$name/." "$corpus/" 2>/dev/null || true
    echo "== fuzzing $name for ${QWD_FUZZ_SECONDS:-20} s"
    # An input that blocks the server for 10 s is a failure, like a crash.
    "$target" -max_total_time="${QWD_FUZZ_SECONDS:-20}" -timeout=10 -print_final_stats=1 \
      "$corpus" 2>&1 | tail -n 12
    rm -rf "$corpus"
  done
fi
for arch in mips mipsel armhf aarch64; do bash scripts/cross.sh "$arch"; done  # router CPUs: tests under qemu, stripped sizes
# A real MIPS crash read back as function and line.
[ ! -x build/mips/tests/mips/qwd_mips_crash_chain ] ||
  sh tests/mips/symbolize.sh build/mips/tests/mips/qwd_mips_crash_chain build/plain/tools/qwd-log/qwd-log
bash scripts/packaging-check.sh  # init files, .deb packages (the SDK's alone), firmware recipes
# The demo story against the real watchdog, bounded, in its own /var namespace:
# fails when the story does not happen.
timeout 240 bash scripts/demo.sh
# The watchdog booted as a device runs it, on Debian's kernel under qemu: a real
# kernel module loaded, verified, unloaded and loaded again, and a real crash dump.
bash scripts/vm-test.sh
# Beside runsv and s6, a short smoke run: the figures are printed, not
# asserted, since this machine is shared and noisy.
QWD_BENCH_WINDOW_SEC=4 QWD_BENCH_WINDOWS=1 QWD_BENCH_KILLS=4 timeout 300 bash bench/compare_supervisors.sh | grep -E '^(FIGURE|  )'
