#!/usr/bin/env bash
# The measuring half of compare_supervisors.sh, run inside its namespaces with
# $work laid out and $window, $windows, $kills, $sizes and $wd_binary set.
set -euo pipefail
: "${work:?}" "${window:?}" "${windows:?}" "${kills:?}" "${sizes:?}" "${wd_binary:?}"
mount -t tmpfs qwd-compare /var

QWD_BENCH_MARKS=$work/wd.marks "$wd_binary" -f "$work/wd.cfg" >/dev/null & wd=$!
QWD_BENCH_MARKS=$work/runsv.marks runsv "$work/runsv/child" & rs=$!
QWD_BENCH_MARKS=$work/s6.marks s6-supervise "$work/s6/child" & s6=$!

now_us() { local t=$EPOCHREALTIME; echo "${t/./}"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b == 0) print (a == 0 ? "1.00" : "inf"); else printf "%.2f\n", a / b }'; }
figure() {  # what, quillmorWD, runsv, s6, goal
  echo "FIGURE: $1: quillmorWD=$2 runsv=$3 s6=$4 ratio_to_runsv=$(ratio "$2" "$3") goal: $5"
}
cpu_ns() { cat /proc/"$1"/task/*/schedstat | awk '{ s += $1 } END { print s }'; }
calls() { awk '/ total$/ { print $4 ~ /^[0-9]+$/ ? $4 : $3 }' "$1" 2>/dev/null | tail -1; }
count() { grep -c "^$2 $3 " "$1" 2>/dev/null || true; }
last() { grep "^$2 $3 " "$1" | tail -1 | cut -d" " -f"$4"; }
wait_count() {  # file, name, event, count: false after 30 s
  local deadline=$(($(date +%s) + 30))
  until [ "$(count "$1" "$2" "$3")" -ge "$4" ]; do
    [ "$(date +%s)" -lt "$deadline" ] || return 1
    sleep 0.002
  done
}
median() { sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) print "nan"; else printf "%.1f", (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) / 1000 }'; }

wait_count "$work/wd.marks" quillmorUserAgent beat 2
sleep 5

for pid in $wd $rs $s6; do awk '/^Private_Dirty:/ { print $2 }' /proc/"$pid"/smaps_rollup; done | xargs |
  { read -r a b c; figure "Private_Dirty kB" "$a" "$b" "$c" "quillmorWD <= runsv"; }
echo "  quillmorWD Private_Dirty kB by mapping: $(awk '/^[0-9a-f]+-/ { n = $6 ~ /heap|stack/ ? $6 : $6 ~ /quillmorWD/ ? "binary" : $6 == "" ? "anonymous" : "libraries" } /^Private_Dirty/ { kb[n] += $2 } END { for (n in kb) printf "%s=%d ", n, kb[n] }' /proc/$wd/smaps)"

# Idle: CPU in windows without a tracer, then system calls in as many with
# one; the worst window of each counts, per 2 s cycle.
cycles=$((window / 2))
worst_cpu=(0 0 0) worst_calls=(0 0 0)
for _ in $(seq "$windows"); do
  read -r -a before <<< "$(cpu_ns $wd) $(cpu_ns $rs) $(cpu_ns $s6)"
  sleep "$window"
  read -r -a after <<< "$(cpu_ns $wd) $(cpu_ns $rs) $(cpu_ns $s6)"
  for i in 0 1 2; do
    us=$(((after[i] - before[i]) / 1000 / cycles))
    [ "$us" -le "${worst_cpu[i]}" ] || worst_cpu[i]=$us
  done
done
for w in $(seq "$windows"); do
  tracers=()
  for who in wd:$wd rs:$rs s6:$s6; do
    timeout -s INT "$window" strace -c -f -p "${who#*:}" -o "$work/${who%%:*}.$w.strace" 2>/dev/null &
    tracers+=($!)
  done
  wait "${tracers[@]}" || true
  i=0
  for who in wd rs s6; do
    n=$(calls "$work/$who.$w.strace"); per=$(((${n:-0} + cycles - 1) / cycles))
    [ "$per" -le "${worst_calls[i]}" ] || worst_calls[i]=$per
    i=$((i + 1))
  done
done
figure "idle system calls per 2 s, worst ${window} s window" "${worst_calls[@]}" "<= 20"
figure "idle CPU us per 2 s (schedstat), worst ${window} s window" "${worst_cpu[@]}" "<= 100"
echo "  quillmorWD system calls over the last window:"
sed -n '3,$p' "$work/wd.$windows.strace" | sed 's/^/    /'

# Crash to restarted: kills spread evenly over the agent's 2 s heartbeat cycle.
: > "$work/wd.times"; : > "$work/rs.times"; : > "$work/s6.times"
crash() {  # marks file, name, times file: kill -9 the newest child, time until the next start
  local n pid t0
  n=$(count "$1" "$2" start); pid=$(last "$1" "$2" start 4)
  t0=$(now_us); kill -9 "$pid"
  wait_count "$1" "$2" start $((n + 1)) || { echo "no restart after 30 s" >&2; return 1; }
  echo "$(($(last "$1" "$2" start 3) - t0))" >> "$3"
}
for k in $(seq 0 $((kills - 1))); do
  n=$(count "$work/wd.marks" quillmorUserAgent beat)
  wait_count "$work/wd.marks" quillmorUserAgent beat $((n + 1))
  sleep "$(awk -v k="$k" -v n="$kills" 'BEGIN { printf "%.3f", 2 * k / n }')"
  crash "$work/wd.marks" quillmorUserAgent "$work/wd.times"
  crash "$work/runsv.marks" run "$work/rs.times"
  crash "$work/s6.marks" run "$work/s6.times"
done
figure "crash to the new child's start ms, median of $kills kills over the 2 s cycle" \
  "$(median < "$work/wd.times")" "$(median < "$work/rs.times")" "$(median < "$work/s6.times")" "<= 20"
echo "  quillmorWD, every kill (ms): $(sort -n "$work/wd.times" | awk '{ printf "%.1f ", $1 / 1000 }')"

# One more crash under strace, to tell where the time goes.
n=$(count "$work/wd.marks" quillmorUserAgent beat)
wait_count "$work/wd.marks" quillmorUserAgent beat $((n + 1))
strace -f -ttt -e trace=poll,ppoll,kill,execve,wait4,waitid -p $wd -o "$work/crash.strace" 2>/dev/null & tracer=$!
sleep 1
t0=$(now_us)
crash "$work/wd.marks" quillmorUserAgent /dev/null
sleep 0.5; kill -INT $tracer; wait $tracer || true
awk -v t0="$t0" -v wd=$wd '
  { t = $2 * 1e6 }
  !kill && / kill\(/ && t > t0 { kill = t }
  kill && !sh && /execve\(.*bin\/sh/ { sh = t }
  sh && !shdone && $1 == wd && /wait4\(/ && / = [1-9][0-9]*$/ && t > sh { shdone = t }
  shdone && !launch && /execve\(.*quillmorUserAgent/ { launch = t }
  END {
    if (!launch) { print "  parts: not found in the trace"; exit }
    printf "  quillmorWD parts of one traced crash (ms, slowed by the tracer): noticing %.1f, stop %.1f, cleanup %.1f, launch %.1f\n",
      (kill - t0) / 1000, (sh - kill) / 1000, (shdone - sh) / 1000, (launch - shdone) / 1000
  }' "$work/crash.strace"

# Shutdown: SIGTERM to exit.
n=$(count "$work/wd.marks" quillmorUserAgent beat)
wait_count "$work/wd.marks" quillmorUserAgent beat $((n + 1))
t0=$(now_us); kill -TERM $wd; wait $wd || true; t1=$(now_us)
echo "FIGURE: clean shutdown ms (SIGTERM to exit): quillmorWD=$(awk -v d=$((t1 - t0)) 'BEGIN { printf "%.1f", d / 1000 }') goal: <= 50"
read -r a b c <<< "$sizes"
figure "stripped size kB (x86-64; s6 needs its 200 kB library too)" $((a / 1024)) $((b / 1024)) $((c / 1024)) "<= 150"
printf dx > "$work/runsv/child/supervise/control"
s6-svc -dx "$work/s6/child" 2>/dev/null || kill -TERM $s6
wait || true
