"""Runs unittest modules, classes or tests by name under the interpreter that runs this file (the embedding
host), and logs each test the moment it is known, so that a run that hangs or dies still says how far it got:

    start <id>            before the test runs
    end <id> <outcome>    after it: ok, fail, error, skip, xfail or xpass
    done <status>         the run ended normally; status 0 when every test was successful

A watchdog per test (faulthandler's dump_traceback_later with exit) prints every thread's Python stack and
ends the process when one test outlives --timeout, as the interpreter's own test runner does. --skip-file
names tests to leave out (one id a line): the harness resumes a run after a hung test that way.

--no-vfork makes subprocess start children with fork instead of vfork: a diagnostic switch, to see what else
differs when a fault in how vfork children are handled hides it.

    driver.py --log FILE [--timeout SECONDS] [--skip-file FILE] [--no-vfork] NAME...
"""
import argparse
import faulthandler
import os
import sys
import unittest


class LoggedResult(unittest.TextTestResult):
    def __init__(self, stream, descriptions, verbosity, *, log_fd, timeout):
        super().__init__(stream, descriptions, verbosity)
        self.log_fd = log_fd
        self.timeout = timeout
        self.outcome = {}

    def log(self, *words):
        # Unbuffered: the watchdog leaves with _exit, and whatever is written must survive it.
        os.write(self.log_fd, (" ".join(words) + "\n").encode())

    def startTest(self, test):
        self.log("start", test.id())
        self.outcome[test.id()] = "ok"
        if self.timeout:
            faulthandler.dump_traceback_later(self.timeout, exit=True)
        super().startTest(test)

    def stopTest(self, test):
        super().stopTest(test)
        if self.timeout:
            faulthandler.cancel_dump_traceback_later()
        self.log("end", test.id(), self.outcome.pop(test.id(), "ok"))

    def mark(self, test, outcome):
        if test.id() in self.outcome:
            if self.outcome[test.id()] == "ok" or outcome in ("fail", "error"):
                self.outcome[test.id()] = outcome
        else:
            # errors of setUpClass, setUpModule and their tear-downs come without a start
            self.log("end", test.id(), outcome)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.mark(test, "fail")

    def addError(self, test, err):
        super().addError(test, err)
        self.mark(test, "error")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.mark(test, "skip")

    def addExpectedFailure(self, test, err):
        super().addExpectedFailure(test, err)
        self.mark(test, "xfail")

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self.mark(test, "xpass")

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self.mark(test, "fail" if issubclass(err[0], test.failureException) else "error")


def without(suite, skipped):
    kept = unittest.TestSuite()
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            inner = without(item, skipped)
            if inner.countTestCases():
                kept.addTest(inner)
        elif item.id() not in skipped:
            kept.addTest(item)
    return kept


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--log", required=True)
    parser.add_argument("--timeout", type=float, default=0)
    parser.add_argument("--skip-file")
    parser.add_argument("--no-vfork", action="store_true")
    parser.add_argument("names", nargs="+")
    args = parser.parse_args()
    if args.no_vfork:
        import subprocess
        subprocess._USE_VFORK = False

    skipped = set()
    if args.skip_file:
        with open(args.skip_file) as f:
            skipped = {line.strip() for line in f if line.strip()}
    suite = without(unittest.defaultTestLoader.loadTestsFromNames(args.names), skipped)
    log_fd = os.open(args.log, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    runner = unittest.TextTestRunner(
        stream=sys.stderr, verbosity=2,
        resultclass=lambda stream, descriptions, verbosity: LoggedResult(
            stream, descriptions, verbosity, log_fd=log_fd, timeout=args.timeout))
    result = runner.run(suite)
    status = 0 if result.wasSuccessful() else 1
    os.write(log_fd, b"done %d\n" % status)
    return status


if __name__ == "__main__":
    sys.exit(main())
