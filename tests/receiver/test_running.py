"""Options, the ways to end, many connections at once, hostile bytes, and speed."""
import random
import re
import signal
import socket
import subprocess
import time

import kit_path  # noqa: F401
from receiver_kit import (BUILD, MAGIC, OKAY, ReceiverTest, all_bodies, main, request, syslog,
                          wait_for)

BAD_OPTIONS = [
    (["--nonsense"], "--nonsense"), (["--port", "65536"], "--port"), (["--port", "x"], "--port"),
    (["--port", "-1"], "--port"), (["--port"], "--port"), (["--port", ""], "--port"),
    (["--generation", "4"], "--generation"), (["--tls", "maybe"], "--tls"),
    (["--count", "0"], "--count"), (["--versions", "6:syslog"], "--versions"),
    (["--versions", "6:syslog:2-1"], "--versions"), (["--versions", "x:1:1"], "--versions"),
    (["--refuse", "Nothing"], "--refuse"), (["--refuse", "32"], "--refuse"),
    (["--result-word", "12"], "--result-word"), (["--result-word", "x" * 16], "--result-word"),
    (["--quiet=yes"], "--quiet"), (["word"], "word"), (["--known", "some"], "--known"),
    (["--receiver-version", "1.2.3"], "--receiver-version"), (["--cert", "x"], "--cert"),
    (["--receiver-version", "1.2.3.abc.4"], "--receiver-version"), (["--delay", "0"], "--delay"),
    (["--cid-base", "2147483648"], "--cid-base"), (["--tls-min", "0.9"], "--tls-min"),
]


