"""The kit of the end-to-end tests: a real daemon and a real Receiver, each test alone.

The daemon's lock file, default log and default configuration have fixed paths. So each test gives
it a mount namespace of its own, in which /var/lock, /var/log and /opt are folders of the test;
two daemons of one test share them, two tests never do. Where no namespace can be made, one test at
a time holds a machine-wide lock and uses the real paths. With COLLECTOR_SANDBOX=1 each daemon runs
under the restrictions of the service unit as well; sandbox_kit.py has that half.

Nothing here waits a fixed time: conditions are polled, with a budget that only a broken program
uses up.
"""
import base64
import fcntl
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

import sandbox_kit

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("COLLECTOR_BUILD", ROOT / "build"))
BUDGET_SECONDS = 60
POLL_SECONDS = 0.02

# Binds the folders of the test over the fixed paths and becomes the program.
PRIVATE_PATHS = r"""
set -e
private=$1; shift
lock=$(readlink -f /var/lock || echo /run/lock)
if [ ! -d "$lock" ]; then mount -t tmpfs none "${lock%/*}"; mkdir -p "$lock"; fi
mount --bind "$private/lock" "$lock"
[ ! -d "$private/log" ] || mount --bind "$private/log" /var/log
[ ! -d "$private/opt" ] || mount --bind "$private/opt" /opt
[ ! -d "$private/lib" ] || mount --bind "$private/lib" /var/lib
if [ -d "$private/etc" ]; then mount --bind "$private/etc" /etc; fi
exec "$@"
"""


def _namespace_commands():
    yield ["unshare", "--mount", "--propagation", "private"]
    yield ["unshare", "--map-root-user", "--mount", "--propagation", "private"]


