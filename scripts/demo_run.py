"""The demonstration behind scripts/demo: see there."""
import json
import os
import shutil
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "support"))
from daemon_kit import Daemon, Receiver, make_private, namespace, text_of, wait_for  # noqa: E402

HOST_LOGS = ("dpkg.log", "apt/history.log", "alternatives.log", "bootstrap.log", "syslog")
SHOWN = 3


class Stage:
    """The folder of the demonstration, and what the kit wants to know about it."""

    def __init__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="collector-demo-"))
        self.private = self.folder / "private"
        make_private(self.private, ("lock", "opt"))
        self.conf_path = self.folder / "collector.conf"
        self.log_path = self.folder / "collector.log"
        self.daemons = []
        self.input = self.folder / "app"
        self.input.mkdir()

    @staticmethod
    def sanitizer_environment():
        return {}

    def configure(self, port, host_log):
        text = (ROOT / "scripts/demo.conf").read_text("utf-8")
        values = {"@PORT@": str(port), "@FOLDER@": str(self.folder)}
        if host_log:
            values["@HOST_DIR@"] = str(host_log.parent)
            values["@HOST_FILE@"] = host_log.name
        else:
            text = text[:text.index("# The package manager")]
        for mark, value in values.items():
            text = text.replace(mark, value)
        self.conf_path.write_text(text, "utf-8")
        return text

    def append(self, *lines):
        with open(self.input / "app.log", "ab", buffering=0) as file:
            file.write("".join(line + "\n" for line in lines).encode())

    def clean(self):
        for daemon in self.daemons:
            if daemon.process.poll() is None:
                daemon.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


def say(text=""):
    print(text, flush=True)


def find_host_log():
    for name in HOST_LOGS:
        path = Path("/var/log", name)
        if path.is_file() and os.access(path, os.R_OK) and path.stat().st_size > 256:
            return path
    return None


def show(event):
    seconds = time.strftime("%H:%M:%S", time.localtime(event["data_time"]))
    say(f"    {seconds}  {event.get('source', ''):<14}  {text_of(event).rstrip()[:90]}")


def of_source(receiver, source):
    return [e for e in list(receiver.events) if e.get("source") == source]


class Show:
    def __init__(self, stage, receiver):
        self.stage, self.receiver = stage, receiver
        self.written, self.shown = [], 0

    def app_events(self):
        return of_source(self.receiver, "demo-app")

    def write(self, *lines):
        self.stage.append(*lines)
        self.written += lines

    def show_new(self):
        wait_for(lambda: len(self.app_events()) >= len(self.written), "the events of app.log")
        for event in self.app_events()[self.shown:]:
            show(event)
        self.shown = len(self.app_events())

    def host_log(self, path):
        lines = path.read_bytes().count(b"\n")
        begin = time.monotonic()
        wait_for(lambda: len(of_source(self.receiver, "demo-packages")) >= lines,
                 f"the events of {path}", 300)
        took = time.monotonic() - begin
        events = of_source(self.receiver, "demo-packages")
        for event in events[:SHOWN]:
            show(event)
        say(f"    ... {len(events)} events in {took:.1f} s; the last:")
        show(events[-1])
        return lines, len(events)

    def run(self, host_log):
        say("\nThe first event, as the Receiver prints it:")
        # A file under 256 bytes that grows counts as a new file; so this one begins larger.
        self.write(*(f"app: line {n:02d} was there before the daemon, {'.' * 20}"
                     for n in range(1, 7)))
        daemon = Daemon(self.stage)
        wait_for(self.app_events, "the first event")
        say("    " + json.dumps(self.app_events()[0], separators=(",", ":"), ensure_ascii=False))
        if host_log:
            say(f"\nThe package manager's log {host_log}:")
            self.packages = self.host_log(host_log)
        say("\nA file that grows while you watch:")
        self.show_new()
        for n in range(7, 11):
            self.write(f"app: line {n:02d} was written while the daemon ran")
            self.show_new()
        status = daemon.stop()
        say(f"\nThe daemon was stopped (exit status {status}). Three lines come meanwhile ...")
        self.write(*(f"app: line {n:02d} was written while the daemon was down"
                     for n in range(11, 14)))
        daemon = Daemon(self.stage)
        say("... and it is started again:")
        self.show_new()
        daemon.wait_log("No events to read")
        daemon.stop()

    def verdict(self):
        got = [text_of(e).rstrip() for e in self.app_events()]
        lost = [line for line in self.written if line not in got]
        say(f"\napp.log: {len(self.written)} lines written, {len(got)} events received, "
            f"{len(lost)} lost, {len(got) - len(set(got))} repeated")
        return got == self.written


def main():
    if namespace() is None and not os.access("/var/lock", os.W_OK):
        sys.exit("The lock file /var/lock/velmor_siem_collector.loc cannot be made here: run the "
                 "demonstration as root, or allow user namespaces.")
    stage = Stage()
    receiver = None
    try:
        host_log = find_host_log()
        receiver = Receiver(stage.folder)
        text = stage.configure(receiver.port, host_log)
        say(f"The Receiver listens on 127.0.0.1:{receiver.port}; the daemon's configuration:\n")
        for line in text.splitlines():
            if line and not line.startswith("#"):
                say("    " + line)
        demonstration = Show(stage, receiver)
        demonstration.run(host_log)
        if not demonstration.verdict():
            say("That is not what was written; the daemon's log ends:")
            say("\n".join(stage.log_path.read_text().splitlines()[-20:]))
            return 1
        return 0
    finally:
        stage.clean()
        if receiver:
            receiver.stop()


if __name__ == "__main__":
    sys.exit(main())
