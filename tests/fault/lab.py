"""The fault laboratory: numbered events in, an exact account out.

A lab is one daemon, its inputs and any number of Receivers on one port, in a folder and a mount
namespace of its own. Every random choice comes from one seed, which a failure prints.
"""
import os
import random
import re
import resource
import signal
import sys
import threading
import time
import zlib
from dataclasses import dataclass, field
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from daemon_kit import (Daemon, DaemonTest, Receiver, preloadable, text_of,  # noqa: E402
                        wait_for)

EVENT = re.compile(r"(\S+) (\d{7}) (x*)#([0-9a-f]{8}) ?$")
SCALE = 300  # the 300 s between two attempts to connect become one


def event_line(source, number, width):
    body = f"{source} {number:07d} " + "x" * width
    return f"{body}#{zlib.crc32(body.encode()):08x}\n"


class Source:
    """One stream of numbered events, written to a file that may move."""

    def __init__(self, lab, name, path, rng):
        self.name, self.path, self.rng = name, Path(path), rng
        self.written = 0
        self.lock = threading.Lock()

    def append(self, count, mode="ab"):
        with self.lock:
            lines = []
            for _ in range(count):
                self.written += 1
                lines.append(event_line(self.name, self.written, self.rng.randrange(20, 90)))
            with open(self.path, mode, buffering=0) as file:
                file.write("".join(lines).encode())


@dataclass
class Account:
    """What became of the events."""
    written: int = 0
    arrived: int = 0
    lost: int = 0
    repeated: int = 0
    torn: int = 0
    disordered: int = 0
    samples: list = field(default_factory=list)  # a few of each, for the eye

    def note(self, text):
        if len(self.samples) < 8:
            self.samples.append(text)


def account_for(sources, messages):
    """Compares what arrived with what was written, number by number.

    `messages` are texts, each with the connection that it came over: what a killed daemon's kernel
    still holds may arrive beside what the next daemon sends, so that each connection has an order
    of its own.
    """
    result = Account(written=sum(s.written for s in sources), arrived=len(messages))
    counts = {s.name: [0] * (s.written + 1) for s in sources}
    newest = {}
    for text, connection in messages:
        match = EVENT.match(text)
        body = text[:match.start(4) - 1] if match else ""
        if not match or f"{zlib.crc32(body.encode()):08x}" != match[4] or match[1] not in counts:
            result.torn += 1
            result.note(f"torn: {text[:120]!r}")
            continue
        name, number = match[1], int(match[2])
        stream = (name, connection)
        seen = counts[name]
        if number >= len(seen):
            result.torn += 1
            result.note(f"never written: {text[:60]!r}")
            continue
        seen[number] += 1
        if seen[number] > 1:
            result.repeated += 1
        elif number < newest.get(stream, 0):
            result.disordered += 1
            result.note(f"late: {name} {number} after {newest[stream]}")
        newest[stream] = max(newest.get(stream, 0), number)
    for name, seen in counts.items():
        missing = [n for n in range(1, len(seen)) if seen[n] == 0]
        result.lost += len(missing)
        if missing:
            result.note(f"lost: {name} {missing[:5]}... ({len(missing)})")
    return result


class Writer(threading.Thread):
    """Appends to sources until stopped, a few events every few milliseconds."""

    def __init__(self, lab, sources, burst=5, pause=0.002):
        super().__init__(daemon=True)
        self.sources, self.burst, self.pause = sources, burst, pause
        self.ended = threading.Event()
        lab.addCleanup(self.stop)
        self.start()

    def run(self):
        while not self.ended.wait(self.pause):
            for source in self.sources:
                source.append(self.burst)

    def stop(self):
        self.ended.set()
        if self.is_alive():
            self.join(30)


