#!/usr/bin/env bash
# The watchdog keeping a misbehaving agent alive, in about half a minute.
#
# Builds quillmorWD, the log viewer and the demo agent programs, lays out a
# demo installation under build/demo and runs the real watchdog on it in a
# private mount namespace whose /var is a fresh tmpfs (the sockets live
# there; the host's /var is never touched). The demo agent plays its scenes:
# commands and a restart on request, three crashes that the watchdog answers
# with restarts, growing delays and safe mode, then back to normal mode; a
# SIGTERM ends the watchdog cleanly. The log is printed through qwd-log and
# the story is checked: the exit status is 0 only when it happened as told.
# With --layout it stops once the installation is laid out.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
demo=$root/build/demo
build=${QWD_BUILD_DIR:-build/plain}  # the build tree, relative to the checkout
bin=$root/$build
story_limit_sec=90

# Inside the namespace: run the watchdog through the story, then SIGTERM.
if [ "${1:-}" = "--story" ]; then
  waited=0
  until_line() {  # text: waits until the console shows it; false after the limit or an exit
    until grep -qF "$1" "$demo/console.log"; do
      kill -0 "$wd" 2>/dev/null || return 1
      sleep 0.2
      waited=$((waited + 1))
      [ "$waited" -lt $((story_limit_sec * 5)) ] || return 1
    done
  }
  "$bin/watchdog/quillmorWD" -f "$demo/watchdog.cfg" >>"$demo/console.log" 2>&1 &
  wd=$!
  # The last scene: the agent back in normal mode, only heartbeating.
  if until_line "scene: quiet"; then sleep 3; else echo "demo: the story stalled" >>"$demo/console.log"; fi
  echo "demo: sending SIGTERM to quillmorWD ($wd)" >>"$demo/console.log"
  kill -TERM "$wd" 2>/dev/null || true
  for _ in $(seq 150); do kill -0 "$wd" 2>/dev/null || break; sleep 0.2; done
  kill -KILL "$wd" 2>/dev/null || true
  set +e
  wait "$wd"
  echo $? >"$demo/exit-status"
  exit 0
fi

