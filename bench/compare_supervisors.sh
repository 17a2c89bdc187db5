#!/usr/bin/env bash
# quillmorWD beside runit's runsv, in one run on this machine, each
# supervising the same small child (bench/heartbeat_child.cc on the client
# library; under quillmorWD it is both the agent and the system-exec
# process, under runsv the service). Prints one line per figure:
#   FIGURE: <what>: quillmorWD=X runsv=Y ratio=Z
# memory after 30 s (smaps_rollup), system calls and CPU per idle 2-second
# cycle over 30 s (strace -c -f -p, /proc/PID/stat and schedstat), and the
# median of 20 crash-to-restarted times after a healthy minute, with its parts.
# The watchdog runs its Release build, linked as for the routers (static C++
# runtime), in private mount and pid namespaces
# (tmpfs on /var) with the restart policies off, so that 20 crashes in a row
# meet no policy delay; runsv runs in the same namespaces.
#   bash bench/compare_supervisors.sh [build dir]
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(realpath -m "${1:-build/compare-router}")

need=()
command -v runsv >/dev/null || need+=(runit)
command -v strace >/dev/null || need+=(strace)
command -v valgrind >/dev/null || need+=(valgrind)
if [ ${#need[@]} -gt 0 ]; then
  [ "$(id -u)" = 0 ] || { echo "missing ${need[*]} (run as root to install)" >&2; exit 1; }
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null ||
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null; }
fi

# Linked as for the routers: the C++ runtime static, unused sections dropped.
link="-static-libstdc++ -static-libgcc -Wl,--gc-sections"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQWD_BUILD_TESTS=OFF -DQWD_BUILD_BENCH=OFF \
  -DCMAKE_EXE_LINKER_FLAGS="$link" >/dev/null
cmake --build "$build" --target quillmorWD qwd_wd_client >/dev/null
sync  # a fresh build's pages are dirty in the page cache, and would count as the binary's own
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
child=$work/heartbeat_child
# shellcheck disable=SC2086 # $link: none, one or more flags
"${CXX:-g++}" -std=c++20 -O2 -I"$repo" bench/heartbeat_child.cc -o "$child" \
  "$build/agent/src/infra/ipc/client/libqwd_wd_client.a" "$build/agent/libqwd_agent_infra.a" \
  "$build/common/libqwd_common.a" -lpthread $link

version=$(sed -n "s/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p" common/version.h | paste -sd.).$(sed -n "s/.*kQuillmorBuildNumber\[\] = \"\([0-9]*\)\";/\1/p" common/version.h)
mkdir -p "$work"/{bin,lib,log,run} "$work/dl/$version" "$work/sv/child"
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
cp "$child" "$work/sv/child/benchChild"
printf '#!/bin/sh\nQWD_BENCH_ALONE=1 QWD_BENCH_MARKS=%s exec %s\n' "$work/runsv.marks" \
  "$work/sv/child/benchChild" > "$work/sv/child/run"
chmod 755 "$work/sv/child/run"

export work
ns="unshare --mount --propagation private --pid --fork --mount-proc"
[ "$(id -u)" = 0 ] || ns="unshare --user --map-root-user --mount --propagation private --pid --fork --mount-proc"
$ns bash -euo pipefail -c '
  mount -t tmpfs qwd-compare /var
  QWD_BENCH_MARKS=$work/wd.marks "'"$build"'/watchdog/quillmorWD" -f "$work/wd.cfg" >/dev/null & wd=$!
  runsv "$work/sv/child" & rs=$!
  started=$(date +%s)
  ratio() { awk -v a="$1" -v b="$2" "BEGIN { if (b == 0) print (a == 0 ? \"1.00\" : \"inf\"); else printf \"%.2f\n\", a / b }"; }
  figure() { echo "FIGURE: $1: quillmorWD=$2 runsv=$3 ratio=$(ratio "$2" "$3")"; }
  cpu_ns() {  # every thread of the process: time on the CPU in ns
    cat /proc/$1/task/*/schedstat | awk "{ s += \$1 } END { print s }"; }
  ticks() { awk "{ print \$14 + \$15 }" /proc/$1/stat; }

  sleep 30
  for key in Private_Dirty Pss Rss; do
    figure "$key kB after 30 s" "$(awk "/^$key:/ { print \$2 }" /proc/$wd/smaps_rollup)" \
      "$(awk "/^$key:/ { print \$2 }" /proc/$rs/smaps_rollup)"
  done

  echo "  quillmorWD Private_Dirty kB by mapping: $(awk "/^[0-9a-f]+-/ { n = \$6 ~ /heap|stack/ ? \$6 : \$6 ~ /quillmorWD/ ? \"binary\" : \$6 == \"\" ? \"anonymous\" : \"libraries\" } /^Private_Dirty/ { kb[n] += \$2 } END { for (n in kb) printf \"%s=%d \", n, kb[n] }" /proc/$wd/smaps)"

  # CPU over 15 idle cycles, without a tracer attached.
  wn=$(cpu_ns $wd); rn=$(cpu_ns $rs); wt=$(ticks $wd); rt=$(ticks $rs)
  sleep 30
  figure "CPU us per idle 2 s cycle (schedstat)" "$(( ($(cpu_ns $wd) - wn) / 15000 ))" "$(( ($(cpu_ns $rs) - rn) / 15000 ))"
  figure "CPU ticks (10 ms) over 30 s (/proc/PID/stat)" "$(( $(ticks $wd) - wt ))" "$(( $(ticks $rs) - rt ))"

  # System calls over the next 15 idle cycles.
  timeout -s INT 30 strace -c -f -p $wd -o "$work/wd.strace" 2>/dev/null & s1=$!
  timeout -s INT 30 strace -c -f -p $rs -o "$work/rs.strace" 2>/dev/null & s2=$!
  wait $s1 $s2 || true
  calls() { awk "/ total\$/ { print \$4 }" "$1" | tail -1; }
  wc=$(calls "$work/wd.strace"); rc=$(calls "$work/rs.strace")
  figure "system calls per idle 2 s cycle" "$(awk -v n="${wc:-0}" "BEGIN { printf \"%.1f\", n / 15 }")" \
    "$(awk -v n="${rc:-0}" "BEGIN { printf \"%.1f\", n / 15 }")"
  echo "quillmorWD system calls over 30 s:"; sed -n "3,\$p" "$work/wd.strace" | sed "s/^/  /"

  # Crash to restarted, after at least a healthy minute.
  while [ $(( $(date +%s) - started )) -lt 60 ]; do sleep 1; done
  count() { grep -c " $2 " "$1" 2>/dev/null || true; }
  last() { grep "$2" "$1" | grep " $3 " | tail -1 | cut -d" " -f"$4"; }
  wait_count() { until [ "$(count "$1" "$2")" -ge "$3" ]; do sleep 0.01; done; }
  now_us() { local t=$EPOCHREALTIME; echo "${t/./}"; }
  : > "$work/times"
  for i in $(seq 20); do
    n=$(count "$work/wd.marks" beat); pid=$(last "$work/wd.marks" quillmorUserAgent beat 4)
    t0=$(now_us); kill -9 "$pid"
    wait_count "$work/wd.marks" beat $((n + 2))
    wbeat=$(last "$work/wd.marks" quillmorUserAgent beat 3); wstart=$(last "$work/wd.marks" quillmorUserAgent start 3)
    n=$(count "$work/runsv.marks" start); pid=$(last "$work/runsv.marks" benchChild start 4)
    t1=$(now_us); kill -9 "$pid"
    wait_count "$work/runsv.marks" start $((n + 1))
    rstart=$(last "$work/runsv.marks" benchChild start 3)
    echo "$((wbeat - t0)) $((wstart - t0)) $((rstart - t1))" >> "$work/times"
    # 2 to 4 s: a random phase against the 2 s watch window each time
    sleep "$((2 + RANDOM % 2)).$((RANDOM % 10))"
  done
  median() { cut -d" " -f"$1" "$work/times" | sort -n | awk "{ v[NR] = \$1 } END { printf \"%.1f\", (v[10] + v[11]) / 2000 }"; }
  figure "crash-to-restarted ms, median of 20" "$(median 1)" "$(median 3)"
  m=$(median 1)
  # The fixed waits of the rules: the rest of the 2 s window of the listener, which a
  # hang-up does not cut short (1000 ms on average at a random phase), then
  # 100 ms after each of the two SIGTERMs of the stop.
  echo "  quillmorWD parts (median ms): kill -9 to the new agent start $(median 2), of which the two fixed 100 ms stop sleeps 200 and the rest of the 2 s watch window with the stop, cleanup and launch work $(awk -v s="$(median 2)" "BEGIN { printf \"%.1f\", s - 200 }"); start to first heartbeat $(awk -v a="$m" -v b="$(median 2)" "BEGIN { printf \"%.1f\", a - b }")"
  echo "  fixed waits the rules impose: 200 ms of stop sleeps + 1000 ms mean rest of the window = 1200 ms; median / fixed waits = $(awk -v m="$m" "BEGIN { printf \"%.2f\", m / 1200 }") (goal 1.2); the stop sleeps alone explain $(awk -v m="$m" "BEGIN { printf \"%.0f\", 20000 / m }")% of the median"
  echo "  quillmorWD crash-to-restarted, all 20 (ms): $(cut -d" " -f1 "$work/times" | sort -n | awk "{ printf \"%.0f \", \$1 / 1000 }")"
  kill -TERM $wd; wait $wd || true
  printf dx > "$work/sv/child/supervise/control"; wait $rs || true
'
