#!/usr/bin/env python3
"""Verifies with readelf that binaries carry the hardening that the build has asked for.

binaries_test.py --want=pie,relro,... BINARY...        each binary has each property
binaries_test.py --compiler=CC --work=FOLDER           a program without any is found wanting
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile

SKIPPED = 77
ENDBR64 = b"\xf3\x0f\x1e\xfa"
# Each function that may be called through a pointer begins with the mark; a handful could be the
# start files' alone.
FEWEST_MARKS = 20


class Elf:
    def __init__(self, readelf, path):
        self.path = path
        self.readelf = readelf
        self.headers = self.run("-h", "-l")
        self.dynamic = self.run("-d")
        self.symbols = self.run("--dyn-syms")

    def run(self, *options):
        environment = dict(os.environ, LC_ALL="C")
        return subprocess.run([self.readelf, "-W", *options, self.path], check=True,
                              stdout=subprocess.PIPE, env=environment,
                              stdin=subprocess.DEVNULL).stdout.decode("utf-8", "replace")

    def segment(self, name):
        """The flags of a program header, or None when there is none of that name."""
        found = re.search(r"^\s*%s\s+(?:0x[0-9a-f]+\s+){5}([RWE ]{3})" % name, self.headers, re.M)
        return found.group(1) if found else None

    def section(self, name):
        found = re.search(r"\]\s+%s\s+\S+\s+[0-9a-f]+ ([0-9a-f]+) ([0-9a-f]+)" % re.escape(name),
                          self.run("-S"))
        with open(self.path, "rb") as file:
            file.seek(int(found.group(1), 16))
            return file.read(int(found.group(2), 16))

    def imports(self, pattern):
        return re.search(r" UND %s(@|\s|$)" % pattern, self.symbols, re.M) is not None


def is_pie(elf):
    return re.search(r"Type:\s+DYN ", elf.headers) is not None


def has_relro(elf):
    return elf.segment("GNU_RELRO") is not None


def binds_now(elf):
    return re.search(r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*\bNOW\b|\(BIND_NOW\)",
                     elf.dynamic) is not None


def has_plain_stack(elf):
    flags = elf.segment("GNU_STACK")
    return flags is not None and "E" not in flags


def has_canaries(elf):
    return elf.imports("__stack_chk_fail")


def is_fortified(elf):
    return elf.imports(r"__(?!stack_chk)\w+_chk")


def has_landing_marks(elf):
    """The note that would say so for the whole binary depends on the C library's start files,
    which not every distribution marks; the marks themselves are this project's own."""
    return elf.section(".text").count(ENDBR64) >= FEWEST_MARKS


CHECKS = {
    "pie": is_pie,
    "relro": has_relro,
    "now": binds_now,
    "noexecstack": has_plain_stack,
    "canaries": has_canaries,
    "fortify": is_fortified,
    "cet": has_landing_marks,
}


def check_binaries(readelf, wanted, paths):
    lacking = 0
    for path in paths:
        elf = Elf(readelf, path)
        missing = [name for name in wanted if not CHECKS[name](elf)]
        print("%s: %s" % (path, "lacks " + ", ".join(missing) if missing else "ok"))
        lacking += len(missing)
    return 1 if lacking else 0


def check_the_checks(readelf, compiler, folder):
    """Builds a program that has nothing; each check must say so."""
    with tempfile.TemporaryDirectory(dir=folder) as work:
        source, program = os.path.join(work, "bare.c"), os.path.join(work, "bare")
        with open(source, "w", encoding="ascii") as file:
            file.write("int main(void) { return 0; }\n")
        subprocess.run([compiler, "-O0", "-fno-pie", "-no-pie", "-fno-stack-protector",
                        "-fcf-protection=none", "-U_FORTIFY_SOURCE",
                        "-Wl,-z,norelro,-z,lazy,-z,execstack", source, "-o", program], check=True)
        elf = Elf(readelf, program)
        passed = [name for name, check in CHECKS.items() if check(elf)]
    print("a bare program passes: %s" % (", ".join(passed) or "nothing"))
    return 1 if passed else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--readelf", required=True)
    parser.add_argument("--want", default="")
    parser.add_argument("--compiler")
    parser.add_argument("--work")
    parser.add_argument("binaries", nargs="*")
    options = parser.parse_args()
    if not os.access(options.readelf, os.X_OK):
        print("no readelf")
        return SKIPPED
    if options.compiler:
        return check_the_checks(options.readelf, options.compiler, options.work)
    if not options.want:
        print("this build is not a hardened one")
        return SKIPPED
    if not options.binaries:
        print("nothing to look at")
        return 1
    return check_binaries(options.readelf, options.want.split(","), options.binaries)


if __name__ == "__main__":
    sys.exit(main())
