"""The connection: Receivers that are down, go away, stall or want TLS."""
import signal
import socket
import threading
import time

import kit_path  # noqa: F401
from daemon_kit import BUILD, DaemonTest, main, wait_for

WIDTH = 40
FAST = 200  # 300 s between two attempts become 1.5 s


def free_port():
    """A port on which nobody listens; bound and given back."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Peer:
    """A listener that accepts and never says a word."""

    def __init__(self, test):
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.accepted = []
        self.first_bytes = []
        test.addCleanup(self.close)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        try:
            while True:
                self.accepted.append(self.socket.accept()[0])
        except OSError:
            pass

    def hello(self):
        wait_for(lambda: self.accepted, "a connection")
        self.accepted[0].settimeout(60)
        return self.accepted[0].recv(4096)

    def close(self):
        self.socket.close()
        for connection in self.accepted:
            connection.close()


class Delivery(DaemonTest):
    def test_receiver_down_at_start(self):
        port = free_port()
        self.configure(port)
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start(scale=FAST)
        daemon.wait_log("Error connecting to the Receiver: ", count=3)
        receiver = self.receiver(port=port)
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20, WIDTH))
        daemon.wait_log("Successfully re-established connection.")
        daemon.stop()
        self.assertEqual(receiver.count(), 20)

    def test_no_new_file_is_added_while_the_receiver_is_down(self):
        self.configure(free_port())
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start(scale=FAST)
        daemon.wait_log("Error connecting to the Receiver: ", count=2)
        daemon.stop()
        self.assertEqual(self.bookmark_records(), {})
        self.assertNotIn("Loaded file for tailing", daemon.log())

    def test_one_attempt_in_300_seconds(self):
        self.configure(free_port())
        daemon = self.start()
        daemon.wait_log("Error connecting to the Receiver: ", count=2)  # at start, by the worker
        daemon.stop()
        self.assertEqual(daemon.log().count("Error connecting to the Receiver: "), 2)

    def test_the_next_attempt_comes_after_300_seconds(self):
        self.configure(free_port())
        begin = time.monotonic()
        daemon = self.start(scale=100)
        daemon.wait_log("Error connecting to the Receiver: ", count=3)
        self.assertGreaterEqual(time.monotonic() - begin, 300 / 100)
        daemon.stop()

    def test_receiver_restarted_while_idle_costs_no_event(self):
        receiver = self.receiver()
        port = receiver.port
        self.configure(port)
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start(scale=FAST)
        receiver.wait_messages(20)
        daemon.wait_log("No events to read")
        for turn in range(1, 4):
            receiver.stop()
            receiver = self.receiver(port=port)
            first = turn * 20 + 1
            self.write("a.log", self.numbered(first, first + 19, WIDTH))
            self.assertEqual(receiver.wait_messages(20), self.expected(first, first + 19, WIDTH))
        daemon.stop()
        self.assertEqual(receiver.count(), 20)

    def test_receiver_dropped_in_mid_stream(self):
        receiver = self.receiver("--close-after", 300, "--accept-faulty", 2)
        self.configure(receiver.port, throttle=100)
        self.write("a.log", self.numbered(1, 3000, WIDTH))
        daemon = self.start(scale=FAST)
        last = self.expected(3000, 3000, WIDTH)
        wait_for(lambda: receiver.messages()[-1:] == last, "the last event")
        daemon.stop()
        # What the kernel had taken before the close was noticed may be gone; what arrives is in
        # order and once, and each connection begins behind the one before.
        numbers = [int(m.split()[1]) for m in receiver.messages()]
        self.assertEqual(numbers, sorted(set(numbers)))
        self.assertEqual(numbers[:300], list(range(1, 301)))
        tail = [int(e["message"].split()[1]) for e in receiver.events
                if e["connection"] == receiver.events[-1]["connection"]]
        self.assertEqual(tail, list(range(tail[0], 3001)))

    def test_receiver_that_resets(self):
        receiver = self.receiver("--reset-after", 50, "--accept-faulty", 1)
        self.configure(receiver.port, throttle=100)
        self.write("a.log", self.numbered(1, 2000, WIDTH))
        daemon = self.start(scale=FAST)
        last = self.expected(2000, 2000, WIDTH)
        wait_for(lambda: receiver.messages()[-1:] == last, "the last event")
        daemon.stop()
        numbers = [int(m.split()[1]) for m in receiver.messages()]
        self.assertEqual(numbers, sorted(set(numbers)))

    def test_slow_answers_are_waited_for(self):
        receiver = self.receiver("--delay", 300)
        self.configure(receiver.port, {"hostid": "slow"})
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20, WIDTH))
        daemon.stop()

    def test_tls_from_the_first_byte(self):
        receiver = self.receiver("--tls", "always")
        self.configure(receiver.port, rec_encrypt=1)
        self.write("a.log", self.numbered(1, 200, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(200), self.expected(1, 200, WIDTH))
        daemon.stop()

    def test_tls_on_request(self):
        receiver = self.receiver("--tls", "request")
        self.configure(receiver.port, rec_encrypt=2)
        self.write("a.log", self.numbered(1, 200, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(200), self.expected(1, 200, WIDTH))
        daemon.stop()

    def test_the_hello_is_of_tls_1_0(self):
        peer = Peer(self)
        self.configure(peer.port, rec_encrypt=1)
        daemon = self.start()
        hello = peer.hello()
        # A handshake record of version 3.1 with a client hello that offers 3.1 at most.
        self.assertEqual((hello[0], hello[1:3], hello[5], hello[9:11]),
                         (22, b"\x03\x01", 1, b"\x03\x01"))
        self.assertNotIn(b"\x00\x2b\x00", hello[44:])  # no extension names a higher version
        daemon.stop()

    def test_generation_five(self):
        receiver = self.receiver("--generation", 5)
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20, WIDTH))
        daemon.stop()
        versions = {e["version"] for e in receiver.events}
        self.assertTrue(versions and versions <= {3, 4, 5}, versions)

    def test_requests_on_the_wire_with_and_without_auto_learning(self):
        for learn in (True, False):
            receiver = self.receiver("--verbose", "--known", "none")
            self.configure(receiver.port, {"hostid": f"host-{learn}"})
            self.write(f"{learn}.log", self.numbered(1, 10, WIDTH), "w")
            daemon = self.start(*(["-a"] if learn else []))
            receiver.wait_messages(10)
            daemon.stop()
            self.assertEqual("Enabling auto learning on client" in daemon.log(), learn)
            # A source is never asked about before a record, whether it may be learned or not.
            asked = [note["request"] for note in receiver.notes if "request" in note]
            self.assertEqual(asked[:3], ["NOP", "ReqDataVers", "GetChanID"])
            self.assertFalse([word for word in asked if word.startswith("AmKnown")])
            (self.input / f"{learn}.log").unlink()

    def test_stop_while_the_receiver_does_not_read(self):
        receiver = self.receiver("--stall-after", 1, "--receive-buffer", 4096)
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 20000, 1000))
        daemon = self.start()
        receiver.wait_messages(1)

        def blocked():
            position = self.bookmark_records()
            threading.Event().wait(0.5)
            return position and position == self.bookmark_records()
        wait_for(blocked, "a blocked write")
        daemon.stop(budget=30)

    def test_stop_while_the_probe_waits_for_an_answer(self):
        peer = Peer(self)
        self.configure(peer.port)
        daemon = self.start()
        wait_for(lambda: peer.accepted, "a connection")
        daemon.stop(budget=30)

    def test_stop_during_the_tls_handshake(self):
        peer = Peer(self)
        self.configure(peer.port, rec_encrypt=1)
        daemon = self.start()
        peer.hello()
        daemon.stop(budget=30)

    def test_stop_during_the_pause_between_attempts(self):
        self.configure(free_port())
        daemon = self.start()
        daemon.wait_log("Error connecting to the Receiver: ", count=2)
        daemon.stop(signal.SIGINT, budget=30)

    def test_event_in_flight_at_a_stop_is_sent_again(self):
        receiver = self.receiver("--stall-after", 1, "--accept-faulty", 1, "--receive-buffer", 4096)
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 20000, 1000))
        daemon = self.start()
        receiver.wait_messages(1)
        before = [None]

        def blocked():
            threading.Event().wait(0.5)
            now = self.bookmark_records()
            same, before[0] = now and now == before[0], now
            return same
        wait_for(blocked, "a blocked write")
        daemon.stop(budget=30)
        position = self.bookmark_records()[str(self.input / "a.log")][0]
        second = self.receiver()
        self.configure(second.port)
        daemon = self.start()
        first = position // 1001 + 1
        second.wait_messages(20000 - first + 1)
        daemon.stop()
        self.assertEqual(second.messages(), self.expected(first, 20000, 1000))

    def test_connection_messages_name_the_receiver(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        daemon.wait_log(f"Attempting connection to Server: 127.0.0.1 -- Port: {receiver.port} -- "
                        "Encrypt: 0")
        daemon.wait_log("No events to read")  # a stop while it connects is an error line
        daemon.stop()
        self.assertNotIn("(ERROR)", daemon.log())

    def test_shipped_binary_has_no_time_seam(self):
        binary = (BUILD / "bin/velmor_siem_collector").read_bytes()
        self.assertNotIn(b"COLLECTOR_TIME_SCALE", binary)


if __name__ == "__main__":
    main()
