#!/usr/bin/env python3
"""What scripts/fuzz makes of the ways in which a target can end."""
import importlib.machinery
import importlib.util
import json
import pathlib
import signal
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "fuzz"
# Some CPU time, the report of a target, and the end that is tried.
TARGET = """#!/bin/sh
ulimit -c 0
echo run >> {runs}
i=0; while [ $i -lt 20000 ]; do i=$((i+1)); done
echo "#7 REDUCE cov: 31 ft: 40" >&2
echo "stat::number_of_executed_units: 7" >&2
{end}
"""


def load(build):
    loader = importlib.machinery.SourceFileLoader("fuzz_script", str(SCRIPT))
    script = importlib.util.module_from_spec(importlib.util.spec_from_loader("fuzz_script", loader))
    loader.exec_module(script)
    script.BUILD = build
    return script


class Endings(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.build = pathlib.Path(scratch.name)
        self.script = load(self.build)
        # A test that runs in the background may have been told to ignore them.
        signal.signal(signal.SIGINT, signal.default_int_handler)
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        (self.build / "fuzz").mkdir()

    def run_target(self, end, cpu_seconds=20):
        target = self.build / "fuzz" / "x_fuzz"
        target.write_text(TARGET.format(runs=self.build / "runs", end=end))
        target.chmod(0o755)
        row = self.script.run("x_fuzz", cpu_seconds, 0)
        self.assertEqual(json.loads((self.build / "ledger" / "x_fuzz").read_text()), row)
        return row, (self.build / "runs").read_text().count("run")

    def check_one_slice(self, end, findings):
        row, slices = self.run_target(end)
        self.assertEqual((row["findings"], slices), (findings, 1))
        self.assertEqual((row["runs"], row["edges"]), (7, 31))
        self.assertGreater(row["cpu"], 0)

    def test_an_interrupted_slice_counts_its_time_and_is_no_finding(self):
        for end in ("exit 72", "kill -TERM $$", "kill -INT $$"):
            with self.subTest(end):
                self.setUp()
                self.check_one_slice(end, findings=0)

    def test_a_failure_is_a_finding(self):
        for end in ("exit 77", "exit 70", "exit 1", "kill -ABRT $$", "kill -SEGV $$",
                    "kill -KILL $$"):
            with self.subTest(end):
                self.setUp()
                self.check_one_slice(end, findings=1)

    def test_slices_follow_until_the_time_is_used(self):
        row, slices = self.run_target("exit 0", cpu_seconds=1e-9)
        self.assertEqual((row["findings"], slices), (0, 1))
        row, slices = self.run_target("exit 0", cpu_seconds=row["cpu"] * 2)
        self.assertEqual((row["findings"], row["runs"]), (0, 7 * slices))
        self.assertGreaterEqual(slices, 2)


if __name__ == "__main__":
    unittest.main()
