"""The filters of system calls that the service manager installs for the lines of a unit.

They are built by libseccomp, the library that the manager uses, one filter for each line as the
manager does it. Only the native architecture's calls get through once `architectures` stands.
"""
import ctypes
import errno
import socket
from pathlib import Path

ALLOW, KILL, ERRNO = 0x7FFF0000, 0x80000000, 0x00050000
BAD_ARCH, SET_NO_NEW_PRIVILEGES, OPTIMIZE = 2, 3, 8
NE, LT, EQ, GT, MASKED_EQ = 1, 2, 4, 6, 7
NO_SUCH_CALL = -1  # what the library answers to a name that it does not know

PROT_WRITE, PROT_EXEC, SHM_EXEC = 2, 4, 0o100000
O_CREAT, SETUID_BIT, SETGID_BIT = 0o100, 0o4000, 0o2000
REAL_TIME_FREE = (0, 3, 5)  # SCHED_OTHER, SCHED_BATCH, SCHED_IDLE
# CLONE_NEW*: cgroup, ipc, network, mount, pid, user, uts.
NAMESPACES = (0x02000000, 0x08000000, 0x40000000, 0x00020000, 0x20000000, 0x10000000, 0x04000000)


class Unavailable(Exception):
    """This machine has no such filters."""


class Condition(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operation", ctypes.c_uint),
                ("first", ctypes.c_uint64), ("second", ctypes.c_uint64)]


def load_library():
    try:
        library = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    except OSError as error:
        raise Unavailable(f"no libseccomp: {error}") from None
    library.seccomp_init.restype = ctypes.c_void_p
    library.seccomp_init.argtypes = [ctypes.c_uint32]
    library.seccomp_release.argtypes = [ctypes.c_void_p]
    library.seccomp_load.argtypes = [ctypes.c_void_p]
    library.seccomp_attr_set.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32]
    library.seccomp_rule_add_exact_array.argtypes = [
        ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_uint, ctypes.POINTER(Condition)]
    return library


class Groups:
    """The manager's groups of calls, from the table beside this file."""

    def __init__(self):
        self.members = {}
        text = (Path(__file__).with_name("syscall_groups.txt")).read_text("ascii")
        for line in text.splitlines():
            if not line.startswith("#"):
                name, *members = line.split()
                self.members[name] = members

    def expand(self, name):
        """The calls behind a name; a group stands for its members, which may be groups."""
        if not name.startswith("@"):
            return {name}
        return set().union(*(self.expand(member) for member in self.members[name]))


class Filter:
    """One filter: a default action and rules with another one."""

    def __init__(self, library, default=ALLOW, foreign=ALLOW):
        self.seccomp = library
        self.context = library.seccomp_init(default)
        if not self.context:
            raise Unavailable("seccomp_init")
        for attribute, value in ((BAD_ARCH, foreign), (SET_NO_NEW_PRIVILEGES, 0), (OPTIMIZE, 2)):
            self._check(library.seccomp_attr_set(self.context, attribute, value), "attribute")

    @staticmethod
    def _check(result, what):
        if result < 0:
            raise OSError(-result, f"seccomp: {what}: {errno.errorcode.get(-result, -result)}")

    def rule(self, action, call, *conditions):
        """Adds a rule; `conditions` are (argument, operation, first[, second]). A call that this
        architecture does not have needs none."""
        number = self.seccomp.seccomp_syscall_resolve_name(call.encode())
        if number == NO_SUCH_CALL or number < 0:
            return
        filled = [Condition(*(tuple(c) + (0,))[:4]) for c in conditions]
        self._check(self.seccomp.seccomp_rule_add_exact_array(
            self.context, action, number, len(filled), (Condition * len(filled))(*filled)), call)

    def deny(self, call, *conditions, error=errno.EPERM):
        self.rule(ERRNO | error, call, *conditions)

    def load(self):
        result = self.seccomp.seccomp_load(self.context)
        if -result in (errno.EINVAL, errno.ENOSYS):
            raise Unavailable("the kernel takes no filter")
        self._check(result, "load")
        self.seccomp.seccomp_release(self.context)


