"""Captures without a network: a proxy that records what two programs say to each other, and a
writer that turns such a talk into a capture file, cut into segments wherever the test likes.
"""
import socket
import struct
import threading

CLIENT, RECEIVER = 0, 1


class Recorder:
    """Stands between a sender and a Receiver and keeps every piece with its direction."""

    def __init__(self, test, port):
        self.talk = []
        self._lock = threading.Lock()
        self._target = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._serve, daemon=True)]
        self._threads[0].start()
        test.addCleanup(self._listener.close)

    def _serve(self):
        near, _ = self._listener.accept()
        far = socket.create_connection(("127.0.0.1", self._target))
        back = threading.Thread(target=self._pump, args=(far, near, RECEIVER), daemon=True)
        back.start()
        self._pump(near, far, CLIENT)
        back.join()
        near.close()
        far.close()

    def _pump(self, source, target, direction):
        try:
            while True:
                data = source.recv(65536)
                if not data:
                    break
                with self._lock:
                    self.talk.append((direction, data))
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def finish(self):
        """Waits for the end of the one connection; returns the pieces in order."""
        self._threads[0].join(60)
        return self.talk


class Capture:
    """A capture file of any number of TCP streams on Ethernet and IPv4."""

    RECEIVER_PORT = 4242

    def __init__(self, path, snap=65535 + 100):
        self._file = open(path, "wb")
        self.snap = snap
        self._clock = 1_700_000_000_000_000
        self._file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))

    def close(self):
        self._file.close()

    def stream(self, talk, port, segment=1400, bare=False):
        """Adds one connection; each piece is cut into segments of at most `segment` bytes. A bare
        one has neither the answer to its first packet nor an end."""
        numbers = [1000, 5000]
        self._packet(CLIENT, port, numbers, b"", 0x02)
        numbers[CLIENT] += 1
        if not bare:
            self._packet(RECEIVER, port, numbers, b"", 0x12)
        numbers[RECEIVER] += 1
        if not bare:
            self._packet(CLIENT, port, numbers, b"", 0x10)
        for direction, data in talk:
            for at in range(0, len(data), segment):
                self._packet(direction, port, numbers, data[at:at + segment], 0x18)
                numbers[direction] += len(data[at:at + segment])
        if not bare:
            self._packet(CLIENT, port, numbers, b"", 0x11)

    def _packet(self, direction, port, numbers, data, flags):
        ports = (port, self.RECEIVER_PORT)
        hosts = (bytes([127, 0, 0, 1]), bytes([127, 0, 0, 2]))
        ack = numbers[1 - direction] if flags != 0x02 else 0
        tcp = struct.pack(">HHIIBBHHH", ports[direction], ports[1 - direction],
                          numbers[direction], ack, 0x50, flags, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH", 0x45, 0, 40 + len(data), 0, 0x4000, 64, 6, 0)
        packet = bytes(12) + b"\x08\x00" + ip + hosts[direction] + hosts[1 - direction] + tcp + data
        self._clock += 1000
        kept = packet[:self.snap]
        self._file.write(struct.pack("<IIII", self._clock // 1_000_000, self._clock % 1_000_000,
                                     len(kept), len(packet)) + kept)


def join(talk):
    """Neighbouring pieces of one direction as one piece."""
    joined = []
    for direction, data in talk:
        if joined and joined[-1][0] == direction:
            joined[-1] = (direction, joined[-1][1] + data)
        else:
            joined.append((direction, data))
    return joined
