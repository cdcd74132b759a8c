"""Random programs over everything at once, against the simplest model there is: each event once.

With every opt-in on, nothing may be lost whatever happens; what comes twice is bounded by the
groups that were open when something died.
"""
import signal
import time

from lab import kill_now

GROUP = 40
SAFE = {"rec_confirm": GROUP, "rotation_drain": 1, "small_file_guard": 1}


def random_program(lab, steps=40, settings=None, workers=1, receiver_dies=True):
    settings = SAFE if settings is None else settings
    lab.listen()
    sections = []
    for number in range(workers):
        folder = lab.input / f"w{number}"
        lab.source(f"w{number}a", folder)
        lab.source(f"w{number}b", folder)
        sections.append({"ft_dir": folder})
    for source in lab.sources:
        source.append(GROUP + 20)
    lab.configure(lab.port, *sections, debug_level="info", **settings)
    lab.figures.update(deaths=0, workers=workers)
    state = {"daemon": lab.run_daemon(), "turn": 0, "known": {}}

    def write():
        lab.rng.choice(lab.sources).append(lab.rng.randrange(1, 200))

    def rotate():
        # At any moment, with or without a daemon; but one rotation at a time: a successor that
        # nobody has seen is known by nothing. Behind its first group it has its record.
        source = lab.rng.choice(lab.sources)
        if lab.arrived(source) < state["known"].get(source.name, GROUP + 1):
            return
        source.append(lab.rng.randrange(1, 30))
        state["turn"] += 1
        source.path.rename(f"{source.path}.{state['turn']}")
        state["known"][source.name] = source.written + GROUP + 1
        source.append(GROUP + 10)

    def kill_daemon():
        if state["daemon"]:
            lab.figures["deaths"] += 1
            kill_now(state["daemon"].process)
            state["daemon"] = None

    def stop_daemon():
        if state["daemon"]:
            lab.figures["deaths"] += 1  # a group in flight may be sent again
            lab.timed_stop(state["daemon"],
                           lab.rng.choice([signal.SIGTERM, signal.SIGINT, signal.SIGHUP]))
            state["daemon"] = None

    def start_daemon():
        if state["daemon"] is None:
            state["daemon"] = lab.run_daemon()

    def receiver_goes():
        if receiver_dies:
            lab.figures["deaths"] += 1
            lab.receivers[-1].stop(lab.rng.choice([signal.SIGTERM, signal.SIGKILL]))
            time.sleep(lab.rng.random() * 0.3)
            lab.listen()

    def wait():
        time.sleep(lab.rng.random() * 0.3)

    choices = [write] * 6 + [wait] * 3 + [start_daemon] * 3 + [rotate] * 2
    choices += [kill_daemon, stop_daemon, receiver_goes]
    for _ in range(lab.figures.get("cycles", steps)):
        lab.rng.choice(choices)()
    start_daemon()
    for source in lab.sources:
        source.append(1)
    lab.wait_last()
    lab.timed_stop(state["daemon"])


def groups(figures):
    return figures["deaths"] * figures["workers"] * GROUP


def one_each(figures):
    return figures["deaths"] * figures["workers"]


ROWS = [
    {"name": "program.everything", "run": random_program, "repeated": groups},
    {"name": "program.everything_two_plugins", "run": random_program,
     "arguments": {"workers": 2}, "repeated": groups},
    {"name": "program.defaults_and_drain", "run": random_program, "repeated": one_each,
     "arguments": {"settings": {"rotation_drain": 1, "small_file_guard": 1},
                   "receiver_dies": False}},
    {"name": "program.woken", "run": random_program, "repeated": groups,
     "arguments": {"settings": {**SAFE, "wake_on_change": 1}}},
]
