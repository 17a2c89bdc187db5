#!/usr/bin/env bash
# quillmorWD beside runit's runsv and s6's s6-supervise, measured side by side
# in one run on this machine. Each supervises the same small static child
# (bench/heartbeat_child.cc on the client library: under quillmorWD the agent
# and the system-exec process, heartbeating every 2 s; under runsv and s6 the
# service itself, exec'd directly as ./run, so no shell or loader stands
# between the supervisor's exec and the child's first mark).
#
# Prints one FIGURE line per goal, each with the goal beside it:
#   crash (kill -9 of the agent) to the new child's start, median over kills
#     spread evenly over the 2 s heartbeat cycle, and its parts for one
#     traced crash (noticing, stop, cleanup, launch);
#   clean shutdown: SIGTERM to exit, well-behaved children;
#   idle system calls and CPU (schedstat, ns) per 2 s, worst of the windows;
#   Private_Dirty; stripped size.
# The watchdog runs its release build as the router presets make it (-Os,
# link-time optimisation, static C++ runtime), with the restart policies off,
# in private mount and pid namespaces with a tmpfs on /var; runsv and s6 run
# in the same namespaces.
#   bash bench/compare_supervisors.sh [build dir]
# QWD_BENCH_WINDOW_SEC (30), QWD_BENCH_WINDOWS (3) and QWD_BENCH_KILLS (12)
# shorten it for a smoke run.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(realpath -m "${1:-build/compare-router}")
export window=${QWD_BENCH_WINDOW_SEC:-30} windows=${QWD_BENCH_WINDOWS:-3} kills=${QWD_BENCH_KILLS:-12}

need=()
command -v runsv >/dev/null || need+=(runit)
command -v s6-supervise >/dev/null || need+=(s6)
command -v strace >/dev/null || need+=(strace)
if [ ${#need[@]} -gt 0 ]; then
  [ "$(id -u)" = 0 ] || { echo "missing ${need[*]} (run as root to install)" >&2; exit 1; }
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null ||
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null; }
fi

# Built as the router presets build: for size, with link-time optimisation,
# the C++ runtime static and unused sections dropped.
link="-static-libstdc++ -static-libgcc -Wl,--gc-sections"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON \
  -DQWD_BUILD_TESTS=OFF -DQWD_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-ffunction-sections -fdata-sections" -DCMAKE_EXE_LINKER_FLAGS="$link" >/dev/null
cmake --build "$build" --target quillmorWD qwd_client >/dev/null
sync  # a fresh build's pages are dirty in the page cache, and would count as the binary's own
export work
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
child=$work/heartbeat_child
"${CXX:-g++}" -std=c++20 -O2 -static -I"$repo" bench/heartbeat_child.cc -o "$child" \
  "$build/client/libqwd_client.a" "$build/ipc/libqwd_ipc.a" "$build/common/libqwd_common.a" -lpthread

version=$(sed -n "s/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p" common/version.h | paste -sd.).$(sed -n "s/.*kQuillmorBuildNumber\[\] = \"\([0-9]*\)\";/\1/p" common/version.h)
mkdir -p "$work"/{bin,lib,log,run} "$work/dl/$version" "$work/runsv/child" "$work/s6/child"
for name in quillmorUserAgent quillmorSystemExec; do cp "$child" "$work/dl/$version/$name"; done
printf '#!/bin/sh\nexit 0\n' > "$work/dl/$version/cleanup.sh"
chmod 755 "$work/dl/$version/cleanup.sh"
{
  for pair in agent:quillmorUserAgent systemExec:quillmorSystemExec module:quillmorKernelAgent; do
    echo "${pair%%:*}SymLinkPath=$work/bin/${pair#*:}"
  done
  echo "controlScriptPath=$work/bin/quillmor_control.sh"
  echo "teardownScriptPath=$work/bin/quillmor_teardown.sh"
  echo "libPath=$work/lib"; echo "downloadDir=$work/dl"; echo "wdLogDir=$work/log"; echo "pidFilePath=$work/run/"
  for mode in Normal Safe; do for i in 1 2 3; do echo "${mode}${i}NumEvents=0"; echo "${mode}${i}Result=0"; done; done
} > "$work/wd.cfg"
for sv in runsv s6; do cp "$child" "$work/$sv/child/run"; done
strip -o "$work/quillmorWD.stripped" "$build/watchdog/quillmorWD"
sizes="$(stat -c %s "$work/quillmorWD.stripped") $(stat -c %s "$(command -v runsv)") $(stat -c %s "$(command -v s6-supervise)")"
export sizes wd_binary=$build/watchdog/quillmorWD

ns="unshare --mount --propagation private --pid --fork --mount-proc"
[ "$(id -u)" = 0 ] || ns="unshare --user --map-root-user --mount --propagation private --pid --fork --mount-proc"
$ns bash -euo pipefail ${QWD_BENCH_TRACE:+-x} "$repo/bench/compare_supervisors_run.sh"
