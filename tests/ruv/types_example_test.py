"""The example that sends every type compiles as its comment says, and the bundled Receiver prints
its records and custom fields under the names of the example's own fields file.

usage: types_example_test.py LIBRARY_DIRECTORY CC RUV_RECEIVER
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

LIBRARY, CC, RECEIVER = sys.argv[1:4]
ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples" / "libruv"


class TypesExample(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.program = pathlib.Path(scratch.name) / "send_types"
        subprocess.run([CC, "-std=c99", "-Wall", "-Wextra", "-Werror", f"-I{ROOT}", f"-L{LIBRARY}",
                        EXAMPLES / "send_types.c", "-lruv", "-o", self.program],
                       check=True, stdin=subprocess.DEVNULL, timeout=120)

    def run_against(self, *options):
        receiver = subprocess.Popen(
            [RECEIVER, "--port", "0", "--print-port", "--connections", "1", *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(receiver.kill)
        port = receiver.stdout.readline().strip()
        done = subprocess.run([self.program, "127.0.0.1", port], stdin=subprocess.DEVNULL,
                              env=dict(os.environ, LD_LIBRARY_PATH=LIBRARY), capture_output=True,
                              text=True, timeout=120)
        records = [json.loads(line) for line in receiver.communicate(timeout=120)[0].splitlines()]
        return done, {line["record"]: line for line in records}

    def test_every_type_arrives(self):
        done, records = self.run_against("--catalogue", str(EXAMPLES / "fields.ini"))
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(records["alert"]["custom"], {
            "Rack.Position": 17, "Rack.Temperature": -40, "Ticket.Number": "T-4711"})
        self.assertEqual(records["flow"]["custom"], {
            "Rack.Position": 18, "Rack.Temperature": 21, "Ticket.Number": "T-4712"})
        self.assertEqual(records["syslog"]["message"], "<13>hello")
        self.assertEqual(records["windows"]["istrings"], [{"text": "S-1-5-18"}])
        self.assertEqual({line["source"] for line in records.values()}, {"my-program"})
        for words in ("Alert Data", "Flow Data", "Syslog Data", "Windows Event Data",
                      "Rack.Temperature : int32"):
            self.assertIn(words, done.stderr)

    def test_a_receiver_without_the_fields_is_told(self):
        done, records = self.run_against()
        self.assertEqual(done.returncode, 1)
        self.assertIn("Rack.Position: error 56: ", done.stderr)
        self.assertEqual(records["alert"]["custom"], {})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
