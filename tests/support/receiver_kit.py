"""The kit of the Receiver's tests: a running ruv_receiver, a client that speaks the wire, and a
builder of units. The builder is written from the layouts of the wire and shares nothing with the
programs under test: it packs field after field, where they read at offsets.
"""
import base64
import ipaddress
import json
import os
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import warnings
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("COLLECTOR_BUILD", ROOT / "build"))
BUDGET_SECONDS = 60

MAGIC = bytes.fromhex("55aa55aacefaedfe")
OKAY = b"OKAY\0\0\0\0"
NOTOKAY = b"NOTOKAY\0"
NOP, REQ_SSL, REQ_DATA_VERS, GET_CHAN_ID, AM_KNOWN = 0, 1, 2, 3, 4
CLOSE_CONN, GET_RCVR_VER, GET_CUSTOM_FIELD_FILE, AM_KNOWN2 = 5, 6, 7, 8
ALERT, FLOW, SYSLOG, WINDOWS = 1, 2, 3, 4
TYPE_NAMES = {ALERT: "alert", FLOW: "flow", SYSLOG: "syslog", WINDOWS: "windows"}


def header(data_type, data_version, third_party=0, channel=0):
    word = data_version << 20 | data_type << 8 | 6
    return MAGIC + struct.pack("<IHH", word, third_party, channel)


def request(code, body=b"", channel=0, third_party=0):
    return header(0, code, third_party, channel) + body


def channel_request(kind, data):
    return request(GET_CHAN_ID, struct.pack("<HH", kind, len(data)) + data)


def syslog(message, channel=0, collected=0, subversion=2, third_party=0):
    block = struct.pack("<IHH", collected, 0, len(message))
    return header(SYSLOG, subversion - 1, third_party, channel) + block + message


# Kinds of fields: a struct code, or one of these names.
SPECIAL = {"mac": "6s", "ip4": "I", "ip6": "16s", "either": "16s", "hex2": "2s", "hex5": "5s",
           "hex8": "8s", "hex12": "12s", "bin": None, "id": None, "len": None}

ADDRESSES = [("ipv6_sip", "hex12"), ("sip", "ip4"), ("ipv6_dip", "hex12"), ("dip", "ip4")]

ALERT_LEGACY = [
    ("nadver", "B"), ("severity", "B"), ("action", "B"), ("protocol", "B"), ("dst_mac", "mac"),
    ("src_mac", "mac"), ("flow", "B"), ("message_len", "B"), ("vlan", "H"), ("src_port", "H"),
    ("dst_port", "H"), *ADDRESSES, ("sig_id", "I"), ("firsttime", "I"), ("lasttime", "I"),
    ("lasttime_usec", "I"), ("eventcount", "I"), ("packet_len", "H"), ("src_usrname_len", "B"),
    ("dst_usrname_len", "B"), ("appname_len", "B"), ("hostname_len", "B"),
    ("domainname_len", "B"), ("rsrvd_chara", "B"), ("ipv6_dsip", "hex12"), ("dsip", "ip4"),
    ("rsvd64", "Q"), ("session_id", "Q"), ("norm_sigid", "I"), ("sequence", "H"),
    ("trusted", "B"), ("sig_generator", "B"), ("commandname_len", "B"), ("objectname_len", "B"),
    ("rsrvd_charb", "H")]

ALERT_V1 = [
    ("session_id", "Q"), ("src_mac", "mac"), ("dst_mac", "mac"), ("sigid", "I"),
    ("norm_sigid", "I"), ("evntcnt", "I"), ("sip", "either"), ("dip", "either"), ("ftime", "I"),
    ("ltime", "I"), ("ltime_usec", "I"), ("sport", "H"), ("dport", "H"), ("vlan", "H"),
    ("sequence", "H"), ("packet_len", "H"), ("protocol", "B"), ("flow", "B"), ("action", "B"),
    ("severity", "B"), ("trusted", "B"), ("sig_generator", "B"), ("message_len", "B"),
    ("src_usrname_len", "B"), ("dst_usrname_len", "B"), ("appname_len", "B"),
    ("hostname_len", "B"), ("domainname_len", "B"), ("commandname_len", "B"),
    ("objectname_len", "B")]

