#!/usr/bin/env bash
# Restart soak: an agent that connects, sends one heartbeat and exits, with
# every restart policy off, for N restart cycles (default 1000). Prints the
# watchdog's open descriptors and Private_Dirty after the first ten cycles
# and after the last: a leak shows as growth between the two.
#   bash bench/soak_restarts.sh [cycles] [build dir]
set -euo pipefail
cycles=${1:-1000}
build=$(realpath "${2:-build/plain}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
version=$(sed -n "s/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p" common/version.h | paste -sd.).$(sed -n "s/.*kQuillmorBuildNumber\[\] = \"\([0-9]*\)\";/\1/p" common/version.h)
mkdir -p "$work"/{bin,lib,log,run,plan} "$work/dl/$version"
for name in quillmorUserAgent quillmorSystemExec; do
  cp "$build/tests/support/qwd_test_child" "$work/dl/$version/$name"
done
printf '#!/bin/sh\nexit 0\n' > "$work/dl/$version/cleanup.sh"
chmod 755 "$work/dl/$version/cleanup.sh"
echo "hb exit 0" > "$work/plan/quillmorUserAgent.plan"
echo "beat" > "$work/plan/quillmorSystemExec.plan"
{
  for pair in agent:quillmorUserAgent systemExec:quillmorSystemExec module:quillmorKernelAgent; do
    echo "${pair%%:*}SymLinkPath=$work/bin/${pair#*:}"
  done
  echo "controlScriptPath=$work/bin/quillmor_control.sh"
  echo "teardownScriptPath=$work/bin/quillmor_teardown.sh"
  echo "libPath=$work/lib"; echo "downloadDir=$work/dl"; echo "wdLogDir=$work/log"
  for mode in Normal Safe; do for i in 1 2 3; do echo "${mode}${i}NumEvents=0"; echo "${mode}${i}Result=0"; done; done
} > "$work/wd.cfg"

sample() {  # pid -> the highest descriptor count and Private_Dirty over one watch cycle
  local fds=0 dirty=0 f d
  for _ in 1 2 3 4 5 6 7 8 9 10; do
    # shellcheck disable=SC2012 # descriptor names are numbers
    f=$(ls "/proc/$1/fd" | wc -l)
    d=$(awk '/^Private_Dirty/ {print $2}' "/proc/$1/smaps_rollup")
    [ "$f" -gt "$fds" ] && fds=$f
    [ "$d" -gt "$dirty" ] && dirty=$d
    sleep 0.2
  done
  echo "fds=$fds private_dirty_kb=$dirty"
}
export -f sample
export QWD_CHILD_PLAN_DIR=$work/plan work cycles build
ns="unshare --mount --propagation private --pid --fork --mount-proc"
[ "$(id -u)" = 0 ] || ns="unshare --user --map-root-user --mount --propagation private --pid --fork --mount-proc"
$ns bash -c '
  mount -t tmpfs qwd-soak /var
  "$build/watchdog/quillmorWD" -f "$work/wd.cfg" >/dev/null & wd=$!
  launches() { { wc -l < "$work/plan/quillmorUserAgent.launches"; } 2>/dev/null || echo 0; }
  until [ "$(launches)" -ge 11 ]; do sleep 0.2; done
  echo "after $(($(launches) - 1)) cycles: $(sample $wd)"
  until [ "$(launches)" -ge $((cycles + 1)) ]; do sleep 1; done
  echo "after $(($(launches) - 1)) cycles: $(sample $wd)"
  echo "zombies: $(ps -eo stat= | grep -c "^Z" || true)"
  kill -TERM $wd; wait $wd; echo "exit status $?"
'
