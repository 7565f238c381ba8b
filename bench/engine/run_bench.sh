#!/bin/bash
# Engine figures: start-up of an empty 32-bit program under kel against alone, and the cost of one
# pass-through probe on a hot call.
#   run_bench.sh <build dir>
set -eu
build=${1:-build}
kel=$build/bin/kel
dir=$build/bench/engine
runs=41

# median_ms <command...>: median wall time of $runs runs, in milliseconds.
median_ms() {
  local times=()
  for _ in $(seq $runs); do
    local t0 t1
    t0=$(date +%s%N)
    "$@" > /dev/null
    t1=$(date +%s%N)
    times+=($(( (t1 - t0) / 1000 )))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk -v n=$runs 'NR == int(n / 2) + 1 { printf "%.2f", $1 / 1000 }'
}

# cpu_ms <command...>: mean CPU time (task clock) over $runs runs, less sensitive to a loaded machine.
cpu_ms() {
  if command -v perf > /dev/null; then
    perf stat -x, -r $runs -e task-clock "$@" 2>&1 > /dev/null | awk -F, '/task-clock/ { printf "%.2f", $1 }'
  else
    echo "?"
  fi
}

alone=$(median_ms "$dir/kel_bench_empty_app")
under=$(median_ms "$kel" -t "$dir/kel_bench_empty_tool.so" -- "$dir/kel_bench_empty_app")
echo "start-up, empty program: alone ${alone} ms, under kel (empty tool) ${under} ms," \
     "ratio $(awk -v a="$alone" -v b="$under" 'BEGIN { printf "%.1f", b / a }') (wall, median of $runs)"
cpu_alone=$(cpu_ms "$dir/kel_bench_empty_app")
cpu_under=$(cpu_ms "$kel" -t "$dir/kel_bench_empty_tool.so" -- "$dir/kel_bench_empty_app")
echo "start-up CPU time: alone ${cpu_alone} ms, under kel ${cpu_under} ms (launcher + engine + tool + program)"

sweep=$build/tests/engine/kel_sweep_tool.so
if [ -e "$sweep" ]; then
  all=$(median_ms "$kel" -t "$sweep" -o /dev/null -- "$dir/kel_bench_empty_app")
  echo "start-up with every safe libc routine probed (sweep tool): ${all} ms"
fi

"$dir/kel_bench_hot_app" > "$dir/hot.alone"
"$kel" -t "$dir/kel_bench_probe_tool.so" -- "$dir/kel_bench_hot_app" > "$dir/hot.probed"
for what in hot_call_ns lock_pair_ns; do
  a=$(awk -v k=$what '$1 == k { print $2 }' "$dir/hot.alone")
  p=$(awk -v k=$what '$1 == k { print $2 }' "$dir/hot.probed")
  echo "$what: unprobed $a ns, with a pass-through probe $p ns, probe cost" \
       "$(awk -v a="$a" -v p="$p" 'BEGIN { printf "%.2f", p - a }') ns/call"
done

model=$dir/kel_image_model_bench
if [ -x "$model" ]; then
  # The model of one image (ELF reading, then sections, symbols, routines and the name index), in-process.
  "$model" --benchmark_filter='CreateImage/libc|CreateImage/loader|CreateVdso|ReadElf/libc' 2>/dev/null |
    awk '/^BM_/ { printf "image model %s: %s %s\n", $1, $2, $3 }'
fi
