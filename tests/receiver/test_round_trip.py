"""ruv_send against ruv_receiver: every record type, version and sub-version with every field that
its version knows, plain and under TLS. Sender and Receiver share no code for the wire."""
import base64
import ipaddress
import json
import random

import kit_path  # noqa: F401
from receiver_kit import ReceiverTest, all_bodies, bytes_of, main

ALL, LATE = range(1, 7), range(4, 7)
BUT_2, BUT_4 = (1, 3, 4, 5, 6), (1, 2, 3, 5, 6)

# setter, kind, record versions, name in the legacy body, name in the version-6 bodies.
# Texts of the row kind travel by name in the legacy body and in sub-version 1, and as a
# custom-field row after that.
FIELDS = {
    "alert": [
        ("session_id", 64, LATE, "session_id", "session_id"),
        ("src_mac", "mac", ALL, "src_mac", "src_mac"),
        ("dst_mac", "mac", ALL, "dst_mac", "dst_mac"),
        ("sigid", 32, ALL, "sig_id", "sigid"), ("norm_sigid", 32, LATE, "norm_sigid", "norm_sigid"),
        ("event_count", 32, ALL, "eventcount", "evntcnt"),
        ("src_ipv4", "ipv4", ALL, "sip", "sip4"), ("dst_ipv4", "ipv4", ALL, "dip", "dip4"),
        ("first_time", 32, ALL, "firsttime", "ftime"), ("last_time", 32, ALL, "lasttime", "ltime"),
        ("last_time_usec", 32, ALL, "lasttime_usec", "ltime_usec"),
        ("src_port", 16, ALL, "src_port", "sport"), ("dst_port", 16, ALL, "dst_port", "dport"),
        ("vlan", 16, ALL, "vlan", "vlan"), ("sequence", 16, LATE, "sequence", "sequence"),
        ("protocol", 8, ALL, "protocol", "protocol"), ("flow", 1, ALL, "flow", "flow"),
        ("action", 8, ALL, "action", "action"), ("severity", 100, ALL, "severity", "severity"),
        ("trusted", 8, BUT_4, "trusted", "trusted"),
        ("sig_generator", 8, BUT_4, "sig_generator", "sig_generator"),
        ("message", "text", ALL, "message", "message"),
        ("src_user", 6, BUT_2, "src_usrname", "src_usrname"),
        ("dst_user", 5, BUT_2, "dst_usrname", "dst_usrname"),
        ("application", 0, BUT_2, "appname", "appname"),
        ("hostname", 3, BUT_2, "hostname", "hostname"),
        ("domain", 2, BUT_2, "domainname", "domainname"),
        ("command", 1.0, BUT_4, "commandname", "commandname"),
        ("object", 4, LATE, "objectname", "objectname"),
        ("packet", "packet", ALL, "packet", "packet")],
    "flow": [
        ("src_mac", "mac", ALL, "src_mac", "src_mac"),
        ("dst_mac", "mac", ALL, "dst_mac", "dst_mac"),
        ("src_asn_geo", 64, ALL, "sourceasngeo", "srcasngeo"),
        ("dst_asn_geo", 64, ALL, "destasngeo", "dstasngeo"),
        ("flow_count", 32, ALL, "count", "cnt"),
        ("src_ipv4", "ipv4", ALL, "sip", "sip4"), ("dst_ipv4", "ipv4", ALL, "dip", "dip4"),
        ("first_time", 32, ALL, "firsttime", "ftime"), ("last_time", 32, ALL, "lasttime", "ltime"),
        ("last_time_usec", 32, ALL, "lasttime_usec", "ltime_usec"),
        ("src_port", 16, ALL, "sport", "sport"), ("dst_port", 16, ALL, "dport", "dport"),
        ("vlan", 16, ALL, "vlan", "vlan"), ("protocol", 8, ALL, "protocol", "protocol"),
        ("dst_bytes", 64, ALL, "destbytes", "dstbytes"),
        ("src_bytes", 64, ALL, "sourcebytes", "srcbytes"),
        ("dst_packets", 64, ALL, "destpackets", "dstpackets"),
        ("src_packets", 64, ALL, "sourcepackets", "srcpackets"),
        ("duration", 32, ALL, "duration", "duration"),
        ("duration_usec", 32, ALL, "duration_usec", "duration_usec"),
        ("iface_in", 16, ALL, "iface_in", "iface_in"),
        ("iface_out", 16, ALL, "iface_out", "iface_out")],
    "syslog": [
        ("message", "text", ALL, "message", "message"),
        ("collect_time", 32, [6], "data_time", "data_time"),
        ("3rd_party_type", 16, ALL, "third_party_type", "third_party_type")],
    "windows": [
        ("log_file", "name", [6], "", "log_file"), ("record_num", 32, [6], "", "rec_num"),
        ("source_name", "name", ALL, "source", "source_name"),
        ("event_id", 16, ALL, "eventid", "eventid"),
        ("gen_time", 32, ALL, "create_time", ""), ("event_type", 5, ALL, "eventtype", "eventtype"),
        ("hostname", "name", ALL, "host", "hostname"), ("user", "name", [6], "", "user"),
        ("category", "name", [6], "", "category"), ("message", "text", ALL, "message", "message")],
}