class Filters:
    """Each method installs the filter of one kind of line, for this process and its children."""

    def __init__(self):
        self.seccomp = load_library()
        self.groups = Groups()

    def architectures(self):
        Filter(self.seccomp, foreign=KILL).load()

    def calls(self, lines, error):
        """SystemCallFilter: the first line says whether the list allows or denies. A call that the
        manager does not know is answered as one that the kernel does not have."""
        allowing = not lines[0].startswith("~")
        listed = self.groups.expand("@default") if allowing else set()
        for line in lines:
            names = set().union(*(self.groups.expand(n) for n in line.lstrip("~").split()))
            listed = listed | names if line.startswith("~") != allowing else listed - names
        if allowing:
            made = Filter(self.seccomp, default=ERRNO | errno.ENOSYS)
            for call in sorted(listed):
                made.rule(ALLOW, call)
            listed = self.groups.expand("@known") - listed
        else:
            made = Filter(self.seccomp)
        for call in sorted(listed):
            made.deny(call, error=error)
        made.load()

    def group(self, *names):
        made = Filter(self.seccomp)
        for call in sorted(set().union(*map(self.groups.expand, names))):
            made.deny(call)
        made.load()

    def families(self, names):
        numbers = sorted(int(getattr(socket, name)) for name in names)
        made = Filter(self.seccomp)
        rules = [(0, LT, numbers[0]), (0, GT, numbers[-1])]
        rules += [(0, EQ, n) for n in range(numbers[0], numbers[-1]) if n not in numbers]
        for rule in rules:
            if rule != (0, LT, 0):
                made.deny("socket", rule, error=errno.EAFNOSUPPORT)
        made.load()

    def write_execute(self):
        made = Filter(self.seccomp)
        both = PROT_WRITE | PROT_EXEC
        for call in ("mmap", "mmap2"):
            made.deny(call, (2, MASKED_EQ, both, both))
        for call in ("mprotect", "pkey_mprotect"):
            made.deny(call, (2, MASKED_EQ, PROT_EXEC, PROT_EXEC))
        made.deny("shmat", (2, MASKED_EQ, SHM_EXEC, SHM_EXEC))
        made.load()

    def namespaces(self):
        made = Filter(self.seccomp)
        made.deny("clone3", error=errno.ENOSYS)  # its flags lie in memory that no filter sees
        made.deny("setns")
        for flag in NAMESPACES:
            made.deny("unshare", (0, MASKED_EQ, flag, flag))
            made.deny("clone", (0, MASKED_EQ, flag, flag))
        made.load()

    def real_time(self):
        made = Filter(self.seccomp)
        made.deny("sched_setscheduler", (1, GT, max(REAL_TIME_FREE)))
        for policy in set(range(max(REAL_TIME_FREE))) - set(REAL_TIME_FREE):
            made.deny("sched_setscheduler", (1, EQ, policy))
        made.load()

    def setuid_files(self):
        made = Filter(self.seccomp)
        for bit in (SETUID_BIT, SETGID_BIT):
            for call, mode in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("mkdir", 1),
                               ("mkdirat", 2), ("mknod", 1), ("mknodat", 2), ("creat", 1)):
                made.deny(call, (mode, MASKED_EQ, bit, bit))
            for call, flags in (("open", 1), ("openat", 2)):
                made.deny(call, (flags, MASKED_EQ, O_CREAT, O_CREAT),
                          (flags + 1, MASKED_EQ, bit, bit))
        made.deny("openat2", error=errno.ENOSYS)  # its mode lies in memory that no filter sees
        made.load()

    def personality(self):
        made = Filter(self.seccomp)
        made.deny("personality", (0, NE, 0))
        made.load()
