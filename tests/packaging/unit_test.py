"""The service unit: how exposed it is, what it promises, and the daemon under its restrictions."""
import configparser
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "support"))
from daemon_kit import BUILD, Daemon, DaemonTest  # noqa: E402

UNITS = ROOT / "packaging" / "unit"
UNIT = UNITS / "velmor-siem-collector.service"
LARGEST_EXPOSURE = 2.0
NOBODY = 65534

# What the unit's sandbox does and namespaces can do here: a read-only system with a few writable
# places, a private /tmp, no devices, nobody's user without any capability or way to get one.
RESTRICTED = """\
#!/bin/sh
set -e
mount --make-rprivate /
mount --bind "$FOLDER" "$FOLDER"
mount -o remount,bind,ro /
mount -t tmpfs -o mode=0755 tmpfs /home
mount -t tmpfs -o mode=0755 tmpfs /root 2>/dev/null || true
umask 0077
exec setpriv --reuid 65534 --regid 65534 --clear-groups --no-new-privs --bounding-set=-all \\
    --inh-caps=-all "$@"
"""


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


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs root and setpriv")
class Restricted(DaemonTest):
    def need_reachable_build(self):
        for folder in [BUILD.resolve(), *BUILD.resolve().parents]:
            if not folder.stat().st_mode & 0o001:
                self.skipTest(f"{folder} is closed to other users")

    def test_daemon_under_the_units_restrictions(self):
        self.need_namespace()
        self.need_reachable_build()
        receiver = self.receiver()
        state = self.folder / "state"
        log = self.folder / "log"
        for writable in (state, log, self.private / "lock"):
            writable.mkdir(exist_ok=True)
            os.chown(writable, NOBODY, NOBODY)
        for readable in (self.folder, self.input, self.private):
            readable.chmod(0o755)
        self.log_path = log / "collector.log"
        self.bookmarks = state / "marks"
        self.configure(receiver.port, {"ft_delim": r"\n(?=event)"}, debug_level="info",
                       throttle=500)
        self.write("a.log", self.numbered(1, 50, 60))
        wrapper = self.folder / "restricted"
        wrapper.write_text(RESTRICTED)
        wrapper.chmod(0o755)
        daemon = Daemon(self, env={"FOLDER": str(self.folder)}, wrapper=[str(wrapper)])
        self.assertEqual(receiver.wait_messages(49), self.expected(1, 49, 60))
        status = Path(f"/proc/{daemon.pid}/status").read_text()
        self.assertRegex(status, r"Uid:\s+65534\s+65534")
        self.assertRegex(status, r"CapBnd:\s+0000000000000000")
        self.assertRegex(status, r"NoNewPrivs:\s+1")
        self.assertEqual(daemon.stop(signal.SIGTERM), 15)


if __name__ == "__main__":
    unittest.main()
