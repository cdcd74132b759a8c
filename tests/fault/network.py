"""A network of the laboratory's own, of nothing but a loopback: what a scenario does to it, nobody
else sees. Where there is no right to make one, the machine's own serves and is left alone.
"""
import fcntl
import os
import socket
import struct
import sys
import threading
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import linux_calls  # noqa: E402

CLONE_NEWNET = 0x40000000
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1

_before = os.readlink("/proc/self/ns/net")


def is_private():
    return os.readlink("/proc/thread-self/ns/net") != _before


def enter():
    """Call before anything else runs: only this thread and what it starts change over."""
    with open("/proc/self/ns/net", "rb") as before:
        try:
            linux_calls.unshare(CLONE_NEWNET)
            set_loopback(True)
        except OSError:
            if is_private():
                linux_calls.enter_namespace(before.fileno(), CLONE_NEWNET)


def set_loopback(up):
    if not is_private():
        raise unittest.SkipTest("needs a network namespace")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sh14x", b"lo", 0)
        flags, = struct.unpack_from("h", fcntl.ioctl(any_socket, SIOCGIFFLAGS, request), 16)
        flags = flags | IFF_UP if up else flags & ~IFF_UP
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", flags))


NAME = "receiver.example.net"
ONLY_THIS_SERVER = """#!/bin/sh
set -e
mount --bind "$0.resolv" /etc/resolv.conf
mount --bind "$0.nsswitch" /etc/nsswitch.conf
exec "$@"
"""


class NameServer:
    """Says nothing until told to; then every name of the old kind of address is this host."""

    def __init__(self, lab):
        if not is_private() or not Path("/etc/resolv.conf").exists():
            raise unittest.SkipTest("needs a network namespace and a resolv.conf to replace")
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 53))
        self.socket.settimeout(0.2)
        self.ended = threading.Event()
        lab.addCleanup(self._end)
        script = lab.folder / "with_name_server"
        script.write_text(ONLY_THIS_SERVER)
        script.chmod(0o755)
        Path(f"{script}.resolv").write_text("nameserver 127.0.0.1\n")
        Path(f"{script}.nsswitch").write_text("hosts: files dns\n")
        self.wrapper = [str(script)]
        self.asked, self.talks = threading.Event(), False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _end(self):
        self.ended.set()
        self.thread.join(30)
        self.socket.close()

    def wait_question(self):
        if not self.asked.wait(60):
            raise AssertionError("nobody asks the name server")

    def answer(self):
        self.talks = True

    def _serve(self):
        while not self.ended.is_set():
            try:
                question, client = self.socket.recvfrom(512)
            except OSError:
                continue  # nobody has asked
            self.asked.set()
            if self.talks:
                self.socket.sendto(self._reply(question), client)

    @staticmethod
    def _reply(question):
        end = question.index(b"\0", 12) + 5
        kind, = struct.unpack_from(">H", question, end - 4)
        is_address = kind == 1
        header = question[:2] + struct.pack(">HHHHH", 0x8180, 1, is_address, 0, 0)
        record = struct.pack(">HHHIH4s", 0xC00C, 1, 1, 60, 4, bytes([127, 0, 0, 1]))
        return header + question[12:end] + (record if is_address else b"")
