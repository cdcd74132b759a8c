"""Every record of the wire, field by field: what was packed is what is printed."""
import random
import struct

import kit_path  # noqa: F401
from receiver_kit import (ALERT, SYSLOG, TYPE_NAMES, WINDOWS, Body, ReceiverTest, address_bytes,
                          all_bodies, bytes_of, header, main, shown, syslog)

CATALOGUE = b"""[one]
UserField.ID=300
UserField.Name=Box
UserField.UDFldE=8
UserField.UDFldF=2
UserFieldUse.Offset=0
UserFieldUse.Name=Temp
UserFieldUse.FldType=int8
[two]
UserField.ID=300
UserField.Name=Box
UserField.UDFldE=8
UserField.UDFldF=2
UserFieldUse.Offset=8
UserFieldUse.Name=Port
UserFieldUse.FldType=port
[three]
UserField.ID=300
UserField.Name=Box
UserField.UDFldE=8
UserField.UDFldF=2
UserFieldUse.Offset=24
UserFieldUse.Name=Open
UserFieldUse.FldType=boolean
[four]
UserField.ID=301
UserField.Name=Lab
UserField.UDFldE=9
UserField.UDFldF=3
UserFieldUse.Offset=0
UserFieldUse.Name=Note
UserFieldUse.FldType=string
[five]
UserField.ID=302
UserField.Name=Lab
UserField.UDFldE=10
UserField.UDFldF=4
UserFieldUse.Offset=0
UserFieldUse.Name=Ratio
UserFieldUse.FldType=float
[six]
UserField.ID=303
UserField.Name=Lab
UserField.UDFldE=1
UserField.UDFldF=5
UserFieldUse.Offset=16
UserFieldUse.Name=Share
UserFieldUse.FldType=float4
[last line without an end, never read
"""


def random_value(dice, body, kind):
    code = body.code(kind)
    if code.endswith("s"):
        return dice.randbytes(int(code[:-1]))
    if kind in ("bin", "id", "len"):
        limit = {"Q": 64, "H": 16, "B": 8}[code[-1]]
        return [dice.getrandbits(limit) for _ in range(body.rows)]
    return dice.getrandbits(8 * struct.calcsize("<" + code))


def filled(dice, body):
    """Values for every field and every variable part."""
    values = {name: random_value(dice, body, kind) for name, kind in body.fields}
    if "nadtype" in values:
        values["nadtype"] = {"flow": 4, "syslog": 5, "windows": 1}[TYPE_NAMES[body.data_type]]
    if body.data_type == WINDOWS:
        values["data_len"] = 0
    for length in [n for n in values if n.endswith("_len")]:
        values[length] = 0
    for part in body.parts:
        values[part] = dice.randbytes(dice.choice((0, 1, 40, 255)))
    values["packet"] = dice.randbytes(dice.choice((0, 1, 1500, 8000)))
    values["rows"] = [dice.randbytes(dice.choice((0, 3, 255))) for _ in range(body.rows)]
    return values


