#!/usr/bin/env python3
"""CPU sampling with call stacks: a program with known hot functions (about 70% and 30% of its CPU time) in
several threads, one caller built without frame pointers or unwind tables, and a qsort comparator as a hot
leaf. Under `vorx run -c cpu` (and the default collection) the program prints and exits as alone; the samples'
periods add up to the threads' CPU time; every sample belongs to a thread of the process and is followed by
its stack, which decodes and leads out through libc and the table-less code to the thread's start.

Shares the helpers of run_e2e.py; run as: cpu_sampling_e2e.py --build BUILD --source SOURCE [unittest args]."""
import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run_e2e  # noqa: E402
from run_e2e import Workdir, run, tool  # noqa: E402

SECONDS, THREADS = "1.5", "3"


def program():
    return tool("tests", "e2e", "e2e_cpu_hot")


def unpack_frames(hexbytes):
    """The online body: innermost first, each frame a difference from the one before (the first absolute)."""
    data = bytes.fromhex(hexbytes)
    frames, pos, previous, absolute = [], 0, 0, True
    while pos < len(data):
        head = data[pos]
        pos += 1
        k = head & 0x0F
        assert k <= 4 and not head & ~0x4F, "malformed item %#x" % head
        value = 0xFFFFFFFF if head & 0x40 else 0
        for i in range(k):
            value = (value & ~(0xFF << (8 * i))) | (data[pos + i] << (8 * i))
        pos += k
        frame = value if absolute else (previous + value) & 0xFFFFFFFF
        frames.append(frame)
        absolute, previous = frame == 0, frame
    return frames


def field(line, name):
    match = re.search(r"\b%s=(\S+)" % name, line)
    return match.group(1) if match else None


class Symbols:
    """The program's functions by offset, from nm, placed at the load base that the trace recorded."""

    def __init__(self, path, code_start):
        # the trace gives where the code segment is mapped: the base is that less the segment's address
        segments = subprocess.run(["readelf", "-lW", path], capture_output=True, text=True).stdout
        code = [int(m.group(1), 16) for m in re.finditer(r"^\s*LOAD\s+\S+\s+(\S+)\s+\S+\s+\S+\s+\S+\s+R E",
                                                          segments, re.M)]
        self.base, self.functions = code_start - (code[0] & ~0xFFF if code else 0), []
        out = subprocess.run(["nm", "-S", "--defined-only", path], capture_output=True, text=True).stdout
        for line in out.splitlines():
            parts = line.split()
            if len(parts) == 4 and parts[2] in "tTwW":
                self.functions.append((int(parts[0], 16), int(parts[1], 16), parts[3]))

    def name(self, address):
        offset = address - self.base
        for start, size, name in self.functions:
            if start <= offset < start + size:
                return name
        return None


