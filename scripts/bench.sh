#!/usr/bin/env bash
# Builds the tree and runs every benchmark under bench/, printing the figures
# the README quotes. Benchmarks measure this machine; run it on a quiet one.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VORX_BUILD_DIR:-$root/build}
jobs=${VORX_JOBS:-$(nproc)}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs"

for script in "$root"/bench/*/run_bench.sh; do
  [ -f "$script" ] || continue
  echo "== $(basename "$(dirname "$script")")"
  bash "$script" "$build"
done
echo "== peers"; bash "$root/bench/peers/run_peers.sh" "$build"  # not a run_bench.sh: it installs the peer tracers
# Programs built from bench/<folder>/ land in $build/bench; each prints its own table.
for program in "$build"/bench/*; do
  [ -f "$program" ] && [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  "$program"
done
