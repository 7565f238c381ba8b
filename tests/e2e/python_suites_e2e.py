#!/usr/bin/env python3
"""Python's own signal and threading tests under the collector, as natively.

A 32-bit program of ours that is the `python3` command (programs/py_host.c, embedding libpython3.11) runs
the interpreter's own test modules (test_signal, test_threading, test_threadsignals, test_faulthandler and
_test_eintr), once alone and then under `vorx run` with `-c threading,io` and with the default collection
(CPU sampling on SIGPROF). They exercise what the collector's signal layer has to keep invisible: handlers run
on the right thread, sigwait/sigtimedwait, pthread_kill, pthread_sigmask, sigpending, setitimer on all three
clocks, sigaltstack and fault handlers through faulthandler, set_wakeup_fd, siginterrupt, system calls
interrupted and restarted, signals racing with threads, fork and vfork+exec of children that run this program
again, thread start and join, locks and conditions with timeouts.

Checked: every test that passes natively passes under the collector, the run ends with the native exit
status, and nothing hangs (a per-test watchdog ends a hung run; the run resumes after the hung test so that
the rest are still compared). Besides, small programs end the ways Python programs end (exit status, an
uncaught exception, death by SIGINT, SIGTERM, SIGABRT, SIGALRM, a segmentation fault caught by faulthandler)
with the same status and message as natively.

The test modules come from Debian's libpython3.11-testsuite, unpacked by scripts/setup.sh; without them or
without the host program the tests are skipped and say why.

Run as: python_suites_e2e.py --build BUILD --source SOURCE [unittest args]."""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = None
PYTHON_TESTS = os.environ.get("VORX_PYTHON_TESTS", "/opt/vorx-python-tests/usr/lib/python3.11")
DRIVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "programs", "python_suite_driver.py")

# Signal handlers, sigwait and sigtimedwait, pthread_kill, pthread_sigmask, sigpending, setitimer on all three
# clocks, set_wakeup_fd, siginterrupt, signals racing with threads (test_signal); thread start, join, locks,
# conditions, timeouts, fork beside threads (test_threading); locks and waits interrupted by signals on the
# main thread (test_threadsignals); fault handlers on an alternate stack, the watchdog thread, register() on
# user signals (test_faulthandler); system calls interrupted by a SIGALRM interval timer, resumed or failing
# with EINTR as PEP 475 says (_test_eintr, run in-process for one line per test). Natively about 90 s in all.
SUITES = ["test.test_signal", "test.test_threading", "test.test_threadsignals", "test.test_faulthandler",
          "test._test_eintr"]

# Natively the longest single test takes about 10 s on this machine class.
PER_TEST_TIMEOUT = 60
# When the watchdog itself cannot run (or a test replaces it), the harness ends a run whose log has not moved
# for this long.
STALL_TIMEOUT = PER_TEST_TIMEOUT + 60
# A hang or a crash costs a run; after this many the rest of the suite is not tried.
MAX_RESUMES = 5
# Once the whole file has run this long, no run is resumed any more, so hangs cannot add up beyond ctest's
# TIMEOUT (1800 s): the tests not reached count as "not run".
RESUME_BUDGET = 1200
STARTED = time.monotonic()


def host():
    return os.path.join(BUILD, "tests", "e2e", "e2e_py_host")


def vorx():
    return os.path.join(BUILD, "bin", "vorx")


def status_as_vorx_reports(returncode):
    """`vorx run` exits with the program's status, and with 128+N when the program died of signal N."""
    return 128 - returncode if returncode < 0 else returncode


class SuiteRun:
    """One suite through the driver, resumed after tests that hung or killed the process."""

    def __init__(self, workdir, tag, prefix, names):
        self.workdir, self.tag, self.prefix, self.names = workdir, tag, prefix, names
        self.outcomes = {}       # test id -> ok, fail, error, skip, xfail, xpass, hang, crash, not run
        self.details = {}        # test id -> what the run printed about a hang or crash
        self.first_status = None  # exit status of the first process, as `vorx run` would report it
        self.completed_first = False
        self.outputs = []

    def run(self):
        skip_file = os.path.join(self.workdir, self.tag + ".skip")
        open(skip_file, "w").close()
        for attempt in range(MAX_RESUMES + 1):
            log = os.path.join(self.workdir, "%s.%d.log" % (self.tag, attempt))
            out = os.path.join(self.workdir, "%s.%d.out" % (self.tag, attempt))
            results = os.path.join(self.workdir, "%s.%d.results" % (self.tag, attempt))
            prefix = [part.replace("{results}", results) for part in self.prefix]
            command = [*prefix, host(), DRIVER, "--log", log, "--timeout", str(PER_TEST_TIMEOUT),
                       "--skip-file", skip_file, *self.names]
            returncode, stalled = self.run_watched(command, log, out)
            self.outputs.append(out)
            done, running = self.read_log(log)
            if attempt == 0:
                self.first_status = status_as_vorx_reports(returncode)
                self.completed_first = done is not None
            if done is not None:
                return
            if running is None:
                # died outside any test: the rest cannot be told apart
                break
            with open(out, errors="replace") as f:
                text = f.read()
            hung = stalled or "Timeout (" in text
            self.outcomes[running] = "hang" if hung else "crash"
            self.details[running] = "%s (exit status %s)\n%s" % (
                "hung" if hung else "process ended inside the test", returncode, tail_after(text, running))
            if time.monotonic() - STARTED > RESUME_BUDGET:
                break
            with open(skip_file, "w") as f:
                f.write("".join(name + "\n" for name in self.outcomes))

    def run_watched(self, command, log, out):
        with open(out, "wb") as sink:
            proc = subprocess.Popen(command, stdout=sink, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                    cwd=self.workdir, start_new_session=True)
            last_size, last_change = -1, time.monotonic()
            while proc.poll() is None:
                time.sleep(0.5)
                size = os.path.getsize(log) if os.path.exists(log) else 0
                if size != last_size:
                    last_size, last_change = size, time.monotonic()
                elif time.monotonic() - last_change > STALL_TIMEOUT:
                    os.killpg(proc.pid, signal.SIGKILL)
                    proc.wait()
                    return proc.returncode, True
        # children of a finished run that were left behind must not outlive it
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        return proc.returncode, False

    def read_log(self, log):
        done = running = None
        if not os.path.exists(log):
            return done, running
        with open(log) as f:
            for line in f:
                words = line.split()
                if words[0] == "start":
                    running = words[1]
                elif words[0] == "end":
                    self.outcomes[words[1]] = words[2]
                    if words[1] == running:
                        running = None
                elif words[0] == "done":
                    done = int(words[1])
        return done, running


