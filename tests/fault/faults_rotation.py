"""Rotations with the opt-in drain while the daemon ends, is killed or is not there at all."""
import os
import shutil
import signal
import time

from faults_files import begin, finish, settle
from lab import Writer, kill_now, wait_for

SAFE = {"rotation_drain": 1, "small_file_guard": 1}
LARGE = 8  # events that are over 256 bytes together: a smaller beginning proves nothing later


def per_death(figures):
    """A kill repeats at most one event of each worker, or a group of them; a stop repeats none."""
    return figures.get("deaths", 0) * figures.get("workers", 1) * figures.get("group", 1)


def end(lab, daemon, how):
    how = lab.rng.choice(["stop", "kill"]) if how == "either" else how
    lab.figures["ends"] = lab.figures.get("ends", 0) + 1
    if how == "kill":
        lab.figures["deaths"] = lab.figures.get("deaths", 0) + 1
        kill_now(daemon.process)
    else:
        # A group in flight may be sent again.
        lab.figures["deaths"] = lab.figures.get("deaths", 0) + (lab.figures.get("group", 1) > 1)
        lab.timed_stop(daemon, lab.rng.choice([signal.SIGTERM, signal.SIGINT, signal.SIGHUP]))


def note_group(lab, settings):
    if "rec_confirm" in settings:
        lab.figures["group"] = settings["rec_confirm"]


def rotate(source, turn, successor=30):
    with source.lock:
        source.path.rename(f"{source.path}.{turn}")
    if successor:
        source.append(successor)


def ended_in_the_rest(lab, how, turns=3, settings=None, rest=30000):
    """The daemon ends again and again while it sends what a rotation left behind."""
    settings = {**SAFE, **(settings or {})}
    note_group(lab, settings)
    source, daemon = begin(lab, settings)
    for turn in range(lab.figures.get("cycles", turns)):
        settle(lab, source)
        daemon.send(signal.SIGSTOP)
        sent = source.written
        source.append(rest)
        rotate(source, turn)
        daemon.send(signal.SIGCONT)
        for _ in range(5):
            before = lab.arrived(source)
            if before >= sent + rest:
                break
            wait_for(lambda: lab.arrived(source) > before, "more of the rest", 60)
            time.sleep(lab.rng.random() * 0.005)
            end(lab, daemon, how)
            daemon = lab.run_daemon()
        settle(lab, source)
    finish(lab, daemon)


def while_down(lab, turns=6, how="either", settings=None, successor=30):
    """A rotation while no daemon runs; now and then with nothing under the old name afterwards."""
    settings = {**SAFE, **(settings or {})}
    note_group(lab, settings)
    source, daemon = begin(lab, settings)
    for turn in range(lab.figures.get("cycles", turns)):
        source.append(lab.rng.randrange(10, 60))
        settle(lab, source)
        end(lab, daemon, how)
        source.append(lab.rng.randrange(0, 60))
        rotate(source, turn, successor)
        daemon = lab.run_daemon()
        if not successor:
            settle(lab, source)
        source.append(20)
        settle(lab, source)
    finish(lab, daemon)


def twice_while_down(lab, turns=4):
    """Of two rotations while no daemon runs the first file has the bookmark; the second one, which
    nobody has seen, is not sent, and that is all that is lost."""
    source, daemon = begin(lab, SAFE)
    unseen = 0
    for turn in range(turns):
        settle(lab, source)
        lab.timed_stop(daemon)
        source.append(20)
        rotate(source, f"{turn}.a")
        unseen += 30
        rotate(source, f"{turn}.b")
        daemon = lab.run_daemon()
        settle(lab, source)
    finish(lab, daemon)
    lost = lab.account().lost
    assert lost == unseen, f"lost {lost}, the files in between had {unseen}"


