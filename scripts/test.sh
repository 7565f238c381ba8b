#!/usr/bin/env bash
# Builds the whole tree and runs every test: unit tests, fuzz runs bounded in
# time, and end-to-end runs of real 32-bit programs under the engine and collector.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VORX_BUILD_DIR:-$root/build}
jobs=${VORX_JOBS:-$(nproc)}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs"
cd "$build"
ctest --output-on-failure -j "$jobs" "$@"