def tail_after(text, test_id, lines=25):
    """What the run printed from the test's own verbose line on: the watchdog's stacks, the collector's notes."""
    name = test_id.rsplit(".", 1)[-1]
    at = text.rfind(name + " (")
    chunk = text[at:] if at >= 0 else text
    return "\n".join(chunk.splitlines()[:lines])


class PythonSuites(unittest.TestCase):
    natives = {}

    @classmethod
    def setUpClass(cls):
        if not os.path.exists(host()):
            raise unittest.SkipTest("no embedding host %s (libpython3.11-dev:i386 missing at configure time)"
                                    % host())
        if not os.path.exists(os.path.join(PYTHON_TESTS, "test", "test_signal.py")):
            raise unittest.SkipTest("Python's test modules are not unpacked in %s (scripts/setup.sh does it)"
                                    % PYTHON_TESTS)
        cls.workdir = tempfile.mkdtemp(prefix="vorx-e2e-pysuites-")
        cls.keep = False

    @classmethod
    def tearDownClass(cls):
        if cls.keep:
            print("\nruns kept in %s" % cls.workdir, file=sys.stderr)
        else:
            shutil.rmtree(cls.workdir, ignore_errors=True)

    def suite_run(self, tag, prefix, names):
        done = SuiteRun(self.workdir, tag, prefix, names)
        done.run()
        return done

    def native(self, module):
        if module not in self.natives:
            self.natives[module] = self.suite_run("native-" + module, [], [module])
        return self.natives[module]

    def check_as_natively(self, module, collect):
        native = self.native(module)
        self.assertTrue(native.completed_first, "the native run of %s did not finish: %s" % (module, native.details))
        passed = sorted(name for name, outcome in native.outcomes.items() if outcome == "ok")
        self.assertGreaterEqual(len(passed), 5, "hardly any test of %s passes natively" % module)

        prefix = [vorx(), "run", "-r", "{results}"] + (["-c", collect] if collect else []) + ["--"]
        tag = "%s-%s" % ((collect or "default").replace(",", "+"), module)
        traced = self.suite_run(tag, prefix, [module])

        differing = [(name, traced.outcomes.get(name, "not run")) for name in passed
                     if traced.outcomes.get(name, "not run") != "ok"]
        differing, flaky = self.rerun_failures(differing, prefix, tag)
        for name in flaky:
            print("\nwarning: %s failed once under the collector (%s) and passed when run again" % (name, tag),
                  file=sys.stderr)
        problems = []
        if differing:
            problems.append("%d of %d tests that pass natively do not under the collector:" %
                            (len(differing), len(passed)))
            problems += ["  %s: %s" % pair for pair in differing]
            for name, _ in differing:
                if name in traced.details:
                    problems.append("--- %s: %s" % (name, traced.details[name]))
        if not traced.completed_first:
            problems.append("the run under the collector did not finish by itself")
        elif traced.first_status != native.first_status and not (flaky and not differing and traced.first_status == 1):
            problems.append("exit status %s under the collector, %s natively" %
                            (traced.first_status, native.first_status))
        others = sorted(name for name, outcome in traced.outcomes.items()
                        if name not in passed and outcome != native.outcomes.get(name))
        if problems and others:
            problems.append("also different (not passing natively): " +
                            ", ".join("%s %s->%s" % (n, native.outcomes.get(n, "absent"), traced.outcomes[n])
                                      for n in others))
        if problems:
            type(self).keep = True
            problems.append("outputs: " + " ".join(traced.outputs))
            self.fail("\n".join(problems))

    def rerun_failures(self, differing, prefix, tag):
        """A test whose assertion failed (not one that crashed, hung or did not run) is run once more on its own
        under the collector: a failure that does not come back is reported as a warning, not as a difference.
        Timing-sensitive tests of the suites fail now and then on a loaded machine; crashes and hangs never
        get a second chance."""
        failed = [name for name, outcome in differing if outcome == "fail"]
        if not failed:
            return differing, []
        again = self.suite_run(tag + "-again", prefix, failed)
        flaky = [name for name in failed if again.outcomes.get(name) == "ok"]
        return [pair for pair in differing if pair[0] not in flaky], flaky

    def check_suites(self, collect):
        for module in SUITES:
            with self.subTest(module):
                self.check_as_natively(module, collect)

    def test_suites_under_threading_and_io(self):
        self.check_suites("threading,io")

    def test_suites_under_default_collection(self):
        self.check_suites(None)


