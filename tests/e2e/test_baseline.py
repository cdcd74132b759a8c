"""With no opt-in key set, every byte is the documented one: wire, bookmarks and log.

What is expected is put together here from the descriptions, not recorded from the program. A new
setting that changes any of it while it is absent fails here.
"""
import re
import ssl
import struct
import time
import zlib
from pathlib import Path

import kit_path  # noqa: F401
from client_hello import Listener, read_exactly
from daemon_kit import BUDGET_SECONDS, DaemonTest, main

GOLDEN = Path(__file__).resolve().parent / "golden"
MAGIC = bytes.fromhex("55AA55AACEFAEDFE")
NOP, REQ_SSL, REQ_DATA_VERS, GET_CHAN_ID = 0, 1, 2, 3
OKAY = b"OKAY\0\0\0\0"
SYSLOG, HOST_ID, CHANNEL = 3, 3, 1
STAMP = re.compile(r"^\w{3} \d\d \d\d:\d\d:\d\d \d{4}:", re.M)


def header(data_type, data_version, channel=0):
    return MAGIC + struct.pack("<IHH", 6 | data_type << 8 | data_version << 20, 0, channel)


def record(message, channel):
    """A Syslog record of version 6; its time stamp is left at zero."""
    return header(SYSLOG, 0, channel) + struct.pack("<IHH", 0, 0, len(message)) + message


def without_times(stream, first, last):
    """The stream with the collection times, which must lie in the range, set to zero."""
    out, position = b"", 0
    while position < len(stream):
        word, = struct.unpack_from("<I", stream, position + 8)
        size = 16
        if word >> 8 & 0xFFF == SYSLOG:
            stamp, _, length = struct.unpack_from("<IHH", stream, position + 16)
            assert first <= stamp <= last, (first, stamp, last)
            out += stream[position:position + 16] + bytes(4)
            out += stream[position + 20:position + 24 + length]
            position += 24 + length
            continue
        if (word >> 8, word >> 20) == (GET_CHAN_ID << 12, GET_CHAN_ID):
            size += 4 + struct.unpack_from("<H", stream, position + 18)[0]
        out += stream[position:position + size]
        position += size
    return out


class Baseline(DaemonTest):
    def run_once(self):
        save = self.folder / "stream"
        receiver = self.receiver("--save", save, "--versions", "6:request:0-6,6:syslog:0")
        self.port = receiver.port
        self.configure(receiver.port, {"hostid": "web-1"}, debug_level="info")
        self.lines = [f"line {n} ".ljust(150, ".") for n in range(4)]
        self.path = self.write("a.log", "".join(line + "\n" for line in self.lines))
        self.first = int(time.time())
        daemon = self.start()
        receiver.wait_messages(4)
        self.wait_bookmark("a.log", 4 * 151)
        daemon.wait_log(f"starting at: {4 * 151}")
        daemon.stop()
        receiver.stop()
        return daemon, save

    def test_wire(self):
        _, save = self.run_once()
        expected = header(0, NOP) + header(0, REQ_DATA_VERS)
        expected += header(0, GET_CHAN_ID) + struct.pack("<HH", HOST_ID, 5) + b"web-1"
        expected += b"".join(record(line.encode() + b" ", CHANNEL) for line in self.lines)
        got = without_times(save.read_bytes(), self.first, int(time.time()))
        self.assertEqual(got, expected)

    def test_bookmarks(self):
        self.run_once()
        data = self.path.read_bytes()
        head, end = zlib.crc32(data[:256]), zlib.crc32(data[-257:-1])
        self.assertEqual((self.bookmarks / "ft_bookmark").read_text(),
                         f"{len(data):015d}|{head:015d}|{end:015d}|{str(self.path):<150}\n")

    def test_log(self):
        daemon, _ = self.run_once()
        log = STAMP.sub("", daemon.log())
        # How often an idle daemon looks is a matter of time: equal neighbours count once.
        lines = log.split("\n")
        lines = [line for n, line in enumerate(lines) if n == 0 or line != lines[n - 1]]
        resumed = [f"(INFO) Resume reading file: {self.path} starting at: {at}" for at in (0, 604)]
        self.assertEqual(lines, [
            "(INFO) Initalizing Linux Agent",
            f"(INFO) Attempting connection to Server: 127.0.0.1 -- Port: {self.port} -- Encrypt: 0",
            "(INFO) program arguments",
            f"(INFO)   * (c) config-file      ={self.conf_path}",
            "(INFO)   * (d) daemonize        =0", "(INFO)   * (a) auto-learn       =0",
            "(INFO)   * (l) log-level        =3", "(INFO)   * (f) log-file         =1",
            "(INFO)     (t) timeout-retry    =5", "(INFO)     (s) timeout-sleep    =300",
            "(INFO)     (r) query-retry      =60", "(INFO) LPC not installed",
            f"(INFO) Loaded file for tailing: {self.path} starting at byte: 0", *resumed,
            "(INFO) Shut down intiated", "", "(INFO) Calling shutdown on plugin: 0",
            f"(INFO) Filetail shutdown called: {self.input}/",
            f"(INFO) Shutdown bookmark for {self.path}", "(INFO) DeInitializing LPC", ""])