def _find_namespace():
    """The command that begins a private namespace here, or None."""
    for command in _namespace_commands():
        with tempfile.TemporaryDirectory() as folder:
            make_private(Path(folder))
            try:
                done = subprocess.run(
                    command + ["sh", "-c", PRIVATE_PATHS, "sh", folder, "true"], check=False,
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            except OSError:
                continue
            if done.returncode == 0:
                return command
    return None


def make_private(folder, names=("lock", "log", "opt")):
    for name in names:
        (folder / name).mkdir(parents=True, exist_ok=True)


_namespace = []


def namespace():
    if not _namespace:
        _namespace.append(_find_namespace())
    return _namespace[0]


def private_command(folder):
    """What to put in front of a command so that it sees the folder's lock, log and opt."""
    if namespace() is None:
        return []
    return namespace() + ["sh", "-c", PRIVATE_PATHS, "sh", str(folder)]


def daemon_command(rig):
    """What stands before the daemon: its private paths and, where asked for, its sandbox."""
    return private_command(rig.private) + sandbox_kit.command(rig)


def preloadable(folder, name):
    """A library of the tests under a path that LD_PRELOAD takes: it splits at blanks."""
    link = Path(folder) / name
    if not link.exists():
        link.symlink_to(BUILD / "tests" / name)
    return link


def wait_for(condition, what, budget=BUDGET_SECONDS):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + budget
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {budget} s in vain for: {what}")
        time.sleep(POLL_SECONDS)


def tail(path, lines=40):
    try:
        data = Path(path).read_bytes()[-20000:]
    except OSError as error:
        return f"({error.strerror})"
    return "\n".join(data.decode("utf-8", "replace").splitlines()[-lines:])


class Receiver:
    """A bundled Receiver on loopback; a thread takes its JSON lines as they come."""

    def __init__(self, folder, *options, port=0):
        self.events, self.notes = [], []  # records, and what else the Receiver prints
        self._changed = threading.Condition()
        self._errors = open(Path(folder) / "receiver.err", "ab")
        command = [str(BUILD / "bin/ruv_receiver"), "--port", str(port), "--print-port",
                   *map(str, options)]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=self._errors)
        self.port = self._read_port()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read_port(self):
        line = self.process.stdout.readline().decode()
        match = re.search(r"(\d{2,5})\D*$", line)
        if not match:
            raise AssertionError(f"the Receiver did not say its port: {line!r}")
        return int(match.group(1))

    def _read(self):
        for line in self.process.stdout:
            if not line.endswith(b"\n"):
                break  # a killed Receiver leaves half a line
            record = json.loads(line)
            with self._changed:
                (self.events if "record" in record else self.notes).append(record)
                self._changed.notify_all()

    def count(self):
        with self._changed:
            return len(self.events)

    def messages(self):
        with self._changed:
            return [text_of(event) for event in self.events]

    def wait_messages(self, count, budget=BUDGET_SECONDS):
        """The messages once there are at least `count`; a later surplus is the caller's to see."""
        end = time.monotonic() + budget
        while True:
            got = self.messages()
            if len(got) >= count:
                return got
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError(f"{len(got)} of {count} events after {budget} s: {got[-5:]}")
            with self._changed:
                self._changed.wait(min(left, 0.2))

    def stop(self, sig=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(sig)
        status = self.process.wait(BUDGET_SECONDS)
        self._reader.join(BUDGET_SECONDS)
        self.process.stdout.close()
        self._errors.close()
        return status


def text_of(event):
    """The message, byte for byte: bytes that are no UTF-8 become lone surrogates."""
    if "message_base64" in event:
        return base64.b64decode(event["message_base64"]).decode("utf-8", "surrogateescape")
    return event["message"]


class Daemon:
    """One run of the daemon; several runs of one test share its folder.

    `rig` is a DaemonTest, or anything with its folder, private, conf_path, log_path, daemons,
    sanitizer_environment() and, where it has a sandbox, check_sandbox().
    """

    def __init__(self, rig, *args, conf=None, scale=None, env=None, log=True, wait=True,
                 wrapper=()):
        self.log_path = rig.log_path
        environment = {k: v for k, v in os.environ.items() if not k.startswith("COLLECTOR_")}
        environment.update(rig.sanitizer_environment())
        command = [str(BUILD / "bin/velmor_siem_collector")]
        command += ["-c", str(conf or rig.conf_path)] if conf is not False else []
        command += ["-f"] if log else []
        command += [str(a) for a in args]
        preload = []
        if scale:
            preload = ["env", f"LD_PRELOAD={preloadable(rig.folder, 'libtime_shim.so')}",
                       f"COLLECTOR_TIME_SCALE={scale}"]
        environment.update(env or {})
        self.out, self.err = rig.folder / "daemon.out", rig.folder / "daemon.err"
        # The log of the run before would be taken for this one's.
        if log and self.log_path.exists():
            self.log_path.unlink()
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = subprocess.Popen(
                daemon_command(rig) + [*wrapper] + preload + command, env=environment,
                cwd=rig.folder, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        rig.daemons.append(self)
        if wait:
            self.wait_log("Initalizing Linux Agent")
            getattr(rig, "check_sandbox", lambda pid: None)(self.pid)

    @property
    def pid(self):
        return self.process.pid

    def log(self):
        try:
            return self.log_path.read_text("utf-8", "surrogateescape")
        except FileNotFoundError:
            return ""

    def wait_log(self, text, count=1, budget=BUDGET_SECONDS):
        def seen():
            return self.log().count(text) >= count or self.process.poll() is not None
        wait_for(seen, f"'{text}' in the log", budget)
        if self.log().count(text) < count:
            raise AssertionError(f"the daemon ended without '{text}' in its log")

    def send(self, sig):
        self.process.send_signal(sig)

    def hold(self):
        """Until SIGCONT the daemon does and sees nothing."""
        self.send(signal.SIGSTOP)
        for state in Path(f"/proc/{self.pid}/task").glob("*/stat"):
            wait_for(lambda s=state: s.read_text().rpartition(") ")[2][0] == "T", "a held thread")

    def wait(self, budget=BUDGET_SECONDS):
        """The exit status; a negative one names the signal that killed it."""
        try:
            return self.process.wait(budget)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the daemon still runs after {budget} s") from None

    def stop(self, sig=signal.SIGTERM, budget=BUDGET_SECONDS):
        """Stops in the ordinary way; raises unless the status is the signal's number."""
        self.send(sig)
        status = self.wait(budget)
        if status != int(sig):
            raise AssertionError(f"stopped by {int(sig)}, ended with {status}")
        return status

    def kill(self):
        self.process.kill()
        self.process.wait(BUDGET_SECONDS)


class DaemonTest(sandbox_kit.Sandboxed, unittest.TestCase):
    """A test with a folder, a configuration and any number of daemons and Receivers."""

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp(prefix="collector-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.daemons, self.receivers = [], []
        self.addCleanup(self._end_all)
        self.private = self.folder / "private"
        make_private(self.private)
        self.input = self.folder / "in"
        self.input.mkdir()
        self.bookmarks = self.folder / "bookmarks"
        self.conf_path = self.folder / "collector.conf"
        self.log_path = self.folder / "collector.log"
        if namespace() is None:
            self._hold_machine()
        self.lay_out_sandbox(BUILD)

    def _hold_machine(self):
        lock = open("/tmp/velmor_collector_tests.lock", "w")  # released when the test ends
        self.addCleanup(lock.close)
        fcntl.flock(lock, fcntl.LOCK_EX)

    def need_namespace(self):
        if namespace() is None:
            self.skipTest("needs a mount namespace for the fixed system paths")

    def sanitizer_environment(self):
        log = self.folder / "sanitizer"
        return {
            "ASAN_OPTIONS": f"verify_asan_link_order=0:log_path={log}:exitcode=99",
            "UBSAN_OPTIONS": f"log_path={log}:print_stacktrace=1",
            "TSAN_OPTIONS": f"log_path={log}:exitcode=99:" + os.environ.get("TSAN_OPTIONS", ""),
        }

    def _end_all(self):
        for daemon in self.daemons:
            if daemon.process.poll() is None:
                daemon.kill()
        for receiver in self.receivers:
            receiver.stop(signal.SIGKILL)

    def receiver(self, *options, port=0):
        receiver = Receiver(self.folder, *options, port=port)
        self.receivers.append(receiver)
        return receiver

    def start(self, *args, **options):
        return Daemon(self, *args, **options)

    def configure(self, port, *sections, path=None, **settings):
        """Writes the configuration: defaults of the tests, changed by `settings` (None removes
        a key), then one plugin per section (a dict; without any, all of the input folder)."""
        keys = {"rec_ip": "127.0.0.1", "rec_port": port, "rec_encrypt": 0,
                "bookmark_dir": self.bookmarks, "debug_level": "debug", "log_path": self.log_path,
                "sleep": 1, "throttle": 1000}
        keys.update(settings)
        lines = [f"{k}={v}" for k, v in keys.items() if v is not None]
        for section in sections or ({},):
            plugin = {"type": "filetail", "ft_dir": self.input, "ft_filter": "*.log",
                      "ft_delim": "<newline>", "ft_start_top": 1}
            plugin.update(section)
            lines += [f"{k}={v}" for k, v in plugin.items() if v is not None]
        Path(path or self.conf_path).write_text("\n".join(lines) + "\n", "utf-8")

    def write(self, name, text, mode="a"):
        """Adds text to a file of the input folder with one system call."""
        data = text.encode() if isinstance(text, str) else text
        with open(self.input / name, mode + "b", buffering=0) as file:
            file.write(data)
        return self.input / name

    def bookmark_records(self):
        """path -> (location, head, tail) of each record of the bookmark file."""
        try:
            data = (self.bookmarks / "ft_bookmark").read_bytes()
        except FileNotFoundError:
            return {}
        records = {}
        for begin in range(0, len(data), 199):
            record = data[begin:begin + 199]
            if len(record) == 199 and record[198:] == b"\n":
                numbers = tuple(int(record[i:i + 15]) for i in (0, 16, 32))
                records[record[48:198].decode("utf-8", "surrogateescape").rstrip()] = numbers
        return records

    def wait_bookmark(self, name, location):
        path = str(self.input / name)
        wait_for(lambda: self.bookmark_records().get(path, (None,))[0] == location,
                 f"the bookmark of {name} at {location}")

    def numbered(self, first, last, width=0):
        return "".join(f"event {n:06d} ".ljust(width, "x") + "\n" for n in range(first, last + 1))

    def expected(self, first, last, width=0):
        """What a Receiver gets of numbered(): the line feed has become a blank."""
        return [f"event {n:06d} ".ljust(width, "x") + " " for n in range(first, last + 1)]

    def _callTestMethod(self, method):
        try:
            super()._callTestMethod(method)
            self._check_sanitizers()
        except unittest.SkipTest:
            raise
        except BaseException:
            self._report()
            raise

    def _check_sanitizers(self):
        for report in sorted(self.folder.glob("sanitizer.*")):
            raise AssertionError("a sanitizer reported:\n" + tail(report, 60))

    def _report(self):
        for name in ("collector.conf", "collector.log", "daemon.out", "daemon.err",
                     "receiver.err"):
            if (self.folder / name).exists():
                print(f"--- {name}\n{tail(self.folder / name)}", file=sys.stderr)
        for number, receiver in enumerate(self.receivers):
            got = receiver.messages()
            print(f"--- receiver {number}: {len(got)} events, the last: {got[-3:]}",
                  file=sys.stderr)


def main():
    """Runs the tests of the calling file; a skipped run is told to ctest by its status."""
    program = unittest.main(exit=False)
    result = program.result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(77 if result.testsRun == len(result.skipped) else 0)
