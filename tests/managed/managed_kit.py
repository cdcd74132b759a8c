"""The kit of the tests with an agent: a daemon that finds the loopback agent's libraries through a
private /etc, and the command that plays the agent.
"""
import json
import os
import subprocess
from pathlib import Path

import kit_path  # noqa: F401
import sandbox
from daemon_kit import BUDGET_SECONDS, BUILD, DaemonTest

AGENT = BUILD / "bin/loopback_agent"
CONFIG_IN_ETC = "cmx.d/OZUAGENT3700LYNX/config.xml"


class ManagedTest(DaemonTest):
    """A test with an agent's folder. Its configuration file is in place from the beginning."""

    agent_installed = True
    unit_drop_ins = ("managed-host.conf", "read-all-logs.conf")

    def setUp(self):
        super().setUp()
        self.need_namespace()  # the agent's configuration file has a fixed path
        self.agent = self.folder / "agent"
        self.etc = self.private / "etc"
        self.etc.mkdir()
        # What may not be read is not needed by anyone here.
        subprocess.run(["cp", "-a", "/etc/.", str(self.etc)], check=False,
                       stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        (self.etc / "velmor").mkdir(exist_ok=True)
        if self.sandbox_files:
            # The agent's runtime meets the agent in its folder, and a policy replaces the
            # configuration file: both belong to the daemon's account.
            self.daemon_writes(self.agent)
            self.conf_path = self.daemon_writes(self.folder / "conf") / "collector.conf"
        if self.agent_installed:
            self.install_agent()

    def configure(self, *args, path=None, **options):
        super().configure(*args, path=path, **options)
        self.daemon_owns(Path(path or self.conf_path))

    def install_agent(self, *faults):
        options = [word for fault in faults for word in ("--fault", fault)]
        self.ask("prepare", *options)
        target = self.etc / CONFIG_IN_ETC
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes((self.agent / "config.xml").read_bytes())

    def other_owner(self):
        """Whom the configuration file may belong to, so that the daemon can keep it so: its own
        account may only choose among its groups."""
        if self.sandbox_files:
            return self.daemon_account()[0], sandbox.group_number("adm")
        return (1234, 1235) if os.geteuid() == 0 else (os.getuid(), os.getgid())

    def command(self, name, *options):
        return [str(AGENT), name, "--dir", str(self.agent), "--wait", str(BUDGET_SECONDS * 2),
                *map(str, options)]

    def ask(self, name, *options, status=0):
        """Runs a command of the agent; returns its JSON objects."""
        done = subprocess.run(self.command(name, *options), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                              env=self.agent_environment(), timeout=BUDGET_SECONDS * 4)
        self.assertEqual(done.returncode, status, done.stderr.decode("utf-8", "replace"))
        return [json.loads(line) for line in done.stdout.splitlines()]

    def agent_environment(self):
        return {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", **self.sanitizer_environment()}

    def policy(self, *lines, name="policy"):
        """Writes a policy file for the agent."""
        path = self.folder / f"{name}.policy"
        path.write_text("".join(line + "\n" for line in lines), "utf-8")
        return path

    def push(self, *lines, **options):
        """Has a policy enforced and returns the agent's view of it."""
        policy = self.policy(*lines)
        return self.ask("push", "--policy", policy, *options.get("options", ()))

    def conf_lines(self):
        return self.conf_path.read_text("utf-8", "surrogateescape").split("\n")