class CpuSampling(Workdir):
    def sampled(self, collect=("-c", "cpu"), extra=()):
        args = [program(), SECONDS, THREADS]
        native = run(args, cwd=self.dir, timeout=120)
        results = self.results()
        traced = run([tool("bin", "vorx"), "run", *collect, "-r", results, *extra, "--", *args],
                     cwd=self.dir, timeout=300)
        self.assertEqual(traced.returncode, native.returncode, traced.stderr)
        self.assertEqual(traced.stdout, native.stdout)
        cpu_us = sum(float(v) for v in re.findall(r"^cpu_us \d+ (\d+)", traced.stderr, re.M))
        self.assertGreater(cpu_us, 0, traced.stderr)
        return results, cpu_us

    def dump(self, results):
        done = run([tool("bin", "vorx"), "report", "--no-progress", "--dump", results], timeout=300)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.splitlines()

    def samples(self, lines):
        """(tid, ip, period, frames or None) for each sample, with the online stack that follows it."""
        out = []
        for i, line in enumerate(lines):
            if " cpu_sample " not in line:
                continue
            tid, ip, period = int(field(line, "tid")), int(field(line, "last")), int(field(line, "period"))
            frames = None
            if i + 1 < len(lines) and " online_stack " in lines[i + 1] and int(field(lines[i + 1], "tid")) == tid:
                frames = unpack_frames(field(lines[i + 1], "packed").split("]", 1)[1])
            out.append((tid, ip, period, frames))
        return out

    def load_base(self, lines):
        for line in lines:
            if "module_map" in line and line.rstrip().endswith('name="%s"' % program()):
                return int(field(line, "start"))
        self.fail("the program's module is not in the trace")

    def threads(self, results):
        return {int(t) for t in re.findall(r"^\s+thread (\d+) ", self.report(results), re.M)}

    def check_samples(self, results, cpu_us):
        lines = self.dump(results)
        samples = self.samples(lines)
        self.assertTrue(samples, "no samples")
        # the periods stand for the CPU time: every tick counts once (10 ms each by default)
        covered_us = sum(period for _, _, period, _ in samples) / 10.0
        self.assertGreater(covered_us, 0.8 * cpu_us, (covered_us, cpu_us))
        self.assertLess(covered_us, 1.2 * cpu_us + 50000, (covered_us, cpu_us))
        # every sample in a thread of the process, every thread sampled
        tids = {tid for tid, _, _, _ in samples}
        self.assertLessEqual(tids, self.threads(results))
        self.assertEqual(len(tids), int(THREADS))
        return lines, samples

    def test_samples_cover_cpu_time_and_stacks_lead_back_to_the_start(self):
        results, cpu_us = self.sampled()
        lines, samples = self.check_samples(results, cpu_us)
        symbols = Symbols(program(), self.load_base(lines))
        with_stack = [s for s in samples if s[3]]
        self.assertGreater(len(with_stack), 0.95 * len(samples))
        heavy = light = reached = 0
        for _, ip, _, frames in with_stack:
            self.assertEqual(frames[0], ip, "a stack starts where its sample is")
            names = [symbols.name(f) for f in frames]
            in_light = "hot_light" in names
            if names[0] == "hot_heavy":
                heavy += 1
            elif in_light:
                light += 1
            else:
                continue
            # out through qsort (libc) and nofp_spin (no tables, no frame pointer) to the thread's function
            if "spin" in names and "nofp_spin" in names:
                reached += 1
        self.assertGreater(heavy + light, 0.8 * len(with_stack))
        # Most stacks lead all the way out; some of those taken inside qsort still end early (a libc frame that
        # neither the tables nor the scan get past), so the bar is a majority and not all.
        self.assertGreater(reached, 0.5 * (heavy + light), (reached, heavy, light))
        share = heavy / float(heavy + light)
        self.assertGreater(share, 0.55, share)
        self.assertLess(share, 0.85, share)

    def test_the_default_collection_samples_too(self):
        results, cpu_us = self.sampled(collect=())
        self.check_samples(results, cpu_us)

    def test_offline_stacks_are_stack_copies_behind_the_samples(self):
        results, cpu_us = self.sampled(extra=("--offline-stack-walk",))
        lines = self.dump(results)
        self.assertFalse([line for line in lines if " online_stack " in line])
        followed = 0
        for i, line in enumerate(lines[:-1]):
            if " cpu_sample " in line and " offline_stack " in lines[i + 1]:
                followed += 1
                self.assertEqual(field(lines[i + 1], "tid"), field(line, "tid"))
        self.assertGreater(followed, 0)

    def test_a_one_millisecond_interval_samples_more_and_covers_the_same_time(self):
        results, cpu_us = self.sampled(extra=("--interval", "1"))
        samples = self.samples(self.dump(results))
        # CPU-time timers fire at the kernel's tick: fewer records than ticks, each standing for all of its own
        self.assertGreater(len(samples), 1.5 * cpu_us / 10000.0, (len(samples), cpu_us))
        covered_us = sum(period for _, _, period, _ in samples) / 10.0
        self.assertGreater(covered_us, 0.8 * cpu_us, (covered_us, cpu_us))


if __name__ == "__main__":
    run_e2e.main()
