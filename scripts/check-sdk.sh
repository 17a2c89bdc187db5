#!/usr/bin/env bash
# Builds an agent against the installed SDK alone: installs a build into a
# scratch prefix, copies the consumer project out of the tree and builds it
# there, so that only the installed headers and libraries can be found.
# Usage: scripts/check-sdk.sh [build dir, default build/plain]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/plain}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cp -r tests/sdk "$scratch/consumer"
cmake -S "$scratch/consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build"
echo "sdk: an agent builds from the installed headers and libraries alone"
