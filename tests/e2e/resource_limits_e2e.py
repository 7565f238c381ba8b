#!/usr/bin/env python3
"""The collector may lose trace data, never the program: a results directory that fills up, one that is
read-only, a program that gives up root, and 500 threads in a 32-bit address space. In every case the
program prints and exits as it does alone, and vorx says what it lost.

Shares the helpers of run_e2e.py; run as: resource_limits_e2e.py --build BUILD --source SOURCE [unittest args].
The filesystem and root cases need root (to mount a small or read-only tmpfs, to call setuid) and are
skipped without it."""
import glob
import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run_e2e  # noqa: E402
from run_e2e import Workdir, run, tool  # noqa: E402


def program(name):
    return tool("tests", "e2e", name)


def last_line(text):
    lines = text.strip().splitlines()
    return lines[-1] if lines else ""


def records_lost(vorx_stderr):
    """The count in vorx run's last line, 0 when it names none."""
    match = re.search(r"collected, (?:\d+ errors?, )?(\d+) records? lost;", last_line(vorx_stderr))
    return int(match.group(1)) if match else 0


class LosesRecordsNotTheProgram(Workdir):
    def traced(self, args, results, collect=None):
        collection = ["-c", collect] if collect else []
        return run([tool("bin", "vorx"), "run", *collection, "-r", results, "--", *args], cwd=self.dir, timeout=300)

    def as_root(self):
        if os.geteuid() != 0:
            self.skipTest("needs root")

    def mount_tmpfs(self, name, options):
        """A tmpfs of our own under the work directory, unmounted at the end."""
        self.as_root()
        point = os.path.join(self.dir, name)
        os.makedirs(point)
        done = run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", point])
        if done.returncode != 0:
            self.skipTest("cannot mount a tmpfs: " + done.stderr.strip())
        self.addCleanup(run, ["umount", "-l", point])
        return point

    def assert_same_as_native(self, args, traced):
        native = run(args, cwd=self.dir)
        self.assertEqual(traced.returncode, native.returncode, traced.stderr)
        self.assertEqual(traced.stdout, native.stdout)

    def test_a_full_results_filesystem_costs_records_that_vorx_counts(self):
        results = os.path.join(self.mount_tmpfs("small", "size=256k"), "results")
        args = [program("e2e_io_burst"), "200000", "3"]
        traced = self.traced(args, results, "io")
        self.assert_same_as_native(args, traced)
        lost = records_lost(traced.stderr)
        self.assertGreater(lost, 0, traced.stderr)
        self.assertIn("trace records were lost: the results directory refused them", traced.stderr)

        report = self.report(results)
        self.assertIn("import problems: none", report, "the files end on whole records")
        counted = re.search(r"lost while recording:\n  records_lost +(\d+)", report)
        self.assertIsNotNone(counted, report)
        self.assertGreater(int(counted.group(1)), 0)
        self.assertRegex(report, r"process \d+ e2e_io_burst: exited with status 3 \(\d+ records lost\)")

    def test_a_read_only_results_filesystem_costs_every_record_and_nothing_else(self):
        point = self.mount_tmpfs("readonly", "size=1m")
        results = os.path.join(point, "results")
        os.makedirs(results)
        done = run(["mount", "-o", "remount,ro", point])
        if done.returncode != 0:
            self.skipTest("cannot make the tmpfs read-only: " + done.stderr.strip())
        args = [program("e2e_io_burst"), "20000", "3"]
        traced = self.traced(args, results, "io")
        self.assert_same_as_native(args, traced)
        self.assertGreaterEqual(records_lost(traced.stderr), 20000, traced.stderr)
        self.assertEqual(os.listdir(results), [])

    def test_five_hundred_threads_run_as_they_do_alone(self):
        args = [program("e2e_t500b"), "500"]
        native = run(args, cwd=self.dir)
        if native.returncode != 0:
            self.skipTest("500 threads do not fit natively here: " + native.stderr.strip())
        for collect in ("threading", None):
            with self.subTest(collection=collect or "default"):
                results = self.results("res-" + (collect or "default"))
                traced = self.traced(args, results, collect)
                self.assertEqual(traced.returncode, 0, traced.stderr)
                self.assertEqual(traced.stdout, native.stdout)
                self.assertRegex(last_line(traced.stderr), r"collected, 0 errors;")
                self.assertIn("processes: 1, threads: 501", self.report(results))

    def test_a_program_that_gives_up_root_keeps_its_trace(self):
        self.as_root()
        args = [program("e2e_drop_root")]
        traced = self.traced(args, self.results(), "threading,io")
        self.assert_same_as_native(args, traced)
        self.assertEqual(traced.stdout, "uid 65534, done\n")
        self.assertRegex(last_line(traced.stderr), r"collected, 0 errors;")
        self.assertTrue(glob.glob(os.path.join(self.results(), "*.trace")))

        report = self.report(self.results())
        self.assertIn("lost while recording: none", report)
        self.assertIn("import problems: none", report)
        # Two workers before setuid, two after; each wrote 200 times, every write a record.
        workers = [int(n) for n in re.findall(r"thread \d+ e2e_drop_root: (\d+) records", report)[1:]]
        self.assertEqual(len(workers), 4, report)
        for records in workers:
            self.assertGreaterEqual(records, 200, report)


if __name__ == "__main__":
    run_e2e.main()
