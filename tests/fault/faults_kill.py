"""kill -9 at random moments."""
import time

from lab import Writer, kill_now, wait_for


def per_kill(figures):
    """At most one event for each kill and worker; a group of them where they are confirmed."""
    return figures["kills"] * figures["workers"] * figures.get("group", 1)


def cycles(lab, wanted):
    """How many kills: the row's own number, or what a soak asks for."""
    return lab.figures.get("cycles", wanted)


def kill_in_a_row(lab, kills=6, workers=1, receiver=(), settings=None, churn=False, io_scale=1):
    settings = dict(settings or {})
    environment = {"COLLECTOR_IO_SCALE": str(io_scale)}
    lab.listen(*receiver)
    sections = []
    for number in range(workers):
        folder = lab.input / f"w{number}"
        lab.source(f"w{number}", folder)
        sections.append({"ft_dir": folder})
    lab.configure(lab.port, *sections, debug_level="info", **settings)
    for source in lab.sources:
        source.append(50)
    lab.figures.update(kills=cycles(lab, kills), workers=workers)
    if settings.get("rec_confirm"):
        lab.figures["group"] = int(settings["rec_confirm"])
    writer = Writer(lab, lab.sources)
    for turn in range(lab.figures["kills"]):
        if churn:
            churn_bookmarks(lab, turn)
        daemon = lab.run_daemon(env=environment)
        before = lab.receivers[-1].count()
        if lab.rng.random() < 0.8:  # mostly in the middle of the work, sometimes at start-up
            wait_for(lambda: lab.receivers[-1].count() > before, "an event", 60)
        time.sleep(lab.rng.random() * 0.12)
        kill_now(daemon.process)
    writer.stop()
    for source in lab.sources:
        source.append(1)
    daemon = lab.run_daemon(env=environment)
    lab.wait_last()
    lab.timed_stop(daemon)


def churn_bookmarks(lab, turn):
    """Small files that come and go, so that kills strike while records are removed."""
    for source in lab.sources[1:]:
        with source.lock:  # or the writer's next events would go with the file
            if lab.arrived(source) == source.written:
                source.path.unlink(missing_ok=True)
    for number in range(12):
        name = f"c{turn}-{number}"
        lab.source(name, lab.input / "w0").append(8)


def row(name, repeated=per_kill, **arguments):
    return {"name": f"kill9.{name}", "run": kill_in_a_row, "arguments": arguments,
            "repeated": repeated}


ROWS = [
    row("plain"),
    row("two_plugins", workers=2),
    row("four_plugins", workers=4),
    row("tls", receiver=("--tls", "always"), settings={"rec_encrypt": 1}),
    row("tls_on_request", receiver=("--tls", "request"), settings={"rec_encrypt": 2}),
    # The probe of such a Receiver takes 10 s, which the scale makes one.
    row("generation_5", receiver=("--generation", 5), io_scale=10),
    row("throttled", settings={"throttle": 1}),
    row("confirm_1", settings={"rec_confirm": 1}),
    row("confirm_50", settings={"rec_confirm": 50}),
    row("confirm_500", settings={"rec_confirm": 500}),
    row("confirm_two_plugins", workers=2, settings={"rec_confirm": 100}),
    row("confirm_tls", receiver=("--tls", "always"),
        settings={"rec_encrypt": 1, "rec_confirm": 100}),
    row("wake_on_change", settings={"wake_on_change": 1, "sleep": 60}),
    row("while_records_are_removed", churn=True),
    row("drain_and_guard", settings={"rotation_drain": 1, "small_file_guard": 1}),
]