if ! command -v cmake >/dev/null || ! command -v ninja >/dev/null || ! command -v g++ >/dev/null; then
  if [ "$(id -u)" = 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev
  else
    echo "cmake, ninja-build and g++ are needed (run as root to install them)" >&2
    exit 1
  fi
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target quillmorWD qwd-log qwd-demo-agent qwd-demo-system-exec

# The installation: one version directory named after the watchdog's version.
version=$(sed -n 's/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p' common/version.h |
  paste -sd.).$(sed -n 's/.*kQuillmorBuildNumber\[\] = "\([0-9]*\)";/\1/p' common/version.h)
vdir=$demo/versions/$version
rm -rf "$demo"
mkdir -p "$vdir" "$demo/versions/1.0.0.1" "$demo/run/lib" "$demo/log"
cp "$bin/tools/demo/qwd-demo-agent" "$vdir/quillmorUserAgent"
cp "$bin/tools/demo/qwd-demo-system-exec" "$vdir/quillmorSystemExec"
echo "demo: no kernel module in this demo" >"$vdir/quillmorKernelAgent"
: >"$vdir/libquillmor-demo.so"
for script in cleanup.sh:"cleanup.sh: the agent's leftovers are cleaned up" \
  quillmor_control.sh:"quillmor_control.sh: \$*" quillmor_teardown.sh:"quillmor_teardown.sh: \$*"; do
  printf '#!/bin/sh\necho "%s"\n' "${script#*:}" >"$vdir/${script%%:*}"
done
chmod 0755 "$vdir"/*
cat >"$demo/watchdog.cfg" <<CFG
# The demo installation, everything under $demo; short restart policies.
agentSymLinkPath=$demo/run/quillmorUserAgent
systemExecSymLinkPath=$demo/run/quillmorSystemExec
moduleSymLinkPath=$demo/run/quillmorKernelAgent
controlScriptPath=$demo/run/quillmor_control.sh
teardownScriptPath=$demo/run/quillmor_teardown.sh
libPath=$demo/run/lib
downloadDir=$demo/versions
wdLogDir=$demo/log
pidFilePath=$demo/run/
localVersionPath=$vdir
# A restart after every crash is delayed 2 s more than the one before; the
# third crash within two minutes switches to safe mode.
Normal1NumEvents=3
Normal1DurationSec=120
Normal1Result=2
Normal2NumEvents=1
Normal2DurationSec=120
Normal2Result=1
DelayTimeIncreaseSec=2
MaxDelayPeriodSec=10
SleepOnCriticalErrorSec=5
CriticalErrorRetries=1
CFG
# --layout: the installation only, for scripts that run the watchdog their own way.
[ "${1:-}" != "--layout" ] || exit 0

echo "== quillmorWD $version on $demo (about 30 s; the programs' own lines follow)"
touch "$demo/console.log"
tail -n +1 -f "$demo/console.log" &
tail_pid=$!
trap 'kill "$tail_pid" 2>/dev/null || true' EXIT
namespace=(unshare --mount --propagation private)
[ "$(id -u)" = 0 ] || namespace=(unshare --user --map-root-user --mount --propagation private)
"${namespace[@]}" sh -c 'mount -t tmpfs qwd-demo-var /var && exec bash "$0" --story' "$0"
sleep 0.5
kill "$tail_pid" 2>/dev/null || true

echo
echo "== the watchdog's log, through qwd-log (INFO and above)"
"$bin/tools/qwd-log/qwd-log" --level INFO "$demo/log" | tee "$demo/log.txt"

# The story, in order, as the watchdog logged it.
milestones=(
  "Found previous version dir '1.0.0.1', removing it"
  "Launched process 'quillmorSystemExec'"
  "Launched process 'quillmorUserAgent'"
  "Changed log level for component 228 to VERBOSE(1)"
  "Increased log generation, previous log generation 0"
  "System memory limit is set: Memory [65536] bytes, trigger safe mode[False]"
  "Going to sleep for 500 msecs before stopping entities"
  "Entity 'quillmorUserAgent' status is"
  "Current or previous policy violation resulted in sleeping 2 seconds"
  "Current or previous policy violation resulted in sleeping 4 seconds"
  "Switching operational mode 0 -> 1 after current mode cleanup"
  "Changing operational mode 1 -> 0"
  "Switching operational mode 1 -> 0 after current mode cleanup"
  "Termination signal received! exit..."
  "WatchDog exits (status 0)..."
)
"$bin/tools/qwd-log/qwd-log" "$demo/log" >"$demo/log-all.txt"
missing=0
line=0
for milestone in "${milestones[@]}"; do
  found=$(tail -n +$((line + 1)) "$demo/log-all.txt" | grep -nF -m1 "$milestone" | cut -d: -f1 || true)
  if [ -z "$found" ]; then
    echo "demo: MISSING (in this order): $milestone"
    missing=$((missing + 1))
  else
    line=$((line + found))
  fi
done
if ! grep -qF '{"account_id": "demo-account"}' "$demo"/log/*WatchdogLogger*; then
  echo "demo: MISSING: the account id demo-account in the log files' headers"
  missing=$((missing + 1))
fi
status=$(cat "$demo/exit-status" 2>/dev/null || echo none)
echo
echo "== files: installation $demo/run -> $vdir, configuration $demo/watchdog.cfg,"
echo "   logs $demo/log (read them with: $bin/tools/qwd-log/qwd-log [--json] $demo/log),"
echo "   the programs' output $demo/console.log"
if [ "$missing" -ne 0 ] || [ "$status" != 0 ]; then
  echo "demo: the story did not happen as expected ($missing steps missing, quillmorWD exit status $status)"
  exit 1
fi
echo "demo: the story happened as expected; quillmorWD exited with status 0"
