#!/usr/bin/env bash
# Builds quillmorWD and runs it on a demo installation under build/demo.
set -euo pipefail
cd "$(dirname "$0")/.."

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

cmake -S . -B build/plain -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/plain --target quillmorWD

demo=$PWD/build/demo
mkdir -p "$demo/log"
cat > "$demo/watchdog.cfg" <<CFG
# Demo installation: everything under $demo
downloadDir=$demo/versions
libPath=$demo/lib
wdLogDir=$demo/log
pidFilePath=$demo/
agentSymLinkPath=$demo/quillmorUserAgent
systemExecSymLinkPath=$demo/quillmorSystemExec
CFG

set +e
build/plain/watchdog/quillmorWD -f "$demo/watchdog.cfg"
status=$?
set -e
echo "quillmorWD exited with status $status"
