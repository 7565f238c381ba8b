#!/bin/bash
# Process events under the engine: dlopen/dlclose are reported, a forked child keeps working with the fork
# callbacks at their three points, an exec'd child runs under the engine again when the follow callback
# says so, and without it when it does not.
#   process_events.sh <kel> <process tool> <program> <plugin> <work dir>
set -u
kel=$1 tool=$2 app=$3 plugin=$4 work=$5
mkdir -p "$work"
failures=0
expect() {  # expect <log> <description> <grep pattern> <count>
  local n
  n=$(grep -cE "$3" "$1")
  if [ "$n" -ne "$4" ]; then
    echo "FAIL $2: $n lines match '$3', expected $4"
    failures=$((failures + 1))
  else
    echo "ok   $2"
  fi
}
for follow in 1 0; do
  log=$work/events.$follow.log
  rm -f "$log"
  echo "== follow $follow"
  if ! "$kel" -t "$tool" -log "$log" -follow $follow -- "$app" "$plugin" 2> "$work/stderr.$follow"; then
    echo "FAIL the program failed under the engine"
    failures=$((failures + 1))
  fi
  expect "$log" "tool main in the first process" "^[0-9]+ tool main: .*kel_proc_app .*plugin.so$" 1
  expect "$log" "tool main in followed programs, with their command line" "^[0-9]+ tool main: .* child-mode$" \
         $((2 * follow))
  expect "$log" "dlopen reported" " load libkel_test_plugin.so$" 2
  expect "$log" "dlclose reported" " unload libkel_test_plugin.so$" 2
  expect "$log" "plugin probed at each load" " probe plugin_sum set$" 2
  expect "$log" "plugin probe called at each load" " call plugin_sum$" 2
  expect "$log" "fork before" " fork before$" 3
  expect "$log" "fork after in parent" " fork parent child=[0-9]+$" 3
  expect "$log" "fork after in child" " fork child$" 3
  expect "$log" "exec of a 64-bit program reported" " exec follow=$follow argc=1: true$" 1
  expect "$work/stderr.$follow" "no loader complaint in children" "ELFCLASS|cannot be loaded" 0
  expect "$log" "exec decisions (execl, posix_spawn)" " exec follow=$follow argc=2: .* child-mode$" 2
  expect "$log" "libc seen by engine in exec'd children" " load libc.so.6$" $((1 + 2 * follow))
done
[ $failures -eq 0 ]
