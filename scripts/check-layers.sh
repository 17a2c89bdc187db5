#!/usr/bin/env bash
# Fails when a source file includes a header of a layer it must not see.
# The layers, lowest first; each line names what a room may include. The
# SDK (client/) needs nothing of the daemon, and nothing below the daemon
# knows it exists.
set -euo pipefail
cd "$(dirname "$0")/.."

allowed() {  # room: the rooms its includes may name
  case $1 in
    common) echo "common" ;;
    ipc) echo "common ipc" ;;
    logger) echo "common logger" ;;
    client) echo "common ipc client" ;;
    watchdog) echo "common ipc logger watchdog" ;;
    tools) echo "common ipc logger client tools" ;;
    *) echo "*" ;;  # tests, benchmarks and fuzz targets see everything
  esac
}

bad=0
while IFS= read -r file; do
  room=${file%%/*}
  rooms=$(allowed "$room")
  [ "$rooms" = "*" ] && continue
  while IFS= read -r target; do
    target_room=${target%%/*}
    case " $rooms " in
      *" $target_room "*) ;;
      *) echo "$file includes $target: $room may include only $rooms" >&2; bad=1 ;;
    esac
  done < <(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files '*.h' '*.cc')
[ "$bad" = 0 ] && echo "layers: every include runs downwards"
exit "$bad"
