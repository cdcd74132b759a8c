"""ruv_send's own behaviour: options, input forms, answers and exit statuses."""
import json

import kit_path  # noqa: F401
from receiver_kit import ReceiverTest, bytes_of, main

BAD_OPTIONS = [
    (["--port", "0"], "--port"), ([], "--port"), (["--nonsense"], "--nonsense"),
    (["--port", "1", "--type", "mail"], "--type"), (["--port", "1", "--ver", "7"], "--ver"),
    (["--port", "1", "--subver", "4"], "--subver"), (["--port", "1", "--set", "x"], "--set"),
    (["--port", "1", "--ipv4", "1.2.3"], "--ipv4"), (["--port", "1", "--ipv6", "::x"], "--ipv6"),
    (["--port", "1", "--tls", "any"], "--tls"), (["--port", "1", "--count", "0"], "--count"),
    (["--port", "1", "stray"], "stray"), (["--port", "1", "--logging", "x"], "--logging"),
]


class Send(ReceiverTest):
    def send(self, receiver, *options, stdin=None):
        """Runs ruv_send; returns (status, lines of its output, standard error)."""
        settings = {}
        if stdin is not None:
            path = self.folder / "input"
            path.write_bytes(stdin)
            settings["stdin"] = open(path, "rb")
            self.addCleanup(settings["stdin"].close)
        status, out, err = self.run_tool("ruv_send", "--port", receiver.port, *options, **settings)
        return status, [json.loads(line) for line in out.splitlines()], err

    def test_usage_errors_name_the_option(self):
        for words, name in BAD_OPTIONS:
            with self.subTest(words=words):
                status, out, err = self.run_tool("ruv_send", *words)
                self.assertEqual((status, out), (64, ""))
                self.assertIn(name, err)

    def test_help_names_every_field(self):
        status, out, _ = self.run_tool("ruv_send", "--help")
        self.assertEqual(status, 0)
        for word in ("--receiver-version", "sig_generator", "src_asn_geo", "3rd_party_type",
                     "insertion_string"):
            self.assertIn(word, out)

    def test_answers_of_the_library(self):
        receiver = self.receiver("--receiver-version", "7.6.5.b2.99", "--known", "none",
                                 "--cid-base", 0)
        status, lines, _ = self.send(receiver, "--hostid", "a", "--is-known", "--receiver-version",
                                     "--set", "message=x")
        self.assertEqual(status, 1)
        self.assertIn({"major": 7, "minor": 6, "dot": 5, "patch": "b2", "buildstamp": 99}, lines)
        self.assertIn({"call": "RUVIsDSKnown", "result": -1, "error": 13,
                       "text": "Requested operation returned 'NOTOKAY'"}, lines)
        self.assertIn({"call": "RUVSendData", "result": 25}, lines)
        known = self.receiver("--cid-base", 0)
        status, lines, _ = self.send(known, "--hostid", "a", "--is-known", "--no-send")
        self.assertEqual((status, lines[1]), (0, {"call": "RUVIsDSKnown", "result": 0}))
        self.assertEqual(lines[-1]["sent"], 0)

    def test_refused_records(self):
        receiver = self.receiver("--versions", "6:request:0-8,6:syslog:0,6:flow:0")
        for words, call, code in (
                (["--set", "collect_time=1"], "RUVSendData", 18),
                (["--type", "alert"], "RUVAllocData", 15),
                (["--ver", 5], "RUVAllocData", 16),
                (["--subver", 2], "RUVAllocData", 17)):
            with self.subTest(words=words):
                status, lines, _ = self.send(receiver, *words)
                self.assertEqual(status, 1)
                self.assertEqual((lines[1]["call"], lines[1]["error"]), (call, code))
        for setting, why in (("vlan=70000", "bad value"), ("vlan=-1", "bad value"),
                             ("nosuch=1", "no field"), ("src_mac=00:11", "bad value"),
                             ("src_ipv4=1.2.3.4.5", "bad value"), ("custom:a=1", "no field"),
                             ("custom:a:int8=300", "bad value")):
            with self.subTest(setting=setting):
                status, lines, _ = self.send(receiver, "--type", "flow", "--set", setting)
                self.assertEqual(status, 1)
                self.assertIn(why, lines[1]["rejected"])
        self.assertEqual(receiver.named("record"), [])

    def test_lines_byte_for_byte(self):
        receiver = self.receiver()
        text = bytes(set(range(256)) - {10})
        status, lines, _ = self.send(receiver, "--lines", "--hostid", "web1",
                                     stdin=b"one\n\n" + text + b"\nlast without an end")
        self.assertEqual((status, lines[-1]["sent"]), (0, 4))
        got = receiver.wait("record", 4)
        self.assertEqual([bytes_of(line, "message") for line in got],
                         [b"one", b"", text, b"last without an end"])
        self.assertTrue(all(line["data_time"] > 1_500_000_000 for line in got))

    def test_long_texts_are_cut_and_said_so(self):
        receiver = self.receiver()
        status, lines, _ = self.send(receiver, "--lines", stdin=b"x" * 70000 + b"\nshort\n")
        self.assertEqual((status, lines[-1]["sent"]), (0, 2))
        self.assertEqual([line["note"] for line in lines if "note" in line],
                         ["the text of 'message' was cut"])
        self.assertEqual([l["data_len"] for l in receiver.wait("record", 2)], [65535, 5])

    def test_json_input(self):
        receiver = self.receiver()
        good = [{"message": "q\" \\ / \n \u20ac \U0001f600"}, {"message": "", "collect_time": 7},
                {"message": None, "message_hex": "00ff"}, {"message_base64": "AP8="}]
        broken = [b"", b"[]", b'{"message":', b'{"message":"x"} x', b'{"a":{}}',
                  b'{"message":"\\q"}', b'{"type":"mail"}', b'{"ver":9}', b'{"message_hex":"0"}',
                  b'{"ipv4":"x"}', b'{"message_base64":"A"}']
        lines = [json.dumps(one).encode() for one in good] + broken
        status, out, _ = self.send(receiver, "--json", stdin=b"\n".join(lines) + b"\n")
        self.assertEqual(status, 1)
        self.assertEqual(len([line for line in out if "rejected" in line]), len(broken))
        self.assertEqual((out[-1]["sent"], out[-1]["failed"]), (4, len(broken)))
        got = receiver.wait("record", 4)
        self.assertEqual([bytes_of(line, "message") for line in got],
                         [good[0]["message"].encode(), b"", b"\0\xff", b"\0\xff"])

    def test_dump_and_print(self):
        receiver = self.receiver()
        status, _, err = self.send(receiver, "--dump", "--print-conn", "--set", "message=abc")
        self.assertEqual(status, 0)
        self.assertIn("Sending:\n", err)
        self.assertIn("55 aa 55 aa", err)
        self.assertIn("RUVConn Struct Info:\n", err)
        self.assertNotIn("Received:\n", err)

    def test_groups_and_counts(self):
        receiver = self.receiver("--verbose")
        status, out, _ = self.send(receiver, "--count", 25, "--group", 10, "--verbose", "--rate",
                                   1000, "--set", "message=abc")
        self.assertEqual((status, out[-1]["sent"], out[-1]["bytes"]), (0, 25, 25 * 27))
        commits = [line for line in out if line.get("call") == "RUVGroupCommit"]
        self.assertEqual(len(commits), 3)
        self.assertEqual(len(receiver.wait("record", 25)), 25)

    def test_failures_to_connect(self):
        receiver = self.receiver("--refuse", "ReqDataVers")
        status, lines, _ = self.send(receiver)
        self.assertEqual((status, lines), (1, [
            {"call": "RUVOpen", "result": -1, "error": 13,
             "text": "Requested operation returned 'NOTOKAY'"}]))
        receiver.stop()
        status, lines, _ = self.send(receiver)
        self.assertEqual((status, lines[0]["call"], lines[0]["error"]), (1, "RUVOpen", 3))

    def test_encryption_that_does_not_match(self):
        """Each side waits the other out: a wrong mode ends in the error that names it."""
        for receiver_mode, mode, code in (("none", "always", 7), ("always", "none", 7),
                                          ("always", "request", 7), ("none", "request", 13)):
            with self.subTest(receiver=receiver_mode, sender=mode):
                receiver = self.receiver("--tls", receiver_mode)
                status, lines, _ = self.send(receiver, "--tls", mode, "--set", "message=x")
                self.assertEqual((status, lines[0]["call"]), (1, "RUVOpen"))
                self.assertEqual(lines[0]["error"], code)
                self.assertEqual(receiver.named("record"), [])

    def test_receivers_that_lie(self):
        """Broken answers end the opening in an error, and soon."""
        path = self.folder / "fields"
        path.write_bytes(b"[a]\n")
        for options in (["--hostile-count=-1"], ["--hostile-count", 2147483647],
                        ["--hostile-size=-1", "--catalogue", path],
                        ["--hostile-size", 2147483647, "--catalogue", path],
                        ["--truncate", "ReqDataVers"], ["--refuse", "ReqDataVers"],
                        ["--truncate", "GetCustomFieldFile", "--catalogue", path]):
            with self.subTest(options=options):
                receiver = self.receiver(*options)
                status, lines, _ = self.send(receiver, "--set", "message=x")
                self.assertEqual((status, lines[0]["call"], lines[0]["result"]),
                                 (1, "RUVOpen", -1))
                self.assertIn(lines[0]["error"], (1, 3, 13))

    def test_modern_tls(self):
        """A certificate that nobody vouches for is refused before any record is sent."""
        receiver = self.receiver("--tls", "always")
        status, lines, _ = self.send(receiver, "--tls", "always", "--tls-min", "1.2", "--tls-name",
                                     "localhost", "--set", "message=x")
        self.assertEqual(status, 1)
        self.assertEqual((lines[-1]["call"], lines[-1]["error"]), ("RUVOpen", 6))
        self.assertEqual(receiver.named("record"), [])

    def test_a_broken_group_counts_as_failed(self):
        receiver = self.receiver("--reset-after", 5, "--accept-faulty", 1)
        status, lines, _ = self.send(receiver, "--count", 20, "--group", 20, "--set", "message=x")
        self.assertEqual(status, 1)
        self.assertEqual((lines[-1]["sent"], lines[-1]["failed"]), (0, 20))
        status, lines, _ = self.send(receiver, "--count", 20, "--group", 20, "--set", "message=x")
        self.assertEqual((status, lines[-1]["sent"]), (0, 20))
        self.assertEqual(len(receiver.wait("record", 25)), 25)


if __name__ == "__main__":
    main()
