"""The end-to-end tests under the restrictions of the service unit: COLLECTOR_SANDBOX=1.

Each daemon of a test is then started by sandbox.py, which does what the lines of the unit say. The
unit's own folders are the daemon's there; a test names its own ones, and a drop-in beside the test
adds these: the test's folder and the build to be read, one folder each for the positions and the
log to be written. Everything else of the test's folder is closed to the daemon's writing, and
belongs to root.
"""
import os
import sys
from pathlib import Path

import sandbox
import unit_file

UNITS = Path(__file__).resolve().parents[2] / "packaging" / "unit"
UNIT = UNITS / "velmor-siem-collector.service"
LOCK = "velmor_siem_collector.loc"


def enabled():
    return os.environ.get("COLLECTOR_SANDBOX", "") not in ("", "0")


def launcher(*files):
    """The command up to the daemon's own, for a unit and its drop-ins."""
    program = Path(__file__).with_name("sandbox.py")
    return [sys.executable, "-S", "-E", "-B", str(program), *map(str, files), "--"]


def command(rig):
    files = getattr(rig, "sandbox_files", None)
    return launcher(*files) if files else []


class Sandboxed:
    """What a test says about the sandbox; without one it all means nothing."""

    unit_drop_ins = ()  # names of packaging/unit that the unit of this test has besides
    sandbox_files = None

    def lay_out_sandbox(self, build):
        if not enabled():
            return
        os.umask(0o022)
        drop_in = self.folder / "sandbox.conf"
        self.sandbox_files = [UNIT, *(UNITS / name for name in self.unit_drop_ins), drop_in]
        self.folder.chmod(0o755)
        (self.private / "lib").mkdir()
        (self.private / "lock").chmod(0o1777)
        self.daemon_owns(self.private / "lock" / LOCK, 0o600)  # as the package's tmpfiles do
        drop_in.write_text(f'[Service]\nBindReadOnlyPaths="{build.resolve()}" "{self.folder}"\n')
        self.bookmarks = self.daemon_writes(self.folder / "state") / "bookmarks"
        self.log_path = self.daemon_writes(self.folder / "logs") / "collector.log"

    @staticmethod
    def daemon_account():
        """The numbers of the account and of its group."""
        service = unit_file.settings(unit_file.read([UNIT]))
        return (sandbox.user_number(service["User"][-1]),
                sandbox.group_number(service["Group"][-1]))

    def daemon_owns(self, path, mode=None):
        """Gives a file to the daemon's account. One that is not there is made."""
        if self.sandbox_files:
            if not path.exists():
                path.touch()
            os.chown(path, *self.daemon_account())
            if mode is not None:
                path.chmod(mode)
        return path

    def check_sandbox(self, pid):
        """Fails if a running daemon is not in it."""
        if not self.sandbox_files:
            return
        try:
            status = Path(f"/proc/{pid}/status").read_text("ascii")
        except OSError:
            return  # it has ended meanwhile
        for line in (f"Uid:\t{self.daemon_account()[0]}", "NoNewPrivs:\t1", "Seccomp:\t2",
                     "CapBnd:\t0000000000000000"):
            self.assertIn("\n" + line, status)

    def daemon_writes(self, folder):
        """Makes a folder one in which the daemon may make files."""
        if self.sandbox_files:
            folder.mkdir(exist_ok=True)
            self.daemon_owns(folder)
            with open(self.sandbox_files[-1], "a", encoding="utf-8") as drop_in:
                drop_in.write(f'ReadWritePaths="{folder}"\n')
        return folder
