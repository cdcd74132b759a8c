"""The libraries offer what the public headers declare, and nothing else; C programs need no C++.

usage: exports_test.py HEADER_DIRECTORY SHARED_LIBRARY ARCHIVE
"""
import re
import subprocess
import sys
from pathlib import Path


def declared(directory):
    """Names of all calls and variables that the public headers declare."""
    names = set()
    for header in ("ruvlib.h", "ruvlibsetters.h"):
        text = (directory / header).read_text()
        text = re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.S)
        names |= set(re.findall(r"\b(RUV\w+)\s*\(", text))
        names |= set(re.findall(r"\b(ruverrno\d?)\s*;", text))
    return names


def defined(*command):
    """(name, version) of the global symbols that nm reports."""
    output = subprocess.run(("nm", "--defined-only") + command, check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    symbols = [line.split() for line in output.splitlines()]
    return {tuple(s[2].split("@@")) for s in symbols if len(s) == 3 and s[1] != "A"}


def dynamic_entries(library, tag):
    output = subprocess.run(("readelf", "-d", library), check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    return re.findall(rf"\({tag}\).*\[(.*)\]", output)


def foreign(*command):
    """Undefined symbols with C++ names: a C program cannot be linked without the C++ library."""
    output = subprocess.run(("nm", "--undefined-only") + command, check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    return re.findall(r" U (_Z\S+|__cxa_(?!finalize|atexit)\S+|__gxx_\S+)", output)


def main():
    directory, shared, archive = sys.argv[1:]
    expected = declared(Path(directory))
    failures = []

    def check(what, found, wanted):
        for name in sorted(found - wanted):
            failures.append(f"{what}: {name} is not declared")
        for name in sorted(wanted - found):
            failures.append(f"{what}: {name} is missing")

    check("headers", {"RUVOpen", "RUVSendData", "RUVSyslogSet_message", "ruverrno4"} - expected,
          set())
    check(shared, {"@@".join(s) for s in defined("-D", shared)},
          {name + "@@RUV_1.0" for name in expected})
    check(archive, {s[0] for s in defined("-g", archive)}, expected)
    if dynamic_entries(shared, "SONAME") != ["libruv.so.1"]:
        failures.append(f"{shared}: SONAME {dynamic_entries(shared, 'SONAME')}")
    if any("stdc++" in name for name in dynamic_entries(shared, "NEEDED")):
        failures.append(f"{shared}: needs the C++ library")
    failures += [f"{shared}: needs {name}" for name in foreign("-D", shared)]
    failures += [f"{archive}: needs {name}" for name in foreign(archive)]
    print("\n".join(failures) or f"{len(expected)} names, all as declared")
    return bool(failures)


if __name__ == "__main__":
    sys.exit(main())
