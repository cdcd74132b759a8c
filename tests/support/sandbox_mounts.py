"""The file system as a service under a unit's restrictions sees it, in its own mount namespace.

Mounts are laid first, as long as everything can be written; finish() then takes the writing away.
"""
import errno
import os
import re
import stat
from pathlib import Path

from linux_calls import (ATTR_RDONLY, MS_BIND, MS_NODEV, MS_NOEXEC, MS_NOSUID, MS_REC, MS_SLAVE,
                         mount, mount_attributes, move_mount, open_tree)

HOMES = ("/home", "/root", "/run/user")
TUNABLES = ("/proc/acpi", "/proc/apm", "/proc/asound", "/proc/bus", "/proc/fs", "/proc/irq",
            "/proc/latency_stats", "/proc/mtrr", "/proc/scsi", "/proc/sys", "/proc/sysrq-trigger",
            "/proc/timer_stats", "/sys")
# name -> major and minor number of each device that stays.
DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9),
           "tty": (5, 0)}
KEPT_IN_DEV = ("pts", "shm", "mqueue", "hugepages")
LINKS_IN_DEV = {"fd": "/proc/self/fd", "stdin": "/proc/self/fd/0", "stdout": "/proc/self/fd/1",
                "stderr": "/proc/self/fd/2", "ptmx": "pts/ptmx",
                "log": "/run/systemd/journal/dev-log"}
OCTAL = re.compile(rb"\\([0-7]{3})")
KERNELS = ("/dev", "/proc", "/sys")  # what strict protection leaves to the other lines


def detach_from_the_machine():
    mount(None, "/", None, MS_REC | MS_SLAVE)


def mount_points():
    """Every mount point, as the kernel lists them: odd characters as three octal digits."""
    with open("/proc/self/mountinfo", "rb") as file:
        names = {line.split(b" ")[4] for line in file}
    return sorted(os.fsdecode(OCTAL.sub(lambda m: bytes([int(m[1], 8)]), name)) for name in names)


def below(path, root):
    return path == root or path.startswith(root.rstrip("/") + "/")


class View:
    def __init__(self):
        self.writing = {"/": False}  # path -> whether what lies below it may be written

    def hold(self, bind):
        """Takes a tree before anything is mounted over it; "FROM[:TO]"."""
        source, _, target = bind.partition(":")
        return open_tree(os.path.realpath(source)), target or source, os.path.isdir(source)

    def bind(self, tree, target, is_folder):
        """Lays a held tree to be read."""
        if is_folder:
            os.makedirs(target, exist_ok=True)
        elif not os.path.exists(target):
            Path(target).touch()
        move_mount(tree, target)
        self.writing[target] = False

    def private_devices(self):
        kept = [("/dev/" + n, open_tree("/dev/" + n)) for n in KEPT_IN_DEV
                if os.path.isdir("/dev/" + n)]
        mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755,size=4m,uid=0,gid=0")
        mask = os.umask(0)
        for name, (major, minor) in DEVICES.items():
            os.mknod("/dev/" + name, stat.S_IFCHR | 0o666, os.makedev(major, minor))
        os.umask(mask)
        for name, target in LINKS_IN_DEV.items():
            os.symlink(target, "/dev/" + name)
        for path, tree in kept:
            os.mkdir(path)
            move_mount(tree, path)
        mount_attributes("/dev", ATTR_RDONLY)

    def own_proc(self, options):
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, options)

    def private_tmp(self):
        for path in ("/tmp", "/var/tmp"):
            mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777,uid=0,gid=0")
            self.writing[path] = True

    def hide(self, *paths, among=()):
        """Lays something empty and closed over each path. Where a tree is to be bound below one,
        that one stays passable, or nothing could be reached through it."""
        for path in {os.path.realpath(p) for p in paths if os.path.exists(p)}:
            passed = any(below(bind.rpartition(":")[2], path) for bind in among)
            if os.path.isdir(path):
                mode = "0755" if passed else "0000"
                mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC,
                      f"mode={mode},size=1m,uid=0,gid=0")
                self.writing[path] = False
            else:
                mount("/dev/null", path, None, MS_BIND)

    def keep_writable(self, path):
        path = os.path.realpath(path)
        mount(path, path, None, MS_BIND | MS_REC)
        self.writing[path] = True

    def read_only(self, *paths):
        for path in paths:
            if os.path.exists(path):
                mount(path, path, None, MS_BIND | MS_REC)
                mount_attributes(path, ATTR_RDONLY, recursive=True)

    def _may_be_written(self, point):
        roots = [root for root in self.writing if below(point, root)]
        return self.writing[max(roots, key=len)]

    def finish(self, strict):
        if not strict:
            return
        for point in mount_points():
            if any(below(point, root) for root in KERNELS) or self._may_be_written(point):
                continue
            try:
                mount_attributes(point, ATTR_RDONLY)
            except OSError as error:
                # Another mount lies over it: it cannot be reached, so it cannot be written.
                if error.errno not in (errno.ENOENT, errno.EINVAL, errno.ENOTDIR):
                    raise
