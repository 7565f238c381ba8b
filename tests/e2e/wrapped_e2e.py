#!/usr/bin/env python3
"""Every wrapper of every collection on real programs, and the wrapped calls checked two ways:
from inside the program (it prints PASS/FAIL lines) and through what `vorx report` reads.

Shares the helpers of run_e2e.py; run as: wrapped_e2e.py --build BUILD --source SOURCE [unittest args]."""
import csv
import os
import re
import shutil
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run_e2e  # noqa: E402
from run_e2e import Workdir, run, tool  # noqa: E402

EVERY_COLLECTION = "threading,io,memory,waiting"
PROGRAMS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "programs")


def csv_tables(text):
    """The blocks of `vorx report --csv` by table name: a list of dicts per table."""
    tables, header = {}, None
    for fields in csv.reader(text.splitlines()):
        if not fields:
            header = None
        elif fields[0] == "table":
            header = fields
        elif header and len(fields) == len(header):
            tables.setdefault(fields[0], []).append(dict(zip(header, fields)))
    return tables


def thread_count(report_text):
    match = re.search(r"processes: \d+, threads: (\d+)", report_text)
    return int(match.group(1)) if match else 0


class Traced(Workdir):
    def tables(self, results):
        return csv_tables(self.report("--csv", results))

    def run_both(self, program_args, collect=EVERY_COLLECTION, extra=(), binary=False):
        """The program natively, then under `vorx run`: both results and the results directory."""
        native = subprocess.run(program_args, capture_output=True, text=not binary, cwd=self.dir, timeout=120)
        self.assertEqual(native.returncode, 0, native.stderr)
        results = self.results()
        traced = subprocess.run([tool("bin", "vorx"), "run", "-c", collect, "-r", results, *extra, "--",
                                 *program_args], capture_output=True, text=not binary, cwd=self.dir, timeout=300)
        self.assertEqual(traced.returncode, 0, traced.stderr)
        return native, traced, results


class EveryWrapperTransparency(Traced):
    """With every collection on, real programs compute exactly what they compute alone."""

    def test_pigz_two_threads_compress_and_decompress(self):
        data = os.path.join(self.dir, "data.bin")
        with open(data, "wb") as f:
            # Incompressible and compressible stretches, so both deflate paths and the thread handoffs run.
            for i in range(4):
                f.write(os.urandom(1 << 19))
                f.write(b"".join(b"line %08d of the repeated text\n" % n for n in range(i * 20000, i * 20000 + 20000)))
        native, traced, results = self.run_both(["/usr/bin/pigz", "-p", "2", "-c", data], binary=True)
        self.assertEqual(traced.stdout, native.stdout, "compressed bytes differ from a native run")
        self.assertIn("io_by_function", self.tables(results))

        packed = os.path.join(self.dir, "data.bin.gz")
        with open(packed, "wb") as f:
            f.write(native.stdout)
        os.rename(results, results + ".compress")
        native, traced, _ = self.run_both(["/usr/bin/pigz", "-p", "2", "-d", "-c", packed], binary=True)
        with open(data, "rb") as f:
            original = f.read()
        self.assertEqual(native.stdout, original)
        self.assertEqual(traced.stdout, original, "decompressed bytes differ from the input")

    def test_lua_string_table_and_file_work(self):
        native, traced, _ = self.run_both(["/usr/bin/lua5.4", os.path.join(PROGRAMS, "workload.lua")])
        self.assertEqual(traced.stdout, native.stdout)
        self.assertIn("file\t5000\t", native.stdout)

    def test_embedded_python_modules(self):
        program = tool("tests", "e2e", "e2e_py_embed")
        if not os.path.exists(program):
            self.skipTest("the embedding program was not built (no i386 libpython3.11)")
        code = "exec(open(%r).read())" % os.path.join(PROGRAMS, "workload.py")
        native, traced, results = self.run_both([program, code])
        self.assertEqual(traced.stdout, native.stdout)
        self.assertIn("json 100229 True item1234", native.stdout)
        allocations = self.tables(results).get("allocations", [])
        self.assertTrue(any(row["function"] == "malloc" and int(row["calls"]) > 1000 for row in allocations),
                        allocations)