class Decode(ReceiverTest):
    def check_field(self, line, name, kind, value):
        if kind in ("bin", "id", "len"):
            self.assertEqual(line[name], value)
        elif isinstance(shown(kind, value), bytes):
            self.assertEqual(address_bytes(line[name]), shown(kind, value), name)
        else:
            self.assertEqual(line[name], shown(kind, value), name)

    def check_line(self, line, body, values):
        self.assertEqual(line["record"], TYPE_NAMES[body.data_type])
        self.assertEqual(line["version"], body.version)
        if body.version == 6:
            self.assertEqual(line["ruv_data_ver"], body.subversion - 1)
            self.assertEqual((line["third_party_type"], line["dsidchanid"]), (77, 65535))
        for name, kind in body.fields:
            if name in line and not name.endswith("_len") and name not in (
                    "nadver", "userdatalen", "win_ver"):
                self.check_field(line, name, kind, values[name])
        for part in body.parts:
            self.assertEqual(bytes_of(line, part), values[part], part)
            self.assertEqual(line[body.length_field(part)], len(values[part]))
        if body.packet:
            self.assertEqual(bytes.fromhex(line["packet"]), values["packet"])
        self.assertEqual([bytes_of(row, "text") for row in line.get("userdata", [])],
                         values["rows"])

    def test_every_body_with_random_content(self):
        dice = random.Random(20)
        receiver = self.receiver()
        client = self.client(receiver)
        sent = []
        for _ in range(20):
            for body in all_bodies():
                values = filled(dice, body)
                if body.data_type == WINDOWS and body.version == 6:
                    values["text"] = b"||".join([b"x"] * 11 + [b"0", b"end"])
                sent.append((body, values))
                client.send(body.build(values, third_party=77, channel=65535))
        client.confirm()
        lines = receiver.wait("record", len(sent))
        self.assertEqual(len(lines), len(sent))
        for line, (body, values) in zip(lines, sent):
            with self.subTest(body=str(body)):
                self.check_line(line, body, values)

    def test_all_fields_of_a_version_are_printed(self):
        """Fields that a version does not fill are left out, all others are there."""
        late = {"src_usrname_len": 2, "dst_usrname_len": 2, "appname_len": 2, "hostname_len": 2,
                "domainname_len": 2, "ipv6_dsip": 3, "dsip": 3, "session_id": 4, "norm_sigid": 4,
                "sequence": 4, "trusted": 4, "sig_generator": 4, "commandname_len": 4,
                "objectname_len": 4}
        receiver = self.receiver()
        client = self.client(receiver)
        for body in all_bodies():
            client.send(body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type)}))
        client.confirm()
        for body, line in zip(all_bodies(), receiver.wait("record", len(all_bodies()))):
            for name, _ in body.fields:
                wanted = body.data_type != ALERT or late.get(name, 0) <= body.version
                self.assertEqual(name in line, wanted, f"{body}: {name}")

    def test_windows_text_is_taken_apart(self):
        text = (b"10.0.0.9||Security||7||Source||4624||61||0||4||host||user||cat||2||one||two||"
                b"the message || with a bar")
        receiver = self.receiver()
        client = self.client(receiver)
        body = Body(WINDOWS, 6, 1, [("data_len", "I")], ["text"])
        body.length_field = lambda part: "data_len"
        client.send(body.build({"text": text}))
        client.send(body.build({"text": b"no bars at all"}))
        client.confirm()
        line, short = receiver.wait("record", 2)
        self.assertEqual(line["text"], text.decode())
        self.assertEqual([line[n] for n in ("address", "log_file", "rec_num", "source_name",
                                            "eventid", "win_ver", "colltime", "eventtype",
                                            "hostname", "user", "category", "num_istrings")],
                         "10.0.0.9 Security 7 Source 4624 61 0 4 host user cat 2".split())
        self.assertEqual([s["text"] for s in line["istrings"]], ["one", "two"])
        self.assertEqual(line["message"], "the message || with a bar")
        self.assertEqual((short["address"], short["message"], short["istrings"]),
                         ("no bars at all", "", []))

    def test_custom_fields_by_their_names(self):
        catalogue = self.folder / "fields"
        catalogue.write_bytes(CATALOGUE)
        receiver = self.receiver("--catalogue", catalogue)
        client = self.client(receiver)
        alert = next(b for b in all_bodies() if str(b) == "alert 6.2")
        flow = next(b for b in all_bodies() if str(b) == "flow 6.3")
        packed = struct.pack(">bHB", -5 + 128 - 256 if -5 + 128 > 127 else -5 + 128, 443, 0x80)
        box = int.from_bytes(packed.ljust(8, b"\0"), "big")
        ratio = struct.unpack(">Q", struct.pack(">d", -0.5))[0] ^ 1 << 63
        share = struct.unpack(">I", struct.pack(">f", 2.5))[0] ^ 1 << 31
        rows = {7: (300, box, b""), 8: (301, 0, b"note \xff"), 9: (302, ratio, b""),
                0: (303, share << 16, b"")}
        self._send_rows(client, alert, rows)
        self._send_rows(client, flow, {1: rows[7], 2: (301, 0, b"hi"), 3: (302, 0xFFF << 52, b""),
                                       4: (303, 0xFF800000 << 16, b"")})
        client.confirm()
        first, second = [line["custom"] for line in receiver.wait("record", 2)]
        self.assertEqual((first["Box.Temp"], first["Box.Port"], first["Box.Open"]),
                         (-5, 443, True))
        self.assertEqual(bytes_of(first, "Lab.Note"), b"note \xff")
        self.assertEqual((first["Lab.Ratio"], first["Lab.Share"]), (-0.5, 2.5))
        self.assertEqual((second["Lab.Note"], second["Lab.Ratio"], second["Lab.Share"]),
                         ("hi", 0, 0))

    def test_sizes_of_the_blocks(self):
        """The builder's own blocks have the documented sizes on the wire."""
        wanted = {"alert 1.-": 128, "alert 2.-": 128, "alert 3.-": 129, "alert 4.-": 129,
                  "alert 5.-": 129, "alert 6.1": 100, "alert 6.2": 216, "alert 6.3": 224,
                  "flow 3.-": 148, "flow 4.-": 148, "flow 5.-": 148, "flow 6.1": 128,
                  "flow 6.2": 204, "flow 6.3": 232, "syslog 3.-": 12, "syslog 4.-": 12,
                  "syslog 5.-": 12, "syslog 6.1": 8, "syslog 6.2": 8, "syslog 6.3": 8,
                  "windows 3.-": 62, "windows 4.-": 62, "windows 5.-": 62, "windows 6.1": 4,
                  "windows 6.2": 4, "windows 6.3": 4}
        head = {6: 16}
        self.assertEqual({str(b): len(b.build({})) - head.get(b.version, 8) for b in all_bodies()},
                         wanted)

    def test_custom_field_with_an_odd_name(self):
        catalogue = self.folder / "fields"
        catalogue.write_bytes(b'[x]\nUserField.ID=300\nUserField.Name="\\\xff\n'
                              b"UserField.UDFldE=8\nUserFieldUse.Offset=0\n"
                              b"UserFieldUse.FldType=uint8\n")
        receiver = self.receiver("--catalogue", catalogue)
        client = self.client(receiver)
        alert = next(b for b in all_bodies() if str(b) == "alert 6.2")
        self._send_rows(client, alert, {7: (300, 9 << 56, b"")})
        self.assertEqual(receiver.wait("record")[0]["custom"], {'"\\\xff': 9})

    def _send_rows(self, client, body, rows):
        empty = (0, 0, b"")
        columns = list(zip(*[rows.get(r, empty) for r in range(body.rows)]))
        client.send(body.build({"userdataid": columns[0], "userdatabin": columns[1],
                                "rows": columns[2]}))

    def test_text_without_loss(self):
        texts = [b"", bytes(range(256)), "grün \u20ac \U0001f600".encode(), b"\xc3",
                 b"\xed\xa0\x80", b"\xc0\x80", b"\xf4\x90\x80\x80", b"\xe0\x80\x80",
                 b'"\\\n\t\x7f', b"x" * 65535]
        receiver = self.receiver()
        client = self.client(receiver)
        for text in texts:
            client.send(syslog(text))
        client.confirm()
        lines = receiver.wait("record", len(texts))
        self.assertEqual([bytes_of(line, "message") for line in lines], texts)
        odd = ["message_base64" in line for line in lines]
        self.assertEqual(odd, [False, True, False, True, True, True, True, True, False, False])

    def test_bodiless_and_large_records(self):
        """A sub-version without a body is magic and header; a legacy message may be long."""
        receiver = self.receiver()
        client = self.client(receiver)
        client.send(header(ALERT, 3) + header(2, 4095))
        legacy = next(b for b in all_bodies() if str(b) == "syslog 5.-")
        long = bytes(random.Random(3).choices(b"abc", k=3_000_000))
        client.send(legacy.build({"nadtype": 5, "message": long[:200_000]}))
        client.send(legacy.build({"nadtype": 5, "message": long}))
        client.send(syslog(b"after"))
        client.confirm()
        lines = receiver.wait("record", 5)
        self.assertEqual([line["record"] for line in lines], ["alert", "flow"] + ["syslog"] * 3)
        self.assertNotIn("body", lines[0])
        self.assertEqual(lines[2]["message"], long[:200_000].decode())
        self.assertEqual(lines[3]["message"], long.decode())
        self.assertEqual(lines[4]["message"], "after")

    def test_cut_anywhere_the_same_lines(self):
        """A unit may arrive in any pieces."""
        dice = random.Random(4)
        units = []
        for body in all_bodies():
            units.append(body.build({"nadtype": {2: 4, 3: 5, 4: 1}.get(body.data_type),
                                     "message": b"piece", "text": b"1||2"}))
        stream = b"".join(units)
        path = self.folder / "stream"
        path.write_bytes(stream)
        status, wanted, _ = self.run_tool("ruv_receiver", "--read", path)
        self.assertEqual((status, wanted.count("\n")), (0, len(units)))
        receiver = self.receiver("--save", self.folder / "saved")
        client = self.client(receiver)
        at = 0
        while at < len(stream):
            step = dice.choice((1, 1, 2, 3, 7, 100))
            client.send(stream[at:at + step])
            at += step
        client.confirm()
        self.assertEqual(len(receiver.wait("record", len(units))), len(units))
        self.assertEqual(receiver.stop(), 0)
        saved = (self.folder / "saved").read_bytes()
        self.assertEqual(saved[:len(stream)], stream)
        status, again, _ = self.run_tool("ruv_receiver", "--read", self.folder / "saved")
        self.assertEqual((status, again), (0, wanted))

    def test_legacy_syslog_third_party(self):
        receiver = self.receiver("--generation", 5)
        client = self.client(receiver)
        body = Body(SYSLOG, 4, 0, [("nadver", "B"), ("nadtype", "B"), ("third_party_type", "H"),
                                   ("ipv4_src", "ip4"), ("message_len", "I")], ["message"])
        client.send(body.build({"nadtype": 5, "third_party_type": 513, "ipv4_src": 0x0A010203,
                                "message": b"hi"}))
        line = receiver.wait("record")[0]
        self.assertEqual((line["third_party_type"], line["ipv4_src"], line["message"]),
                         (513, "10.1.2.3", "hi"))


if __name__ == "__main__":
    main()