class ProcessEndings(unittest.TestCase):
    """A Python program ends under the collector as it ends alone: the status, and what it printed."""

    ENDINGS = {
        "exit_status": "import sys; print('bye'); sys.exit(3)",
        "uncaught_exception": "raise ValueError('uncaught')",
        "keyboard_interrupt_from_sigint": "import os, signal, time\nos.kill(os.getpid(), signal.SIGINT)\n"
                                          "time.sleep(5)",
        "sigterm_default_action": "import os, signal, time\nos.kill(os.getpid(), signal.SIGTERM)\ntime.sleep(5)",
        "abort": "import os; os.abort()",
        "sigalrm_default_action": "import signal, time\nsignal.alarm(1)\ntime.sleep(5)",
        "segfault_caught_by_faulthandler": "import faulthandler, ctypes\nfaulthandler.enable()\n"
                                           "ctypes.string_at(0)",
        "sigusr1_handler_then_exit": "import os, signal, sys\nseen = []\n"
                                     "signal.signal(signal.SIGUSR1, lambda *a: seen.append(a[0]))\n"
                                     "os.kill(os.getpid(), signal.SIGUSR1)\nprint(seen)\nsys.exit(len(seen) + 4)",
        "watchdog_thread_ends_the_process": "import faulthandler, time\n"
                                                   "faulthandler.dump_traceback_later(0.2, exit=True)\n"
                                                   "time.sleep(5)",
    }

    @classmethod
    def setUpClass(cls):
        if not os.path.exists(host()):
            raise unittest.SkipTest("no embedding host %s" % host())

    def test_endings_as_natively(self):
        workdir = tempfile.mkdtemp(prefix="vorx-e2e-pyend-")
        try:
            for name, code in self.ENDINGS.items():
                with self.subTest(name):
                    native = subprocess.run([host(), "-c", code], capture_output=True, text=True, timeout=60,
                                            cwd=workdir)
                    results = os.path.join(workdir, name)
                    traced = subprocess.run([vorx(), "run", "-r", results, "--", host(), "-c", code],
                                            capture_output=True, text=True, timeout=120, cwd=workdir)
                    self.assertEqual(traced.returncode, status_as_vorx_reports(native.returncode),
                                     "native %s; under the collector:\n%s" % (native.returncode, traced.stderr))
                    self.assertEqual(traced.stdout, native.stdout)
                    # the collector adds its own lines ("vorx: ..."); the program's must be the same
                    program_lines = [line for line in traced.stderr.splitlines() if not line.startswith("vorx:")]
                    self.assertEqual(scrub(program_lines), scrub(native.stderr.splitlines()))
        finally:
            shutil.rmtree(workdir, ignore_errors=True)


class ProgramsViewOfSignals(unittest.TestCase):
    """What the program reads back of its signal state through the C library is what it reads natively:
    dispositions, masks, pending signals, the alternate stack, on two threads, before and after a child."""
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        if not os.path.exists(host()):
            raise unittest.SkipTest("no embedding host %s" % host())

    def test_view_as_natively(self):
        program = os.path.join(os.path.dirname(DRIVER), "signal_view.py")
        workdir = tempfile.mkdtemp(prefix="vorx-e2e-pyview-")
        try:
            native = subprocess.run([host(), program], capture_output=True, text=True, timeout=60, cwd=workdir)
            self.assertEqual(native.returncode, 0, native.stderr)
            for collect in ("threading,io", None):
                with self.subTest(collect=collect or "default"):
                    results = os.path.join(workdir, (collect or "default").replace(",", "+"))
                    traced = subprocess.run([vorx(), "run", "-r", results, *(["-c", collect] if collect else []),
                                             "--", host(), program],
                                            capture_output=True, text=True, timeout=120, cwd=workdir)
                    self.assertEqual(traced.returncode, 0, traced.stderr)
                    self.assertEqual(traced.stdout.splitlines(), native.stdout.splitlines())
        finally:
            shutil.rmtree(workdir, ignore_errors=True)


def scrub(lines):
    """Addresses and thread ids differ from run to run."""
    return [re.sub(r"0x[0-9a-f]+", "0x?", line) for line in lines]


def main():
    global BUILD
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--source", required=True)
    args, rest = parser.parse_known_args()
    BUILD = os.path.abspath(args.build)
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
