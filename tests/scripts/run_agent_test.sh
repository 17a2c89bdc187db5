#!/bin/sh
# scripts/run-agent.sh end to end with the demo programs: both are started,
# and a SIGTERM after a few seconds ends the watchdog cleanly (status 0).
set -eu
build=${1:-build/plain}
run=$(mktemp -d)
trap 'rm -rf "$run" "$run.out" "$run.log"' EXIT
QWD_BUILD_DIR=$build QWD_RUN_DIR=$run bash scripts/run-agent.sh --for 4 \
  "$build/tools/demo/qwd-demo-agent" "$build/tools/demo/qwd-demo-system-exec" >"$run.out" 2>&1
"$build/tools/qwd-log/qwd-log" "$run/log" >"$run.log"
for line in "Launched process 'quillmorSystemExec'" "Launched process 'quillmorUserAgent'" \
  "Termination signal received! exit..." "WatchDog exits (status 0)..."; do
  grep -qF "$line" "$run.log" || { echo "run-agent: missing '$line'"; cat "$run.out"; exit 1; }
done
echo "run-agent: both programs started, clean exit"
