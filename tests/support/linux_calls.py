"""The few system calls of Linux that Python does not have, each raising OSError as its own do."""
import ctypes
import os

_libc = ctypes.CDLL(None, use_errno=True)
# The same numbers on every architecture.
OPEN_TREE, MOVE_MOUNT, MOUNT_SETATTR = 428, 429, 442
AT_FDCWD, AT_EMPTY_PATH, AT_RECURSIVE = -100, 0x1000, 0x8000
OPEN_TREE_CLONE, MOVE_FROM_EMPTY_PATH = 1, 4
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_REMOUNT, MS_BIND, MS_REC, MS_SLAVE = (
    1, 2, 4, 8, 32, 4096, 16384, 1 << 19)
ATTR_RDONLY, ATTR_NOSUID, ATTR_NODEV, ATTR_NOEXEC = 1, 2, 4, 8


class MountAttributes(ctypes.Structure):
    _fields_ = [("set", ctypes.c_uint64), ("clear", ctypes.c_uint64),
                ("propagation", ctypes.c_uint64), ("userns", ctypes.c_uint64)]


def _check(result, what):
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")
    return result


def prctl(option, value, *rest):
    words = [ctypes.c_ulong(word) for word in (value, *rest, 0, 0, 0)[:4]]
    return _check(_libc.prctl(option, *words), f"prctl {option}")


def unshare(kinds):
    _check(_libc.unshare(kinds), f"unshare {kinds:#x}")


def enter_namespace(descriptor, kind):
    _check(_libc.setns(descriptor, kind), f"setns {kind:#x}")


def mount(source, target, kind, flags, data=None):
    words = [word.encode() if word is not None else None for word in (source, target, kind, data)]
    _check(_libc.mount(words[0], words[1], words[2], ctypes.c_ulong(flags), words[3]),
           f"mount {target}")


def open_tree(path):
    """A descriptor of a copy of the mounts at and below the path, standing nowhere yet."""
    flags = OPEN_TREE_CLONE | os.O_CLOEXEC | AT_RECURSIVE
    return _check(_libc.syscall(OPEN_TREE, AT_FDCWD, path.encode(), flags), f"open_tree {path}")


def move_mount(tree, target):
    _check(_libc.syscall(MOVE_MOUNT, tree, b"", AT_FDCWD, target.encode(), MOVE_FROM_EMPTY_PATH),
           f"move_mount {target}")
    os.close(tree)


def mount_attributes(path, attributes, recursive=False):
    """Sets attributes of the mount at the path, which must be its root."""
    words = MountAttributes(set=attributes)
    flags = AT_RECURSIVE if recursive else 0
    _check(_libc.syscall(MOUNT_SETATTR, AT_FDCWD, path.encode(), flags, ctypes.byref(words),
                         ctypes.c_size_t(ctypes.sizeof(words))), f"mount_setattr {path}")