class Hello(DaemonTest):
    """The first words of a TLS connection, as readable text beside this file.

    The text is complete except for what is new each time (the random bytes, the session
    identifier, the key shares: their lengths stay). It is that of OpenSSL 3.0, whose point releases
    change nothing in it; another minor version may offer more suites and groups, so there only
    what the daemon itself decides is compared. The system-wide openssl.cnf, which may forbid or
    prefer algorithms, is replaced by an empty one.
    """

    def upgrade(self, connection):
        """The two requests before a hello on request."""
        for code in (NOP, REQ_SSL):
            self.assertEqual(read_exactly(connection, 16), header(0, code))
            connection.sendall(OKAY)

    def hello(self, encrypt=1, **settings):
        with Listener(BUDGET_SECONDS) as listener:
            self.configure(listener.port, rec_encrypt=encrypt, **settings)
            daemon = self.start(env={"OPENSSL_CONF": "/dev/null"}, wait=False)
            text = listener.hello(self.upgrade if encrypt == 2 else None)
        daemon.wait_log("Error connecting to the Receiver: ")
        daemon.stop()
        return text

    def check(self, text, name, *essential):
        for line in essential:
            self.assertIn(line + "\n", text)
        if ssl.OPENSSL_VERSION_INFO[:2] == (3, 0):
            notes, golden = (GOLDEN / name).read_text().split("\n\n", 1)
            self.assertTrue(all(line.startswith("#") for line in notes.splitlines()))
            self.assertEqual(text.splitlines(), golden.splitlines())

    def test_legacy_hello(self):
        text = self.hello()
        self.check(text, "hello_legacy.txt", "record version: 0301 TLS 1.0",
                   "hello version: 0301 TLS 1.0", "session identifier: 0 bytes")
        for absent in ("server_name", "supported_versions", "pre_shared_key"):
            self.assertNotIn(absent, text)

    def test_legacy_hello_on_request(self):
        self.check(self.hello(2), "hello_legacy.txt", "hello version: 0301 TLS 1.0")

    def modern(self, name, lowest, *versions):
        text = self.hello(rec_tls_min=lowest, rec_tls_name="receiver.example")
        offered = ["  002b supported_versions", *(f"    {version}" for version in versions)]
        self.check(text, name, "  0000 server_name\n    kind 0: receiver.example",
                   "\n".join(offered))
        self.assertNotIn("0302 TLS 1.1\n", text.split("extensions:")[1])
        self.assertNotIn("0301 TLS 1.0\n", text.split("extensions:")[1])

    def test_hello_from_1_2_on(self):
        self.modern("hello_from_1_2.txt", "1.2", "0304 TLS 1.3", "0303 TLS 1.2")

    def test_hello_from_1_3_on(self):
        self.modern("hello_from_1_3.txt", "1.3", "0304 TLS 1.3")

    def test_hello_to_an_address_names_no_host(self):
        """A host name extension may not hold an address; nothing else changes."""
        text = self.hello(rec_tls_min="1.2")
        named = "  0000 server_name\n    kind 0: receiver.example\n"
        self.assertNotIn("server_name", text)
        golden = (GOLDEN / "hello_from_1_2.txt").read_text().split("\n\n", 1)[1]
        if ssl.OPENSSL_VERSION_INFO[:2] == (3, 0):
            self.assertEqual(text.splitlines(), golden.replace(named, "").splitlines())


if __name__ == "__main__":
    main()