# Sent as zero by the two Flow bodies with rows, whatever the setters got.
KEPT_ZERO = ("session_id", "dir")
FLOW_V6_ONLY = [("conn_state", 8, "connstate"), ("tcp_flags", 8, "tcp_flags"),
                ("tos_src", 8, "tos_src")]


class Draft:
    """One record to be sent: the members of its line, and what must come out."""

    def __init__(self, dice, body, name):
        self.body, self.name, self.dice = body, name, dice
        self.line = {"type": name, "ver": body.version, "subver": body.subversion or 1}
        self.wanted, self.rows = {}, {}
        for field in FIELDS[name]:
            if body.version in field[2]:
                self.add(*field)
        getattr(self, f"finish_{name}")()

    def text(self, most):
        return self.dice.randbytes(self.dice.choice((1, 2, most)))

    def add(self, setter, kind, _versions, legacy, modern):
        out = modern if self.body.version == 6 else legacy
        if self.body.version < 4 and self.name == "alert" and setter in (
                "trusted", "sig_generator", "command"):
            out = ""  # accepted by the setter, but the older bodies do not carry it
        if self.body.version == 1 and self.name == "alert" and out.endswith("name"):
            out = ""
        if kind == "mac":
            value = shown = ":".join(f"{b:02x}" for b in self.dice.randbytes(6))
        elif kind == "ipv4":
            value = shown = str(ipaddress.IPv4Address(self.dice.randrange(1, 2**32)))
            if self.body.version == 6 and self.body.subversion == 1:
                out = out.rstrip("4")
        elif kind in ("text", "name", "packet") or self.is_row(setter):
            return self.add_bytes(setter, kind, out)
        elif setter in ("severity", "flow", "event_type"):
            value = shown = self.dice.randrange(kind + 1)
        else:
            value = shown = self.dice.getrandbits(kind)
        self.line[setter] = value
        if out:
            windows_text = self.name == "windows" and self.body.version == 6
            self.wanted[out] = str(shown) if windows_text else shown

    def is_row(self, setter):
        return self.name == "alert" and setter in (
            "src_user", "dst_user", "application", "hostname", "domain", "command", "object")

    def add_bytes(self, setter, kind, out):
        most = {"text": 255 if self.name == "alert" else 65000, "packet": 8000}.get(kind, 255)
        if self.name == "windows" and self.body.version == 6:
            most = 100
            value = self.text(most).replace(b"|", b"/")
        else:
            value = self.text(most)
        self.line[f"{setter}_base64"] = base64.b64encode(value).decode()
        if self.is_row(setter) and self.body.rows:
            self.rows[int(kind)] = value
        elif out:
            self.wanted[out] = value.hex() if kind == "packet" else value

    def finish_alert(self):
        if self.body.version == 6:
            self.line["3rd_party_type"] = self.wanted["third_party_type"] = 9000

    def finish_flow(self):
        for name in KEPT_ZERO[:1] if self.body.version == 6 else ():
            self.line[name] = 77
            if self.body.rows:
                self.wanted[name] = 0
        self.line["dir"] = 3
        self.wanted["dir"] = 0 if self.body.rows else 3
        for setter, bits, out in FLOW_V6_ONLY if self.body.version == 6 else ():
            self.line[setter] = self.dice.getrandbits(bits)
            if self.body.rows:
                self.wanted[out] = self.line[setter]

    def finish_syslog(self):
        pass

    def finish_windows(self):
        major, minor = self.dice.choice(((5, 0), (5, 1), (5, 2), (6, 0), (6, 1)))
        self.line["windows_ver"] = f"{major}.{minor}"
        strings = [f"string {n}" for n in range(self.dice.randrange(1, 34))]
        self.line["insertion_string"] = strings
        if self.body.version == 6:
            self.wanted.update(win_ver=f"{major}{minor}", num_istrings=str(len(strings)),
                               istrings=[{"text": s} for s in strings])
        else:
            self.wanted.update(win_ver_major=major, win_ver_minor=minor,
                               strings="".join(strings).encode())


