#!/usr/bin/env python3
"""Checks that every exported entry of libozknotify.so can carry a probe.

A probe overwrites the first five bytes of an entry with a jump and runs the
displaced instructions from a trampoline. So each entry listed in
ozknotify_api.def must be exported, be at least five bytes long, and have no
control transfer (jump, call, return) among the instructions that start in
its first five bytes: a relative branch would go astray once moved, and a
call to the PC thunk would compute the trampoline's address instead of ours.
The library must export nothing else.
"""
import argparse
import re
import subprocess
import sys

PROBE_BYTES = 5
ENTRY_RE = re.compile(r"^OZK_(DIRECT|VIA_TABLE)\(\s*[^,]+,\s*(\w+)\s*,", re.M)
DYNSYM_RE = re.compile(r"^([0-9a-f]+)\s+g\s+DF\s+\.text\s+([0-9a-f]+)\s+(?:\S+\s+)?(\S+)$")
LABEL_RE = re.compile(r"^([0-9a-f]+) <([^>]+)>:$")
INSN_RE = re.compile(r"^\s+([0-9a-f]+):\s+(\S+)")
BRANCH_RE = re.compile(r"^(j\w*|call\w*|ret\w*|loop\w*|bnd|notrack)$")


def expected_entries(def_path):
    with open(def_path, encoding="utf-8") as f:
        return {m.group(2) for m in ENTRY_RE.finditer(f.read())}


def run(objdump, *args):
    return subprocess.run([objdump, *args], check=True, capture_output=True, text=True).stdout


def exported_functions(objdump, library):
    found = {}
    for line in run(objdump, "-T", library).splitlines():
        m = DYNSYM_RE.match(line.strip())
        if m:
            found[m.group(3)] = (int(m.group(1), 16), int(m.group(2), 16))
    return found


def entry_instructions(objdump, library):
    """{function: [(offset from entry, mnemonic), ...]} for the whole .text."""
    functions, current, start = {}, None, 0
    for line in run(objdump, "-d", "--no-show-raw-insn", "-j", ".text", library).splitlines():
        label = LABEL_RE.match(line)
        if label:
            start, current = int(label.group(1), 16), label.group(2)
            functions[current] = []
            continue
        insn = INSN_RE.match(line)
        if insn and current:
            functions[current].append((int(insn.group(1), 16) - start, insn.group(2)))
    return functions


def problems_of(name, size, instructions):
    if size < PROBE_BYTES:
        return [f"{name}: {size} bytes, a probe needs {PROBE_BYTES}"]
    if not instructions:
        return [f"{name}: no instructions found"]
    problems = []
    if instructions[0][1].startswith("jmp"):
        problems.append(f"{name}: starts with a jump")
    for offset, mnemonic in instructions:
        if offset >= PROBE_BYTES:
            break
        if BRANCH_RE.match(mnemonic):
            problems.append(f"{name}: '{mnemonic}' at +{offset}, inside the probed bytes")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--objdump", default="objdump")
    parser.add_argument("--library", required=True)
    parser.add_argument("--list", required=True, help="ozknotify_api.def")
    args = parser.parse_args()

    expected = expected_entries(args.list)
    exported = exported_functions(args.objdump, args.library)
    problems = [f"{n}: listed but not exported" for n in sorted(expected - exported.keys())]
    problems += [f"{n}: exported but not listed" for n in sorted(exported.keys() - expected)]

    code = entry_instructions(args.objdump, args.library)
    for name in sorted(expected & exported.keys()):
        problems += problems_of(name, exported[name][1], code.get(name, []))

    if problems:
        print("\n".join(problems))
        print(f"FAILED: {len(problems)} problem(s) in {args.library}")
        return 1
    print(f"{len(expected)} entries of {args.library} are probe-safe")
    return 0


if __name__ == "__main__":
    sys.exit(main())
