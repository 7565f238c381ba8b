#!/bin/bash
# The collector's overhead: hot calls natively and under `vorx run`, and the
# slowdown of pigz compressing a fixed file under -c threading,io.
#   run_bench.sh <build dir>
set -eu
build=${1:-build}
vorx=$build/bin/vorx
hot=$build/bench/runtime/vorx_bench_hot_calls
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Two runs under the collector: with thresholds that put the hot calls below them (a 1-byte read is timed
# and dropped, a 16-byte block is not tracked: the cost of looking), and with every call recorded (the
# cost of a record).
collect=threading,io,memory,task
echo "hot calls (ns per operation): native; under vorx run -c $collect with --wait-threshold 1000 --memory-threshold 1024; with every call recorded"
"$hot" > "$work/native"
"$vorx" run -c $collect --wait-threshold 1000 --memory-threshold 1024 -r "$work/r1" -- "$hot" > "$work/filtered" 2>/dev/null
"$vorx" run -c $collect --no-contention-filter --memory-threshold 1 -r "$work/r1b" -- "$hot" > "$work/recorded" 2>/dev/null
join "$work/native" "$work/filtered" | join - "$work/recorded" |
  awk '{ printf "  %-22s %8.1f %8.1f (+%.1f) %8.1f (+%.1f)\n", $1, $2, $3, $3 - $2, $4, $4 - $2 }'

# The CPU a record costs: task pairs under -c task, less the same run with no pair (start-up and end) and less
# the pairs' own cost natively, over the records made (two a pair); user and system time apart, best of five.
# CPU time moves less than wall time on a shared machine; the system part is the writing of the records.
pairs=5000000
tasks=$build/bench/runtime/vorx_bench_task_pairs
cpu_of() {  # user and system seconds of a command, best (lowest sum) of five
  local best="" line
  for _ in 1 2 3 4 5; do
    /usr/bin/time -o "$work/time" -f "%U %S" "$@" > /dev/null 2>&1
    line=$(tail -n 1 "$work/time")
    rm -rf "$work/r3"
    if [ -z "$best" ] || awk -v a="$line" -v b="$best" 'BEGIN { split(a, x); split(b, y); exit !(x[1] + x[2] < y[1] + y[2]) }'; then
      best=$line
    fi
  done
  echo "$best"
}
if [ -x /usr/bin/time ]; then
  traced_empty=$(cpu_of "$vorx" run -c task -r "$work/r3" -- "$tasks" 0)
  traced=$(cpu_of "$vorx" run -c task -r "$work/r3" -- "$tasks" $pairs)
  native=$(cpu_of "$tasks" $pairs)
  awk -v e="$traced_empty" -v t="$traced" -v nat="$native" -v n=$((2 * pairs)) 'BEGIN {
    split(e, a); split(t, b); split(nat, c)
    printf "collector CPU per record (task pairs under -c task, %d records): %.1f ns user, %.1f ns system\n", n,
           (b[1] - a[1] - c[1]) * 1e9 / n, (b[2] - a[2] - c[2]) * 1e9 / n }'
fi

head -c 16000000 /dev/urandom > "$work/data"
# Wall times in milliseconds, best of five rounds; each round runs the native and the traced program one
# after the other, so that a busy spell of a shared machine weighs on both alike.
ms_of() {
  local t0 t1
  t0=$(date +%s%N); "$@" > /dev/null 2>&1; t1=$(date +%s%N)
  echo $(( (t1 - t0) / 1000000 ))
}
native="" traced=""
for round in 1 2 3 4 5; do
  n=$(ms_of /usr/bin/pigz -p 2 -c "$work/data")
  t=$(ms_of "$vorx" run -c threading,io -r "$work/r2.$round" -- /usr/bin/pigz -p 2 -c "$work/data")
  rm -rf "$work/r2.$round"
  if [ -z "$native" ] || [ "$n" -lt "$native" ]; then native=$n; fi
  if [ -z "$traced" ] || [ "$t" -lt "$traced" ]; then traced=$t; fi
done
echo "pigz -p 2 on 16 MB: native ${native} ms, under vorx run -c threading,io ${traced} ms" \
     "(slowdown $(awk -v a="$native" -v b="$traced" 'BEGIN { printf "%.2fx", b / a }'))"

# The same record counted in instructions, which a busy neighbour does not move.
if command -v valgrind > /dev/null; then
  bash "$(dirname "$0")/count_instructions.sh" "$build"
fi
