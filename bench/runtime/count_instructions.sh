#!/bin/bash
# Instructions a recorded annotation call costs, counted by callgrind: the same on every run, where times on a
# shared machine move by a third. The task-pair program runs under `vorx run -c task` twice, with N and 2N
# pairs; the difference of the two counts, over the 2N records that the extra pairs made, is what one record
# costs: the collector's wrapper, enter and leave, the record, and the call of the original (with the
# program's own loop and the annotation library's few instructions, about 40 of them).
#   count_instructions.sh <build dir> [pairs, 20000 by default] [libvorxtool.so to count instead]
set -eu
build=${1:-build}
pairs=${2:-20000}
tool=${3:-$build/lib/libvorxtool.so}
if ! command -v valgrind > /dev/null; then
  echo "count_instructions.sh: valgrind is needed (scripts/setup.sh installs it)" >&2
  exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The count of the traced program: the biggest of the processes' counts (the others are vorx and the engine).
count() {
  valgrind --tool=callgrind --trace-children=yes --smc-check=all --callgrind-out-file="$work/cg.%p" \
    "$build/bin/vorx" run --tool "$tool" -c task -r "$work/r$1" -- "$build/bench/runtime/vorx_bench_task_pairs" "$1" \
    > /dev/null 2> "$work/log"
  grep -h "Collected" "$work/log" | awk '{ gsub(",", "", $4); print $4 }' | sort -n | tail -n 1
  rm -rf "$work"/cg.* "$work/r$1"
}
one=$(count "$pairs")
two=$(count $((2 * pairs)))
echo "instructions a recorded annotation call (task pairs under -c task, callgrind): $(( (two - one) / (2 * pairs) ))"