class WrappedCallsFromInside(Traced):
    """The test program checks its own calls; the report must agree with what it did."""

    def program(self, *cases):
        return [tool("tests", "e2e", "e2e_wrapped_calls"), *cases]

    def assert_no_failures(self, output):
        self.assertNotIn("FAIL", output)
        self.assertTrue(output.count("PASS") > 0, output)

    def test_interrupts_timeouts_errno_and_cancellation(self):
        native, traced, results = self.run_both(self.program("eintr", "poll", "errno", "cancel", "errno_kept",
                                                             "timeouts", "nested_signal", "callbacks", "spawn", "vector_io"))
        self.assert_no_failures(native.stdout)
        self.assert_no_failures(traced.stdout)
        errnos = [line for line in traced.stdout.splitlines() if line.startswith("errno ")]
        self.assertEqual(len(errnos), 4, traced.stdout)
        self.assertEqual(errnos, [line for line in native.stdout.splitlines() if line.startswith("errno ")])

        tables = self.tables(results)
        io = {row["function"]: row for row in tables.get("io_by_function", [])}
        self.assertIn("poll", io, io)
        self.assertGreaterEqual(float(io["poll"]["total_s"]), 0.9)
        self.assertIn("read", io, io)  # the interrupted read is a measured call too
        # Vectored and socket calls count the bytes they moved (a peek moves them too; a failed recv none).
        moved = {name: io[name]["bytes"] for name in ("writev", "readv", "send", "recv") if name in io}
        self.assertEqual(moved, {"writev": "13", "readv": "13", "send": "7", "recv": "14"}, io)
        # The cancelled thread's wait is in the report even though the wait never returned.
        waits = tables.get("waits_by_function", [])
        cond_waits = [row for row in waits if row["function"] == "pthread_cond_wait"
                      and row["thread"].split()[0] != row["pid"]]
        self.assertEqual(len(cond_waits), 1, waits)
        self.assertGreaterEqual(float(cond_waits[0]["total_s"]), 0.04, cond_waits)
        # Timed waits that expired are waits of the time they lasted.
        timed = {row["function"]: float(row["total_s"]) for row in waits}
        self.assertGreaterEqual(timed.get("pthread_cond_timedwait", 0), 0.09, waits)
        self.assertGreaterEqual(timed.get("sem_timedwait", 0), 0.045, waits)

    def test_allocator_contracts_and_their_records(self):
        _, traced, results = self.run_both(self.program("memory"), collect="memory")
        self.assert_no_failures(traced.stdout)
        tables = self.tables(results)
        # The allocations as the program asked for them.
        allocated = {row["function"]: row for row in tables.get("allocations", [])}
        self.assertGreaterEqual(int(allocated.get("calloc", {}).get("bytes", 0)), 15000, allocated)  # + the library's own
        # One posix_memalign succeeds; the other fails with EINVAL and allocates nothing.
        self.assertEqual((allocated.get("posix_memalign", {}).get("calls"), allocated.get("posix_memalign", {}).get(
            "bytes")), ("1", "10000"), allocated)
        self.assertGreaterEqual(int(allocated.get("realloc", {}).get("calls", 0)), 2, allocated)

    def test_thread_ending_through_pthread_exit(self):
        program = self.program("thread_exit")
        native = run(program, cwd=self.dir)
        self.assert_no_failures(native.stdout)
        for collect in ("threading", EVERY_COLLECTION):
            with self.subTest(collect=collect):
                traced, results = self.vorx_run(program, collect=collect)
                self.assertEqual(traced.returncode, 0, traced.stderr)
                self.assertEqual(traced.stdout, native.stdout)
                self.assertNotRegex(traced.stderr, r"Assertion|\b[1-9][0-9]* errors?\b|vorx: error")
                shutil.rmtree(results, ignore_errors=True)

    def test_fork_while_other_threads_are_in_wrappers(self):
        # Two threads loop through malloc, a mutex and write while the main thread forks ten times; the
        # program kills a child that has not exited after 5 s. Threads come and go by the hundred after it.
        traced, results = self.vorx_run(self.program("fork_busy", "thread_churn"), collect=EVERY_COLLECTION,
                                        timeout=200)
        self.assertEqual(traced.returncode, 0, traced.stdout + traced.stderr)
        self.assert_no_failures(traced.stdout)
        self.assertIn("PASS fork_while_busy", traced.stdout)

    def test_fread_is_one_measured_call(self):
        path = os.path.join(self.dir, "input.txt")
        with open(path, "w") as f:
            f.write("0123456789abcdef\n" * 100)
        _, traced, results = self.run_both(self.program("fread", path), collect="io")
        self.assert_no_failures(traced.stdout)
        self.assertIn("fread bytes 1700", traced.stdout)
        io = self.tables(results).get("io_by_function", [])
        freads = [row for row in io if row["function"] == "fread"]
        self.assertEqual([(row["calls"], row["bytes"]) for row in freads], [("1", "1700")], io)
        # stdio reads the file with read() underneath; that must not show as a call of its own.
        self.assertEqual([row for row in io if row["function"] == "read"], [], io)


