"""The demonstration behind scripts/demo --managed: the daemon under a management agent.

The loopback agent stands for a real one. Its policy moves the daemon to another directory while
lines are being written to both; nothing is lost or repeated over the restart.
"""
import json
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "support"))
from daemon_kit import (  # noqa: E402
    BUILD, Daemon, Receiver, make_private, namespace, text_of, wait_for)

CONFIG_IN_ETC = "cmx.d/OZUAGENT3700LYNX/config.xml"
LINES_A_SECOND = 50

CONFIGURATION = """rec_ip=127.0.0.1
rec_port=@PORT@
rec_encrypt=0
bookmark_dir=@FOLDER@/bookmarks
debug_level=debug
log_path=@FOLDER@/collector.log
sleep=1
throttle=1000
type=filetail
ft_dir=@FOLDER@/old
ft_filter=*.log
ft_delim=<newline>
ft_start_top=1
"""

POLICY = """[LOGRELAY1000]
Log Directory=@FOLDER@/new
Tail Mode=begin
"""


def say(text=""):
    print(text, flush=True)


class Writer(threading.Thread):
    """Appends numbered lines to a file until it is stopped."""

    def __init__(self, path, name):
        super().__init__(daemon=True)
        self.path, self.name, self.count = path, name, 0
        self.done = threading.Event()
        # A file under 256 bytes that grows counts as a new file; so this one begins larger.
        self.append(10)

    def append(self, lines):
        text = "".join(f"{self.name}: line {self.count + n:05d} of the application\n"
                       for n in range(1, lines + 1))
        with open(self.path, "ab", buffering=0) as file:
            file.write(text.encode())
        self.count += lines

    def run(self):
        while not self.done.wait(1 / LINES_A_SECOND):
            self.append(1)

    def stop(self):
        self.done.set()
        self.join()


class Stage:
    """The folder of the demonstration, and what the kit wants to know about it."""

    def __init__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="collector-demo-"))
        self.private = self.folder / "private"
        make_private(self.private, ("lock", "opt", "etc"))
        self.agent = self.folder / "agent"
        self.conf_path = self.folder / "collector.conf"
        self.log_path = self.folder / "collector.log"
        self.daemons = []
        for name in ("old", "new"):
            (self.folder / name).mkdir()

    @staticmethod
    def sanitizer_environment():
        return {}

    def install_agent(self):
        """The agent's configuration file has a fixed path below /etc; the daemon sees a copy."""
        subprocess.run(["cp", "-a", "/etc/.", str(self.private / "etc")], check=False,
                       stderr=subprocess.DEVNULL)
        self.ask("prepare")
        target = self.private / "etc" / CONFIG_IN_ETC
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(self.agent / "config.xml", target)

    def ask(self, command, *options):
        out = subprocess.run([str(BUILD / "bin/loopback_agent"), command, "--dir", str(self.agent),
                              *map(str, options)], check=True, stdout=subprocess.PIPE).stdout
        return [json.loads(line) for line in out.splitlines()]

    def fill(self, text, port=0):
        return text.replace("@PORT@", str(port)).replace("@FOLDER@", str(self.folder))

    def clean(self):
        for daemon in self.daemons:
            if daemon.process.poll() is None:
                daemon.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


def lines_of(receiver, name):
    return [text for text in (text_of(e).rstrip() for e in list(receiver.events))
            if text.startswith(name + ":")]


def show_properties(stage):
    properties = stage.ask("properties")[0]
    say("\nThe agent asks for the properties:")
    for section, settings in properties.items():
        for name in list(settings)[:4]:
            say(f"    {section:<8} {name} = {settings[name]}")
        if len(settings) > 4:
            say(f"    {section:<8} ... {len(settings)} settings")


def show_change(before, after):
    for line in before:
        if line not in after:
            say(f"    - {line}")
    for line in after:
        if line and line not in before:
            say(f"    + {line}")


def push(stage):
    policy = stage.folder / "demo.policy"
    policy.write_text(stage.fill(POLICY), "utf-8")
    say("\nThe agent pushes a policy:")
    for line in policy.read_text("utf-8").splitlines():
        say(f"    {line}")
    before = stage.conf_path.read_text("utf-8").splitlines()
    answer = stage.ask("push", "--policy", policy)[0]
    say(f"\nEnforced in {answer['milliseconds']:.0f} ms, restart included. The configuration file:")
    show_change(before, stage.conf_path.read_text("utf-8").splitlines())


def run(stage, receiver):
    stage.conf_path.write_text(stage.fill(CONFIGURATION, receiver.port), "utf-8")
    old = Writer(stage.folder / "old/app.log", "old")
    new = Writer(stage.folder / "new/app.log", "new")
    daemon = Daemon(stage)
    daemon.wait_log("Started policy enforcement service")
    say("The daemon has found the agent:")
    for line in daemon.log().splitlines():
        if any(word in line for word in ("LPC runtime", "LPC init", "Registered", "Started")):
            say("    " + line.split(":(", 1)[1].split(") ", 1)[1])
    show_properties(stage)
    old.start()
    new.start()
    wait_for(lambda: len(lines_of(receiver, "old")) > 50, "the events of the old directory")
    say(f"\nEvents flow from the old directory: {lines_of(receiver, 'old')[-1]}")
    push(stage)
    wait_for(lambda: len(lines_of(receiver, "new")) > 50, "the events of the new directory")
    time.sleep(1)
    say(f"\nEvents flow from the new directory: {lines_of(receiver, 'new')[-1]}")
    old.stop()
    new.stop()
    wait_for(lambda: len(lines_of(receiver, "new")) >= new.count, "the last events")
    status = daemon.stop()
    return verdict(receiver, new, status)


def verdict(receiver, new, status):
    """The old directory ends somewhere; up to there, and in all of the new one, nothing is lost."""
    good = True
    say()
    for name, count in (("old", len(lines_of(receiver, "old"))), ("new", new.count)):
        got = lines_of(receiver, name)
        want = [f"{name}: line {n:05d} of the application" for n in range(1, count + 1)]
        good = good and got == want
        say(f"{name}/app.log: {len(got)} events, {len(set(want) - set(got))} lost, "
            f"{len(got) - len(set(got))} repeated")
    say(f"The daemon was stopped (exit status {status}); everything is cleaned up.")
    return good


def main():
    if namespace() is None:
        say("The agent's configuration file has a fixed path below /etc. To show it without "
            "touching yours,\nthis needs a private mount namespace: run it as root, or where "
            "user namespaces are allowed.")
        return 1
    stage = Stage()
    try:
        stage.install_agent()
        receiver = Receiver(stage.folder)
        try:
            return 0 if run(stage, receiver) else 1
        finally:
            receiver.stop()
    finally:
        stage.clean()


if __name__ == "__main__":
    sys.exit(main())
