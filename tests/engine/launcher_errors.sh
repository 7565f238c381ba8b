#!/bin/bash
# The launcher's answers to bad command lines: each names the bad input and fails.
#   launcher_errors.sh <kel> <a tool> <a shared object without main> <a 32-bit program>
set -u
kel=$1 tool=$2 no_main=$3 program=$4
failures=0
expect_error() {  # expect_error <expected text> <kel arguments...>
  local expected=$1
  shift
  local out
  out=$("$kel" "$@" 2>&1)
  local rc=$?
  if [ $rc -eq 0 ] || [[ "$out" != *"$expected"* ]]; then
    echo "FAIL kel $*: exit $rc, said: $out"
    failures=$((failures + 1))
  else
    echo "ok   $expected"
  fi
}
expect_error "no tool: give one with -t <tool.so>" -- "$program"
expect_error "no program: give it after '--'" -t "$tool"
expect_error "tool '/no/such/tool.so' not found" -t /no/such/tool.so -- "$program"
expect_error "exports no main()" -t "$no_main" -- "$program"
expect_error "program 'no-such-program' not found" -t "$tool" -- no-such-program
expect_error "unknown switch '-bogus' for tool" -t "$tool" -bogus 1 -- "$program"
expect_error "the tool's main() returned 1 without starting the program" -t "$tool" -bogus 1 -- "$program"
expect_error "unknown engine switch '-bogus'" -bogus 1 -t "$tool" -- "$program"
if [ -e /bin/ls ] && file -L /bin/ls | grep -q x86-64; then
  expect_error "is not a 32-bit x86 program" -t "$tool" -- /bin/ls
fi
[ $failures -eq 0 ]