class LockWaits(Traced):
    """Waits on locks as the report totals them, against what the program measured itself."""

    def test_contended_wait_matches_the_holders_sleeps_and_private_lock_has_none(self):
        program = [tool("tests", "e2e", "e2e_wrapped_calls"), "contention", "private"]
        _, traced, results = self.run_both(program, collect="threading", extra=("--contention-filter",))
        self.assertNotIn("FAIL", traced.stdout)
        contended = re.search(r"contended (0x[0-9a-f]+) waited ([\d.]+) slept ([\d.]+) blocked (\d+)", traced.stdout)
        private = re.search(r"private (0x[0-9a-f]+)", traced.stdout)
        self.assertTrue(contended and private, traced.stdout)
        waited, slept = float(contended.group(2)), float(contended.group(3))

        rows = self.tables(results).get("waits_by_object", [])
        def on(address):
            return [row for row in rows if row["object"] and int(row["object"], 16) == int(address, 16)]

        mutex_rows = [row for row in on(contended.group(1)) if row["function"] == "pthread_mutex_lock"]
        self.assertTrue(mutex_rows, rows)
        # the program's static mutex, named from the program's own symbol table
        self.assertEqual({row["object_name"] for row in mutex_rows}, {"contended"}, mutex_rows)
        total = sum(float(row["total_s"]) for row in mutex_rows)
        count = sum(int(row["count"]) for row in mutex_rows)
        # Every round where the taker came while the holder slept is a contended wait; a round where a
        # late wake found the mutex already free may go unrecorded (one more for the race of that check).
        blocked = int(contended.group(4))
        self.assertTrue(max(blocked - 1, 15) <= count <= 20, (count, blocked, mutex_rows))
        # Against the program's own clock around the blocked lock calls, and against the sleeps causing them.
        self.assertLessEqual(abs(total - waited), max(0.15 * waited, 0.005), (total, waited))
        self.assertGreaterEqual(total, 0.5 * slept, (total, slept))
        self.assertLessEqual(total, 1.1 * slept + 0.01, (total, slept))
        self.assertEqual(on(private.group(1)), [], "a lock no other thread took has a wait record")

        # Releases are reported only when they found a thread waiting: every unlock record is one of the
        # contended mutex, none of the private one.
        unlocked = re.findall(r"function=pthread_mutex_unlock .*?args=\[8x1\]([0-9a-f]{8})",
                              self.report("--dump", results))
        objects = {int.from_bytes(bytes.fromhex(word), "little") for word in unlocked}
        self.assertTrue(1 <= len(unlocked) <= 20, unlocked)
        self.assertEqual(objects, {int(contended.group(1), 16)})

    def test_pigz_threads_and_condition_waits(self):
        data = os.path.join(self.dir, "data.bin")
        with open(data, "wb") as f:
            f.write(os.urandom(1 << 20) * 3)
        _, traced, results = self.run_both(["/usr/bin/pigz", "-p", "2", "-c", data], collect="threading,io",
                                           binary=True)
        self.assertGreaterEqual(thread_count(self.report(results)), 3)
        waits = self.tables(results).get("waits_by_function", [])
        cond = [row for row in waits if row["function"] == "pthread_cond_wait"]
        self.assertTrue(cond and sum(int(row["count"]) for row in cond) > 0, waits)


def main():
    import argparse
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--source", required=True)
    args, rest = parser.parse_known_args()
    run_e2e.BUILD, run_e2e.SOURCE = os.path.abspath(args.build), os.path.abspath(args.source)
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
