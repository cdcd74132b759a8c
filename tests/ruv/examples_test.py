"""The library's examples compile as their comments say, run, and send what they promise.

usage: examples_test.py LIBRARY_DIRECTORY CC CXX
"""
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
from pathlib import Path

from small_receiver import Receiver

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples" / "libruv"
LINES = [b"first", b"second line", b"not UTF-8: \xff\xfe"]


def run(*command, feed=b"", **options):
    result = subprocess.run([str(c) for c in command], input=feed, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, timeout=120, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(str(c) for c in command)}\n{result.stdout.decode()}")
    return result.stdout.decode()


def expect(what, found, wanted):
    if found != wanted:
        sys.exit(f"{what}: {found!r} is not {wanted!r}")


def make_certificate(directory):
    run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
        "-subj", "/CN=receiver.example", "-addext", "subjectAltName=DNS:receiver.example",
        "-days", "2", "-keyout", directory / "key.pem", "-out", directory / "cert.pem")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(directory / "cert.pem", directory / "key.pem")
    return context


def main():
    library, cc, cxx = sys.argv[1:]
    environment = dict(os.environ, LD_LIBRARY_PATH=library)
    flags = ("-Wall", "-Wextra", "-Werror", f"-I{ROOT}", f"-L{library}")
    work = Path(tempfile.mkdtemp(prefix="ruv_examples_"))
    try:
        c_program, cxx_program = work / "send_lines", work / "send_alerts"
        run(cc, "-std=c99", *flags, EXAMPLES / "send_lines.c", "-lruv", "-o", c_program)
        run(cxx, "-std=c++17", *flags, EXAMPLES / "send_alerts.cpp", "-lruv", "-o", cxx_program)
        feed = b"\n".join(LINES) + b"\n\n"

        receiver = Receiver()
        address = ("127.0.0.1", receiver.port)
        expect("C", run(c_program, *address, feed=feed, env=environment), "3 events sent\n")
        expect("C", receiver.wait(3), LINES)
        expect("source", receiver.sources, [(1, bytes([7, 2, 0, 192]))])

        receiver.events.clear()
        expect("C++", run(cxx_program, *address, env=environment), "10 alerts confirmed\n")
        expect("C++", receiver.wait(10),
               [f"login refused, try {i}".encode() for i in range(1, 11)])

        script = (sys.executable, EXAMPLES / "send_lines.py")
        receiver.events.clear()
        expect("Python", run(*script, *address, feed=feed, env=environment), "3 events sent\n")
        expect("Python", receiver.wait(3), LINES)

        secret = Receiver(make_certificate(work))
        expect("Python, TLS", run(*script, "127.0.0.1", secret.port, work / "cert.pem",
                                  "receiver.example", feed=feed, env=environment),
               "3 events sent\n")
        expect("Python, TLS", secret.wait(3), LINES)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
