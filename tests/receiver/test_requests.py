"""The answers to the requests, in both generations, plain and under TLS."""
import shutil
import ssl
import struct
import subprocess

import kit_path  # noqa: F401
from receiver_kit import (AM_KNOWN, AM_KNOWN2, CLOSE_CONN, GET_CUSTOM_FIELD_FILE,
                          GET_RCVR_VER, NOP, NOTOKAY, OKAY, REQ_DATA_VERS, REQ_SSL, ReceiverTest,
                          all_bodies, channel_request, main, request, syslog)


class Requests(ReceiverTest):
    def versions(self, client):
        answer = client.ask(request(REQ_DATA_VERS), 12)
        self.assertEqual(answer[:8], OKAY)
        count = struct.unpack("<i", answer[8:])[0]
        entries = [client.take(32) for _ in range(count)]
        for entry in entries:
            self.assertEqual(entry[6:], bytes(26))
        return [struct.unpack("<HHH", entry[:6]) for entry in entries]

    def test_default_versions(self):
        client = self.client(self.receiver())
        offered = self.versions(client)
        wanted = [(6, 0, code) for code in range(9) if code != GET_CUSTOM_FIELD_FILE]
        wanted += [(v, 1, 0) for v in range(1, 6)]
        wanted += [(v, t, 0) for t in (2, 3, 4) for v in range(3, 6)]
        wanted += [(6, t, s) for t in (1, 2, 3, 4) for s in range(3)]
        self.assertEqual(sorted(offered), sorted(wanted))

    def test_versions_can_be_chosen(self):
        receiver = self.receiver("--versions", "6:syslog:0-1,5:alert:0,7:9:65535,6:request:0-8",
                                 "--without", "AmKnown2,7")
        offered = self.versions(self.client(receiver))
        self.assertEqual(offered, [(6, 3, 0), (6, 3, 1), (5, 1, 0), (7, 9, 65535)] +
                         [(6, 0, code) for code in range(7)])
        self.assertEqual(self.versions(self.client(self.receiver("--versions", "none"))), [])

    def test_catalogue_is_offered_and_handed_out(self):
        path = self.folder / "fields"
        text = bytes(range(256)) * 300
        path.write_bytes(text)
        client = self.client(self.receiver("--catalogue", path))
        self.assertIn((6, 0, GET_CUSTOM_FIELD_FILE), self.versions(client))
        answer = client.ask(request(GET_CUSTOM_FIELD_FILE), 12)
        self.assertEqual(answer, OKAY + struct.pack("<i", len(text)))
        self.assertEqual(client.take(len(text)), text)
        client.confirm()

    def test_channel_ids(self):
        """A source keeps its id, on another connection too; malformed sources are refused."""
        receiver = self.receiver("--verbose", "--cid-base", 7)
        client, other = self.client(receiver), self.client(receiver)
        sources = [(1, bytes([3, 2, 1, 10])), (3, b"web1"), (3, b""), (2, bytes(range(16)))]
        for number, (kind, data) in enumerate(sources):
            for asker in (client, other, client):
                self.assertEqual(asker.ask(channel_request(kind, data), 12),
                                 OKAY + struct.pack("<i", 7 + number))
        for kind, data in ((0, b"abcd"), (4, b"abcd"), (1, b"abc"), (2, b"abcd")):
            self.assertEqual(client.ask(channel_request(kind, data)), NOTOKAY)
        client.send(syslog(b"from 10.1.2.3", channel=7) + syslog(b"from web1", channel=8) +
                    syslog(b"from nobody", channel=99))
        client.confirm()
        lines = receiver.wait("record", 3)
        self.assertEqual([(l.get("source_kind"), l.get("source")) for l in lines],
                         [("IPv4", "10.1.2.3"), ("HostID", "web1"), (None, None)])
        asked = [l for l in receiver.named("request") if l["request"] == "GetChanID"]
        self.assertEqual(asked[0]["channel_id"], 7)
        self.assertEqual(asked[-5]["source"], "302:100:706:504:b0a:908:f0e:d0c")

    def test_channel_ids_wrap_like_signed_numbers(self):
        client = self.client(self.receiver("--cid-base", 2147483647))
        self.assertEqual(client.ask(channel_request(3, b"a"), 12)[8:],
                         struct.pack("<i", 2147483647))
        self.assertEqual(client.ask(channel_request(3, b"b"), 12)[8:],
                         struct.pack("<i", -2147483648))
        client = self.client(self.receiver("--cid-base=-5"))
        self.assertEqual(client.ask(channel_request(3, b"a"), 12)[8:], struct.pack("<i", -5))

    def test_known(self):
        client = self.client(self.receiver())
        self.assertEqual(client.ask(request(AM_KNOWN, channel=4, third_party=43)), OKAY)
        self.assertEqual(client.ask(request(AM_KNOWN2, struct.pack("<I", 3), channel=4)), OKAY)
        client = self.client(self.receiver("--known", "none"))
        self.assertEqual(client.ask(request(AM_KNOWN)), NOTOKAY)
        self.assertEqual(client.ask(request(AM_KNOWN2, struct.pack("<I", 3))), NOTOKAY)
        client.confirm()

    def test_receiver_version(self):
        receiver = self.receiver("--receiver-version", "10.2.65535.x.18446744073709551615")
        client = self.client(receiver)
        self.assertEqual(client.ask(request(GET_RCVR_VER), 24),
                         OKAY + struct.pack("<HHH2sQ", 10, 2, 65535, b"x\0", 2**64 - 1))
        client = self.client(self.receiver())
        self.assertEqual(client.ask(request(GET_RCVR_VER), 24),
                         OKAY + struct.pack("<HHH2sQ", 9, 4, 2, b"a1", 20240131120000))

    def test_unknown_request_is_refused(self):
        client = self.client(self.receiver())
        self.assertEqual(client.ask(request(9)), NOTOKAY)
        self.assertEqual(client.ask(request(4095)), NOTOKAY)
        client.confirm()

    def test_close_request(self):
        """CloseConn ends the connection without an answer, after all that came before."""
        receiver = self.receiver()
        client = self.client(receiver)
        self.assertEqual(client.ask(syslog(b"last") + request(CLOSE_CONN), 1), b"")
        self.assertEqual(receiver.wait("record")[0]["message"], "last")

    def test_answers_follow_the_processing(self):
        """When the answer to a NOP is there, everything before it has been printed and saved."""
        receiver = self.receiver("--save", self.folder / "saved")
        client = self.client(receiver)
        stream = b"".join(syslog(b"event %d" % n) for n in range(5000))
        for round_number in range(1, 4):
            client.send(stream)
            client.confirm()
            size = (self.folder / "saved").stat().st_size
            self.assertGreaterEqual(size, round_number * len(stream))
        self.assertEqual(len(receiver.wait("record", 15000)), 15000)

    def test_older_generation_answers_nothing(self):
        """It reads legacy records and takes everything else for noise, without closing."""
        receiver = self.receiver("--generation", 5, "--verbose")
        client = self.client(receiver)
        legacy = next(b for b in all_bodies() if str(b) == "syslog 3.-")
        noise = syslog(b"version 6") + bytes.fromhex("160301002a")
        client.send(request(NOP) + request(REQ_DATA_VERS) + noise)
        client.send(legacy.build({"nadtype": 5, "message": b"old"}))
        self.assertEqual(receiver.wait("record")[0]["message"], "old")
        self.assertEqual(sum(l["garbage"] for l in receiver.named("garbage")), len(noise))
        client.socket.settimeout(0.2)
        self.assertRaises(TimeoutError, client.take, 1)

    def test_noise_is_skipped(self):
        receiver = self.receiver("--verbose")
        client = self.client(receiver)
        good = syslog(b"good")
        stream = (b"noise" + good + good[:8] + good + good[:3] + good +
                  good[:8] + b"\x07" + good + good[:8] + b"\x06\x05\x00\x00" + bytes(4) + good)
        client.send(stream)
        client.confirm()
        self.assertEqual(len(receiver.wait("record", 5)), 5)
        self.assertEqual(sum(l["garbage"] for l in receiver.named("garbage")),
                         len(stream) - 5 * len(good))


    def test_a_unit_without_its_end(self):
        """What is left when a stream ends is kept and counted, but is no event."""
        receiver = self.receiver("--quiet", "--connections", 1, "--save", self.folder / "saved")
        client = self.client(receiver)
        stream = syslog(b"whole") + syslog(b"half")[:-2]
        client.send(stream)
        client.close()
        self.assertEqual(receiver.finish(), 0)
        self.assertEqual((receiver.totals()["records"], receiver.totals()["garbage_bytes"]),
                         (1, len(stream) - len(syslog(b"whole"))))
        self.assertEqual((self.folder / "saved").read_bytes(), stream)