class Lab(DaemonTest):
    """One scenario's daemon, inputs and Receivers."""

    def __init__(self, seed):
        super().__init__("run_nothing")
        self.seed = seed
        self.rng = random.Random(seed)
        self.sources, self.figures = [], {}
        self.looked_at, self.highest = {}, {}  # what arrived() knows of the Receivers' events
        self.port = 0
        self.options = ()

    def run_nothing(self):
        raise NotImplementedError("a lab is driven by its scenario")

    def __enter__(self):
        self.setUp()
        self.need_namespace()
        return self

    def __exit__(self, kind, value, trace):
        try:
            if kind is None:
                for daemon in self.daemons:
                    if daemon.process.poll() is None:
                        daemon.kill()
                self._check_sanitizers()
            else:
                self._report()
        finally:
            self.doCleanups()

    # --- inputs ------------------------------------------------------------------------------

    def source(self, name="a", folder=None, file=None):
        path = (folder or self.input) / (file or f"{name}.log")
        path.parent.mkdir(parents=True, exist_ok=True)
        source = Source(self, name, path, self.rng)
        self.sources.append(source)
        return source

    # --- the Receiver ------------------------------------------------------------------------

    def listen(self, *options):
        """A Receiver on the lab's port, which the first one chooses."""
        self.options = options
        end = time.monotonic() + 30
        while True:
            try:
                receiver = Receiver(self.folder, *options, port=self.port)
                break
            except AssertionError:  # the port of the one before is not free yet
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)
        self.receivers.append(receiver)
        self.port = receiver.port
        return receiver

    def messages(self):
        return [(text_of(event), (turn, event["connection"]))
                for turn, receiver in enumerate(self.receivers)
                for event in list(receiver.events)]

    def arrived(self, source):
        """The highest number of a source that has arrived."""
        for receiver in self.receivers:
            known = self.looked_at.get(receiver, 0)
            for event in receiver.events[known:]:
                known += 1
                match = EVENT.match(text_of(event))
                if match:
                    self.highest[match[1]] = max(self.highest.get(match[1], 0), int(match[2]))
            self.looked_at[receiver] = known
        return self.highest.get(source.name, 0)

    def wait_last(self, budget=120):
        """Waits until the last event of every source has arrived."""
        def all_there():
            return all(self.arrived(s) == s.written for s in self.sources if s.written)
        wait_for(all_there, "the last event of every source", budget)

    # --- the daemon --------------------------------------------------------------------------

    def run_daemon(self, **options):
        options.setdefault("scale", SCALE)
        return Daemon(self, **options)

    def fault_environment(self, call, at, count=1, error=5, path="", after=""):
        preload = ":".join(str(preloadable(self.folder, name))
                           for name in ("libcall_shim.so", "libtime_shim.so"))
        return {"LD_PRELOAD": preload, "COLLECTOR_TIME_SCALE": str(SCALE),
                "COLLECTOR_FAULT_CALL": call, "COLLECTOR_FAULT_AT": str(at),
                "COLLECTOR_FAULT_COUNT": str(count), "COLLECTOR_FAULT_ERRNO": str(error),
                "COLLECTOR_FAULT_PATH": path, "COLLECTOR_FAULT_AFTER": after,
                "COLLECTOR_FAULT_PROGRAM": "velmor_siem_collector",
                "COLLECTOR_FAULT_REPORT": str(self.folder / "struck")}

    def memory_kib(self, daemon):
        text = Path(f"/proc/{daemon.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", text)[1])

    def limit_descriptors(self, daemon, count):
        hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)[1]
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (count, hard))

    def timed_stop(self, daemon, sig=signal.SIGTERM):
        """Stops and returns the seconds it took; the status must be the signal's number."""
        begin = time.monotonic()
        status = daemon.stop(sig)
        took = time.monotonic() - begin
        self.figures.setdefault("stop_s", []).append(took)
        assert status == int(sig), status
        return took

    # --- the account -------------------------------------------------------------------------

    def account(self):
        return account_for(self.sources, self.messages()) if self.sources else Account()


def pause(seconds):
    time.sleep(seconds)


def kill_now(process):
    os.kill(process.pid, signal.SIGKILL)
    process.wait(60)
