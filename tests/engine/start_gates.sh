#!/bin/bash
# The start-up gates run in order, with the right arguments, in a PIE, a non-PIE and a stripped executable:
# __libc_early_init, then the executable's _init, then its constructors, then main.
#   start_gates.sh <kel> <gate tool> <program>...
set -u
kel=$1 tool=$2
shift 2
expected="gate __libc_early_init
gate _init of exe: argc=3 argv[1]=first env=yes
constructor
main with arguments"
failures=0
for program in "$@"; do
  out=$("$kel" -t "$tool" -- "$program" first second)
  if [ "$out" != "$expected" ]; then
    echo "FAIL $(basename "$program"):"
    echo "$out"
    failures=$((failures + 1))
  else
    echo "ok   $(basename "$program")"
  fi
done
[ $failures -eq 0 ]
