"""Every fault switch, and the recovery after the first connections."""
import socket
import struct
import time

import kit_path  # noqa: F401
from receiver_kit import (AM_KNOWN, GET_CUSTOM_FIELD_FILE, GET_RCVR_VER, NOP, NOTOKAY,
                          OKAY, REQ_DATA_VERS, ReceiverTest, channel_request, main, request,
                          syslog, wait_for)

EVENT = syslog(b"event")


class Faults(ReceiverTest):
    def assert_ended(self, client, error=None):
        """The stream is over; a reset shows as an error."""
        def over():
            try:
                client.send(EVENT)
                return client.socket.recv(1) == b"" and "end"
            except BlockingIOError:
                return False
            except OSError as found:
                return type(found).__name__
        client.socket.setblocking(False)
        how = wait_for(over, "the end of the connection")
        if error:
            self.assertIn(how, error)

    def test_refuse(self):
        client = self.client(self.receiver("--refuse", "GetChanID", "--refuse", "6,AmKnown"))
        client.confirm()
        self.assertEqual(client.ask(channel_request(3, b"a")), NOTOKAY)
        self.assertEqual(client.ask(request(GET_RCVR_VER)), NOTOKAY)
        self.assertEqual(client.ask(request(AM_KNOWN)), NOTOKAY)
        client.confirm()

    def test_silence(self):
        client = self.client(self.receiver("--silent-nop"))
        client.send(request(NOP) * 3)
        self.assertEqual(client.ask(request(GET_RCVR_VER), 10)[:8], OKAY)
        client = self.client(self.receiver("--silent", "GetChanID"))
        client.send(channel_request(3, b"a"))
        client.confirm()

    def test_wrong_result_words(self):
        client = self.client(self.receiver("--garbage-result"))
        self.assertEqual(client.ask(request(NOP)), b"OKAY\0\0\0\1")
        self.assertEqual(client.ask(request(REQ_DATA_VERS)), b"OKAY\0\0\0\1")
        client = self.client(self.receiver("--result-word", "00112233445566fF"))
        self.assertEqual(client.ask(request(NOP)), bytes.fromhex("00112233445566ff"))

    def test_truncated_answers(self):
        receiver = self.receiver("--truncate", "GetRcvrVer,NOP,GetChanID")
        for unit, whole in ((request(NOP), 8), (request(GET_RCVR_VER), 24),
                            (channel_request(3, b"abc"), 12)):
            client = self.client(receiver)
            self.assertEqual(len(client.ask(unit, whole)), whole // 2)

    def test_close_after(self):
        receiver = self.receiver("--close-after", 2, "--accept-faulty", 2)
        for _ in range(2):
            client = self.client(receiver)
            client.send(EVENT)
            client.confirm()
            client.send(EVENT)
            self.assert_ended(client)
        healthy = self.client(receiver)
        healthy.send(EVENT * 10)
        healthy.confirm()
        self.assertEqual(len(receiver.wait("record", 14)), 14)

    def test_close_at_once(self):
        receiver = self.receiver("--close-after", 0)
        self.assertEqual(self.client(receiver).take(1), b"")

    def test_reset_after(self):
        receiver = self.receiver("--reset-after", 1)
        client = self.client(receiver)
        client.send(EVENT)
        self.assert_ended(client, ("ConnectionResetError", "BrokenPipeError"))
        self.assertEqual(len(receiver.wait("record")), 1)

    def test_stall(self):
        """After its events the connection stays open, unread and unanswered."""
        receiver = self.receiver("--stall-after", 3)
        client = self.client(receiver)
        client.send(EVENT * 5 + request(NOP))
        self.assertEqual(len(receiver.wait("record", 3)), 3)
        client.socket.setblocking(False)
        sent = 0
        try:
            for _ in range(100_000):
                sent += client.socket.send(bytes(65536))
        except BlockingIOError:
            pass
        self.assertLess(sent, 100_000 * 65536)
        self.assertRaises(BlockingIOError, client.socket.recv, 1)
        self.assertEqual(len(receiver.named("record")), 3)

    def test_slow_reading(self):
        """20,000 bytes at 20,000 a second take a good part of a second, but they all arrive."""
        receiver = self.receiver("--slow", 20_000, "--accept-faulty", 1)
        client = self.client(receiver)
        start = time.monotonic()
        client.send(syslog(b"x" * 976) * 20)
        client.confirm()
        self.assertGreater(time.monotonic() - start, 0.4)
        self.assertEqual(len(receiver.wait("record", 20)), 20)
        fast = self.client(receiver)
        fast.send(syslog(b"x" * 976) * 20_000)
        fast.confirm()

    def test_delay(self):
        receiver = self.receiver("--delay", 300, "--accept-faulty", 1)
        client = self.client(receiver)
        start = time.monotonic()
        client.send(request(NOP) + EVENT + request(GET_RCVR_VER))
        self.assertEqual(client.take(8), OKAY)
        self.assertGreater(time.monotonic() - start, 0.25)
        self.assertEqual(len(client.take(24)), 24)
        self.client(receiver).confirm()

    def test_hostile_numbers(self):
        path = self.folder / "fields"
        path.write_bytes(b"[a]\n")
        receiver = self.receiver("--hostile-count=-1", "--hostile-size", 2147483647, "--catalogue",
                                 path, "--accept-faulty", 1)
        client = self.client(receiver)
        self.assertEqual(client.ask(request(REQ_DATA_VERS), 12), OKAY + struct.pack("<i", -1))
        client = self.client(receiver)
        honest = client.ask(request(REQ_DATA_VERS), 12)
        self.assertGreater(struct.unpack("<i", honest[8:])[0], 0)
        receiver = self.receiver("--hostile-size", 2147483647, "--catalogue", path)
        answer = self.client(receiver).ask(request(GET_CUSTOM_FIELD_FILE), 16)
        self.assertEqual(answer, OKAY + struct.pack("<i", 2147483647) + b"[a]\n")

    def test_a_client_that_never_reads(self):
        """Answers that nobody takes do not pile up without end: the client is not read on."""
        receiver = self.receiver()
        client = self.client(receiver)
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.socket.setblocking(False)
        burst = request(REQ_DATA_VERS) * 4096
        quiet_since = time.monotonic()
        deadline = time.monotonic() + 60
        while time.monotonic() - quiet_since < 1 and time.monotonic() < deadline:
            try:
                client.socket.send(burst)
                quiet_since = time.monotonic()
            except BlockingIOError:
                time.sleep(0.01)
        self.assertLess(time.monotonic(), deadline)
        self.client(receiver).confirm()


if __name__ == "__main__":
    main()
