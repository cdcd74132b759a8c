"""Proves the time seam: test_time_shim.py LIBRARY CASE."""
import os
import subprocess
import sys
import tempfile
import time

# Every probe runs in a process of its own, because the library reads its variables once.
PROBE = """
import select, time
begin = time.clock_gettime(time.CLOCK_BOOTTIME)
{body}
print(time.clock_gettime(time.CLOCK_BOOTTIME) - begin)
"""


def seconds_of(library, body, **scales):
    env = dict(os.environ, LD_PRELOAD=library, ASAN_OPTIONS="verify_asan_link_order=0")
    for name in ("COLLECTOR_TIME_SCALE", "COLLECTOR_IO_SCALE"):
        env.pop(name, None)
    env.update({name: str(value) for name, value in scales.items()})
    out = subprocess.run([sys.executable, "-c", PROBE.format(body=body)], env=env, check=True,
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE).stdout
    return float(out.split()[-1])


C_CALL = "import ctypes; libc = ctypes.CDLL(None); "
PURE_WAITS = [
    "time.sleep(300)",
    C_CALL + "libc.sleep(300)",
    C_CALL + "libc.usleep(300000000)",
    C_CALL + "libc.poll(None, 0, 300000)",
    "select.select([], [], [], 300)",
    "import os; p = select.poll(); p.register(os.eventfd(0), 1); p.poll(300000)"
    if hasattr(os, "eventfd") else "time.sleep(300)",
]
IO_WAITS = [
    "import os; r, w = os.pipe(); select.select([r], [], [], 300)",
    "import os; r, w = os.pipe(); p = select.poll(); p.register(r); p.poll(300000)",
    "import os; r, w = os.pipe(); p = select.epoll(); p.register(r, 1); p.poll(300)",
    "end = time.monotonic() + 300\nwhile time.monotonic() < end: pass",
]


def waits_are_shortened(library):
    for body in PURE_WAITS:
        took = seconds_of(library, body, COLLECTOR_TIME_SCALE=1000)
        assert 0.2 < took < 60, (body, took)


def io_waits_are_shortened(library):
    for body in IO_WAITS:
        took = seconds_of(library, body, COLLECTOR_IO_SCALE=1000)
        assert 0.2 < took < 60, (body, took)


def nothing_changes_without_variables(library):
    for body in ("time.sleep(0.5)", IO_WAITS[0].replace("300)", "0.5)")):
        for scales in ({}, {"COLLECTOR_TIME_SCALE": ""}, {"COLLECTOR_TIME_SCALE": "x"}):
            took = seconds_of(library, body, **scales)
            assert took >= 0.49, (body, took)
    # A scale for pauses leaves the time of a peer alone.
    took = seconds_of(library, IO_WAITS[0].replace("300)", "0.5)"), COLLECTOR_TIME_SCALE=1000)
    assert took >= 0.49, took


def remaining_time_is_in_callers_units(library):
    body = ("import ctypes, signal; libc = ctypes.CDLL(None)\n"
            "signal.signal(signal.SIGALRM, lambda *a: None)\n"
            "signal.setitimer(signal.ITIMER_REAL, 0.3, 0.3)\n"
            "left = libc.sleep(3000)\n"
            "assert 0 < left <= 2990, left")
    assert seconds_of(library, body, COLLECTOR_TIME_SCALE=100) < 29


if __name__ == "__main__":
    start = time.monotonic()
    # LD_PRELOAD splits at blanks, and the tree may stand anywhere.
    with tempfile.TemporaryDirectory() as folder:
        os.symlink(sys.argv[1], os.path.join(folder, "shim.so"))
        globals()[sys.argv[2]](os.path.join(folder, "shim.so"))
    print(f"{sys.argv[2]}: ok after {time.monotonic() - start:.1f} s")
