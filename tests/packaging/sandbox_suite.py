"""Runs the end-to-end tests of a file with each daemon under the restrictions of the service unit.

    sandbox_suite.py FILE [--jobs N] [--without NAME...]

The tests mostly wait for each other's programs, so several run at once. Exit status: 0 all passed,
1 one failed, 77 where this machine cannot restrict a process so, with the reason.
"""
import argparse
import importlib.util
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

os.environ["COLLECTOR_SANDBOX"] = "1"
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from daemon_kit import BUILD, DaemonTest, daemon_command, namespace  # noqa: E402

SKIPPED = 77
LIMIT_SECONDS = 240


class Probe(DaemonTest):
    def runTest(self):
        """Not a test: a rig that looks whether a sandbox can be had."""


def cannot():
    """Why there is no sandbox here, or None. A launcher that is broken is no reason: it raises."""
    if os.geteuid() != 0:
        return "needs root, to become the service's account"
    if namespace() is None or "--map-root-user" in namespace():
        return "needs a mount namespace of the machine's own root"
    probe = Probe()
    probe.setUp()
    try:
        done = subprocess.run(
            [*daemon_command(probe), "test", "-x", str(BUILD / "bin/velmor_siem_collector")],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
            timeout=LIMIT_SECONDS)
    finally:
        probe.doCleanups()
    if done.returncode == SKIPPED:
        return done.stderr.strip()
    if done.returncode == 1 and not done.stderr:
        return f"{BUILD} is closed to the service's account"
    if done.returncode != 0:
        raise SystemExit(f"the sandbox's launcher ended with {done.returncode}: {done.stderr}")
    return None


def load(file):
    """The tests of a file, by the names Class.method."""
    sys.path.insert(0, str(file.parent))
    spec = importlib.util.spec_from_file_location(file.stem, file)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)

    def walk(suite):
        for test in suite:
            if isinstance(test, unittest.TestSuite):
                yield from walk(test)
            else:
                yield ".".join(test.id().split(".")[-2:]), test
    return dict(walk(unittest.defaultTestLoader.loadTestsFromModule(module)))


class Run:
    """One test in a process of its own. What it prints is kept for a failure."""

    def __init__(self, name, test):
        self.name, self.begin = name, time.monotonic()
        self.output = tempfile.TemporaryFile()
        sys.stdout.flush()
        self.pid = os.fork()
        if self.pid == 0:
            os.setsid()
            for stream in (1, 2):
                os.dup2(self.output.fileno(), stream)
            # Whatever happens in here must not come back into the parent's program.
            try:
                result = unittest.TextTestRunner(sys.stderr).run(unittest.TestSuite([test]))
                status = 1 if not result.wasSuccessful() else SKIPPED if result.skipped else 0
                sys.stdout.flush()
                sys.stderr.flush()
            except BaseException:  # pylint: disable=broad-except
                status = 1
            os._exit(status)

    def ended(self):
        """The word for how it ended, or None while it runs."""
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        seconds = time.monotonic() - self.begin
        if not pid and seconds < LIMIT_SECONDS:
            return None
        if not pid:
            os.killpg(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
            status = -1
        word = {0: "passed", SKIPPED: "skipped"}.get(
            os.waitstatus_to_exitcode(status) if pid else status, "FAILED")
        print(f"{word} {self.name} {seconds:.1f} s", flush=True)
        if word != "passed":
            self.output.seek(0)
            print(self.output.read().decode("utf-8", "replace"), flush=True)
        self.output.close()
        return word


def run_all(tests, jobs):
    waiting, running, results = list(tests.items()), [], []
    while waiting or running:
        while waiting and len(running) < jobs:
            running.append(Run(*waiting.pop(0)))
        for one in list(running):
            word = one.ended()
            if word:
                running.remove(one)
                results.append(word)
        time.sleep(0.02)
    return results


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("file", type=Path)
    parser.add_argument("--jobs", type=int, default=4)
    parser.add_argument("--without", nargs="*", default=[])
    words = parser.parse_args()
    reason = cannot()
    if reason:
        print(f"skipped: {reason}")
        return SKIPPED
    tests = load(words.file.resolve())
    left_out = [name for name in tests if name.split(".")[1] in words.without]
    if len(left_out) != len(words.without):
        raise SystemExit(f"no such tests: {words.without}")
    results = run_all({n: t for n, t in tests.items() if n not in left_out}, words.jobs)
    print(", ".join(f"{results.count(word)} {word}" for word in sorted(set(results))))
    if "FAILED" in results or not results:
        return 1
    return SKIPPED if results.count("skipped") == len(results) else 0


if __name__ == "__main__":
    sys.exit(main())
