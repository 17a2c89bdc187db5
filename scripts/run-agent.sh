#!/usr/bin/env bash
# Runs your own agent under the real watchdog, in one line:
#
#   scripts/run-agent.sh [--module IMAGE] [--for SECONDS] AGENT SYSTEM_EXEC [watchdog.cfg]
#
# Lays out an installation for the two programs (and an optional kernel
# module image) under $QWD_RUN_DIR (default build/run-agent), writes the
# configuration that points into it, and runs quillmorWD on it in a private
# mount namespace whose /var is a fresh tmpfs: the watchdog's sockets live in
# /var, and the host's /var is never touched. Works as root, or unprivileged
# through a user namespace. The keys of your watchdog.cfg come after the
# layout's and win (restart policies, dnsServers, ...).
#
# Ctrl-C (or --for SECONDS) sends the watchdog SIGTERM: it stops the agent
# and the system-exec with SIGTERM and exits. The script's exit status is
# the watchdog's.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
run=${QWD_RUN_DIR:-$root/build/run-agent}
build=${QWD_BUILD_DIR:-build/plain}
watchdog=${QWD_WATCHDOG:-$root/$build/watchdog/quillmorWD}

# Inside the namespace: the watchdog in the background (so that the
# terminal's SIGINT reaches only this shell), SIGTERM on Ctrl-C or time-out.
if [ "${1:-}" = "--inside" ]; then
  seconds=$2
  mount -t tmpfs qwd-run-var /var
  "$watchdog" -f "$run/watchdog.cfg" &
  wd=$!
  trap 'kill -TERM "$wd" 2>/dev/null || true' INT TERM
  deadline=$((SECONDS + seconds))
  while kill -0 "$wd" 2>/dev/null; do
    if [ "$seconds" -gt 0 ] && [ "$SECONDS" -ge "$deadline" ]; then
      kill -TERM "$wd" 2>/dev/null || true
      seconds=0
    fi
    sleep 0.2 || true  # Ctrl-C ends the sleep too; the trap has answered it
  done
  status=0
  wait "$wd" || status=$?
  exit "$status"
fi

usage() {
  echo "usage: $0 [--module IMAGE] [--for SECONDS] AGENT SYSTEM_EXEC [watchdog.cfg]" >&2
  exit 2
}
module=""
seconds=0
while [ $# -gt 0 ]; do
  case $1 in
    --module) [ $# -ge 2 ] || usage; module=$2; shift 2 ;;
    --for) [ $# -ge 2 ] || usage; seconds=$2; shift 2 ;;
    -h | --help) usage ;;
    *) break ;;
  esac
done
if [ $# -lt 2 ] || [ $# -gt 3 ]; then usage; fi
agent=$1
system_exec=$2
config=${3:-}
for program in "$agent" "$system_exec"; do
  [ -x "$program" ] || { echo "run-agent: '$program' is not an executable file" >&2; exit 2; }
done
[ -z "$config" ] || [ -r "$config" ] || { echo "run-agent: cannot read '$config'" >&2; exit 2; }
[ -z "$module" ] || [ -r "$module" ] || { echo "run-agent: cannot read '$module'" >&2; exit 2; }
if [ ! -x "$watchdog" ]; then
  cmake -S "$root" -B "$root/$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$root/$build" --target quillmorWD qwd-log
fi

# The version directory is named after the watchdog's version; it holds the
# six files the watchdog links and starts.
version=$(sed -n 's/.*kQuillmorVersion\(Major\|Minor\|Patch\) = \([0-9]*\);/\2/p' \
  "$root/common/version.h" | paste -sd.).$(sed -n \
  's/.*kQuillmorBuildNumber\[\] = "\([0-9]*\)";/\1/p' "$root/common/version.h")
vdir=$run/versions/$version
rm -rf "$run"
mkdir -p "$vdir" "$run/links/lib" "$run/log"
cp "$agent" "$vdir/quillmorUserAgent"
cp "$system_exec" "$vdir/quillmorSystemExec"
if [ -n "$module" ]; then cp "$module" "$vdir/quillmorKernelAgent"; else : >"$vdir/quillmorKernelAgent"; fi
for script in cleanup.sh quillmor_control.sh quillmor_teardown.sh; do
  printf '#!/bin/sh\n# %s: called by the watchdog with its own arguments.\nexit 0\n' "$script" \
    >"$vdir/$script"
done
chmod 0755 "$vdir"/*
{
  echo "# The installation laid out by run-agent.sh under $run."
  for key in agentSymLinkPath:quillmorUserAgent systemExecSymLinkPath:quillmorSystemExec \
    moduleSymLinkPath:quillmorKernelAgent controlScriptPath:quillmor_control.sh \
    teardownScriptPath:quillmor_teardown.sh; do
    echo "${key%%:*}=$run/links/${key#*:}"
  done
  echo "libPath=$run/links/lib"
  echo "downloadDir=$run/versions"
  echo "wdLogDir=$run/log"
  echo "pidFilePath=$run/links/"
  if [ -n "$config" ]; then
    echo "# From $config:"
    cat "$config"
  fi
} >"$run/watchdog.cfg"

echo "run-agent: quillmorWD $version on $run (Ctrl-C stops it)"
echo "run-agent: logs in $run/log: $root/$build/tools/qwd-log/qwd-log $run/log"
namespace=(unshare --mount --propagation private)
[ "$(id -u)" = 0 ] || namespace=(unshare --user --map-root-user --mount --propagation private)
status=0
QWD_WATCHDOG=$watchdog QWD_RUN_DIR=$run "${namespace[@]}" bash "$0" --inside "$seconds" || status=$?
echo "run-agent: quillmorWD exited with status $status; logs in $run/log"
exit "$status"
