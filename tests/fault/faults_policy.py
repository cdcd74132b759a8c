"""kill -9 amid a policy's rewrite of the configuration, in front of each of its steps."""
import subprocess
import sys
from pathlib import Path

from faults_kill import per_kill
from lab import Lab

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "managed"))
from managed_kit import ManagedTest  # noqa: E402

# call -> (part of the path, which of the calls on such a path)
STEPS = {"unlink": ("collector.conf.new", 1), "open": ("collector.conf.new", 1),
         "write": ("collector.conf.new", 1), "fchmod": ("collector.conf.new", 1),
         "fsync": ("collector.conf.new", 1), "link": ("collector.conf", 1),
         "rename": ("collector.conf.new", 1), "unlink_of_the_backup": ("collector.conf.", 2)}
FILTERS = ("*.log", "*.lo[g]")  # for the same files


class ManagedLab(Lab, ManagedTest):
    """A lab with an agent."""


def push(lab, daemon, wanted):
    """Has the agent push; it learns that the daemon is gone."""
    policy = lab.policy("[LOGRELAY1000]", f"Log File={wanted}")
    pushing = subprocess.Popen(lab.command("push", "--policy", policy), env=lab.agent_environment(),
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
    status = daemon.wait(120)
    pushing.communicate(timeout=240)
    assert status == -9, f"ended with {status}"


def killed_in_the_rewrite(lab, kills=8):
    lab.listen()
    lab.configure(lab.port, debug_level="info")
    source = lab.source()
    source.append(50)
    steps = list(STEPS) * (1 + lab.figures.get("cycles", kills) // len(STEPS))
    lab.figures.update(kills=lab.figures.get("cycles", kills), workers=1)
    lab.rng.shuffle(steps)
    for turn in range(lab.figures["kills"]):
        # A backup of the same second would be one more file to remove.
        for left in lab.conf_path.parent.glob("collector.conf.[0-9]*"):
            left.unlink()
        path, at = STEPS[steps[turn]]
        faults = lab.fault_environment(steps[turn].split("_")[0], at, path=path)
        daemon = lab.run_daemon(scale=None, env={**faults, "COLLECTOR_FAULT_KILL": "1"})
        daemon.wait_log("Started policy enforcement service")
        source.append(30)
        before = lab.conf_path.read_text()
        used = next(f for f in FILTERS if f"ft_filter={f}\n" in before)
        wanted = FILTERS[1 - FILTERS.index(used)]
        push(lab, daemon, wanted)
        after = lab.conf_path.read_text()
        new = before.replace(f"ft_filter={used}\n", f"ft_filter={wanted}\n")
        if steps[turn] == "unlink_of_the_backup":
            whole = after.rstrip("\n") + "\n" == new.rstrip("\n") + "\n"  # empty lines may come
        else:
            whole = after == before
        assert whole, f"killed at {steps[turn]}: {after!r} after {before!r}"
    daemon = lab.run_daemon()
    source.append(1)
    lab.wait_last()
    lab.timed_stop(daemon)


ROWS = [{"name": "kill9.during_a_policy_rewrite", "run": killed_in_the_rewrite,
         "repeated": per_kill, "lab": ManagedLab}]
