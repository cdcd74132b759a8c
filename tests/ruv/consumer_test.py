"""The installed tree serves its users: pkg-config, find_package, shared and static, C99 and C++.

usage: consumer_test.py BUILD_DIRECTORY CMAKE CC CXX
"""
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

MAGIC = bytes.fromhex("55aa55aacefaedfe")
OKAY = b"OKAY\0\0\0\0"
HERE = Path(__file__).resolve().parent


def run(*command, **options):
    result = subprocess.run([str(c) for c in command], text=True, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(str(c) for c in command)}\n{result.stdout}\n"
                 f"exit status {result.returncode}")
    return result.stdout


class Receiver:
    """Answers NOP and ReqDataVers and keeps the text of each Syslog record."""

    def __init__(self):
        self.events = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            peer, _ = self.listener.accept()
            with peer, peer.makefile("rb") as stream:
                while self.answer(peer, stream):
                    pass

    def answer(self, peer, stream):
        unit = stream.read(16)
        if len(unit) != 16 or unit[:8] != MAGIC:
            return False
        word = struct.unpack_from("<I", unit, 8)[0]
        kind, code = word >> 8 & 0xFFF, word >> 20
        if kind == 3:
            length = struct.unpack("<IHH", stream.read(8))[2]
            self.events.append(stream.read(length))
        elif code == 2:
            entries = [(6, 0, 0), (6, 0, 2), (6, 3, 0), (6, 3, 1)]
            peer.sendall(OKAY + struct.pack("<i", len(entries)) +
                         b"".join(struct.pack("<HHH26x", *e) for e in entries))
        else:
            peer.sendall(OKAY)
        return True

    def wait(self, count):
        for _ in range(3000):
            if len(self.events) >= count:
                break
            threading.Event().wait(0.01)
        return self.events


def main():
    build, cmake, cc, cxx = sys.argv[1:]
    work = Path(tempfile.mkdtemp(prefix="ruv_consumer_"))
    try:
        prefix = work / "prefix"
        for component in ("libruv1", "libruv-dev"):
            run(cmake, "--install", build, "--component", component, "--prefix", prefix)
        library = next(prefix.glob("lib*/**/libruv.so")).parent
        environment = dict(os.environ, LD_LIBRARY_PATH=str(library),
                           PKG_CONFIG_PATH=str(library / "pkgconfig"))
        flags = run("pkg-config", f"--define-variable=prefix={prefix}", "--cflags", "--libs", "ruv",
                    env=environment).split()
        static = run("pkg-config", f"--define-variable=prefix={prefix}", "--cflags", "--static",
                     "--libs", "ruv", env=environment).replace("-lruv", "-l:libruv.a").split()
        strict = ("-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror")
        source = HERE / "consumer" / "consumer.c"
        run(cc, *strict, source, "-o", work / "pc_shared", *flags)
        run(cc, *strict, source, "-o", work / "pc_static", *static)
        run(cxx, "-std=c++11", "-pedantic", "-Wall", "-Wextra", "-Werror",
            HERE / "consumer" / "consumer.cpp", "-o", work / "pc_cxx", *flags)
        run(cmake, "-S", HERE / "consumer", "-B", work / "cm", f"-DCMAKE_PREFIX_PATH={prefix}",
            f"-DCMAKE_C_COMPILER={cc}", f"-DCMAKE_CXX_COMPILER={cxx}")
        run(cmake, "--build", work / "cm")
        for program in (work / "pc_cxx", work / "cm" / "in_cxx"):
            run(program, env=environment)
        receiver = Receiver()
        senders = (work / "pc_shared", work / "pc_static", work / "cm" / "with_shared",
                   work / "cm" / "with_archive")
        for program in senders:
            run(program, receiver.port, env=environment)
        needed = run("readelf", "-d", work / "pc_static")
        if "libruv" in needed:
            sys.exit("the static program needs the shared library")
        if receiver.wait(len(senders)) != [b"sent by the consumer"] * len(senders):
            sys.exit(f"arrived: {receiver.events}")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
