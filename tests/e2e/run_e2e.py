#!/usr/bin/env python3
"""End-to-end runs of real 32-bit programs under the engine and the collector.

Each case runs a program natively and under `vorx run` (or `kel` directly), and
checks what a user sees: the program's own output and exit status unchanged,
the results directory, and what `vorx report` reads from it."""
import argparse
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

BUILD = SOURCE = None


def tool(*parts):
    return os.path.join(BUILD, *parts)


def run(args, timeout=300, cwd=None, env=None):
    return subprocess.run(args, capture_output=True, text=True, timeout=timeout, cwd=cwd, env=env)


class Workdir(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="vorx-e2e-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def results(self, name="results"):
        return os.path.join(self.dir, name)

    def vorx_run(self, program_args, collect="threading,io,memory", extra=(), timeout=300):
        results = self.results()
        args = [tool("bin", "vorx"), "run", "-c", collect, "-r", results, *extra, "--", *program_args]
        return run(args, timeout=timeout, cwd=self.dir), results

    def report(self, *args):
        done = run([tool("bin", "vorx"), "report", "--no-progress", *args])
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout


class ToolEntry(Workdir):
    """The tool under the engine, without a server: the program runs untouched."""

    def kel(self, *switches, program=None):
        program = program or (tool("tests", "e2e", "e2e_exit_with"), "0")
        return run([tool("bin", "kel"), "-t", tool("lib", "libvorxtool.so"), *switches, "--", *program],
                   cwd=self.dir, timeout=60)

    def test_unreachable_server_leaves_the_program_alone(self):
        native = run([tool("bin", "contention")])
        traced = self.kel("-server_name", "vorx_server.999999", program=(tool("bin", "contention"),))
        self.assertEqual(traced.returncode, 0, traced.stderr)
        self.assertEqual(traced.stdout, native.stdout)

    def test_pause_prints_the_pid_and_keeps_gdbinit(self):
        done = self.kel("-pause_runtime", "1", "-server_name", "vorx_server.999999")
        self.assertEqual(done.returncode, 0, done.stderr)
        match = re.search(r"Pausing to attach to pid (\d+)", done.stdout)
        self.assertTrue(match, done.stdout)
        with open(os.path.join(self.dir, ".gdbinit")) as f:
            text = f.read()
        self.assertTrue(text.startswith("# Automatically generated file by vorxtool for debugging purposes.\n"))
        self.assertIn("# Actual for PID: %s\n" % match.group(1), text)
        self.assertIn("add-symbol-file ", text)

    def test_foreign_gdbinit_is_left_alone(self):
        path = os.path.join(self.dir, ".gdbinit")
        with open(path, "w") as f:
            f.write("set pagination off\n")
        self.kel("-pause_runtime", "1", "-server_name", "vorx_server.999999")
        with open(path) as f:
            self.assertEqual(f.read(), "set pagination off\n")


class RunExample(Workdir):
    """The bundled example under `vorx run`: same output, a trace that decodes."""

    def test_output_unchanged_and_trace_opens_completely(self):
        native = run([tool("bin", "contention")])
        traced, results = self.vorx_run([tool("bin", "contention")])
        self.assertEqual(traced.returncode, 0, traced.stderr)
        self.assertEqual(traced.stdout, native.stdout)
        traces = glob.glob(os.path.join(results, "*.trace"))
        self.assertTrue(traces, os.listdir(results) if os.path.isdir(results) else "no results directory")

        dump = self.report("--dump", results)
        opening = ["colcfg", "sysinfo", "cpuinfo", "hardcfg", "marker", "process"]
        positions = [dump.find(word) for word in opening]
        self.assertTrue(all(p >= 0 for p in positions), (positions, dump[:2000]))
        self.assertEqual(positions, sorted(positions), "opening records out of order")

    def test_exit_status_of_the_program_is_kept(self):
        traced, _ = self.vorx_run([tool("tests", "e2e", "e2e_exit_with"), "7"])
        self.assertEqual(traced.returncode, 7, traced.stderr)


class Processes(Workdir):
    """A forked child is a process of the collection with files of its own."""

    def test_forked_child_writes_its_own_trace(self):
        program = tool("tests", "e2e", "e2e_fork_child")
        traced, results = self.vorx_run([program], collect="threading")
        self.assertEqual(traced.returncode, 0, traced.stderr)
        self.assertEqual(sorted(traced.stdout.split("\n")), sorted("child done\nparent done\n".split("\n")))
        pids = {os.path.basename(p).split(".")[0] for p in glob.glob(os.path.join(results, "*.trace"))}
        self.assertEqual(len(pids), 2, os.listdir(results))

    def test_children_ending_together_are_all_collected(self):
        # their deaths wake the run's supervisor while the server is still taking their ends
        program = tool("tests", "e2e", "e2e_fork_child")
        traced, results = self.vorx_run([program, "24"], collect="threading")
        self.assertEqual(traced.returncode, 0, traced.stderr)
        self.assertEqual(traced.stdout.count("child done\n"), 24)
        self.assertIn("25 processes collected, 0 errors", traced.stderr)
        self.assertEqual(len(glob.glob(os.path.join(results, "*.trace"))), 25, os.listdir(results))


class RealPrograms(Workdir):
    """Debian's own 32-bit programs under the collector compute what they compute alone."""

    def test_pigz_round_trip(self):
        data = os.path.join(self.dir, "data.bin")
        with open(data, "wb") as f:
            f.write(os.urandom(1 << 20) * 3)
        native = subprocess.run(["/usr/bin/pigz", "-p", "2", "-c", data], capture_output=True).stdout
        results = self.results()
        traced = subprocess.run([tool("bin", "vorx"), "run", "-c", "threading,io", "-r", results, "--",
                                 "/usr/bin/pigz", "-p", "2", "-c", data], capture_output=True, cwd=self.dir)
        self.assertEqual(traced.returncode, 0, traced.stderr)
        self.assertEqual(traced.stdout, native)


class Signals(Workdir):
    """Programs that live by signals behave as they do alone, and a death by a signal leaves a readable trace."""

    MODES = ("suspend", "segv-recover", "itimer", "altstack", "sigwait", "sigqueue", "view", "cancel")

    def program(self, *args):
        return [tool("tests", "e2e", "e2e_signals"), *args]

    def test_signal_programs_behave_as_natively(self):
        for collect in ("threading,io", "cpu"):
            for mode in self.MODES:
                with self.subTest(collect=collect, mode=mode):
                    native = run(self.program(mode), timeout=60)
                    traced, results = self.vorx_run(self.program(mode), collect=collect, timeout=120)
                    self.assertEqual((traced.returncode, traced.stdout), (native.returncode, native.stdout),
                                     traced.stderr)
                    self.assertIn("0 errors", traced.stderr)
                    self.report(results)
                    shutil.rmtree(results)

    def test_death_by_a_signal_keeps_a_readable_trace(self):
        for how, signo in (("segv", 11), ("abort", 6), ("raise-term", 15), ("usr1", 10), ("term-from-thread", 15)):
            with self.subTest(how=how):
                native = run(self.program("die", how))
                traced, results = self.vorx_run(self.program("die", how), extra=("--no-contention-filter",))
                self.assertEqual(native.returncode, -signo)  # vorx answers as a shell does: 128 + signal
                self.assertEqual((traced.returncode, traced.stdout), (128 + signo, native.stdout))
                self.assertIn("its trace was written up to then", traced.stderr)
                summary = self.report(results)
                self.assertRegex(summary, r"process \d+ e2e_signals: killed by signal %d " % signo)
                self.assertRegex(summary, r"thread \d+ e2e_signals: \d{4,} records")  # the 1000 lock pairs
                shutil.rmtree(results)

    def test_interrupt_and_termination_from_outside(self):
        for signo in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=signo):
                results = self.results()
                vorx = subprocess.Popen([tool("bin", "vorx"), "run", "-c", "threading,io", "-r", results, "--",
                                         *self.program("die", "wait")], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, cwd=self.dir)
                for line in vorx.stdout:
                    if line.startswith("waiting as "):
                        os.kill(int(line.split()[-1]), signo)
                        break
                _, err = vorx.communicate(timeout=60)
                self.assertEqual(vorx.returncode, 128 + signo, err)
                self.assertRegex(self.report(results), r"killed by signal %d " % signo)
                shutil.rmtree(results)


def main():
    global BUILD, SOURCE
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--source", required=True)
    args, rest = parser.parse_known_args()
    BUILD, SOURCE = os.path.abspath(args.build), os.path.abspath(args.source)
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
