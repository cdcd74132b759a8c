"""The Wireshark dissector, headless: what ruv_send said is what tshark shows."""
import json
import os
import shutil
import socket
import ssl
import struct
import subprocess

import kit_path  # noqa: F401
from captures import CLIENT, RECEIVER, Capture, Recorder, join
from receiver_kit import (MAGIC, NOTOKAY, OKAY, ROOT, ReceiverTest, all_bodies, header, main,
                          request, syslog)

SCRIPT = ROOT / "tools/wireshark/ruv.lua"
PORT = Capture.RECEIVER_PORT

CATALOGUE = "".join(
    f"[{n}]\nUserField.ID={100 + n}\nUserField.Name=F\nUserField.UDFldE=10\nUserField.UDFldF=6\n"
    f"UserFieldUse.Offset={8 if t == 'int8' else 0}\nUserFieldUse.Name={t}\n"
    f"UserFieldUse.FldType={t}\n"
    for n, t in enumerate(["string", "boolean", "int8", "uint16", "uint32", "int64", "uint64",
                           "ipv4", "float4", "float"]))
CUSTOM = {"string": "text", "boolean": 1, "int8": -7, "uint16": 60000, "uint32": 4000000000,
          "int64": -2**62, "uint64": 2**64 - 1, "ipv4": "10.0.0.9", "float4": 1.5, "float": -0.25}

RECORDS = [
    {"type": "syslog", "ver": v, "ipv4": "10.1.2.3", "message": f"syslog {v}"} for v in (3, 5, 6)
] + [
    {"type": "alert", "ver": v, "subver": s, "ipv4": "10.1.2.3", "severity": 40 + v,
     "src_ipv4": "192.0.2.1", "dst_ipv6": "2001:db8::7", "src_mac": "02:00:00:00:00:0a",
     "message": "knock", "packet_hex": "deadbeef"}
    for v, s in ((1, 1), (2, 1), (3, 1), (5, 1), (6, 1), (6, 2), (6, 3))
] + [
    {"type": "flow", "ver": v, "subver": s, "ipv4": "10.1.2.3", "src_port": 1024 + s,
     "src_bytes": 2**63, "dst_ipv4": "192.0.2.9"}
    for v, s in ((3, 1), (6, 1), (6, 2), (6, 3))
] + [
    {"type": "windows", "ver": v, "ipv4": "10.1.2.3", "event_id": 4624, "message": "logon",
     "insertion_string": ["one", "two"]} for v in (4, 6)
] + [
    {"type": "alert", "ver": 6, "subver": 3, "ipv4": "10.1.2.3", "severity": 1,
     f"custom:F.{name}:{name}": value} for name, value in CUSTOM.items()
]


