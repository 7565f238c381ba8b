#!/usr/bin/env python3
"""What `vorx report` makes of CPU samples of a real program: cpu_hot's threads (main among them) spend about
70% of their CPU time in hot_heavy and 30% in hot_light (through qsort's comparator). The hot-spot table names
both from the program's own symbols with their source lines, in about those shares; the call tree puts them
below the threads' loop `spin` and qsort's own functions; the folded samples, the speedscope profile and the
Chrome trace account for every sample.

Shares the helpers of run_e2e.py; run as: report_samples_e2e.py --build BUILD --source SOURCE [unittest args]."""
import csv
import io
import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run_e2e  # noqa: E402
from run_e2e import Workdir, run, tool  # noqa: E402

SECONDS, THREADS = "1.5", "3"


def tables(text):
    """CSV blocks of `vorx report --csv` by table name: lists of dicts."""
    out, columns = {}, None
    for row in csv.reader(io.StringIO(text)):
        if not row:
            continue
        if row[0] == "table":
            columns = row[1:]
            continue
        out.setdefault(row[0], []).append(dict(zip(columns, row[1:])))
    return out


class ReportOfSamples(Workdir):
    @classmethod
    def setUpClass(cls):
        cls.workdir = __import__("tempfile").mkdtemp(prefix="vorx-e2e-samples-")
        cls.collected = os.path.join(cls.workdir, "results")
        program = tool("tests", "e2e", "e2e_cpu_hot")
        cls.traced = run([tool("bin", "vorx"), "run", "-c", "cpu", "-r", cls.collected, "--", program, SECONDS,
                          THREADS], cwd=cls.workdir, timeout=300)

    @classmethod
    def tearDownClass(cls):
        __import__("shutil").rmtree(cls.workdir, ignore_errors=True)

    def setUp(self):
        super().setUp()
        self.assertEqual(self.traced.returncode, 0, self.traced.stderr)

    def test_hot_spots_name_the_hot_functions_in_their_shares(self):
        t = tables(self.report(self.collected, "--csv"))
        spots = {row["function"]: row for row in t["hot_spots"]}
        self.assertIn("hot_heavy", spots, t["hot_spots"][:5])
        self.assertIn("hot_light", spots, t["hot_spots"][:5])
        heavy, light = spots["hot_heavy"], spots["hot_light"]
        self.assertEqual(heavy["module"], "e2e_cpu_hot")
        self.assertTrue(heavy["source"].startswith("cpu_hot.c:"), heavy)
        samples = sum(int(row["self_samples"]) for row in t["hot_spots"])
        heavy_share = int(heavy["self_samples"]) / samples
        light_share = int(light["total_samples"]) / samples  # its time is in the comparator below it
        self.assertGreater(heavy_share, 0.5, (heavy, samples))
        self.assertLess(heavy_share, 0.85, (heavy, samples))
        self.assertGreater(light_share, 0.15, (light, samples))
        # every thread that ran has its own rows
        threads = {row["thread"] for row in t["hot_spots_by_thread"]}
        self.assertEqual(len(threads), int(THREADS), threads)

    def test_the_call_tree_puts_the_hot_functions_below_their_callers(self):
        tree = tables(self.report(self.collected, "--csv"))["call_tree"]
        roots = [row for row in tree if row["depth"] == "0"]
        self.assertAlmostEqual(sum(float(r["total_pct"]) for r in roots), 100.0, delta=0.5)
        # Depth first: a node's callers are the nearest rows above it with smaller depths.
        def callers(index):
            out, depth = [], int(tree[index]["depth"])
            for row in reversed(tree[:index]):
                if int(row["depth"]) < depth:
                    out.append(row["function"])
                    depth = int(row["depth"])
            return out
        heavy = [i for i, row in enumerate(tree) if row["function"] == "hot_heavy"]
        under_spin = sum(int(tree[i]["total_samples"]) for i in heavy if "nofp_spin" in callers(i) and "spin" in callers(i))
        self.assertGreater(under_spin, 0.5 * sum(int(tree[i]["total_samples"]) for i in heavy), tree[:20])
        compare = [i for i, row in enumerate(tree) if row["function"] == "compare_words"]
        self.assertTrue(any({"qsort", "hot_light"} <= set(callers(i)) for i in compare), tree[:40])

    def test_the_exports_account_for_every_sample(self):
        folded, profile, chrome = (os.path.join(self.dir, n) for n in ("s.folded", "p.speedscope.json", "t.json"))
        out = self.report(self.collected, "--folded-samples", folded, "--speedscope", profile, "--chrome", chrome)
        samples = int(out.split("CPU samples: ", 1)[1].split(",", 1)[0])
        self.assertGreater(samples, 100)
        with open(folded) as f:
            counts = [int(line.rsplit(" ", 1)[1]) for line in f]
        self.assertEqual(sum(counts), samples)
        with open(profile) as f:
            doc = json.load(f)
        frames = len(doc["shared"]["frames"])
        self.assertEqual(len(doc["profiles"]), int(THREADS))
        self.assertEqual(sum(len(p["samples"]) for p in doc["profiles"]), samples)
        for p in doc["profiles"]:
            self.assertEqual(p["type"], "sampled")
            self.assertEqual(len(p["samples"]), len(p["weights"]))
            self.assertTrue(all(0 <= i < frames for stack in p["samples"] for i in stack))
            self.assertAlmostEqual(sum(p["weights"]), p["endValue"], delta=0.01)
        check = run([sys.executable, os.path.join(run_e2e.SOURCE, "tests", "reader", "check_chrome_trace.py"), chrome])
        self.assertEqual(check.returncode, 0, check.stdout)
        with open(chrome) as f:
            events = json.load(f)["traceEvents"]
        self.assertEqual(sum(1 for e in events if e.get("ph") == "P"), samples)


if __name__ == "__main__":
    run_e2e.main()
