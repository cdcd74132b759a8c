"""The service unit: how exposed it is and what it promises."""
import configparser
import re
import shutil
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
UNITS = ROOT / "packaging" / "unit"
UNIT = UNITS / "velmor-siem-collector.service"
LARGEST_EXPOSURE = 2.0


def unit():
    parser = configparser.ConfigParser(strict=False, interpolation=None, delimiters=("=",))
    parser.optionxform = str
    parser.read_string(UNIT.read_text())
    return parser


class Unit(unittest.TestCase):
    def test_promises(self):
        service = unit()["Service"]
        self.assertEqual(service["SuccessExitStatus"], "15")
        self.assertEqual(service["Restart"], "always")
        self.assertNotIn("ExecReload", service)
        self.assertGreaterEqual(int(service["TimeoutStopSec"].rstrip("s")), 11)
        self.assertEqual(service["User"], "velmor-siem")
        conf = (ROOT / "packaging" / "etc" / "siem_collector.conf").read_text()
        self.assertIn("\ndaemonize=0\n", conf)

    def test_account_and_lock_file_agree(self):
        self.assertIn("u velmor-siem ", (UNITS / "sysusers.conf").read_text())
        lock = re.search(r"^f (\S+) 0600 velmor-siem velmor-siem", (UNITS / "tmpfiles.conf")
                         .read_text(), re.M)[1]
        self.assertEqual(lock, "/run/lock/velmor_siem_collector.loc")
        self.assertEqual(unit()["Service"]["ReadWritePaths"], "/run/lock")

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
    def test_exposure(self):
        done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", UNIT],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
        level = re.search(r"exposure level for \S+: ([\d.]+)", done.stdout)
        if not level:
            self.skipTest(f"no offline analysis here: {done.stderr[:200]}")
        self.assertLessEqual(float(level[1]), LARGEST_EXPOSURE)

    def test_shell_files_parse(self):
        for file in (UNITS / "velmor-siem-collector.init", ROOT / "scripts" / "package",
                     ROOT / "packaging" / "debian" / "velmor-siem-collector.postrm"):
            done = subprocess.run(["sh", "-n", file], capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, done.stderr)


if __name__ == "__main__":
    unittest.main()
