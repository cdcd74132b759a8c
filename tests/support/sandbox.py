"""Starts a command under the restrictions of a service unit, where no service manager runs.

    sandbox.py [--explain] UNIT [DROP-IN...] -- COMMAND [ARGUMENT...]

Each line of the unit is done as the manager would do it, or is the manager's own affair, or ends
the run: nothing is passed over. Namespaces, mounts, accounts and filters of system calls are the
real ones; the command becomes this process. Needs root.

Exit status: the command's; 77 where this machine lacks what it takes; 125 for a unit that says
something unknown here.
"""
import errno
import grp
import os
import pwd
import resource
import shlex
import sys

import sandbox_mounts as mounts
import unit_file
from linux_calls import prctl, unshare
from seccomp_filter import Filters, Unavailable
from unit_file import UnitError, boolean

SKIPPED, MISUSED = 77, 125
# Numbers for accounts that this machine does not have, from the range for passing ones.
STAND_IN_FIRST = 61900

CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER, CLONE_NEWNS = (
    0x04000000, 0x08000000, 0x10000000, 0x00020000)
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS, PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL = 24, 38, 47, 4

# Lines that restrict nothing while the daemon runs, and whose they are.
MANAGERS = {
    "Description": "a text", "Documentation": "a text",
    "After": "order of starting", "Wants": "order of starting", "WantedBy": "installation",
    "StartLimitIntervalSec": "restarts", "StartLimitBurst": "restarts",
    "Restart": "restarts", "RestartSec": "restarts", "SuccessExitStatus": "what a failure is",
    "Type": "when it counts as started", "ExecStart": "the command is the caller's",
    "TimeoutStopSec": "stopping", "KillMode": "stopping",
    "RemoveIPC": "clearing away after the stop",
}


def account(name, table, offset):
    """The number behind a name, or a stand-in where the machine does not have it."""
    try:
        return table(name)[2]
    except KeyError:
        return STAND_IN_FIRST + offset


def user_number(name):
    return account(name, pwd.getpwnam, 0)


def group_number(name, offset=0):
    return account(name, grp.getgrnam, offset)


def one_of(value, *known):
    if value not in known:
        raise UnitError(f"only {' and '.join(known)} is known here, not {value}")
    return value


