"""Clients that mean harm: whatever one sends, or does not send, the Receiver lives on, keeps
its memory in bounds, serves the others at once and ends in order when it is told to."""
import random
import resource
import socket
import struct
import threading

import kit_path  # noqa: F401
from receiver_kit import (AM_KNOWN2, GET_CHAN_ID, GET_CUSTOM_FIELD_FILE, MAGIC, NOP, OKAY, REQ_SSL,
                          Client, ReceiverTest, all_bodies, header, main, request, syslog,
                          wait_for)

SEED = 41
MOST_KILOBYTES = 400_000  # a sanitizer keeps up to 256 MB of what was freed


def kilobytes_at_most(process):
    """The largest memory that the process ever had."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))


class Hostile(ReceiverTest):
    def alive(self, receiver, tls=False):
        client = Client(receiver, tls=tls)
        client.send(syslog(b"alive"))
        client.confirm()
        client.close()

    def abort(self, client):
        """Ends a connection with a reset."""
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.close()

    def long_catalogue(self, size):
        path = self.folder / "catalogue"
        path.write_text("[a]\n" + "#" * (size - 5) + "\n")
        return path

    def test_short_requests_with_long_answers_do_not_fill_the_memory(self):
        receiver = self.receiver("--catalogue", self.long_catalogue(100_000))
        client = self.client(receiver)
        client.socket.setblocking(False)
        burst = request(GET_CUSTOM_FIELD_FILE) * 20_000  # 2 GB of answers
        self.assertGreater(client.socket.send(burst), len(burst) // 2)
        self.alive(receiver)
        self.assertLess(kilobytes_at_most(receiver.process), MOST_KILOBYTES)

    def test_units_behind_long_answers_are_not_forgotten(self):
        """What was put off until the answers are read comes later, and in order."""
        size, rounds = 30_000, 400
        for tls in (False, True):
            receiver = self.receiver("--catalogue", self.long_catalogue(size), "--tls", "any")
            client = self.client(receiver, tls=tls)
            burst = b"".join(request(GET_CUSTOM_FIELD_FILE) + syslog(b"%d" % n)
                             for n in range(rounds))
            sender = threading.Thread(target=client.send, args=(burst + request(NOP),))
            sender.start()
            answers = client.take(rounds * (12 + size) + 8)
            sender.join(60)
            self.assertEqual(len(answers), rounds * (12 + size) + 8)
            self.assertEqual(answers[-8:], OKAY)
            self.assertEqual({answers[n * (12 + size):][:12] for n in range(rounds)},
                             {OKAY + struct.pack("<i", size)})
            lines = receiver.wait("record", rounds)
            self.assertEqual([line["message"] for line in lines], [str(n) for n in range(rounds)])

    def test_the_end_of_a_stream_waits_for_units_that_were_put_off(self):
        size, rounds = 30_000, 400
        receiver = self.receiver("--catalogue", self.long_catalogue(size))
        client = self.client(receiver)
        client.send(b"".join(request(GET_CUSTOM_FIELD_FILE) + syslog(b"%d" % n)
                             for n in range(rounds)))
        client.socket.shutdown(socket.SHUT_WR)
        self.assertEqual(len(client.take(rounds * (12 + size) + 1)), rounds * (12 + size))
        self.assertEqual(len(receiver.wait("record", rounds)), rounds)

    def test_delayed_answers_do_not_pile_up(self):
        receiver = self.receiver("--delay", 200, "--accept-faulty", 1)
        client = self.client(receiver)
        client.send(request(NOP) * 5000)
        self.alive(receiver)
        self.assertEqual(client.take(5000 * 8), OKAY * 5000)

    def test_a_flood_under_tls_leaves_time_for_others(self):
        """The slowest bytes to deal with, faster than they can be dealt with."""
        receiver = self.receiver("--quiet", "--tls", "any")
        ended, running = threading.Event(), threading.Semaphore(0)

        def flood(client):
            try:
                while not ended.is_set():
                    client.send((MAGIC + b"\x09") * 110_000)
                    running.release()
            except OSError:
                pass  # the Receiver has ended
            client.close()

        floods = [threading.Thread(target=flood, args=(Client(receiver, tls=True),), daemon=True)
                  for _ in range(2)]
        for thread in floods:
            thread.start()
        try:
            for _ in range(4):
                self.assertTrue(running.acquire(timeout=60))
            for _ in range(5):
                self.alive(receiver)
            self.assertEqual(receiver.stop(), 0)
        finally:
            ended.set()
            for thread in floods:
                thread.join(60)

    def test_connections_that_never_finish(self):
        receiver = self.receiver("--tls", "any")
        units = [body.build({"message": b"m"}) for body in all_bodies()]
        units += [request(GET_CHAN_ID, struct.pack("<HH", 3, 9) + b"short"), request(AM_KNOWN2)]
        dice = random.Random(SEED)
        waiting = []
        for number in range(200):
            client = Client(receiver)
            unit = dice.choice(units)
            client.send(b"\x16\x03\x01\x40\x00\x01" if number % 5 == 0
                        else unit[:dice.randrange(1, len(unit))])
            waiting.append(client)
        for tls in (False, True):
            self.alive(receiver, tls)
        self.assertEqual(receiver.stop(), 0)
        for client in waiting:
            client.close()

    def test_streams_that_end_anywhere(self):
        """Each kind of unit cut at seeded places, by a close and by a reset."""
        dice = random.Random(SEED)
        receiver = self.receiver("--quiet")
        count = 0
        for body in all_bodies():
            unit = body.build({"message": b"message", "packet": b"packet",
                               "nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type)})
            for _ in range(8):
                client = Client(receiver)
                client.send(unit + unit[:dice.randrange(len(unit))])
                dice.choice((client.close, lambda c=client: self.abort(c)))()
                count += 1
        self.alive(receiver)
        self.assertEqual(receiver.stop(), 0)
        self.assertEqual(receiver.totals()["connections"], count + 1)

    def test_what_is_no_tls(self):
        dice = random.Random(SEED)
        receiver = self.receiver("--tls", "always", "--quiet")
        handshake = b"\x16\x03\x01\x00\xc8\x01\x00\x00\xc4\x03\x03" + dice.randbytes(194)
        streams = [b"", MAGIC, header(3, 0) * 100, b"\x80\x2e\x01\x03\x01" * 9,
                   b"GET / HTTP/1.0\r\n",
                   b"\x16\x03\x01\xff\xff" + b"\x01" * 70_000, b"\x15\x03\x01\x00\x02\x02\x28",
                   b"\x17\x03\x03\x00\x10" + bytes(16), b"\x14\x03\x01\x00\x01\x01" * 50]
        streams += [handshake[:dice.randrange(len(handshake))] for _ in range(20)]
        streams += [bytes(b ^ (dice.random() < 0.05) for b in handshake) for _ in range(40)]
        streams += [dice.randbytes(dice.randrange(1, 2000)) for _ in range(40)]
        for stream in streams:
            client = Client(receiver)
            try:
                client.send(stream)
            except OSError:
                pass  # it was refused before all of it was there
            client.close()
        self.alive(receiver, tls=True)
        self.assertEqual(receiver.stop(), 0)
        self.assertEqual(receiver.totals()["records"], 1)

    def test_an_upgrade_that_never_comes(self):
        receiver = self.receiver("--tls", "request")
        clients = []
        for behind in (b"", b"\x16", b"\x16\x03\x01\x02\x00", MAGIC, request(NOP)):
            client = self.client(receiver)
            self.assertEqual(client.ask(request(REQ_SSL)), OKAY)
            client.send(behind)
            clients.append(client)
        self.alive(receiver)
        self.assertEqual(receiver.stop(), 0)

    def test_more_connections_than_descriptors(self):
        """Those who do not get in wait; the next one that leaves makes room."""
        receiver = self.receiver()
        resource.prlimit(receiver.process.pid, resource.RLIMIT_NOFILE, (48, 48))
        first = self.client(receiver)
        first.confirm()
        crowd = [Client(receiver) for _ in range(80)]
        first.confirm()
        for client in crowd:
            client.close()
        self.alive(receiver)
        first.confirm()
        self.assertEqual(receiver.stop(), 0)
        wait_for(lambda: receiver.named("record"), "the record")


if __name__ == "__main__":
    main()
