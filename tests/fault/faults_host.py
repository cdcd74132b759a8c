"""The host around the daemon: its clock, its disks, the rights on its folders."""
import os
import shutil
import subprocess
import time
import unittest

from faults_files import begin, finish, settle

YEAR = 365 * 24 * 3600
# Into the next epoch of a signed second count, far back, and by little in both directions.
JUMPS = (YEAR * 40, -YEAR * 20, 3600, -3600, 1, -1, YEAR * 10, 0)
DRAIN = {"rotation_drain": 1}


def run_wrapped(lab, lines):
    """A daemon behind a script that prepares what it sees."""
    wrapper = lab.folder / "wrapper"
    wrapper.write_text("#!/bin/sh\nset -e\n" + lines + "exec \"$@\"\n")
    wrapper.chmod(0o755)
    return lab.run_daemon(wrapper=[str(wrapper)], wait=False)


def clock_jumps(lab, settings=None, rotate=False):
    """The wall clock stands in the records and takes no part in what is sent."""
    clock, fresh = lab.folder / "clock", lab.folder / "clock.new"
    clock.write_text("0")
    lab.listen()
    lab.configure(lab.port, {}, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(20)
    daemon = lab.run_daemon(scale=None, env={**lab.fault_environment("", 0),
                                             "COLLECTOR_CLOCK_FILE": str(clock)})
    settle(lab, source)
    jumps = list(JUMPS)
    lab.rng.shuffle(jumps)
    for turn, jump in enumerate(jumps):
        fresh.write_text(str(jump))
        fresh.rename(clock)
        source.append(20)
        if rotate:
            with source.lock:
                source.path.rename(f"{source.path}.{turn}")
            source.append(20)
        settle(lab, source)
        told = lab.receivers[-1].events[-1]["data_time"]
        assert abs(told - time.time() - jump) < 600, f"{told} is not now and {jump} s"
    finish(lab, daemon)


def bookmarks_on_a_read_only_disk(lab):
    """A file system that is mounted anew for writing while the daemon runs."""
    lab.listen()
    lab.configure(lab.port, debug_level="info")
    source = lab.source()
    source.append(50)
    lab.bookmarks.mkdir()
    daemon = run_wrapped(lab, f"mount --bind {lab.bookmarks} {lab.bookmarks}\n"
                              f"mount -o remount,bind,ro {lab.bookmarks}\n")
    settle(lab, source)
    assert lab.bookmark_records() == {}, lab.bookmark_records()
    source.append(50)
    settle(lab, source)
    subprocess.run(["nsenter", "--target", str(daemon.pid), "--mount", "mount", "-o",
                    "remount,bind,rw", str(lab.bookmarks)], check=True, stdin=subprocess.DEVNULL)
    source.append(50)
    finish(lab, daemon)
    daemon = lab.run_daemon()
    source.append(20)
    finish(lab, daemon)


def without_rights(lab, what):
    """The directory, or a file of it, may not be read for a while, by root neither."""
    if os.geteuid() != 0:
        raise unittest.SkipTest("the writer needs more rights than the daemon has")
    lab.listen()
    lab.configure(lab.port, debug_level="info")
    sources = [lab.source("a"), lab.source("b")]
    for source in sources:
        source.append(40)
    rights = "-dac_override,-dac_read_search"
    daemon = run_wrapped(lab, f"exec setpriv --bounding-set={rights} \"$@\"\n")
    for source in sources:
        settle(lab, source)
    closed = lab.input if what == "directory" else sources[0].path
    mode = closed.stat().st_mode
    for _ in range(3):
        before = sources[0].written
        closed.chmod(0)
        time.sleep(0.3)  # a pass that has the file open ends
        sources[0].append(20)
        time.sleep(lab.rng.random())
        assert lab.arrived(sources[0]) == before, "it was read"
        if what == "file":
            sources[1].append(20)
            settle(lab, sources[1])
        closed.chmod(mode)
        for source in sources:
            source.append(20)
            settle(lab, source)
    finish(lab, daemon)


def log_on_a_disk(lab, options):
    """Where nothing, or no more, can be written."""
    lab.listen()
    lab.configure(lab.port, debug_level="debug", log_path="/opt/logs/x.log")
    source = lab.source()
    source.append(300)
    daemon = run_wrapped(lab, f"mkdir -p /opt/logs\nmount -t tmpfs -o {options} tmpfs /opt/logs\n")
    settle(lab, source)
    source.append(300)
    settle(lab, source)
    lab.timed_stop(daemon)


def log_directory_goes(lab):
    """Taken away and made again under the running daemon."""
    place = lab.folder / "logs"
    place.mkdir()
    lab.log_path = place / "x.log"
    source, daemon = begin(lab)
    for turn in range(3):
        if turn % 2:
            shutil.rmtree(place)
        else:
            place.rename(f"{place}.{turn}")
        source.append(50)
        settle(lab, source)
        place.mkdir(exist_ok=True)
    lab.timed_stop(daemon)


def row(name, run, **more):
    return {"name": f"files.{name}", "run": run, "arguments": more}


ROWS = [
    row("clock_jumps", clock_jumps),
    row("clock_jumps_confirm", clock_jumps, settings={"rec_confirm": 7}),
    row("clock_jumps_and_rotations", clock_jumps, settings=DRAIN, rotate=True),
    row("bookmarks_on_a_read_only_disk", bookmarks_on_a_read_only_disk),
    row("directory_without_rights", without_rights, what="directory"),
    row("file_without_rights", without_rights, what="file"),
    row("log_on_a_full_disk", log_on_a_disk, options="size=4k"),
    row("log_on_a_read_only_disk", log_on_a_disk, options="ro"),
    row("log_directory_goes", log_directory_goes),
]
