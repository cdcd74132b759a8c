"""A Receiver for tests of other programs: answers everything, keeps the texts of the records."""
import socket
import struct
import threading

MAGIC = bytes.fromhex("55aa55aacefaedfe")
OKAY = b"OKAY\0\0\0\0"
# (protocol version, data type, type version): requests, Alert and Syslog in two sub-versions.
OFFERED = [(6, 0, code) for code in range(7)] + [(6, 1, 0), (6, 1, 1), (6, 3, 0), (6, 3, 1)]


class Receiver:
    """Listens on a free port of loopback; `context` (ssl.SSLContext) puts it behind TLS."""

    def __init__(self, context=None):
        self.events = []
        self.sources = []
        self.context = context
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            peer, _ = self.listener.accept()
            threading.Thread(target=self.talk, args=(peer,), daemon=True).start()

    def talk(self, peer):
        try:
            if self.context:
                peer = self.context.wrap_socket(peer, server_side=True)
            with peer, peer.makefile("rb") as stream:
                while self.answer(peer, stream):
                    pass
        except OSError:
            pass

    def answer(self, peer, stream):
        unit = stream.read(16)
        if len(unit) != 16 or unit[:8] != MAGIC:
            return False
        word = struct.unpack_from("<I", unit, 8)[0]
        kind, code = word >> 8 & 0xFFF, word >> 20
        if kind == 3:
            length = struct.unpack("<IHH", stream.read(8))[2]
            self.events.append(stream.read(length))
        elif kind == 1 and code == 1:
            self.events.append(self.read_alert(stream))
        elif code == 2:
            peer.sendall(OKAY + struct.pack("<i", len(OFFERED)) +
                         b"".join(struct.pack("<HHH26x", *entry) for entry in OFFERED))
        elif code == 3:
            source_kind, length = struct.unpack("<HH", stream.read(4))
            self.sources.append((source_kind, stream.read(length)))
            peer.sendall(OKAY + struct.pack("<i", 5))
        else:
            peer.sendall(OKAY)
        return True

    @staticmethod
    def read_alert(stream):
        block = stream.read(216)
        message = stream.read(block[210])
        stream.read(sum(block[194:204]) + struct.unpack_from("<H", block, 172)[0])
        return message

    def wait(self, count):
        """The events, once there are `count` of them or 30 s have passed."""
        for _ in range(3000):
            if len(self.events) >= count:
                break
            threading.Event().wait(0.01)
        return self.events
