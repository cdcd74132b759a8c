"""A TLS ClientHello as readable text, one fact a line and in the order of its bytes.

Everything that is new in each hello is only counted: the random bytes, the session identifier and
the key shares. The rest is told completely, so that two hellos of the same program are the same
text and any other difference shows.
"""
import socket
import struct
import time

VERSIONS = {0x0300: "SSL 3.0", 0x0301: "TLS 1.0", 0x0302: "TLS 1.1", 0x0303: "TLS 1.2",
            0x0304: "TLS 1.3"}
EXTENSIONS = {0: "server_name", 10: "supported_groups", 11: "ec_point_formats",
              13: "signature_algorithms", 16: "application_layer_protocol_negotiation",
              21: "padding", 22: "encrypt_then_mac", 23: "extended_master_secret",
              35: "session_ticket", 41: "pre_shared_key", 42: "early_data",
              43: "supported_versions", 45: "psk_key_exchange_modes", 49: "post_handshake_auth",
              50: "signature_algorithms_cert", 51: "key_share", 0xFF01: "renegotiation_info"}
GROUPS = {0x17: "secp256r1", 0x18: "secp384r1", 0x19: "secp521r1", 0x1D: "x25519", 0x1E: "x448",
          0x100: "ffdhe2048", 0x101: "ffdhe3072", 0x102: "ffdhe4096", 0x103: "ffdhe6144",
          0x104: "ffdhe8192"}
SIGNATURES = {
    0x0201: "rsa_pkcs1_sha1", 0x0202: "dsa_sha1", 0x0203: "ecdsa_sha1", 0x0301: "rsa_pkcs1_sha224",
    0x0302: "dsa_sha224", 0x0303: "ecdsa_sha224", 0x0401: "rsa_pkcs1_sha256",
    0x0402: "dsa_sha256", 0x0403: "ecdsa_secp256r1_sha256", 0x0501: "rsa_pkcs1_sha384",
    0x0502: "dsa_sha384", 0x0503: "ecdsa_secp384r1_sha384", 0x0601: "rsa_pkcs1_sha512",
    0x0602: "dsa_sha512", 0x0603: "ecdsa_secp521r1_sha512", 0x0804: "rsa_pss_rsae_sha256",
    0x0805: "rsa_pss_rsae_sha384", 0x0806: "rsa_pss_rsae_sha512", 0x0807: "ed25519",
    0x0808: "ed448", 0x0809: "rsa_pss_pss_sha256", 0x080A: "rsa_pss_pss_sha384",
    0x080B: "rsa_pss_pss_sha512"}
CIPHERS = {
    0x002F: "RSA AES128-CBC-SHA", 0x0033: "DHE-RSA AES128-CBC-SHA", 0x0035: "RSA AES256-CBC-SHA",
    0x0039: "DHE-RSA AES256-CBC-SHA", 0x003C: "RSA AES128-CBC-SHA256",
    0x003D: "RSA AES256-CBC-SHA256", 0x0067: "DHE-RSA AES128-CBC-SHA256",
    0x006B: "DHE-RSA AES256-CBC-SHA256", 0x009C: "RSA AES128-GCM-SHA256",
    0x009D: "RSA AES256-GCM-SHA384", 0x009E: "DHE-RSA AES128-GCM-SHA256",
    0x009F: "DHE-RSA AES256-GCM-SHA384", 0x00FF: "(secure renegotiation is understood)",
    0x1301: "AES128-GCM-SHA256", 0x1302: "AES256-GCM-SHA384", 0x1303: "CHACHA20-POLY1305-SHA256",
    0xC009: "ECDHE-ECDSA AES128-CBC-SHA", 0xC00A: "ECDHE-ECDSA AES256-CBC-SHA",
    0xC013: "ECDHE-RSA AES128-CBC-SHA", 0xC014: "ECDHE-RSA AES256-CBC-SHA",
    0xC023: "ECDHE-ECDSA AES128-CBC-SHA256", 0xC024: "ECDHE-ECDSA AES256-CBC-SHA384",
    0xC027: "ECDHE-RSA AES128-CBC-SHA256", 0xC028: "ECDHE-RSA AES256-CBC-SHA384",
    0xC02B: "ECDHE-ECDSA AES128-GCM-SHA256", 0xC02C: "ECDHE-ECDSA AES256-GCM-SHA384",
    0xC02F: "ECDHE-RSA AES128-GCM-SHA256", 0xC030: "ECDHE-RSA AES256-GCM-SHA384",
    0xCCA8: "ECDHE-RSA CHACHA20-POLY1305", 0xCCA9: "ECDHE-ECDSA CHACHA20-POLY1305",
    0xCCAA: "DHE-RSA CHACHA20-POLY1305"}


