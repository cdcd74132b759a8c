"""Tries what a service should not be able to do, and says what came of it: sandbox_probe.py NAME...

Prints one JSON object: for each attempt "done", the name of the error, or what was seen.
"""
import ctypes
import errno
import json
import mmap
import os
import resource
import socket
import sys
import tempfile

libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWUSER, ADDR_NO_RANDOMIZE, PTRACE_TRACEME = 0x10000000, 0x0040000, 0
FAILED = ctypes.c_void_p(-1).value


def checked(result):
    if result in (-1, FAILED):
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))
    return result


def writes(path):
    def attempt():
        with open(path, "a", encoding="ascii"):
            return "done"
    return attempt


def map_writable_code():
    libc.mmap.restype = ctypes.c_void_p
    flags = mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS
    words = mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC
    checked(libc.mmap(None, ctypes.c_size_t(4096), words, flags, -1, ctypes.c_long(0)))


def make_memory_executable():
    page = mmap.mmap(-1, 4096)
    start = ctypes.addressof(ctypes.c_char.from_buffer(page))
    checked(libc.mprotect(ctypes.c_void_p(start), ctypes.c_size_t(4096), mmap.PROT_EXEC))


def set_user_id_bit():
    with tempfile.NamedTemporaryFile() as file:
        os.chmod(file.name, 0o4700)


def mode_of_a_new_file():
    folder = tempfile.mkdtemp()
    os.close(os.open(folder + "/file", os.O_CREAT | os.O_WRONLY, 0o666))
    return oct(os.stat(folder + "/file").st_mode & 0o777)


def opens(*words):
    def attempt():
        socket.socket(*words).close()
    return attempt


ATTEMPTS = {
    "packet-socket": opens(socket.AF_PACKET, socket.SOCK_RAW),
    "netlink-socket": opens(socket.AF_NETLINK, socket.SOCK_RAW),
    "tcp-socket": opens(socket.AF_INET, socket.SOCK_STREAM),
    "unix-socket": opens(socket.AF_UNIX, socket.SOCK_STREAM),
    "map-writable-code": map_writable_code,
    "make-memory-executable": make_memory_executable,
    "ptrace": lambda: checked(libc.ptrace(PTRACE_TRACEME, 0, 0, 0)),
    "mount": lambda: checked(libc.mount(b"tmpfs", b"/tmp", b"tmpfs", 0, None)),
    "user-namespace": lambda: checked(libc.unshare(CLONE_NEWUSER)),
    "personality": lambda: checked(libc.personality(ADDR_NO_RANDOMIZE)),
    "set-user-id-bit": set_user_id_bit,
    "real-time": lambda: os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1)),
    "nice": lambda: os.setpriority(os.PRIO_PROCESS, 0, 5),
    "write-etc": writes("/etc/sandbox-probe"),
    "write-opt": writes("/opt/sandbox-probe"),
    "write-state": writes("/var/lib/velmor-siem-collector/probe"),
    "write-logs": writes("/var/log/velmor/probe"),
    "write-lock": writes("/run/lock/sandbox-probe"),
    "write-tmp": writes("/tmp/sandbox-probe"),
    "list-tmp": lambda: sorted(os.listdir("/tmp")),
    "list-home": lambda: os.listdir("/home"),
    "list-dev": lambda: sorted(os.listdir("/dev")),
    "list-proc": lambda: sorted(name for name in os.listdir("/proc") if not name.isdigit()),
    "see-init": lambda: os.stat("/proc/1").st_uid,
    "tune-kernel": writes("/proc/sys/kernel/printk"),
    "status": lambda: open("/proc/self/status", encoding="ascii").read(),
    "user-map": lambda: open("/proc/self/uid_map", encoding="ascii").read().split(),
    "namespaces": lambda: {n: os.readlink(f"/proc/self/ns/{n}") for n in ("ipc", "uts", "mnt")},
    "mode-of-a-new-file": mode_of_a_new_file,
    "limits": lambda: [resource.getrlimit(kind)[1]
                       for kind in (resource.RLIMIT_CORE, resource.RLIMIT_NOFILE)],
}


def result_of(attempt):
    try:
        found = attempt()
    except OSError as error:
        return errno.errorcode[error.errno]
    return "done" if found is None or isinstance(found, int) and found >= 0 else found


def main():
    print(json.dumps({name: result_of(ATTEMPTS[name]) for name in sys.argv[1:]}))


if __name__ == "__main__":
    main()
