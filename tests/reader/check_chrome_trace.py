#!/usr/bin/env python3
"""Reads a Chrome trace that `vorx report --chrome` wrote and checks what viewers rely on:

  - the file is JSON with a traceEvents list;
  - every pid and every (pid, tid) with slices is named by an "M" event;
  - "X" events have ts >= 0 and dur >= 0 and are properly nested on each thread: a slice that
    starts inside another ends inside it too;
  - "C" events carry a numeric value;
  - "P" (CPU sample) events name a frame of the top-level stackFrames, whose parents are frames too,
    and their threads are named.

    check_chrome_trace.py <trace.json> [expected X count] [expected C count]

Prints the counts and exits 1 with the reason on the first fault.
"""
import json
import sys
from collections import defaultdict


def fail(msg):
    print("check_chrome_trace: " + msg)
    sys.exit(1)


def check_nesting(key, slices):
    # Same order as the viewers: by start, the longer first.
    slices.sort(key=lambda e: (e["ts"], -e["dur"]))
    stack = []
    for e in slices:
        end = e["ts"] + e["dur"]
        while stack and stack[-1][1] <= e["ts"] and not (stack[-1][0] == stack[-1][1] == e["ts"]):
            stack.pop()
        if stack and end > stack[-1][1] + 1e-6:
            fail("%s: %r [%.3f, %.3f] overlaps the end of its parent %r [%.3f, %.3f]"
                 % (key, e["name"], e["ts"], end, stack[-1][2], stack[-1][0], stack[-1][1]))
        stack.append((e["ts"], end, e["name"]))


def main(argv):
    with open(argv[1]) as f:
        doc = json.load(f)
    events = doc.get("traceEvents")
    if not isinstance(events, list):
        fail("no traceEvents list")
    named_pids, named_threads = set(), set()
    slices = defaultdict(list)
    counters = 0
    frames = doc.get("stackFrames", {})
    for fid, frame in frames.items():
        if not frame.get("name") or ("parent" in frame and frame["parent"] not in frames):
            fail("stack frame %r without a name or with an unknown parent" % fid)
    sampled = set()
    for e in events:
        ph = e.get("ph")
        if ph == "M":
            if e["name"] == "process_name":
                named_pids.add(e["pid"])
            elif e["name"] == "thread_name":
                named_threads.add((e["pid"], e["tid"]))
            if not e.get("args", {}).get("name"):
                fail("metadata without a name: %r" % e)
        elif ph == "X":
            if e["ts"] < 0 or e["dur"] < 0 or not e.get("name"):
                fail("bad complete event %r" % e)
            slices[(e["pid"], e["tid"])].append(e)
        elif ph == "C":
            if not isinstance(e.get("args", {}).get("value"), (int, float)):
                fail("counter without a value: %r" % e)
            counters += 1
        elif ph == "P":
            if e.get("sf") not in frames or e["ts"] < 0:
                fail("sample without a known stack frame: %r" % e)
            sampled.add((e["pid"], e["tid"]))
        else:
            fail("unexpected phase %r" % ph)
    for key, s in slices.items():
        if key[0] not in named_pids or key not in named_threads:
            fail("pid/tid %r has slices but no name" % (key,))
        check_nesting(key, s)
    for key in sampled:
        if key[0] not in named_pids or key not in named_threads:
            fail("pid/tid %r has samples but no name" % (key,))
    total = sum(len(s) for s in slices.values())
    print("slices %d counters %d threads %d processes %d" % (total, counters, len(slices), len(named_pids)))
    if len(argv) > 2 and total != int(argv[2]):
        fail("expected %s slices, found %d" % (argv[2], total))
    if len(argv) > 3 and counters != int(argv[3]):
        fail("expected %s counter events, found %d" % (argv[3], counters))


if __name__ == "__main__":
    main(sys.argv)