class Bytes:
    """Takes fields off the front; a field that is not there is an error."""

    def __init__(self, data):
        self.data = data

    def take(self, count):
        if len(self.data) < count:
            raise ValueError(f"{count} bytes wanted, {len(self.data)} left")
        taken, self.data = self.data[:count], self.data[count:]
        return taken

    def number(self, size):
        return int.from_bytes(self.take(size), "big")

    def block(self, size):
        """What follows a length of `size` bytes."""
        return Bytes(self.take(self.number(size)))

    def numbers(self, size):
        found = []
        while self.data:
            found.append(self.number(size))
        return found

    def end(self):
        if self.data:
            raise ValueError(f"{len(self.data)} bytes too many")


def named(table, number, width=4):
    return f"{number:0{width}x} {table.get(number, '?')}"


def describe_value(code, value):
    """The lines below an extension."""
    if code == 0:
        names = value.block(2)
        kind, name = names.number(1), names.block(2).data
        names.end()
        return [f"kind {kind}: {name.decode('ascii')}"]
    if code == 10:
        return [named(GROUPS, n) for n in value.block(2).numbers(2)]
    if code == 11:
        return [f"format {n}" for n in value.block(1).numbers(1)]
    if code in (13, 50):
        return [named(SIGNATURES, n) for n in value.block(2).numbers(2)]
    if code == 43:
        return [named(VERSIONS, n) for n in value.block(1).numbers(2)]
    if code == 45:
        return [f"mode {n}" for n in value.block(1).numbers(1)]
    if code == 51:
        shares, lines = value.block(2), []
        while shares.data:
            group = named(GROUPS, shares.number(2))
            lines.append(f"{group}: {len(shares.block(2).data)} bytes")
        return lines
    return ["empty"] if not value.data else [value.take(len(value.data)).hex()]


def describe(record_version, hello):
    """The text of a handshake message, header included."""
    whole = Bytes(hello)
    if whole.number(1) != 1:
        raise ValueError("the first handshake message is no ClientHello")
    body = whole.block(3)
    whole.end()
    lines = ["record version: " + named(VERSIONS, record_version),
             "hello version: " + named(VERSIONS, body.number(2))]
    lines.append(f"random: {len(body.take(32))} bytes")
    lines.append(f"session identifier: {len(body.block(1).data)} bytes")
    lines.append("cipher suites:")
    lines += ["  " + named(CIPHERS, n) for n in body.block(2).numbers(2)]
    lines.append("compression methods:")
    lines += [f"  {n:02x}" for n in body.block(1).numbers(1)]
    lines.append("extensions:")
    extensions = body.block(2) if body.data else Bytes(b"")
    body.end()
    while extensions.data:
        code = extensions.number(2)
        value = extensions.block(2)
        lines.append("  " + named(EXTENSIONS, code))
        lines += ["    " + line for line in describe_value(code, value)]
        value.end()
    return "\n".join(lines) + "\n"


def read_exactly(connection, count):
    data = b""
    while len(data) < count:
        part = connection.recv(count - len(data))
        if not part:
            raise EOFError(f"the stream ended after {len(data)} of {count} bytes")
        data += part
    return data


def read_hello(connection):
    """(version of the first record, the whole message) of what the other side says first."""
    message, version = b"", None
    while len(message) < 4 or len(message) < 4 + int.from_bytes(message[1:4], "big"):
        kind, record_version, length = struct.unpack(">BHH", read_exactly(connection, 5))
        if kind != 22:
            raise ValueError(f"a TLS record of type {kind}")
        version = record_version if version is None else version
        message += read_exactly(connection, length)
    return version, message


class Listener:
    """Listens on loopback and describes the hello of the first connection."""

    def __init__(self, budget):
        self.end = time.monotonic() + budget
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def hello(self, before=None):
        """`before` is called with the connection when plain text precedes the hello."""
        self.socket.settimeout(max(0.1, self.end - time.monotonic()))
        connection, _ = self.socket.accept()
        with connection:
            connection.settimeout(max(0.1, self.end - time.monotonic()))
            if before:
                before(connection)
            return describe(*read_hello(connection))
