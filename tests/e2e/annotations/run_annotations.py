#!/usr/bin/env python3
"""The annotation API end to end: a program that annotates tasks, frames, a counter and a user
synchronisation object runs under `vorx run`, and `vorx report` (its CSV tables and its Chrome trace) must
show what the program did, with the names, ids, nesting, counts, values and plausible times it used."""
import argparse
import csv
import io
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

VORX = PROGRAM = None
# what annotated.c does: sleeps in milliseconds, frames, counter values
INNER_A_S, INNER_B_S, FRAME_S, GATE_WAIT_S = 0.030, 0.060, 0.010, 0.020
FRAMES = 5
COUNTER_VALUES = [7, 42, 1000, 3]
TICKS, DEPTH_VALUE, OVERLAP_S = 6, 12, 0.040  # the hand-over table's calls
TASK_IDS = {"outer": (0x0102030405060708, 0x1112131415161718), "inner a": (2, 0x2222), "inner b": (3, 0x3333)}
# a loaded machine stretches sleeps, never shortens them; beyond this a time is not plausible
SLACK_S = 2.0


def run(args, timeout=300):
    return subprocess.run(args, capture_output=True, text=True, timeout=timeout)


def csv_tables(text):
    """{table name: [row dicts]} from the report's blocks (a header line, rows, a blank line)."""
    tables = {}
    for block in text.strip().split("\n\n"):
        rows = list(csv.DictReader(io.StringIO(block.strip())))
        for row in rows:
            tables.setdefault(row["table"], []).append(row)
    return tables


