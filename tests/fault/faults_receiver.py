"""Receivers that refuse, fall silent, lie, reset, stall and die."""
import signal
import time

from lab import Writer, wait_for

GROUP = 100


def faulty_at_first(lab, options=(), faulty=2, settings=None, events=4000):
    """The first connections meet the fault, later ones do not: everything must arrive."""
    faulty = lab.figures["faulty"] = lab.figures.get("cycles", faulty)
    lab.listen(*options, "--accept-faulty", faulty)
    lab.configure(lab.port, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(events)
    daemon = lab.run_daemon(env={"COLLECTOR_IO_SCALE": "20"})

    def last_has_arrived():
        """Without groups the last event so far may be one of the lost."""
        if lab.arrived(source) < source.written:
            source.append(1)
            time.sleep(1)
        return lab.arrived(source) == source.written
    wait_for(last_has_arrived, "the last event", 150)
    lab.timed_stop(daemon)


def restarted(lab, turns=6, sig=signal.SIGTERM, settings=None, busy=False):
    """The Receiver ends and comes back on the same port, between or amid events."""
    lab.listen()
    lab.configure(lab.port, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(20)
    daemon = lab.run_daemon()
    lab.wait_last()
    lab.figures["restarts"] = lab.figures.get("cycles", turns)
    writer = Writer(lab, [source]) if busy else None
    for _ in range(lab.figures["restarts"]):
        count = lab.receivers[-1].count()
        if busy:
            wait_for(lambda: lab.receivers[-1].count() > count + 50, "more events", 90)
        lab.receivers[-1].stop(sig)
        lab.listen()
        if not busy:
            source.append(20)
            lab.wait_last()
    if writer:
        writer.stop()
    source.append(10)
    lab.wait_last()
    lab.timed_stop(daemon)


def refused_then_up(lab, settings=None):
    lab.listen()
    lab.receivers[-1].stop()
    lab.configure(lab.port, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(500)
    daemon = lab.run_daemon()
    daemon.wait_log("Error connecting to the Receiver: ", count=2)
    lab.listen()
    lab.wait_last()
    lab.timed_stop(daemon)


def groups_at_risk(figures):
    return figures["faulty"] * GROUP


def useless_then_gone(lab, options, settings=None):
    """One that is up and of no use is waited for; when it is gone, the next one gets everything."""
    lab.listen(*options)
    lab.configure(lab.port, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(500)
    daemon = lab.run_daemon()
    daemon.wait_log("Attempting connection")
    time.sleep(1 + lab.rng.random())
    lab.receivers[-1].stop(signal.SIGKILL)
    lab.listen()
    lab.wait_last()
    lab.timed_stop(daemon)


CONFIRM = {"rec_confirm": GROUP}
# name -> (options, lost by default: None where the peer's kernel may have taken what nobody read)
FAULTS = {
    "close_after_1": (("--close-after", 1), None),
    "close_after_100": (("--close-after", 100), None),
    "close_after_1000": (("--close-after", 1000), None),
    "reset_after_1": (("--reset-after", 1), None),
    "reset_after_100": (("--reset-after", 100), None),
    "reset_after_1000": (("--reset-after", 1000), None),
    "garbage_result": (("--garbage-result",), 0),
    "refused_versions": (("--refuse", "ReqDataVers"), 0),
    "cut_versions": (("--truncate", "ReqDataVers"), 0),
    "cut_probe": (("--truncate", "NOP"), 0),
    "hostile_count": (("--hostile-count", 2147483647), 0),
    "negative_count": (("--hostile-count", -1), 0),
    "hostile_size": (("--catalogue", "/dev/null", "--hostile-size", 2147483647), 0),
    "slow_answers": (("--delay", 50), 0),
    "silent_probe": (("--silent", "NOP"), 0),
    "slow_reader": (("--slow", 200000), 0),
}

ROWS = [{"name": f"receiver.{name}", "run": faulty_at_first, "arguments": {"options": options},
         "lost": lost, "repeated": None if lost is None else 0}
        for name, (options, lost) in FAULTS.items()]
ROWS += [{"name": f"receiver.confirm.{name}", "run": faulty_at_first,
          "arguments": {"options": options, "settings": CONFIRM}, "lost": 0,
          "repeated": groups_at_risk}
         for name, (options, _) in FAULTS.items()]
ROWS += [
    # Without groups a send waits for as long as the Receiver stalls.
    {"name": "receiver.confirm.stall_after_150", "run": faulty_at_first, "repeated": groups_at_risk,
     "arguments": {"options": ("--stall-after", 150), "settings": CONFIRM}},
    {"name": "receiver.confirm.stall_after_150_tls", "run": faulty_at_first,
     "repeated": groups_at_risk,
     "arguments": {"options": ("--tls", "always", "--stall-after", 150),
                   "settings": {"rec_encrypt": 1, "rec_confirm": GROUP}}},
    {"name": "receiver.down_at_start", "run": refused_then_up},
    {"name": "receiver.confirm.down_at_start", "run": refused_then_up,
     "arguments": {"settings": CONFIRM}},
    {"name": "receiver.restarted_idle", "run": restarted},
    {"name": "receiver.confirm.restarted_idle", "run": restarted,
     "arguments": {"settings": CONFIRM}},
    {"name": "receiver.confirm.restarted_busy", "run": restarted, "lost": 0,
     "arguments": {"settings": CONFIRM, "busy": True},
     "repeated": lambda f: f["restarts"] * GROUP},
    {"name": "receiver.confirm.killed_busy", "run": restarted, "lost": 0,
     "arguments": {"settings": CONFIRM, "busy": True, "sig": signal.SIGKILL},
     "repeated": lambda f: f["restarts"] * GROUP},
    {"name": "receiver.killed_busy", "run": restarted, "lost": None, "repeated": None,
     "arguments": {"busy": True, "sig": signal.SIGKILL}},
    {"name": "receiver.restarted_tls", "run": faulty_at_first, "lost": None, "repeated": None,
     "arguments": {"options": ("--tls", "always", "--reset-after", 200),
                   "settings": {"rec_encrypt": 1}}},
    {"name": "receiver.confirm.restarted_tls", "run": faulty_at_first, "lost": 0,
     "repeated": groups_at_risk,
     "arguments": {"options": ("--tls", "always", "--reset-after", 200),
                   "settings": {"rec_encrypt": 1, "rec_confirm": GROUP}}},
]
for name, options in (("silent", ("--silent", "NOP")), ("slow", ("--slow", 1)),
                      ("silent_versions", ("--silent", "ReqDataVers"))):
    for kind, settings in (("", {}), ("confirm.", CONFIRM)):
        if name == "slow" and not settings:
            continue  # what its kernel has taken goes with it, and nothing is left to come
        ROWS.append({"name": f"receiver.{kind}{name}_then_gone", "run": useless_then_gone,
                     "arguments": {"options": options, "settings": settings}})