class RoundTrip(ReceiverTest):
    def send_text(self, receiver, text, *options):
        """Gives ruv_send the text as its input; returns its standard error."""
        path = self.folder / "lines"
        path.write_text(text)
        with open(path, "rb") as stdin:
            status, out, err = self.run_tool("ruv_send", "--port", receiver.port, *options,
                                             stdin=stdin)
        self.assertEqual(status, 0, out + err)
        return err

    def send_json(self, receiver, lines, *options):
        return self.send_text(receiver, "".join(json.dumps(line) + "\n" for line in lines),
                              "--json", *options)

    def check(self, draft, line):
        self.assertEqual((line["record"], line["version"]), (draft.name, draft.body.version))
        if draft.body.version == 6:
            self.assertEqual(line["subversion"], draft.body.subversion)
        for name, value in draft.wanted.items():
            got = bytes_of(line, name) if isinstance(value, bytes) else line[name]
            self.assertEqual(got, value, name)
        for row, value in draft.rows.items():
            self.assertEqual(bytes_of(line["userdata"][row], "text"), value)
            self.assertEqual(line["userdataid"][row], row + 1)

    def drafts(self, rounds):
        dice = random.Random(rounds)
        names = {1: "alert", 2: "flow", 3: "syslog", 4: "windows"}
        # The library learns the legacy versions of Windows events from a Receiver that lists them.
        return [Draft(dice, body, names[body.data_type])
                for _ in range(rounds) for body in all_bodies()]

    def round_trip(self, receiver_options, *options, rounds=5):
        receiver = self.receiver(*receiver_options)
        drafts = self.drafts(rounds)
        err = self.send_json(receiver, [draft.line for draft in drafts], *options)
        self.assertEqual(err, "")
        lines = receiver.wait("record", len(drafts))
        self.assertEqual(receiver.stop(), 0)
        self.assertEqual(len(lines), len(drafts))
        for draft, line in zip(drafts, lines):
            with self.subTest(body=str(draft.body)):
                self.check(draft, line)

    def test_plain(self):
        self.round_trip([])

    def test_tls_from_the_first_byte(self):
        self.round_trip(["--tls", "always"], "--tls", "always")

    def test_tls_on_request(self):
        self.round_trip(["--tls", "request"], "--tls", "request")

    def test_groups(self):
        receiver = self.receiver()
        drafts = [d for d in self.drafts(3) if d.body.version == 6]
        err = self.send_json(receiver, [draft.line for draft in drafts], "--group", 7)
        self.assertEqual(err, "")
        for draft, line in zip(drafts, receiver.wait("record", len(drafts))):
            self.check(draft, line)

    def test_data_sources(self):
        """Version 6 sends the channel id of the source, the legacy bodies its address."""
        receiver = self.receiver()
        lines = [{"ver": 6, "hostid": "web1"}, {"ver": 6, "ipv4": "10.1.2.3"},
                 {"ver": 6, "ipv6": "2001:db8::7"}, {"ver": 4, "ipv4": "10.1.2.3"},
                 {"ver": 5, "type": "flow", "ipv6": "2001:db8::7", "src_port": 1},
                 {"ver": 5, "type": "windows", "ipv4": "10.9.8.7", "event_id": 1},
                 {"ver": 3, "type": "alert", "ipv4": "10.9.8.7", "severity": 1},
                 {"ver": 6, "type": "windows", "ipv4": "10.9.8.7", "event_id": 1},
                 {"ver": 6, "hostid": "web1"}]
        for line in lines:
            if line.get("type", "syslog") == "syslog":
                line["message"] = "m"
        self.send_json(receiver, lines)
        got = receiver.wait("record", len(lines))
        self.assertEqual([(l.get("source_kind"), l.get("source")) for l in got[:3]],
                         [("HostID", "web1"), ("IPv4", "10.1.2.3"), ("IPv6", "2001:db8::7")])
        self.assertEqual(got[3]["ipv4_src"], "10.1.2.3")
        self.assertEqual(got[4]["data_source_address"], "2001:db8::7")
        self.assertEqual(got[5]["data_source_address"], "10.9.8.7")
        self.assertEqual(got[6]["data_source_address"], "10.9.8.7")
        self.assertEqual(got[7]["address"], "10.9.8.7")
        self.assertEqual(got[8]["dsidchanid"], got[0]["dsidchanid"])

    def test_ipv6_addresses(self):
        """What was set, what the library dumps and what arrives are the same text."""
        receiver = self.receiver()
        lines = [{"type": t, "ver": v, "subver": s, "src_ipv6": "2001:db8::1",
                  "dst_ipv6": "fe80::2"}
                 for t in ("alert", "flow") for v, s in ((5, 1), (6, 1), (6, 2), (6, 3))]
        err = self.send_json(receiver, lines, "--logging", "0x10")
        # A Flow of version 6 sub-version 2 has no dump.
        self.assertEqual(err.count("\tSIPv6 = 2001:db8::1\n\tDIPv6 = fe80::2\n"), 7, err)
        for line in receiver.wait("record", 8):
            name = {(6, 1): "sip", (6, 2): "sip6", (6, 3): "sip6"}.get(
                (line["version"], line.get("subversion")), "source_address")
            self.assertEqual(line[name], "2001:db8::1")
            if name == "sip6":
                self.assertEqual((line["sip4"], line["dip6"]), ("0.0.0.0", "fe80::2"))

    def test_third_party_type_is_that_of_its_line(self):
        """The library's reset keeps the type; a line without one has none all the same."""
        receiver = self.receiver()
        kinds = [("alert", 6, 2), ("syslog", 5, 1), ("syslog", 6, 2)]
        lines = [{"type": t, "ver": v, "subver": s, **extra,
                  **({"severity": 1} if t == "alert" else {"message": "m"})}
                 for extra in ({}, {"3rd_party_type": 9000}, {}, {"3rd_party_type": 7}, {})
                 for t, v, s in kinds]
        self.send_json(receiver, lines)
        self.assertEqual([line["third_party_type"] for line in receiver.wait("record", 15)],
                         [0] * 3 + [9000] * 3 + [0] * 3 + [7] * 3 + [0] * 3)

    def test_custom_fields(self):
        """Every type of custom field arrives under its name with its value."""
        types = [("string", "text \u20ac"), ("boolean", 1), ("int8", -7), ("uint8", 200),
                 ("int16", -30000), ("uint16", 60000), ("int32", -2000000000),
                 ("uint32", 4000000000), ("int64", -2**62), ("uint64", 2**64 - 1),
                 ("ipv4", "10.0.0.9"), ("protocol", 17), ("port", 514), ("float4", 1.5),
                 ("float", -0.25)]
        catalogue = self.folder / "fields"
        sections = [f"[{n}]\nUserField.ID={100 + n}\nUserField.Name=F\nUserField.UDFldE=10\n"
                    f"UserField.UDFldF=6\nUserFieldUse.Offset=0\nUserFieldUse.Name={t}\n"
                    f"UserFieldUse.FldType={t}\n" for n, (t, _) in enumerate(types)]
        catalogue.write_text("".join(sections))
        receiver = self.receiver("--catalogue", catalogue)
        lines = [{"type": t, "ver": 6, "subver": 3, needed: 1, f"custom:F.{name}:{name}": value}
                 for t, needed in (("alert", "severity"), ("flow", "src_port"))
                 for name, value in types]
        self.send_json(receiver, lines)
        got = [line["custom"] for line in receiver.wait("record", len(lines))]
        wanted = [{f"F.{name}": True if name == "boolean" else value} for name, value in types]
        self.assertEqual(got, wanted + wanted)

    def test_older_generation(self):
        """ruv_send asked for it talks to a Receiver that answers nothing at all."""
        receiver = self.receiver("--generation", 5)
        self.send_text(receiver, "first\nsecond\n", "--generation", 5, "--ver", 5, "--lines",
                       "--ipv4", "10.0.0.5")
        got = receiver.wait("record", 2)
        self.assertEqual([(l["version"], l["message"], l["ipv4_src"]) for l in got],
                         [(5, "first", "10.0.0.5"), (5, "second", "10.0.0.5")])


if __name__ == "__main__":
    main()