ALERT_V2 = [
    ("session_id", "Q"), ("userdatabin", "bin"), ("src_mac", "mac"), ("dst_mac", "mac"),
    ("sigid", "I"), ("norm_sigid", "I"), ("evntcnt", "I"), ("sip6", "ip6"), ("dip6", "ip6"),
    ("sip4", "ip4"), ("dip4", "ip4"), ("ftime", "I"), ("ltime", "I"), ("ltime_usec", "I"),
    ("sport", "H"), ("dport", "H"), ("vlan", "H"), ("sequence", "H"), ("packet_len", "H"),
    ("userdataid", "id"), ("userdatalen", "len"), ("protocol", "B"), ("flow", "B"),
    ("action", "B"), ("severity", "B"), ("trusted", "B"), ("sig_generator", "B"),
    ("message_len", "B"), ("pad", "hex5")]

FLOW_COUNTERS = [(n, "Q") for n in ("dstbytes", "srcbytes", "dstpackets", "srcpackets",
                                    "dstasngeo", "srcasngeo")]
FLOW_PORTS = [(n, "H") for n in ("sport", "dport", "vlan", "iface_in", "iface_out")]

FLOW_LEGACY = [
    ("nadver", "B"), ("nadtype", "B"), ("pad", "hex2"), ("destbytes", "Q"), ("sourcebytes", "Q"),
    ("destpackets", "Q"), ("sourcepackets", "Q"), ("destasngeo", "Q"), ("sourceasngeo", "Q"),
    ("dst_mac", "mac"), ("src_mac", "mac"), *ADDRESSES, ("duration", "I"),
    ("duration_usec", "I"), ("count", "I"), ("firsttime", "I"), ("lasttime", "I"),
    ("lasttime_usec", "I"), ("ipv6_dsip", "hex12"), ("dsip", "ip4"), *FLOW_PORTS,
    ("protocol", "B"), ("dir", "B")]

FLOW_V1 = [
    *FLOW_COUNTERS, ("dst_mac", "mac"), ("src_mac", "mac"), ("sip", "either"), ("dip", "either"),
    ("duration", "I"), ("duration_usec", "I"), ("cnt", "I"), ("ftime", "I"), ("ltime", "I"),
    ("ltime_usec", "I"), *FLOW_PORTS, ("protocol", "B"), ("dir", "B")]


def flow_rows(pad):
    return [
        ("session_id", "Q"), *FLOW_COUNTERS, ("userdatabin", "bin"), ("dst_mac", "mac"),
        ("src_mac", "mac"), ("sip6", "ip6"), ("dip6", "ip6"), ("sip4", "ip4"), ("dip4", "ip4"),
        ("duration", "I"), ("duration_usec", "I"), ("cnt", "I"), ("ftime", "I"), ("ltime", "I"),
        ("ltime_usec", "I"), *FLOW_PORTS, ("userdataid", "id"), ("userdatalen", "len"),
        ("protocol", "B"), ("dir", "B"), ("connstate", "B"), ("tos_src", "B"),
        ("tcp_flags", "B"), ("pad", pad)]


SYSLOG_LEGACY = [("nadver", "B"), ("nadtype", "B"), ("third_party_type", "H"),
                 ("ipv4_src", "ip4"), ("message_len", "I")]
SYSLOG_V6 = [("data_time", "I"), ("rsrvd", "H"), ("data_len", "H")]

WINDOWS_LEGACY = [
    ("nadver", "B"), ("nadtype", "B"), ("win_ver", "I"), ("ipv6_sip", "hex12"), ("sip", "ip4"),
    ("eventid", "I"), ("eventtype", "H"), ("category", "H"), ("source_len", "I"),
    ("create_time", "I"), ("write_time", "I"), ("host_len", "I"), ("usersid_len", "I"),
    ("message_len", "I"), ("strings_len", "I"), ("data_len", "I")]

ALERT_TEXTS = ["message", "src_usrname", "dst_usrname", "appname", "hostname", "domainname",
               "commandname", "objectname"]


