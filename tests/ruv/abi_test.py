"""The shared library's binary interface is the one that ruv/libruv.abi describes.

usage: abi_test.py HEADER_DIRECTORY SHARED_LIBRARY [--update]

Programs that were linked against a release must go on working with the next one, so any difference
fails. --update writes the description anew: right after an addition, never to hide that a call has
changed or gone. Types that only private headers define are opaque to programs and left out.
"""
import platform
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SKIPPED = 77
CHANGED = 4  # the bit of abidiff's status that says so; others tell of its own troubles
PUBLIC_HEADERS = ("ruvlib.h", "ruvlibsetters.h")


def skip(why):
    print(f"skipped: {why}")
    sys.exit(SKIPPED)


def describe(library, headers):
    """The interface as XML, without what another directory or machine would change."""
    return subprocess.run(
        ("abidw", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed",
         "--no-parameter-names", "--no-write-default-sizes", "--drop-undefined-syms",
         "--exported-interfaces-only", "--drop-private-types", "--headers-dir", headers, library),
        check=True, text=True, stdout=subprocess.PIPE).stdout


def difference(description, library, headers):
    """(status, report): status is 0 when the library has exactly the described interface."""
    done = subprocess.run(
        ("abidiff", "--no-default-suppression", "--drop-private-types", "--headers-dir2", headers,
         description, library), text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, done.stdout


def damaged(text):
    """Descriptions that no library fits: a parameter less, a call more."""
    head, tail = text.split("mangled-name='RUVSendData'", 1)
    yield "a parameter less", (head + "mangled-name='RUVSendData'" +
                               re.sub(r"\s*<parameter [^>]*/>", "", tail, count=1))
    symbol = re.search(r" *<elf-symbol name='RUVClose'.*\n", text).group()
    call = re.search(r" *<function-decl name='RUVClose'.*?</function-decl>\n", text, re.S).group()
    yield "a call more", (text.replace(symbol, symbol + symbol.replace("RUVClose", "RUVGone"))
                          .replace(call, call + call.replace("RUVClose", "RUVGone")))


def check(stored, library, headers, scratch):
    status, report = difference(stored, library, headers)
    if status:
        print(report, f"{library} differs from {stored}", sep="\n")
        return 1
    for what, text in damaged(Path(stored).read_text()):
        wrong = Path(scratch) / "wrong.abi"
        wrong.write_text(text)
        status, report = difference(wrong, library, headers)
        if status < 0 or not status & CHANGED:
            print(report, f"not noticed: {what}", sep="\n")
            return 1
    print("the interface is as described")
    return 0


def main():
    directory, library = (Path(argument) for argument in sys.argv[1:3])
    if not shutil.which("abidw") or not shutil.which("abidiff"):
        skip("abidw and abidiff are not installed")
    if platform.machine() != "x86_64":
        skip("the description is that of x86_64")
    sections = subprocess.run(("readelf", "-SW", library), check=True, text=True,
                              stdout=subprocess.PIPE).stdout
    if ".debug_info" not in sections:
        skip("the library was built without debug information")
    stored = directory / "libruv.abi"
    with tempfile.TemporaryDirectory() as scratch:
        headers = Path(scratch) / "ruv"
        headers.mkdir()
        for name in PUBLIC_HEADERS:
            shutil.copy(directory / name, headers)
        if "--update" in sys.argv:
            stored.write_text(describe(library, headers))
        return check(stored, library, headers, scratch)


if __name__ == "__main__":
    sys.exit(main())
