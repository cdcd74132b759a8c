"""Rotation, vanishing and unreadable files, bookmarks that cannot be written or are damaged."""
import os
import shutil
import signal
import time

from lab import Writer, wait_for

ALL_SAFE = {"rotation_drain": 1, "small_file_guard": 1}


def settle(lab, source):
    """Waits until everything that was written has been sent."""
    wait_for(lambda: lab.arrived(source) == source.written, "the events so far", 90)


def begin(lab, settings=None, section=None, first=40):
    lab.listen()
    lab.configure(lab.port, section or {}, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(first)
    daemon = lab.run_daemon()
    settle(lab, source)
    return source, daemon


def finish(lab, daemon):
    lab.wait_last()
    lab.timed_stop(daemon)


def rename_and_create(lab, turns=8, settled=True, settings=None):
    """The classic rotation; `settled`: only after everything was read."""
    source, daemon = begin(lab, settings)
    for turn in range(lab.figures.get("cycles", turns)):
        source.append(lab.rng.randrange(10, 60))
        if settled:
            settle(lab, source)
        with source.lock:
            source.path.rename(f"{source.path}.{turn}")
        source.append(30)  # creates the successor
        settle(lab, source)
    finish(lab, daemon)


def rotations_under_load(lab, turns=25, settings=None):
    source, daemon = begin(lab, settings)
    writer = Writer(lab, [source], burst=20)
    for turn in range(lab.figures.get("cycles", turns)):
        time.sleep(0.02 + lab.rng.random() * 0.1)
        with source.lock:
            source.path.rename(f"{source.path}.{turn}")
        # The next rename waits until the successor is there and known, as a rotation by day does.
        written = source.written
        wait_for(lambda: source.written > written and lab.arrived(source) > written,
                 "an event of the successor", 60)
    writer.stop()
    finish(lab, daemon)


def copy_and_truncate(lab, turns=6, append=True):
    source, daemon = begin(lab)
    holder = None if append else open(source.path, "r+b", buffering=0)
    for turn in range(turns):
        source.append(20)
        settle(lab, source)
        shutil.copyfile(source.path, f"{source.path}.{turn}")
        os.truncate(source.path, 0)
        time.sleep(1.2)  # one pass sees the empty file
        if holder:  # a writer without O_APPEND that begins again at the front
            holder.seek(0)
    if holder:
        holder.close()
    source.append(20)
    finish(lab, daemon)


def delete_and_recreate(lab, turns=6):
    source, daemon = begin(lab)
    for _ in range(turns):
        source.append(20)
        settle(lab, source)
        source.path.unlink()
        time.sleep(lab.rng.choice([0, 1.5]))
        source.append(30)
        settle(lab, source)
    finish(lab, daemon)


def symlink_moved(lab, turns=6):
    lab.listen()
    lab.configure(lab.port, {}, debug_level="info")
    source = lab.source("a", lab.folder / "targets", "t0")
    link = lab.input / "a.log"
    link.symlink_to(source.path)
    source.append(40)
    daemon = lab.run_daemon()
    for turn in range(1, turns + 1):
        settle(lab, source)
        source.path = lab.folder / "targets" / f"t{turn}"
        source.append(30)
        fresh = lab.folder / "link"
        fresh.symlink_to(source.path)
        fresh.rename(link)
    finish(lab, daemon)


def small_file_grows(lab, settings=None):
    source, daemon = begin(lab, settings, first=1)
    for _ in range(12):
        source.append(1)
        settle(lab, source)
    finish(lab, daemon)


def many_files_few_descriptors(lab, files=150, descriptors=24):
    lab.listen()
    lab.configure(lab.port, debug_level="info")
    for number in range(files):
        lab.source(f"f{number:03d}").append(5)
    daemon = lab.run_daemon()
    lab.limit_descriptors(daemon, descriptors)
    lab.wait_last()
    lab.timed_stop(daemon)


def out_of_descriptors(lab):
    """No file can be opened for a while; nothing is forgotten over it."""
    source, daemon = begin(lab)
    lab.limit_descriptors(daemon, 3)
    source.append(200)
    time.sleep(3)
    lab.limit_descriptors(daemon, 1024)
    finish(lab, daemon)


def directory_moves_away(lab, turns=3):
    source, daemon = begin(lab)
    away = lab.folder / "away"
    for _ in range(turns):
        lab.input.rename(away)
        time.sleep(1.5)
        away.rename(lab.input)
        source.append(20)
        settle(lab, source)
    finish(lab, daemon)


def log_cannot_be_written(lab, kind):
    """The daemon's own log must never keep events from being sent."""
    lab.listen()
    place = lab.folder / "nowhere"
    if kind == "is_a_directory":
        place.mkdir()
    elif kind == "below_a_file":
        place.write_text("")
        place = place / "x.log"
    elif kind == "is_a_fifo":
        os.mkfifo(place)
    lab.configure(lab.port, debug_level="info", log_path=place)
    source = lab.source()
    source.append(100)
    daemon = lab.run_daemon(wait=False)
    settle(lab, source)
    lab.timed_stop(daemon)


def bookmarks_read_only(lab):
    """The bookmark file cannot be opened for a while: events go on, positions stay in memory."""
    source, daemon = begin(lab)
    marks = lab.bookmarks / "ft_bookmark"
    kept = lab.folder / "kept"
    # Held meanwhile: a daemon that finds no file makes one.
    daemon.hold()
    marks.rename(kept)
    marks.mkdir()  # root may write anything but a directory
    daemon.send(signal.SIGCONT)
    source.append(100)
    settle(lab, source)
    daemon.hold()
    marks.rmdir()
    kept.rename(marks)
    daemon.send(signal.SIGCONT)
    source.append(100)
    settle(lab, source)
    finish(lab, daemon)
    # The positions are in the file again: another run repeats nothing.
    daemon = lab.run_daemon()
    source.append(20)
    finish(lab, daemon)


def bookmarks_on_a_full_disk(lab):
    """In a file system without room no record can be added, and none is lost over it."""
    wrapper = lab.folder / "full_disk"
    wrapper.write_text("#!/bin/sh\nset -e\nmkdir -p /opt/marks\n"
                       "mount -t tmpfs -o size=8k tmpfs /opt/marks\n"
                       "head -c 8192 /dev/zero > /opt/marks/filler\nexec \"$@\"\n")
    wrapper.chmod(0o755)
    lab.listen()
    lab.configure(lab.port, debug_level="info", bookmark_dir="/opt/marks")
    for number in range(3):
        lab.source(f"f{number}").append(50)
    daemon = lab.run_daemon(wrapper=[str(wrapper)])
    lab.wait_last()
    for source in lab.sources:
        source.append(50)
    lab.wait_last()
    lab.timed_stop(daemon)


def damaged_bookmarks(lab, kind):
    """Whatever stands in the file: what is whole is used, the rest neither harms nor stops."""
    source, daemon = begin(lab)
    lab.timed_stop(daemon)
    marks = lab.bookmarks / "ft_bookmark"
    data = marks.read_bytes()
    marks.write_bytes({
        "short_rest": data + data[:90],
        "noise_behind": data + bytes(lab.rng.randrange(256) for _ in range(199 * 3)),
        "noise_before": b"\xff" * 199 + data,
        "doubled": data * 3,
        "zeros_behind": data + b"\0" * 199,
    }[kind])
    source.append(60)
    daemon = lab.run_daemon()
    settle(lab, source)
    source.append(60)
    finish(lab, daemon)


def bookmarks_taken_away(lab, how):
    """Removed or replaced while the daemon runs: it goes on from what it knows."""
    source, daemon = begin(lab)
    marks = lab.bookmarks / "ft_bookmark"
    for _ in range(4):
        settle(lab, source)
        # An event arrives a moment before its position is stored.
        wait_for(lambda: lab.bookmark_records()[str(source.path)][0] == source.path.stat().st_size,
                 "the position of the last event")
        if how == "replaced":
            copy = lab.folder / "copy"
            shutil.copyfile(marks, copy)
            copy.rename(marks)
        elif how == "rewritten":
            marks.write_bytes(marks.read_bytes())
        source.append(40)
    finish(lab, daemon)


def odd_times(lab):
    """Files with odd times are files."""
    source, daemon = begin(lab)
    for moment in (0, 2**31 - 1, 1, 4102444800):
        source.append(20)
        os.utime(source.path, (moment, moment))
        settle(lab, source)
    finish(lab, daemon)


def memory_over_rotations(lab, turns=60):
    """The daemon's memory does not grow with what it has seen."""
    source, daemon = begin(lab)
    sizes = []
    for turn in range(lab.figures.get("cycles", turns)):
        source.append(40)
        settle(lab, source)
        with source.lock:
            source.path.rename(f"{source.path}.{turn}")
        source.append(10)
        settle(lab, source)
        sizes.append(lab.memory_kib(daemon))
    half = len(sizes) // 2
    lab.figures["memory_kib"] = (sizes[half], sizes[-1])
    assert sizes[-1] - sizes[half] < 1024, f"grew from {sizes[half]} to {sizes[-1]} KiB"
    finish(lab, daemon)


def row(name, run, **more):
    arguments = {k: v for k, v in more.items() if k not in ("lost", "repeated")}
    limits = {k: v for k, v in more.items() if k in ("lost", "repeated")}
    return {"name": f"files.{name}", "run": run, "arguments": arguments, **limits}


DRAIN = {"rotation_drain": 1}
ROWS = [
    row("rename_create", rename_and_create),
    row("rename_create_drain", rename_and_create, settled=False, settings=DRAIN),
    row("rename_create_unread_rest", rename_and_create, settled=False, lost=None),
    row("rotations_under_load", rotations_under_load, lost=None),
    row("rotations_under_load_drain", rotations_under_load, settings=DRAIN),
    row("rotations_under_load_drain_confirm", rotations_under_load,
        settings={**ALL_SAFE, "rec_confirm": 50}),
    row("copytruncate_append", copy_and_truncate),
    row("copytruncate_no_append", copy_and_truncate, append=False),
    row("delete_recreate", delete_and_recreate),
    row("symlink_moved", symlink_moved),
    row("small_file_grows", small_file_grows, repeated=None),
    row("small_file_grows_guarded", small_file_grows, settings={"small_file_guard": 1}),
    row("many_files_few_descriptors", many_files_few_descriptors),
    row("out_of_descriptors", out_of_descriptors),
    row("directory_moves_away", directory_moves_away),
    row("log_is_a_directory", log_cannot_be_written, kind="is_a_directory"),
    row("log_below_a_file", log_cannot_be_written, kind="below_a_file"),
    row("log_is_a_fifo", log_cannot_be_written, kind="is_a_fifo"),
    row("bookmarks_cannot_be_opened", bookmarks_read_only),
    row("bookmarks_on_a_full_disk", bookmarks_on_a_full_disk),
    row("bookmarks_replaced", bookmarks_taken_away, how="replaced"),
    row("bookmarks_rewritten", bookmarks_taken_away, how="rewritten"),
    row("odd_times", odd_times),
    row("memory_over_rotations", memory_over_rotations),
]
ROWS += [row(f"bookmarks_{kind}", damaged_bookmarks, kind=kind)
         for kind in ("short_rest", "noise_behind", "noise_before", "doubled", "zeros_behind")]