class Body:
    """One record body: its fields in order, and its variable parts with their length fields."""

    def __init__(self, data_type, version, subversion, fields, parts=(), packet=False, rows=0):
        self.data_type, self.version, self.subversion = data_type, version, subversion
        self.fields, self.parts, self.packet, self.rows = fields, parts, packet, rows

    def __str__(self):
        return f"{TYPE_NAMES[self.data_type]} {self.version}.{self.subversion or '-'}"

    def code(self, kind):
        wide = {"bin": f"{self.rows}Q", "id": f"{self.rows}H", "len": f"{self.rows}B"}
        return wide.get(kind) or SPECIAL.get(kind) or kind

    def length_field(self, part):
        if self.data_type == SYSLOG and self.version == 6:
            return "data_len"
        return f"{part}_len"

    def build(self, values, third_party=0, channel=0):
        """The unit of the values; lengths are taken from the parts, absent fields are zero."""
        values = dict(values)
        for part in self.parts:
            values[self.length_field(part)] = len(values.get(part, b""))
        packet = values.get("packet", b"")
        if self.packet:
            values["packet_len"] = len(packet)
        rows = list(values.get("rows", [b""] * self.rows))
        values["userdatalen"] = [len(row) for row in rows]
        if "nadver" in dict(self.fields):
            values["nadver"] = self.version
        block = b"".join(self._pack(kind, values.get(name)) for name, kind in self.fields)
        texts = [values.get(part, b"") for part in self.parts]
        parts = b"".join(texts + rows) + packet
        return self._head(third_party, channel) + self._wire(block) + parts

    def _head(self, third_party, channel):
        if self.version == 6:
            return header(self.data_type, self.subversion - 1, third_party, channel)
        return MAGIC

    def _wire(self, block):
        if self.data_type == ALERT and 3 <= self.version <= 5:
            return block[:1] + b"\0" + block[1:]
        return block

    def _pack(self, kind, value):
        code = "<" + self.code(kind)
        if code.endswith("s"):
            return struct.pack(code, value or b"")
        if kind in ("bin", "id", "len"):
            return struct.pack(code, *(value or [0] * self.rows))
        return struct.pack(code, value or 0)


def alert_texts(version):
    return ALERT_TEXTS[:1] if version == 1 else ALERT_TEXTS[:6] if version < 4 else ALERT_TEXTS


def all_bodies():
    """Every record type, version and sub-version of the wire."""
    bodies = [Body(ALERT, v, 0, ALERT_LEGACY, alert_texts(v), True) for v in range(1, 6)]
    bodies.append(Body(ALERT, 6, 1, ALERT_V1, ALERT_TEXTS, True))
    bodies.append(Body(ALERT, 6, 2, ALERT_V2, ["message"], True, 10))
    bodies.append(Body(ALERT, 6, 3, [("flow_id", "Q")] + ALERT_V2, ["message"], True, 10))
    for v in range(3, 6):
        bodies.append(Body(FLOW, v, 0, FLOW_LEGACY))
        bodies.append(Body(SYSLOG, v, 0, SYSLOG_LEGACY, ["message"]))
        bodies.append(Body(WINDOWS, v, 0, WINDOWS_LEGACY,
                           ["source", "host", "usersid", "message", "strings"]))
    bodies.append(Body(FLOW, 6, 1, FLOW_V1))
    bodies.append(Body(FLOW, 6, 2, flow_rows("hex2"), rows=5))
    bodies.append(Body(FLOW, 6, 3, flow_rows("hex8"), rows=7))
    bodies += [Body(SYSLOG, 6, s, SYSLOG_V6, ["message"]) for s in range(1, 4)]
    bodies += [Body(WINDOWS, 6, s, [("data_len", "I")], ["text"]) for s in range(1, 4)]
    for body in bodies:
        if body.data_type == WINDOWS and body.version == 6:
            body.length_field = lambda part: "data_len"
    return bodies


def shown(kind, value):
    """What the Receiver prints for a field of this kind."""
    if kind == "mac":
        return ":".join(f"{b:02x}" for b in value)
    if kind == "ip4":
        return str(ipaddress.IPv4Address(value))
    if kind in ("ip6", "either"):
        if kind == "either" and value[:12] == bytes(12):
            return str(ipaddress.IPv4Address(struct.unpack("<I", value[12:])[0]))
        return value
    if kind.startswith("hex"):
        return value.hex()
    return value


def address_bytes(text):
    """An IPv6 text as the bytes that travelled."""
    return ipaddress.IPv6Address(text).packed


