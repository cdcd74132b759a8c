"""Authenticated TLS: who is let in, and that nobody else ever is."""
import shutil
import subprocess
import unittest

import kit_path  # noqa: F401
from daemon_kit import DaemonTest, main

WIDTH = 40
FAST = 300


class Authority:
    """A certificate authority of the test's own, made with the openssl command."""

    def __init__(self, folder, name):
        self.folder, self.name = folder / name, name
        self.folder.mkdir()
        self.key, self.cert = self.folder / "ca.key", self.folder / "ca.pem"
        self.run("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-keyout", self.key, "-out", self.cert, "-subj", f"/CN={name}", "-days", "2")

    def run(self, *words):
        subprocess.run(["openssl", *map(str, words)], check=True, stdin=subprocess.DEVNULL,
                       capture_output=True, cwd=self.folder)

    def issue(self, name, alternative, begin=None, end=None):
        """A certificate and its key, as two paths."""
        key, request = self.folder / f"{name}.key", self.folder / f"{name}.csr"
        cert, extension = self.folder / f"{name}.pem", self.folder / f"{name}.ext"
        extension.write_text(f"subjectAltName={alternative}\n")
        self.run("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-keyout", key, "-out", request, "-subj", f"/CN={name}")
        if end is None:
            self.run("x509", "-req", "-in", request, "-CA", self.cert, "-CAkey", self.key,
                     "-CAcreateserial", "-days", "2", "-extfile", extension, "-out", cert)
        else:
            (self.folder / "index").write_text("")
            (self.folder / "serial").write_text("1000\n")
            config = self.folder / "ca.cnf"
            config.write_text(
                "[ca]\ndefault_ca=d\n[d]\ndatabase=index\nserial=serial\nnew_certs_dir=.\n"
                "default_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n")
            self.run("ca", "-batch", "-config", config, "-in", request, "-cert", self.cert,
                     "-keyfile", self.key, "-extfile", extension, "-startdate", begin,
                     "-enddate", end, "-out", cert, "-notext")
        return cert, key


@unittest.skipUnless(shutil.which("openssl"), "needs the openssl command")
class TlsOptions(DaemonTest):
    def setUp(self):
        super().setUp()
        self.ca = Authority(self.folder, "authority")
        self.write("a.log", self.numbered(1, 50, WIDTH))

    def listen(self, pair, *options):
        return self.receiver("--tls", "always", "--cert", pair[0], "--key", pair[1], *options)

    def options(self, **more):
        return {"rec_encrypt": 1, "rec_tls_ca": self.ca.cert, "reconnect_wait": 300,
                "debug_level": "info", **more}

    def accepted(self, receiver, **more):
        self.configure(receiver.port, **self.options(**more))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(50), self.expected(1, 50, WIDTH))
        daemon.stop()

    def refused(self, receiver, *words, env=None, **more):
        """Refused three times over, with the reason in the log and without a single event."""
        self.configure(receiver.port, **self.options(**more))
        daemon = self.start(scale=FAST, env=env)
        daemon.wait_log("Error connecting to the Receiver: ", count=3)
        daemon.stop()
        self.assertEqual(receiver.messages(), [])
        for word in words:
            self.assertIn(word, daemon.log())

    def test_address_in_the_certificate(self):
        self.accepted(self.listen(self.ca.issue("r", "IP:127.0.0.1")))

    def test_name_in_the_certificate(self):
        self.accepted(self.listen(self.ca.issue("r", "DNS:receiver.example")),
                      rec_tls_name="receiver.example")

    def test_lowest_version_1_3(self):
        self.accepted(self.listen(self.ca.issue("r", "IP:127.0.0.1")), rec_tls_min="1.3")

    def test_client_certificate(self):
        client = self.ca.issue("c", "DNS:collector.example")
        receiver = self.listen(self.ca.issue("r", "IP:127.0.0.1"), "--client-ca", self.ca.cert)
        self.accepted(receiver, rec_tls_cert=client[0],
                      rec_tls_key=self.daemon_owns(client[1]))

    def test_confirmed_groups_over_it(self):
        self.accepted(self.listen(self.ca.issue("r", "IP:127.0.0.1")), rec_confirm=7)

    def test_wrong_name_is_refused(self):
        self.refused(self.listen(self.ca.issue("r", "DNS:other.example")),
                     "IP address mismatch (expected 127.0.0.1, offered other.example); expect one "
                     "of the names that it carries, or replace it")

    def test_unknown_authority_is_refused(self):
        other = Authority(self.folder, "other")
        self.refused(self.listen(other.issue("r", "IP:127.0.0.1")),
                     "issuer certificate (r, signed by other); whoever signed it is not among the "
                     "trusted certificates")

    def test_expired_certificate_is_refused(self):
        pair = self.ca.issue("r", "IP:127.0.0.1", "20200101000000Z", "20210101000000Z")
        self.refused(self.listen(pair), "expired (r, valid until 2021-01-01 00:00:00 UTC)")

    def test_missing_client_certificate_is_refused(self):
        receiver = self.listen(self.ca.issue("r", "IP:127.0.0.1"), "--client-ca", self.ca.cert)
        self.refused(receiver, "the Receiver asks for a client certificate and none is set")

    def test_no_way_back_to_plain_text(self):
        # The Receiver never answers a TLS hello: what is left of the wait for one is enough here.
        self.refused(self.receiver(), env={"COLLECTOR_IO_SCALE": "10"})

    def test_files_that_cannot_be_used_are_named(self):
        receiver = self.listen(self.ca.issue("r", "IP:127.0.0.1"))
        cert, key = self.ca.issue("c", "DNS:collector.example")
        other_key = self.ca.issue("d", "DNS:collector.example")[1]
        absent, noise = self.folder / "absent.pem", self.folder / "noise.pem"
        noise.write_text("correct horse battery staple\n")
        locked = self.folder / "locked.key"
        self.ca.run("pkey", "-in", key, "-aes128", "-passout", "pass:word", "-out", locked)
        for path in (key, other_key, locked):
            self.daemon_owns(path)
        for settings, words in (
                ({"rec_tls_ca": absent},
                 f"trusted certificates {absent}: there is no such file; correct the path"),
                ({"rec_tls_ca": noise},
                 f"trusted certificates {noise}: it holds no usable certificate in PEM form"),
                ({"rec_tls_cert": absent, "rec_tls_key": key},
                 f"client certificate {absent}: there is no such file"),
                ({"rec_tls_cert": cert, "rec_tls_key": locked},
                 f"client key {locked}: it is protected by a pass phrase"),
                ({"rec_tls_cert": cert, "rec_tls_key": other_key},
                 f"client key {other_key}: it does not belong to the certificate {cert}")):
            self.configure(receiver.port, **self.options(**settings))
            daemon = self.start(scale=FAST)
            daemon.wait_log("Error connecting to the Receiver: ", count=2)
            daemon.stop()
            self.assertIn(words, daemon.log())
            self.assertNotIn("horse", daemon.log())
        self.assertEqual(receiver.messages(), [])


if __name__ == "__main__":
    main()