def under_load(lab, turns=25, how="either", workers=1, settings=None, receiver=()):
    """Rotations, kills and stops at random moments while a writer writes."""
    settings = {**SAFE, **(settings or {})}
    note_group(lab, settings)
    lab.figures["workers"] = workers
    lab.listen(*receiver)
    sections = []
    for number in range(workers):
        folder = lab.input / f"w{number}"
        lab.source(f"w{number}a", folder)
        lab.source(f"w{number}b", folder)
        sections.append({"ft_dir": folder})
    lab.configure(lab.port, *sections, debug_level="info", **settings)
    for source in lab.sources:
        source.append(50)
    daemon = lab.run_daemon()
    writer = Writer(lab, lab.sources, burst=LARGE)
    known = {source.name: 0 for source in lab.sources}  # arrived: the successor has its record
    for turn in range(lab.figures.get("cycles", turns)):
        time.sleep(lab.rng.random() * 0.1)
        ready = [s for s in lab.sources if lab.arrived(s) >= known[s.name]]
        for source in lab.rng.sample(ready, lab.rng.randrange(len(ready) + 1)):
            with source.lock:
                source.path.rename(f"{source.path}.{turn}")
                # One rotation at a time, as by day: the next one comes when the successor's first
                # event has its bookmark, and so when what comes behind its group has arrived.
                known[source.name] = source.written + lab.figures.get("group", 1) + 1
        time.sleep(lab.rng.random() * 0.05)
        end(lab, daemon, how)
        if lab.rng.random() < 0.3:
            time.sleep(lab.rng.random() * 0.1)
        daemon = lab.run_daemon()
        if lab.rng.random() < 0.5:
            source = lab.rng.choice(lab.sources)
            wait_for(lambda s=source: lab.arrived(s) >= known[s.name], "the successor", 90)
    writer.stop()
    finish(lab, daemon)


def late_writer(lab, turns=5, settings=None, gap=False):
    """The writer goes on in the renamed file for a while before it opens the new one; `gap`: which
    is not there before."""
    source, daemon = begin(lab, {**SAFE, **(settings or {})})
    for turn in range(lab.figures.get("cycles", turns)):
        path, renamed = source.path, source.path.with_name(f"a.old.{turn}")
        if gap:
            path.rename(renamed)
        else:  # so that the name is never without a file
            fresh = lab.input / "fresh"
            fresh.touch()
            renamed.hardlink_to(path)
            fresh.rename(path)
        source.path = renamed
        for _ in range(6):
            source.append(5)
            time.sleep(lab.rng.random() * 0.4)
        source.path = path
        source.append(20)
        settle(lab, source)
    finish(lab, daemon)


def receiver_down(lab, turns=4, how="either"):
    """Rotated and ended while nothing can be sent."""
    source, daemon = begin(lab, SAFE)
    for turn in range(turns):
        settle(lab, source)
        lab.receivers[-1].stop()
        source.append(80)
        rotate(source, turn)
        time.sleep(lab.rng.random() * 0.5)
        end(lab, daemon, how)
        daemon = lab.run_daemon()
        time.sleep(lab.rng.random() * 0.5)
        lab.listen()
        settle(lab, source)
    finish(lab, daemon)


def copied_and_truncated(lab, turns=6, down=False):
    """What was written before the copy is in the copy."""
    source, daemon = begin(lab, SAFE)
    for turn in range(lab.figures.get("cycles", turns)):
        settle(lab, source)
        if down:
            end(lab, daemon, "either")
        source.append(30)
        shutil.copyfile(source.path, f"{source.path}.{turn}")
        os.truncate(source.path, 0)
        source.append(LARGE)
        if down:
            daemon = lab.run_daemon()
        settle(lab, source)
    finish(lab, daemon)


def row(name, run, repeated=per_death, **more):
    limits = {"lost": more.pop("lost")} if "lost" in more else {}
    return {"name": f"drain.{name}", "run": run, "arguments": more, "repeated": repeated, **limits}


CONFIRM = {"rec_confirm": 50}
WOKEN = {"wake_on_change": 1, "sleep": 30}
ROWS = [
    row("stopped_in_the_rest", ended_in_the_rest, how="stop"),
    row("killed_in_the_rest", ended_in_the_rest, how="kill"),
    row("killed_in_the_rest_confirm", ended_in_the_rest, how="kill", settings=CONFIRM),
    row("rotated_while_down", while_down),
    row("rotated_while_down_confirm", while_down, settings=CONFIRM),
    row("rotated_while_down_no_successor", while_down, successor=0),
    row("rotated_twice_while_down", twice_while_down, lost=None),
    row("rotations_and_kills_under_load", under_load, how="kill"),
    row("rotations_and_stops_under_load", under_load, how="stop"),
    row("rotations_and_ends_under_load_two_plugins", under_load, workers=2),
    row("rotations_and_kills_under_load_confirm", under_load, how="kill", settings=CONFIRM),
    row("rotations_and_kills_under_load_woken", under_load, how="kill", settings=WOKEN),
    row("rotations_and_kills_under_load_slow", under_load, how="kill",
        receiver=("--delay", 1)),
    row("late_writer", late_writer),
    row("late_writer_woken", late_writer, settings=WOKEN),
    row("late_writer_no_file", late_writer, gap=True),
    row("receiver_down", receiver_down),
    row("copied_and_truncated", copied_and_truncated),
    row("copied_and_truncated_while_down", copied_and_truncated, down=True),
]
