"""Stop signals in every state in which the daemon may wait."""
import signal
import socket
import threading
import time

import network
from lab import wait_for

SIGNALS = {"hup": signal.SIGHUP, "int": signal.SIGINT, "quit": signal.SIGQUIT,
           "term": signal.SIGTERM}
# Documented: 1.5 s idle, 3 s blocked. A test machine may be busy with something else for seconds;
# what a stop really takes is a soak's figure.
LIMIT_SECONDS = 30


class SilentPeer:
    """Accepts connections, or not even that, and says nothing, or one byte a second."""

    def __init__(self, lab, backlog_full=False, drips=False):
        self.drips = drips
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(0 if backlog_full else 16)
        self.port = self.listener.getsockname()[1]
        self.held = []
        lab.addCleanup(self.close)
        if backlog_full:
            self._fill()
        else:
            threading.Thread(target=self._accept, daemon=True).start()

    def _fill(self):
        """Takes every place in the queue, so that the next connect gets no answer."""
        for _ in range(4):
            probe = socket.socket()
            probe.setblocking(False)
            probe.connect_ex(("127.0.0.1", self.port))
            self.held.append(probe)

    def _accept(self):
        try:
            while True:
                self.held.append(self.listener.accept()[0])
                if self.drips:
                    threading.Thread(target=self._drip, args=(self.held[-1],), daemon=True).start()
        except OSError:
            pass

    @staticmethod
    def _drip(connection):
        try:
            for byte in b"OKAY\0\0\0\0" + bytes(600):
                connection.sendall(bytes([byte]))
                time.sleep(1)
        except OSError:
            pass

    def close(self):
        self.listener.close()
        for connection in self.held:
            connection.close()


def idle(lab):
    lab.listen()
    lab.configure(lab.port, sleep=60)
    daemon = lab.run_daemon(scale=None)
    daemon.wait_log("No events to read")
    return daemon


def sending(lab):
    lab.listen("--delay", 1)
    lab.configure(lab.port, debug_level="info")
    lab.source().append(200000)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: lab.receivers[-1].count() > 100, "events")
    return daemon


def sending_confirmed(lab):
    lab.listen("--delay", 5)
    lab.configure(lab.port, debug_level="info", rec_confirm=100)
    lab.source().append(100000)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: lab.receivers[-1].count() > 100, "events")
    return daemon


def reconnect_pause(lab):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    lab.configure(port)
    daemon = lab.run_daemon(scale=None)
    daemon.wait_log("Error connecting to the Receiver: ", count=2)
    return daemon


def connecting(lab):
    lab.configure(SilentPeer(lab, backlog_full=True).port)
    daemon = lab.run_daemon(scale=None)
    daemon.wait_log("Attempting connection")
    time.sleep(0.3)
    return daemon


def probing(lab):
    peer = SilentPeer(lab)
    lab.configure(peer.port)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: peer.held, "a connection")
    return daemon


def byte_a_second(lab):
    peer = SilentPeer(lab, drips=True)
    lab.configure(peer.port)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: peer.held, "a connection")
    time.sleep(2 * lab.rng.random())
    return daemon


def handshake(lab):
    peer = SilentPeer(lab)
    lab.configure(peer.port, rec_encrypt=1)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: peer.held, "a connection")
    return daemon


def resolving(lab):
    server = network.NameServer(lab)
    lab.configure(9, rec_ip=network.NAME)
    daemon = lab.run_daemon(scale=None, wrapper=server.wrapper)
    server.wait_question()
    return daemon


def stalled(lab):
    lab.listen("--stall-after", 1, "--receive-buffer", 4096)
    lab.configure(lab.port, debug_level="info")
    lab.source().append(60000)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: lab.receivers[-1].count() > 0, "an event")
    still_for(lab, 0.5)
    return daemon


def stalled_tls(lab):
    lab.listen("--tls", "always", "--stall-after", 1, "--receive-buffer", 4096)
    lab.configure(lab.port, debug_level="info", rec_encrypt=1)
    lab.source().append(60000)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: lab.receivers[-1].count() > 0, "an event")
    still_for(lab, 0.5)
    return daemon


def unanswered_group(lab):
    lab.listen("--stall-after", 1)
    lab.configure(lab.port, debug_level="info", rec_confirm=50)
    lab.source().append(100)
    daemon = lab.run_daemon(scale=None)
    wait_for(lambda: lab.receivers[-1].count() > 0, "an event")
    return daemon


def still_for(lab, seconds):
    """Waits until the bookmarks have not moved for a while: the write blocks."""
    def still():
        before = lab.bookmark_records()
        time.sleep(seconds)
        return before == lab.bookmark_records()
    wait_for(still, "a blocked write")


def stop_in(lab, state, sig):
    took = lab.timed_stop(state(lab), SIGNALS[sig])
    assert took < LIMIT_SECONDS, f"the stop took {took:.1f} s"
    lab.sources.clear()  # what was not sent stays in the file: there is no account to give here


def row(state, sig):
    return {"name": f"stop.{state.__name__}.{sig}", "run": stop_in,
            "arguments": {"state": state, "sig": sig}}


STATES = (idle, sending, sending_confirmed, reconnect_pause, resolving, connecting, probing,
          byte_a_second, handshake, stalled, stalled_tls, unanswered_group)
ROWS = [row(state, sig) for state in STATES for sig in SIGNALS]