class AnnotatedRun(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="vorx-ann-")
        cls.native = run([PROGRAM])
        results = os.path.join(cls.dir, "results")
        cls.traced = run([VORX, "run", "-c", "task,frame,threading", "-r", results, "--", PROGRAM])
        report = run([VORX, "report", "--no-progress", "--csv", results])
        cls.report_error = report.stderr if report.returncode else None
        cls.tables = csv_tables(report.stdout) if not report.returncode else {}
        chrome = os.path.join(cls.dir, "trace.json")
        done = run([VORX, "report", "--no-progress", "--chrome", chrome, results])
        cls.chrome_error = done.stderr if done.returncode else None
        cls.events = []
        if not done.returncode:
            with open(chrome) as f:
                data = json.load(f)
            cls.events = data["traceEvents"] if isinstance(data, dict) else data

        done = run([VORX, "report", "--no-progress", "--dump", results])
        cls.dump = done.stdout if not done.returncode else ""

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def setUp(self):
        self.assertEqual(self.native.returncode, 0, self.native.stderr)
        self.assertEqual(self.traced.returncode, 0, self.traced.stdout + self.traced.stderr)

    def assertPlausible(self, seconds, least, what):
        self.assertGreaterEqual(seconds, least * 0.95, what)  # clocks may differ by a tick
        self.assertLess(seconds, least + SLACK_S, what)

    def test_program_runs_unchanged(self):
        self.assertIn("annotated: 3 tasks, 5 frames, counter at 3", self.native.stdout)
        self.assertIn(self.native.stdout, self.traced.stdout)

    def test_tasks_and_frames_table(self):
        self.assertIsNone(self.report_error)
        rows = {(r["kind"], r["name"]): r for r in self.tables.get("tasks_and_frames", [])}
        self.assertEqual(sorted(rows), [("frame", "e2e loop"), ("task", "inner a"), ("task", "inner b"),
                                        ("task", "outer"), ("task", "overlap")], rows)
        for name in ("outer", "inner a", "inner b"):
            self.assertEqual(rows[("task", name)]["count"], "1", name)
        self.assertPlausible(float(rows[("task", "inner a")]["total_s"]), INNER_A_S, "inner a")
        self.assertPlausible(float(rows[("task", "inner b")]["total_s"]), INNER_B_S, "inner b")
        self.assertPlausible(float(rows[("task", "outer")]["total_s"]), INNER_A_S + INNER_B_S, "outer")
        self.assertEqual(rows[("frame", "e2e loop")]["count"], str(FRAMES))
        self.assertPlausible(float(rows[("frame", "e2e loop")]["total_s"]), FRAMES * FRAME_S, "frames")

    def test_counter_holds_the_values_set(self):
        self.assertIsNone(self.report_error)
        rows = [r for r in self.tables.get("counters", []) if r.get("counter", "").endswith("e2e level")]
        self.assertEqual(len(rows), 1, self.tables.get("counters"))
        row = rows[0]
        self.assertEqual(int(row["updates"]), len(COUNTER_VALUES))
        self.assertEqual(int(row["last"]), COUNTER_VALUES[-1])
        self.assertEqual(int(row["min"]), min(COUNTER_VALUES))
        self.assertEqual(int(row["max"]), max(COUNTER_VALUES))

    # The library calls these through the table that it hands over at its start, not through probed symbols.
    def test_counters_of_the_hand_over_table(self):
        self.assertIsNone(self.report_error)
        counters = self.tables.get("counters", [])
        ticks = [r for r in counters if r.get("counter", "").endswith("e2e ticks")]
        self.assertEqual(len(ticks), 1, self.tables.get("counters"))
        self.assertEqual(int(ticks[0]["updates"]), TICKS + 1)
        self.assertEqual(int(ticks[0]["last"]), TICKS - 1)
        self.assertEqual(int(ticks[0]["max"]), TICKS)
        depth = [r for r in counters if r.get("counter", "").endswith("e2e depth")]
        self.assertEqual(len(depth), 1, self.tables.get("counters"))
        self.assertEqual(int(depth[0]["last"]), DEPTH_VALUE)

    def test_overlapped_task_of_the_hand_over_table(self):
        self.assertIsNone(self.report_error)
        rows = [r for r in self.tables.get("tasks_and_frames", []) if r["name"] == "overlap"]
        self.assertEqual(len(rows), 1, self.tables.get("tasks_and_frames"))
        self.assertEqual(rows[0]["count"], "1")
        self.assertPlausible(float(rows[0]["total_s"]), OVERLAP_S, "overlapped task")

    def test_wait_on_the_user_sync_object(self):
        self.assertIsNone(self.report_error)
        rows = [r for r in self.tables.get("waits_by_object", []) if r["object_name"] == "e2e gate (flag)"]
        self.assertEqual(len(rows), 1, self.tables.get("waits_by_object"))
        self.assertEqual(rows[0]["function"], "__ozk_sync_acquired")
        self.assertEqual(rows[0]["count"], "1")

    # The wait runs from __ozk_sync_prepare to __ozk_sync_acquired, not just over the acquired call.
    def test_wait_on_the_user_sync_object_lasts_from_prepare_to_acquired(self):
        rows = [r for r in self.tables.get("waits_by_object", []) if r["object_name"] == "e2e gate (flag)"]
        self.assertEqual(len(rows), 1, self.tables.get("waits_by_object"))
        self.assertPlausible(float(rows[0]["total_s"]), GATE_WAIT_S, "gate wait")

    def test_task_ids_reach_the_trace_word_for_word(self):
        ids = re.findall(r"function=__ozk_task_begin .*?arg1=\[2x8\]([0-9a-f]{32})", self.dump)
        words = [(int.from_bytes(bytes.fromhex(h[:16]), "little"), int.from_bytes(bytes.fromhex(h[16:]), "little"))
                 for h in ids]
        self.assertEqual(words, [TASK_IDS["outer"], TASK_IDS["inner a"], TASK_IDS["inner b"]])

    def test_chrome_trace_nests_the_tasks(self):
        self.assertIsNone(self.chrome_error)
        tasks = {e["name"]: e for e in self.events if e.get("cat") == "task"}
        self.assertEqual(sorted(tasks), ["inner a", "inner b", "outer", "overlap"])
        outer, a, b = tasks["outer"], tasks["inner a"], tasks["inner b"]
        self.assertEqual({outer["tid"], a["tid"], b["tid"]}, {outer["tid"]}, "one thread")
        end = lambda e: e["ts"] + e["dur"]
        self.assertLessEqual(outer["ts"], a["ts"])
        self.assertLessEqual(end(a), b["ts"], "inner a closes before inner b opens")
        self.assertLessEqual(end(b), end(outer))
        self.assertPlausible(a["dur"] / 1e6, INNER_A_S, "inner a")
        self.assertPlausible(b["dur"] / 1e6, INNER_B_S, "inner b")

    def test_chrome_trace_has_a_counter_track_with_the_values_set(self):
        self.assertIsNone(self.chrome_error)
        points = sorted((e for e in self.events if e.get("ph") == "C" and e["name"].endswith("e2e level")),
                        key=lambda e: e["ts"])
        self.assertEqual([p["args"]["value"] for p in points], COUNTER_VALUES)

    def test_chrome_trace_has_the_frames_in_order(self):
        self.assertIsNone(self.chrome_error)
        frames = sorted((e for e in self.events if e.get("cat") == "frame"), key=lambda e: e["ts"])
        self.assertEqual(len(frames), FRAMES)
        self.assertEqual({e["name"] for e in frames}, {"e2e loop"})
        for k, frame in enumerate(frames):
            self.assertPlausible(frame["dur"] / 1e6, FRAME_S, "frame %d" % k)
            if k:
                self.assertLessEqual(frames[k - 1]["ts"] + frames[k - 1]["dur"], frame["ts"], "frame %d" % k)


def main():
    global VORX, PROGRAM
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--vorx", required=True, help="the vorx program")
    ap.add_argument("--program", required=True, help="the annotated test program")
    args, rest = ap.parse_known_args()
    VORX, PROGRAM = os.path.abspath(args.vorx), os.path.abspath(args.program)
    unittest.main(argv=[sys.argv[0], "-v"] + rest)


if __name__ == "__main__":
    main()