def bytes_of(line, name):
    """A text member byte for byte."""
    if f"{name}_base64" in line:
        return base64.b64decode(line[f"{name}_base64"])
    return line[name].encode()


def wait_for(condition, what, budget=BUDGET_SECONDS):
    end = time.monotonic() + budget
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {budget} s in vain for: {what}")
        time.sleep(0.01)


class Receiver:
    """A running ruv_receiver whose lines a thread collects."""

    def __init__(self, folder, *options):
        self.lines, self.broken = [], []
        self._changed = threading.Condition()
        self.errors = Path(folder) / f"receiver-{time.monotonic_ns()}.err"
        with open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(
                [BUILD / "bin/ruv_receiver", "--print-port", *map(str, options)],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors)
        first = self.process.stdout.readline().strip()
        if not first.isdigit():
            raise AssertionError(f"no port but {first!r}: {self.errors.read_text()}")
        self.port = int(first)
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        for raw in self.process.stdout:
            line = json.loads(raw)
            with self._changed:
                self.lines.append(line)
                self._changed.notify_all()

    def named(self, member):
        """The lines that have this member."""
        with self._changed:
            return [line for line in self.lines if member in line]

    def wait(self, member, count=1):
        return wait_for(lambda: len(self.named(member)) >= count and self.named(member),
                        f"{count} lines with '{member}', have {self.lines[-3:]}")

    def stop(self, sig=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(sig)
        return self.finish()

    def finish(self):
        """Waits for the end and returns the exit status."""
        try:
            status = self.process.wait(BUDGET_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        self._thread.join(BUDGET_SECONDS)
        self.process.stdout.close()
        return status

    def totals(self):
        """The totals after the end, wherever they were printed."""
        if self.named("totals"):
            return self.named("totals")[0]
        lines = [l for l in self.errors.read_text().splitlines() if l.startswith('{"totals"')]
        return json.loads(lines[0])


class Client:
    """One connection, plain or TLS."""

    def __init__(self, receiver, tls=False):
        self.socket = socket.create_connection(("127.0.0.1", receiver.port), BUDGET_SECONDS)
        if tls:
            self.start_tls()

    def start_tls(self, version=None, cert=None):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        context.set_ciphers("ALL:@SECLEVEL=0")
        if version:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore", DeprecationWarning)  # the old ones are the point
                context.minimum_version = context.maximum_version = version
        if cert:
            context.load_cert_chain(*cert)
        self.socket = context.wrap_socket(self.socket, suppress_ragged_eofs=True)

    def send(self, data):
        self.socket.sendall(data)

    def take(self, count):
        """Exactly so many bytes, fewer at the end of the stream."""
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                break
            data += piece
        return data

    def ask(self, unit, count=8):
        self.send(unit)
        return self.take(count)

    def confirm(self):
        """Sends a NOP and takes its answer: everything before it has been processed."""
        answer = self.ask(request(NOP))
        if answer != OKAY:
            raise AssertionError(f"NOP was answered with {answer!r}")

    def close(self):
        self.socket.close()


class ReceiverTest(unittest.TestCase):
    """A test with a folder of its own and any number of Receivers and clients."""

    def setUp(self):
        self.folder = Path(tempfile.mkdtemp(prefix="receiver-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def receiver(self, *options):
        receiver = Receiver(self.folder, *options)
        self.addCleanup(self.end, receiver)
        return receiver

    def end(self, receiver):
        """Whatever a test did to it, a Receiver still ends in order."""
        if receiver.process.poll() is None:
            self.assertEqual(receiver.stop(), 0)
        else:
            receiver.finish()

    def client(self, receiver, **options):
        client = Client(receiver, **options)
        self.addCleanup(client.close)
        return client

    def run_tool(self, name, *options, **settings):
        """Runs a tool to its end; returns (status, standard output, standard error)."""
        done = subprocess.run([BUILD / "bin" / name, *map(str, options)], check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=4 * BUDGET_SECONDS,
                              **({"stdin": subprocess.DEVNULL} | settings))
        return done.returncode, done.stdout.decode(), done.stderr.decode("utf-8", "replace")


def main():
    """Runs the tests of the calling file; a run of nothing but skips is told by its status."""
    result = unittest.main(exit=False, verbosity=1).result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(77 if result.testsRun == len(result.skipped) else 0)