class Dissector(ReceiverTest):
    def tshark(self, capture, *options):
        """Runs tshark with the dissector; returns its output and fails on any Lua error."""
        environment = dict(os.environ, HOME=str(self.folder), XDG_CONFIG_HOME=str(self.folder))
        done = subprocess.run(
            ["tshark", "-n", "-X", f"lua_script:{SCRIPT}", "-r", capture, *map(str, options)],
            check=False, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, timeout=250)
        out, err = done.stdout.decode("utf-8", "replace"), done.stderr.decode("utf-8", "replace")
        self.assertEqual(done.returncode, 0, err)
        for text in (out, err):
            self.assertNotRegex(text, r"(?i)lua error|\.lua:\d+:|out of bounds|bad argument")
        return out

    def fields(self, capture, names, where="ruv", *options):
        """The values of the fields in each frame that passes the filter."""
        out = self.tshark(capture, "-Y", where, "-T", "fields", "-E", "separator=/t",
                          *[word for name in names for word in ("-e", name)], *options)
        return [line.split("\t") for line in out.splitlines()]

    def record(self, lines, receiver_options=(), *options):
        """What ruv_send and a Receiver said to each other about these records."""
        receiver = self.receiver(*receiver_options)
        recorder = Recorder(self, receiver.port)
        path = self.folder / "lines"
        path.write_text("".join(json.dumps(line) + "\n" for line in lines))
        with open(path, "rb") as stdin:
            status, out, err = self.run_tool("ruv_send", "--port", recorder.port, "--json",
                                             *options, stdin=stdin)
        self.assertEqual((status, err), (0, ""), out)
        return join(recorder.finish())

    def full_talk(self):
        catalogue = self.folder / "fields"
        catalogue.write_text(CATALOGUE)
        return self.record(RECORDS, ("--catalogue", catalogue, "--cid-base", 0),
                           "--receiver-version", "--is-known", "--ipv4", "10.1.2.3")

    def capture(self, talk, **options):
        path = self.folder / f"{len(os.listdir(self.folder))}.pcap"
        capture = Capture(path)
        capture.stream(talk, 40000, **options)
        capture.close()
        return path

    def test_requests_and_answers(self):
        path = self.capture(self.full_talk())
        for passes in ([], ["-2"]):
            names = ["frame.number", "ruv.request", "ruv.result", "ruv.request_in"]
            rows = self.fields(path, names, "ruv.request", *passes)
            asked = [r for r in rows if not r[2]]
            answers = [r for r in rows if r[2]]
            self.assertEqual([int(r[1]) for r in asked], [0, 2, 7, 6, 3, 8])
            self.assertEqual([r[1] for r in answers], [r[1] for r in asked])
            self.assertEqual([r[3] for r in answers], [r[0] for r in asked])
            self.assertEqual({r[2] for r in answers}, {"OKAY"})
        found = self.fields(path, ["ruv.answer_in"], "ruv.request && !ruv.result", "-2")
        self.assertEqual([r[0] for r in found], [r[0] for r in answers])
        shown = self.fields(path, ["ruv.receiver.major", "ruv.receiver.patch",
                                   "ruv.receiver.buildstamp"], "ruv.receiver.major")
        self.assertEqual(shown, [["9", "a1", "20240131120000"]])
        self.assertEqual(self.fields(path, ["ruv.source"], "ruv.source_kind"), [["10.1.2.3"]])
        self.assertEqual(self.fields(path, ["ruv.channel_id"], "ruv.channel_id"), [["0"]])
        self.assertEqual(self.fields(path, ["ruv.entries"], "ruv.entries"), [["35"]])

    def test_records(self):
        path = self.capture(self.full_talk(), segment=1 << 16)
        columns = "version subversion message severity packet src_mac".split()
        rows = []
        for values in self.fields(path, [f"ruv.{c}" for c in columns], "ruv.version", "-E",
                                  "aggregator=;"):
            rows.append(values)
        shown = [v for row in rows for v in row[0].split(";")]
        self.assertEqual(shown, [str(r["ver"]) for r in RECORDS])
        self.assertEqual(";".join(row[1] for row in rows if row[1]).split(";"),
                         [str(r.get("subver", 2)) for r in RECORDS if r["ver"] == 6])
        out = self.tshark(path, "-V", "-O", "ruv")
        for text in ("message: syslog 3", "message: syslog 6", "severity: 45", "packet: deadbeef",
                     "src_mac: 02:00:00:00:00:0a", "destination: 2001:db8::7", "sip: 192.0.2.1",
                     "sip4: 192.0.2.1", "dip6: 2001:db8::7",
                     "sport: 1025", "sourcebytes: 9223372036854775808",
                     "data_source: 10.1.2.3", "ipv4_src: 10.1.2.3", "strings: onetwo",
                     "eventid: 4624"):
            self.assertIn(text, out)
        self.assertIn("||4624||0||0||0||||||||2||one||two||logon", out)
        self.assertNotIn("belong to no unit", out)
        self.assertNotIn("cannot be meant", out)

    def test_ipv6_addresses(self):
        """A record's own travel as bytes, those of data sources as words; both read the same."""
        talk = self.record([{"type": "alert", "ver": v, "subver": s, "ipv6": "2001:db8:1::9",
                             "src_ipv6": "2001:db8::7:1", "dst_ipv6": "fe80::102:304:506:708"}
                            for v, s in ((5, 1), (6, 1), (6, 3))])
        out = self.tshark(self.capture(talk), "-V", "-O", "ruv")
        for text in ("data_source: 2001:db8:1::9", "Source: 2001:db8::7:1",
                     "destination: fe80::102:304:506:708", "sip: 2001:db8::7:1",
                     "dip: fe80::102:304:506:708", "sip6: 2001:db8::7:1",
                     "dip6: fe80::102:304:506:708", "Source: 2001:db8:1::9"):
            self.assertIn(text, out)

    def test_custom_fields_by_their_names(self):
        path = self.capture(self.full_talk())
        rows = self.fields(path, ["ruv.row.field"], "ruv.row.field", "-E", "aggregator=;")
        found = [v for row in rows for v in row[0].split(";")]
        wanted = [f"F.{name} = {'true' if name == 'boolean' else value}"
                  for name, value in CUSTOM.items()]
        self.assertEqual(found, wanted)

    def test_every_body(self):
        """Bodies straight from their layouts: every one is walked to its exact end."""
        units = [body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type), "message": b"m" * 9,
                             "text": b"t" * 7, "packet": b"p" * 11 if body.packet else b"",
                             "rows": [b"r" * n for n in range(body.rows)]})
                 for body in all_bodies()]
        path = self.capture([(CLIENT, b"".join(units) + request(0)), (RECEIVER, OKAY)])
        rows = self.fields(path, ["ruv.version"], "ruv.version", "-E", "aggregator=;")
        versions = [int(v) for row in rows for v in row[0].split(";")]
        self.assertEqual(versions, [body.version for body in all_bodies()])
        self.assertEqual(self.fields(path, ["ruv.request"], "ruv.result"), [["0"]])
        self.assertEqual(self.fields(path, ["frame.number"], "ruv.skipped"), [])

    def test_noise_and_refusals(self):
        talk = [(CLIENT, request(0) + b"noise" + syslog(b"good") + MAGIC + b"\x09" + request(4)),
                (RECEIVER, OKAY + NOTOKAY),
                (CLIENT, request(2) + request(7) + request(77)),
                (RECEIVER, OKAY + struct.pack("<i", -1) + OKAY + struct.pack("<i", 2**31 - 1) +
                 OKAY + b"more than asked for")]
        path = self.capture(talk)
        self.assertEqual(self.fields(path, ["ruv.skipped"], "ruv.skipped", "-E", "aggregator=;"),
                         [[b"noise".hex() + ";" + (MAGIC + b"\x09").hex()],
                          [b"more than asked for".hex()]])
        self.assertEqual(len(self.fields(path, ["frame.number"], "ruv.expert.refused")), 1)
        self.assertEqual(len(self.fields(path, ["frame.number"], "ruv.expert.absurd")), 1)
        long = bytearray(header(4, 0) + struct.pack("<I", 2**32 - 1) + b"abc")
        path = self.capture([(CLIENT, bytes(long) + request(0)), (RECEIVER, OKAY)])
        self.assertEqual(len(self.fields(path, ["frame.number"], "ruv.expert.absurd")), 1)

    def test_found_without_help(self):
        """The magic is enough; other streams are left alone."""
        path = self.folder / "mixed.pcap"
        capture = Capture(path)
        capture.stream([(CLIENT, b"GET / HTTP/1.0\r\n\r\n"), (RECEIVER, b"OKAY\0\0\0\0")], 41000)
        capture.stream([(CLIENT, request(0)), (RECEIVER, OKAY), (CLIENT, syslog(b"a"))], 41001)
        capture.close()
        rows = self.fields(path, ["tcp.srcport", "tcp.dstport"])
        self.assertEqual([set(map(int, r)) for r in rows], [{41001, PORT}] * 3)

    def test_tls_after_the_request(self):
        talk = self.record([RECORDS[2]], ("--tls", "request"), "--tls", "request")
        path = self.capture(talk)
        self.assertEqual(self.fields(path, ["ruv.request"], "ruv.result"), [["0"], ["1"]])
        hello = self.fields(path, ["tls.handshake.type"], "tls.handshake.type==1")
        self.assertEqual(len(hello), 1)

    def test_tls_with_the_keys(self):
        """With a key log the units inside show like plain ones, requests and answers too."""
        receiver = self.receiver("--tls", "always")
        recorder = Recorder(self, receiver.port)
        keys = self.folder / "keys"
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        context.maximum_version = ssl.TLSVersion.TLSv1_2
        context.keylog_filename = str(keys)
        with context.wrap_socket(socket.create_connection(("127.0.0.1", recorder.port), 60)) as tls:
            tls.sendall(request(0))
            self.assertEqual(tls.recv(8), OKAY)
            tls.sendall(syslog(b"inside") + request(6))
            self.assertEqual(tls.recv(24)[:8], OKAY)
        path = self.capture(recorder.finish())
        rows = self.fields(path, ["ruv.request", "ruv.message", "ruv.result"], "ruv", "-o",
                           f"tls.keylog_file:{keys}")
        self.assertEqual(rows, [["0", "", ""], ["0", "", "OKAY"], ["6", "inside", ""],
                                ["6", "", "OKAY"]])

    def test_cut_into_pieces(self):
        """However the segments fall, the same units come out, in the first pass and the second."""
        talk = self.full_talk()
        names = ["ruv.version", "ruv.request", "ruv.message", "ruv.result"]

        def flat(path, *options):
            rows = self.fields(path, names, "ruv", "-d", f"tcp.port=={PORT},ruv", "-E",
                               "aggregator=;", *options)
            return [[v for row in rows for v in row[i].split(";") if v] for i in range(4)]
        wanted = flat(self.capture(talk, segment=1 << 16))
        self.assertEqual(len(wanted[0]), len(RECORDS))
        for segment in (1, 7, 13, 100, 536):
            path = self.capture(talk, segment=segment)
            for passes in ([], ["-2"]):
                with self.subTest(segment=segment, passes=passes):
                    self.assertEqual(flat(path, *passes), wanted)

    def test_cut_at_every_byte(self):
        """Each unit and each answer, ended at every byte: no Lua error, and nothing invented."""
        cases = []
        for direction, data in self.full_talk():
            if direction == RECEIVER:
                cases.append([(CLIENT, cases[-1][0][1]), (RECEIVER, data)])
            else:
                cases += [[(CLIENT, MAGIC + unit)] for unit in data.split(MAGIC)[1:]]
        cases += [[(CLIENT, body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type)}))]
                  for body in all_bodies()]
        path = self.folder / "ends.pcap"
        capture = Capture(path)
        port, wanted = 1024, set()
        for case in cases:
            direction, data = case[-1]
            for cut in range(1, len(data) + 1):
                capture.stream(case[:-1] + [(direction, data[:cut])], port, segment=1 << 16,
                               bare=True)
                if cut == len(data) or direction == RECEIVER:
                    wanted.add(port)
                port += 1
        capture.close()
        self.assertLess(port, 65536)
        names = ["tcp.port", "ruv.version", "ruv.request", "ruv.result"]
        rows = self.fields(path, names, "ruv.version || ruv.request", "-d",
                           f"tcp.port=={PORT},ruv", "-E", "occurrence=f")
        # A unit is shown where it is whole, and only there; so is an answer.
        answered = [row for row in rows if row[3]]
        self.assertEqual({int(row[0]) for row in rows if not row[3]}, wanted)
        self.assertEqual(len(answered), sum(len(case) > 1 for case in cases))

    def test_short_captures(self):
        """A capture that keeps only the beginning of each packet."""
        talk = [(direction, data[:1400]) for direction, data in self.full_talk()]
        talk += [(CLIENT, body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type),
                                      "message": b"message"})) for body in all_bodies()]
        path = self.folder / "short.pcap"
        capture = Capture(path)
        for snap in range(55, 54 + 320):
            capture.snap = snap
            capture.stream(talk, 1024 + snap, segment=1400)
        capture.close()
        out = self.tshark(path, "-V", "-O", "ruv", "-d", f"tcp.port=={PORT},ruv")
        self.assertIn("Cut short by the capture", out)
        self.assertNotIn("Malformed", out)


def usable_tshark():
    """tshark with Lua, or the reason why there is none."""
    if not shutil.which("tshark"):
        return "tshark is not installed"
    version = subprocess.run(["tshark", "--version"], check=False, stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return "" if b"with Lua" in version else "this tshark has no Lua"


if __name__ == "__main__":
    reason = usable_tshark()
    if reason:
        print(f"skipped: {reason}")
        raise SystemExit(77)
    main()