class Tls(ReceiverTest):
    def test_from_the_first_byte(self):
        receiver = self.receiver("--tls", "always", "--verbose")
        client = self.client(receiver, tls=True)
        client.send(syslog(b"x" * 60000) * 20)
        client.confirm()
        self.assertEqual(client.ask(request(REQ_SSL)), NOTOKAY)
        self.assertEqual(len(receiver.wait("record", 20)), 20)
        plain = self.client(receiver)
        try:
            self.assertNotEqual(plain.ask(request(NOP)), OKAY)
        except ConnectionError:
            pass  # as good an end as any

    def test_on_request(self):
        receiver = self.receiver("--tls", "request")
        client = self.client(receiver)
        client.send(syslog(b"plain"))
        client.confirm()
        self.assertEqual(client.ask(request(REQ_SSL)), OKAY)
        client.start_tls()
        client.send(syslog(b"secret"))
        client.confirm()
        self.assertEqual(client.ask(request(REQ_SSL)), NOTOKAY)
        self.assertEqual([l["message"] for l in receiver.wait("record", 2)], ["plain", "secret"])
        refused = self.client(self.receiver())
        self.assertEqual(refused.ask(request(REQ_SSL)), NOTOKAY)
        refused.confirm()

    def test_bytes_ahead_of_the_handshake(self):
        """Plain bytes behind ReqSSL cannot be part of the handshake: the stream ends."""
        client = self.client(self.receiver("--tls", "request"))
        self.assertEqual(client.ask(request(REQ_SSL) + b"\x16early", 9), OKAY)

    def test_either_by_the_first_byte(self):
        receiver = self.receiver("--tls", "any")
        plain, secret = self.client(receiver), self.client(receiver, tls=True)
        for client in (plain, secret):
            client.send(syslog(b"hello"))
            client.confirm()
        self.assertEqual(plain.ask(request(REQ_SSL)), OKAY)
        plain.start_tls()
        plain.confirm()
        receiver.wait("record", 2)

    def test_protocol_versions(self):
        if not ssl.HAS_TLSv1:
            self.skipTest("the test's own TLS library knows no TLS 1.0")
        old, new = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_3
        receiver = self.receiver("--tls", "always", "--verbose")
        for version in (old, ssl.TLSVersion.TLSv1_2, new):
            client = self.client(receiver)
            client.start_tls(version)
            client.confirm()
        names = [line["detail"].split()[0] for line in receiver.wait("tls", 3)]
        self.assertEqual(names, ["TLSv1", "TLSv1.2", "TLSv1.3"])
        modern = self.client(self.receiver("--tls", "always", "--tls-min", "1.2"))
        self.assertRaises((ssl.SSLError, ConnectionError), modern.start_tls, old)

    def make_certificate(self, name):
        key, cert = self.folder / f"{name}.key", self.folder / f"{name}.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:P-256", "-nodes", "-subj", f"/CN={name}", "-keyout",
                        key, "-out", cert], check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return cert, key

    def test_certificates_of_both_sides(self):
        if not shutil.which("openssl"):
            self.skipTest("the program openssl is not installed")
        cert, key = self.make_certificate("receiver.example")
        client_cert = self.make_certificate("agent.example")
        receiver = self.receiver("--tls", "always", "--cert", cert, "--key", key, "--client-ca",
                                 client_cert[0])
        client = self.client(receiver)
        client.start_tls(cert=client_cert)
        self.assertEqual(client.socket.getpeercert(True),
                         ssl.PEM_cert_to_DER_cert(cert.read_text()))
        client.confirm()
        stranger = self.client(receiver)
        with self.assertRaises((ssl.SSLError, ConnectionError, AssertionError)):
            stranger.start_tls()
            stranger.confirm()


if __name__ == "__main__":
    main()
