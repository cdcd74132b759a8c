"""Runs the end-to-end tests of a file with each daemon under the restrictions of the service unit.

    sandbox_suite.py FILE [--jobs N] [--without NAME...]

The tests mostly wait for each other's programs, so several run at once. Exit status: 0 all passed,
1 one failed, 77 where this machine cannot restrict a process so, with the reason.
"""
import argparse
import importlib.util
import os
import subprocess
import sys
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
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


def names_of(file):
    """Class.method of every test of the file."""
    sys.path.insert(0, str(file.parent))
    spec = importlib.util.spec_from_file_location(file.stem, file)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)

    def walk(suite):
        for test in suite:
            if isinstance(test, unittest.TestSuite):
                yield from walk(test)
            else:
                yield ".".join(test.id().split(".")[-2:])
    return list(walk(unittest.defaultTestLoader.loadTestsFromModule(module)))


def run(file, name):
    begin = time.monotonic()
    try:
        done = subprocess.run([sys.executable, "-B", str(file), name], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                              timeout=LIMIT_SECONDS)
        status, text = done.returncode, done.stdout.decode("utf-8", "replace")
    except subprocess.TimeoutExpired as error:
        status, text = 1, f"no end within {LIMIT_SECONDS} s\n{error.stdout}"
    word = {0: "passed", SKIPPED: "skipped"}.get(status, "FAILED")
    print(f"{word} {name} {time.monotonic() - begin:.1f} s", flush=True)
    if status != 0:
        print(text, flush=True)
    return word


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
    names = names_of(words.file.resolve())
    left_out = [name for name in names if name.split(".")[1] in words.without]
    if len(left_out) != len(words.without):
        raise SystemExit(f"no such tests: {words.without}")
    names = [name for name in names if name not in left_out]
    with ThreadPoolExecutor(words.jobs) as pool:
        results = list(pool.map(lambda name: run(words.file.resolve(), name), names))
    print(", ".join(f"{results.count(word)} {word}" for word in sorted(set(results))))
    if "FAILED" in results or not results:
        return 1
    return SKIPPED if results.count("skipped") == len(results) else 0


if __name__ == "__main__":
    sys.exit(main())
