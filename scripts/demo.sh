#!/usr/bin/env bash
# The main job on the bundled example: build the tree, run the example program
# under the collector, and print the report of what its threads did.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VORX_BUILD_DIR:-$root/build}
jobs=${VORX_JOBS:-$(nproc)}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$jobs"

results=$(mktemp -d "${TMPDIR:-/tmp}/vorx-demo-XXXXXX")
echo "== vorx run -c threading,io,memory,task -- examples/contention"
"$build/bin/vorx" run -c threading,io,memory,task -r "$results" -- "$build/bin/contention"
echo
echo "== vorx report $results"
"$build/bin/vorx" report "$results"
echo
echo "Results kept in $results (try: $build/bin/vorx report --dump $results)"