class Sandbox:
    """What the lines say. A method `set_Key` reads the values of one key; apply() then does all of
    it in the order that the manager keeps."""

    def __init__(self, lines):
        self.uid, self.gid, self.groups = 0, 0, []
        self.umask, self.limits, self.oom = None, {}, None
        self.yes, self.modes, self.folders, self.writable, self.binds = set(), {}, [], [], []
        self.calls, self.error, self.families = [], errno.EPERM, None
        self.proc = {}
        self.no_capabilities = self.no_ambient = self.native = self.strict = False
        service = unit_file.settings(lines)
        for line in lines:
            known = line.key in MANAGERS or (
                line.section == "Service" and hasattr(self, "set_" + line.key))
            if not known:
                raise UnitError(f"{line.where}: {line.key} has no translation")
        for key, values in service.items():
            if key not in MANAGERS:
                try:
                    getattr(self, "set_" + key)(values)
                except UnitError as error:
                    raise UnitError(f"{key}: {error}") from None

    def _switch(key):  # pylint: disable=no-self-argument
        def read(self, values):
            (self.yes.add if values and boolean(values[-1]) else self.yes.discard)(key)
        return read

    for _key in ("NoNewPrivileges", "PrivateTmp", "PrivateDevices", "PrivateUsers",
                 "PrivateMounts", "PrivateIPC", "ProtectHome", "ProtectHostname", "ProtectClock",
                 "ProtectKernelTunables", "ProtectKernelModules", "ProtectKernelLogs",
                 "ProtectControlGroups", "RestrictNamespaces", "RestrictRealtime",
                 "RestrictSUIDSGID", "LockPersonality", "MemoryDenyWriteExecute"):
        locals()["set_" + _key] = _switch(_key)
    del _switch, _key

    def set_User(self, values):
        self.uid = user_number(values[-1])

    def set_Group(self, values):
        self.gid = group_number(values[-1])

    def set_SupplementaryGroups(self, values):
        names = " ".join(values).split()
        self.groups = [group_number(name, 1 + at) for at, name in enumerate(names)]

    def set_UMask(self, values):
        self.umask = int(values[-1], 8)

    def set_LimitNOFILE(self, values):
        self.limits[resource.RLIMIT_NOFILE] = int(values[-1])

    def set_LimitCORE(self, values):
        self.limits[resource.RLIMIT_CORE] = int(values[-1])

    def set_OOMScoreAdjust(self, values):
        self.oom = int(values[-1])

    def set_StateDirectory(self, values):
        self.folders += [("StateDirectory", "/var/lib/" + n) for n in " ".join(values).split()]

    def set_LogsDirectory(self, values):
        self.folders += [("LogsDirectory", "/var/log/" + n) for n in " ".join(values).split()]

    def set_StateDirectoryMode(self, values):
        self.modes["StateDirectory"] = int(values[-1], 8)

    def set_LogsDirectoryMode(self, values):
        self.modes["LogsDirectory"] = int(values[-1], 8)

    def set_ReadWritePaths(self, values):
        self.writable += shlex.split(" ".join(values))

    def set_BindReadOnlyPaths(self, values):
        self.binds += shlex.split(" ".join(values))

    def set_CapabilityBoundingSet(self, values):
        if values:
            raise UnitError("only the empty set is known here")
        self.no_capabilities = True

    def set_AmbientCapabilities(self, values):
        if values:
            raise UnitError("only the empty set is known here")
        self.no_ambient = True

    def set_ProtectSystem(self, values):
        self.strict = one_of(values[-1], "strict") == "strict"

    def set_ProtectProc(self, values):
        self.proc["hidepid"] = one_of(values[-1], "invisible", "default")

    def set_ProcSubset(self, values):
        self.proc["subset"] = one_of(values[-1], "pid", "all")

    def set_RestrictAddressFamilies(self, values):
        names = " ".join(values).split()
        if not names or any(not name.startswith("AF_") for name in names):
            raise UnitError("only a list of allowed families is known here")
        self.families = names

    def set_SystemCallArchitectures(self, values):
        self.native = one_of(values[-1], "native") == "native"

    def set_SystemCallFilter(self, values):
        if any(":" in value for value in values):
            raise UnitError("error numbers of single calls are not known here")
        self.calls = values

    def set_SystemCallErrorNumber(self, values):
        self.error = getattr(errno, values[-1])

    def apply(self):
        filters = Filters()
        self._limit()
        self._make_folders()
        self._become_group()
        self._mount()
        if "PrivateUsers" in self.yes:
            self._map_users()
        self._drop_privileges()
        if self.umask is not None:
            os.umask(self.umask)
        self._filter(filters)

    def _limit(self):
        """As near as the machine allows: in a container the manager does not insist either."""
        for kind, limit in self.limits.items():
            highest = resource.getrlimit(kind)[1]
            if highest != resource.RLIM_INFINITY:
                limit = min(limit, highest)
            resource.setrlimit(kind, (limit, limit))
        if self.oom is not None:
            try:
                with open("/proc/self/oom_score_adj", "w", encoding="ascii") as file:
                    file.write(str(self.oom))
            except PermissionError:
                pass

    def _make_folders(self):
        for kind, path in self.folders:
            os.makedirs(path, mode=0o755, exist_ok=True)
            os.chown(path, self.uid, self.gid)
            os.chmod(path, self.modes.get(kind, 0o755))
            self.writable.append(path)
            os.environ[{"StateDirectory": "STATE_DIRECTORY",
                        "LogsDirectory": "LOGS_DIRECTORY"}[kind]] = path

    def _become_group(self):
        os.setgroups([self.gid, *self.groups])
        os.setresgid(self.gid, self.gid, self.gid)

    def _mount(self):
        kinds = CLONE_NEWNS
        kinds |= CLONE_NEWUTS if "ProtectHostname" in self.yes else 0
        kinds |= CLONE_NEWIPC if "PrivateIPC" in self.yes else 0
        unshare(kinds)
        mounts.detach_from_the_machine()
        view = mounts.View()
        held = [view.hold(bind) for bind in self.binds]
        if "PrivateDevices" in self.yes:
            view.private_devices()
        options = [f"{k}={v}" for k, v in self.proc.items() if v not in ("default", "all")]
        if options:
            view.own_proc(",".join(options))
        if "PrivateTmp" in self.yes:
            view.private_tmp()
        if "ProtectHome" in self.yes:
            view.hide(*mounts.HOMES, among=self.binds)
        if "ProtectKernelModules" in self.yes:
            view.hide("/usr/lib/modules", "/lib/modules")
        if "ProtectKernelLogs" in self.yes:
            view.hide("/proc/kmsg", "/dev/kmsg")
        for tree in held:
            view.bind(*tree)
        for path in self.writable:
            view.keep_writable(path)
        if "ProtectKernelTunables" in self.yes:
            view.read_only(*mounts.TUNABLES)
        if "ProtectControlGroups" in self.yes:
            view.read_only("/sys/fs/cgroup")
        view.finish(strict=self.strict)

    def _map_users(self):
        """A namespace in which only root, the service's user and nobody exist. Only a process
        outside it may say so, hence the child."""
        ready, go = os.pipe()
        outside, parent = os.fork(), os.getpid()
        if outside == 0:
            os.close(go)
            os.read(ready, 1)
            parent = os.getppid()
            for name, number in (("uid_map", self.uid), ("setgroups", None), ("gid_map", self.gid)):
                text = "deny" if number is None else f"0 0 1\n{number} {number} 1\n"
                with open(f"/proc/{parent}/{name}", "w", encoding="ascii") as file:
                    file.write(text)
            os._exit(0)
        os.close(ready)
        unshare(CLONE_NEWUSER)
        os.write(go, b"!")
        os.close(go)
        if os.waitpid(outside, 0)[1] != 0:
            raise OSError(errno.EPERM, "no map of users")

    def _drop_privileges(self):
        if self.no_capabilities:
            for capability in range(64):
                try:
                    prctl(PR_CAPBSET_DROP, capability)
                except OSError as error:
                    if error.errno != errno.EINVAL:
                        raise
                    break  # the kernel's last one was before
        os.setresuid(self.uid, self.uid, self.uid)
        if self.no_ambient:
            prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL)
        # A filter cannot be had without it, as little as from the manager.
        prctl(PR_SET_NO_NEW_PRIVS, 1)

    def _filter(self, filters):
        if self.families:
            filters.families(self.families)
        for key, install in (
                ("MemoryDenyWriteExecute", filters.write_execute),
                ("RestrictRealtime", filters.real_time),
                ("RestrictSUIDSGID", filters.setuid_files),
                ("RestrictNamespaces", filters.namespaces),
                ("LockPersonality", filters.personality)):
            if key in self.yes:
                install()
        for key, names in (("ProtectHostname", ("sethostname", "setdomainname")),
                           ("ProtectKernelTunables", ("_sysctl",)),
                           ("ProtectKernelModules", ("@module",)),
                           ("ProtectKernelLogs", ("syslog",)),
                           ("ProtectClock", ("@clock",)),
                           ("PrivateDevices", ("@raw-io",))):
            if key in self.yes:
                filters.group(*names)
        if self.native:
            filters.architectures()
        if self.calls:
            filters.calls(self.calls, self.error)


def explain(lines):
    for line in lines:
        done = MANAGERS.get(line.key)
        note = f"the manager's: {done}" if done else "done"
        print(f"{line.where}: {line.key}={line.value}\n    {note}")


def main(words):
    try:
        at = words.index("--") if "--" in words else len(words)
        files, command = [w for w in words[:at] if w != "--explain"], words[at + 1:]
        lines = unit_file.read(files)
        sandbox = Sandbox(lines)
        if "--explain" in words[:at]:
            explain(lines)
        if not command:
            return 0
        sandbox.apply()
    except (UnitError, FileNotFoundError) as error:
        print(f"sandbox: {error}", file=sys.stderr)
        return MISUSED
    except Unavailable as error:
        print(f"sandbox: {error}", file=sys.stderr)
        return SKIPPED
    except OSError as error:
        print(f"sandbox: {error}", file=sys.stderr)
        return SKIPPED if error.errno in (errno.EPERM, errno.ENOSYS) else MISUSED
    os.execvp(command[0], command)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
