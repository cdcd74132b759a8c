"""The network itself goes away and comes back, at any layer below the Receiver."""
import time

import network
from lab import Writer, wait_for

GROUP = 50
CONFIRM = {"rec_confirm": GROUP}


def begin(lab, settings, io_scale):
    lab.listen()
    lab.configure(lab.port, debug_level="info", **settings)
    source = lab.source()
    source.append(20)
    daemon = lab.run_daemon(env={"COLLECTOR_IO_SCALE": str(io_scale)})
    lab.wait_last()
    return source, daemon


def link_goes(lab, turns=4, down=1.0, settings=None, io_scale=1):
    """No packet arrives for a while, amid events; connections outlive it or not."""
    network.set_loopback(True)  # or this machine cannot tell
    source, daemon = begin(lab, settings or {}, io_scale)
    lab.figures["outages"] = lab.figures.get("cycles", turns)
    writer = Writer(lab, [source])
    try:
        for _ in range(lab.figures["outages"]):
            before = lab.receivers[-1].count()
            wait_for(lambda: lab.receivers[-1].count() > before + 100, "more events", 120)
            network.set_loopback(False)
            time.sleep(down * (0.5 + lab.rng.random()))
            network.set_loopback(True)
    finally:
        network.set_loopback(True)
    writer.stop()
    source.append(10)
    lab.wait_last(240)
    lab.timed_stop(daemon)


def link_comes_late(lab, settings=None):
    """A host whose network is up after its services."""
    lab.listen()
    lab.configure(lab.port, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(300)
    network.set_loopback(False)
    try:
        daemon = lab.run_daemon()
        daemon.wait_log("Attempting connection")
        time.sleep(0.5 + lab.rng.random())
    finally:
        network.set_loopback(True)
    lab.wait_last()
    lab.timed_stop(daemon)


def name_server_is_silent(lab, settings=None):
    """The Receiver's name cannot be asked for until the name server is there."""
    server = network.NameServer(lab)
    lab.listen()
    lab.configure(lab.port, rec_ip=network.NAME, debug_level="info", **(settings or {}))
    source = lab.source()
    source.append(300)
    daemon = lab.run_daemon(wrapper=server.wrapper)
    server.wait_question()
    server.answer()
    lab.wait_last(240)
    lab.timed_stop(daemon)


def groups_at_risk(figures):
    return figures["outages"] * GROUP


ROWS = [
    {"name": "network.link_goes", "run": link_goes},
    {"name": "network.link_goes_confirm", "run": link_goes, "arguments": {"settings": CONFIRM}},
    # The answer to a group is waited for 30 s, which the scale makes three quarters of one.
    {"name": "network.link_goes_for_long_confirm", "run": link_goes, "repeated": groups_at_risk,
     "arguments": {"settings": CONFIRM, "io_scale": 40, "down": 2.0}},
    {"name": "network.link_comes_late", "run": link_comes_late},
    {"name": "network.link_comes_late_confirm", "run": link_comes_late,
     "arguments": {"settings": CONFIRM}},
    {"name": "network.name_server_is_silent", "run": name_server_is_silent},
]