class Running(ReceiverTest):
    def test_usage_errors_name_the_option(self):
        for words, name in BAD_OPTIONS:
            with self.subTest(words=words):
                status, out, err = self.run_tool("ruv_receiver", *words)
                self.assertEqual((status, out), (64, ""))
                self.assertIn(name, err)
                self.assertEqual(err.count("\n"), 2)

    def test_help_names_every_option(self):
        status, out, err = self.run_tool("ruv_receiver", "--help")
        self.assertEqual((status, err), (0, ""))
        for name in ("listen port print-port generation tls cert key client-ca tls-min count save "
                     "quiet progress catalogue versions known cid-base refuse silent-nop "
                     "garbage-result close-after reset-after stall-after slow delay hostile-count "
                     "accept-faulty").split():
            self.assertRegex(out, rf"(?m)^  --{name}\b")

    def test_what_cannot_be_done_ends_with_1(self):
        missing = self.folder / "missing" / "file"
        for words in (["--save", missing], ["--catalogue", missing], ["--read", missing],
                      ["--listen", "203.0.113.7"], ["--tls", "always", "--cert", missing, "--key",
                                                    missing]):
            with self.subTest(words=words):
                status, out, err = self.run_tool("ruv_receiver", *words)
                self.assertEqual((status, out), (1, ""))
                self.assertTrue(err.startswith("ruv_receiver: "), err)

    def test_closed_standard_descriptors(self):
        """No socket takes the place of standard output, and events do not come back as answers."""
        saved = self.folder / "saved"
        shell = f'"$0" --port 0 --count 1 --save "{saved}" <&- >&- 2>"{self.folder}/said"'
        process = subprocess.Popen(["sh", "-c", f"exec {shell}", BUILD / "bin/ruv_receiver"])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        said = self.folder / "said"
        wait_for(lambda: said.exists() and said.read_text().endswith("\n"), "the port")
        port = int(said.read_text().split()[-1])
        with socket.create_connection(("127.0.0.1", port), 60) as client:
            client.sendall(request(0) + syslog(b"one"))
            answer = b""
            while piece := client.recv(4096):
                answer += piece
        self.assertEqual((process.wait(60), answer), (0, OKAY))
        self.assertEqual(saved.read_bytes(), request(0) + syslog(b"one"))

    def test_a_taken_port(self):
        receiver = self.receiver()
        status, _, err = self.run_tool("ruv_receiver", "--port", receiver.port)
        self.assertEqual(status, 1)
        self.assertIn("listen", err)

    def test_signals_end_cleanly_with_totals(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            receiver = self.receiver("--quiet", "--progress")
            client = self.client(receiver)
            client.send(syslog(b"abc") * 7 + b"noise")
            client.confirm()
            self.assertEqual(receiver.stop(sig), 0)
            totals = receiver.totals()
            self.assertEqual((totals["records"], totals["syslog"], totals["alert"]), (7, 7, 0))
            self.assertEqual(totals["bytes"], 7 * 27 + 5 + 16)
            self.assertEqual((totals["requests"], totals["connections"]), (1, 1))
            self.assertEqual(totals["garbage_bytes"], 5)
            self.assertEqual(receiver.lines, [totals])

    def test_only_events_on_standard_output(self):
        receiver = self.receiver()
        client = self.client(receiver)
        client.send(syslog(b"abc"))
        client.confirm()
        self.assertEqual(receiver.stop(), 0)
        self.assertEqual([list(line)[0] for line in receiver.lines], ["record"])
        self.assertEqual(receiver.totals()["records"], 1)

    def test_count_ends_it(self):
        receiver = self.receiver("--count", 3)
        client = self.client(receiver)
        client.send(syslog(b"a") + request(0) + syslog(b"b") + syslog(b"c") + syslog(b"d"))
        self.assertEqual(receiver.finish(), 0)
        self.assertEqual([line["message"] for line in receiver.named("record")], ["a", "b", "c"])
        self.assertEqual(client.take(8)[:4], b"OKAY")

    def test_connections_end_it(self):
        receiver = self.receiver("--connections", 2)
        for _ in range(2):
            client = self.client(receiver)
            client.send(syslog(b"a"))
            client.confirm()
            client.close()
        self.assertEqual(receiver.finish(), 0)
        self.assertEqual(receiver.totals()["connections"], 2)

    def test_ipv6_loopback(self):
        try:
            socket.create_server(("::1", 0), family=socket.AF_INET6).close()
        except OSError:
            self.skipTest("no IPv6 on this machine")
        receiver = self.receiver("--listen", "::1")
        with socket.create_connection(("::1", receiver.port), 60) as client:
            client.sendall(request(0))
            self.assertEqual(client.recv(8)[:4], b"OKAY")

    def test_many_connections_at_once(self):
        receiver = self.receiver("--quiet")
        clients = [self.client(receiver) for _ in range(300)]
        for number in range(10):
            for client in clients:
                client.send(syslog(b"message %d" % number))
        for client in clients:
            client.confirm()
            client.close()
        self.assertEqual(receiver.stop(), 0)
        totals = receiver.totals()
        self.assertEqual((totals["records"], totals["connections"]), (3000, 300))

    def test_hostile_bytes(self):
        """Random bytes, broken units and absurd lengths: it lives on and serves the next one."""
        dice = random.Random(8)
        receiver = self.receiver("--quiet")
        good = [body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type), "message": b"m"})
                for body in all_bodies()]
        for _ in range(150):
            client = self.client(receiver)
            stream = bytearray(b"".join(dice.choices(good, k=20)))
            for _ in range(dice.randrange(40)):
                stream[dice.randrange(len(stream))] = dice.randrange(256)
            if dice.random() < 0.3:
                stream = bytearray(MAGIC + dice.randbytes(300)) * 5
            try:
                client.send(bytes(stream))
            except OSError:
                pass  # a length that nobody can mean ends the connection
            client.close()
        client = self.client(receiver)
        client.send(syslog(b"alive"))
        client.confirm()
        self.assertEqual(receiver.stop(), 0)

    def test_a_unit_too_long_ends_its_connection(self):
        receiver = self.receiver()
        client = self.client(receiver)
        legacy = next(b for b in all_bodies() if str(b) == "syslog 3.-")
        unit = bytearray(legacy.build({"nadtype": 5}))
        unit[-4:] = b"\xff\xff\xff\xff"
        self.assertEqual(client.ask(bytes(unit), 1), b"")
        self.client(receiver).confirm()

    def test_speed_is_shown(self):
        """Prints what counting and printing take; a figure for people, no condition."""
        for options, rounds in ((["--quiet"], 60), ([], 4)):
            receiver = self.receiver(*options)
            client = self.client(receiver)
            block = syslog(b"x" * 96) * 8000
            start = time.monotonic()
            for _ in range(rounds):
                client.send(block)
            client.confirm()
            seconds = time.monotonic() - start
            self.assertEqual(receiver.stop(), 0)
            self.assertEqual(receiver.totals()["records"], rounds * 8000)
            print(f"{' '.join(options) or 'printing'}: {rounds * 8000 / seconds / 1e6:.2f} million "
                  f"records of 120 bytes a second, {rounds * len(block) / seconds / 1e9:.2f} GB/s")

    def test_progress(self):
        receiver = self.receiver("--progress")
        client = self.client(receiver)
        client.send(syslog(b"abc") * 7)
        client.confirm()
        pattern = re.compile(r"ruv_receiver: 7 events, 205 bytes")
        end = time.monotonic() + 60
        while not pattern.search(receiver.errors.read_text()):
            self.assertLess(time.monotonic(), end, "no progress line")
            time.sleep(0.05)


if __name__ == "__main__":
    main()
