"""A relay in front of a Receiver that ends connections after an exact number of bytes.

The cut falls between two bytes of the stream as the network sees it, encrypted or not: what came
before it has reached the other side, nothing after it ever does.
"""
import select
import socket
import struct
import threading
from dataclasses import dataclass

TO_RECEIVER, TO_SENDER = "to the Receiver", "to the sender"
PIECE = 65536


@dataclass(frozen=True)
class Cut:
    """End the connection after `count` bytes in the direction, with a reset if asked."""
    direction: str
    count: int
    reset: bool

    def __str__(self):
        return f"{'reset' if self.reset else 'close'} after {self.count} bytes {self.direction}"


class Relay:
    """Relays connections to a port. Each meets the first cut that none before it has reached."""

    def __init__(self, target, cuts):
        self.target, self.cuts = target, list(cuts)
        self.made = []        # the cuts that were reached, in order
        self.connections = 0
        self._next = 0        # index of the first cut that was not reached yet
        self._lock = threading.Lock()
        self._ended = threading.Event()
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def stop(self):
        self._ended.set()
        for thread in list(self._threads):
            thread.join(60)
        self._listener.close()

    def _accept(self):
        while not self._ended.is_set():
            try:
                sender, _ = self._listener.accept()
            except TimeoutError:
                continue
            with self._lock:
                index = self._next
                self.connections += 1
            thread = threading.Thread(target=self._serve, args=(sender, index), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, sender, index):
        cut = self.cuts[index] if index < len(self.cuts) else None
        with sender:
            try:
                receiver = socket.create_connection(("127.0.0.1", self.target))
            except OSError:
                return
            with receiver:
                try:
                    if self._pump(sender, receiver, cut):
                        with self._lock:
                            self.made.append(cut)
                            self._next = max(self._next, index + 1)
                        self._end(sender, receiver, cut)
                except OSError:
                    pass  # the other side ended it first

    def _pump(self, sender, receiver, cut):
        """Carries bytes until a side ends or, which is true, the cut is reached."""
        others = {sender: (receiver, TO_RECEIVER), receiver: (sender, TO_SENDER)}
        left = {TO_RECEIVER: None, TO_SENDER: None}
        if cut:
            left[cut.direction] = cut.count
        while not self._ended.is_set():
            if 0 in left.values():
                return True
            for source in select.select([sender, receiver], [], [], 0.1)[0]:
                other, direction = others[source]
                room = left[direction]
                data = source.recv(PIECE if room is None else min(PIECE, room))
                if not data:
                    return False
                other.sendall(data)
                if room is not None:
                    left[direction] -= len(data)
                    if left[direction] == 0:
                        return True
        return False

    @staticmethod
    def _end(sender, receiver, cut):
        if cut.reset:
            # Nothing more is delivered, in either direction.
            for side in (sender, receiver):
                side.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        for side in (sender, receiver):
            side.shutdown(socket.SHUT_RDWR)
