"""Every public call says when it is entered and left, under its own name.

usage: lines_test.py HEADER_DIRECTORY SHARED_LIBRARY
"""
import ctypes
import os
import re
import sys
import tempfile
from pathlib import Path

from exports_test import declared

FUNCTION_LINES = 0x01


def stderr_of(call):
    """What the call writes to standard error; the library's stream has no buffer."""
    saved = os.dup(2)
    with tempfile.TemporaryFile() as caught:
        os.dup2(caught.fileno(), 2)
        try:
            call()
        finally:
            os.dup2(saved, 2)
            os.close(saved)
        caught.seek(0)
        return caught.read().decode()


def caller(library, name):
    """The call with null everywhere, except for those that must have more."""
    function = library[name]
    function.restype = ctypes.c_void_p
    null = [ctypes.c_void_p(None)] * 6
    if name == "RUVFreeDSInfo":
        library.RUVAllocDSInfo.restype = ctypes.c_void_p
        source = ctypes.c_void_p(library.RUVAllocDSInfo(3, b"host"))
        return lambda: function(source)
    if name == "RUVStrError":
        text = ctypes.create_string_buffer(512)
        return lambda: function(None, 0, text)
    if name == "RUVSetLogging":
        return lambda: function(ctypes.c_uint64(FUNCTION_LINES))
    return lambda: function(*null)


def main():
    directory, shared = sys.argv[1:]
    library = ctypes.CDLL(shared)
    names = sorted(n for n in declared(Path(directory)) if n.startswith("RUV"))
    failures = []
    for name in names:
        library.RUVSetLogging(ctypes.c_uint64(0))
        call = caller(library, name)
        if stderr_of(call) and name != "RUVSetLogging":
            failures.append(f"{name} speaks unasked")
        call = caller(library, name)
        stderr_of(lambda: library.RUVSetLogging(ctypes.c_uint64(FUNCTION_LINES)))
        lines = stderr_of(call)
        stderr_of(lambda: library.RUVSetLogging(ctypes.c_uint64(0)))
        if not re.fullmatch(rf"libruv -- function enter: {name}\n"
                            rf"libruv -- function (exit: {name}|error exit: {name} \[\d+\])\n",
                            lines):
            failures.append(f"{name}: {lines!r}")
    print("\n".join(failures) or f"{len(names)} calls, two lines each")
    return bool(failures or len(names) < 90)


if __name__ == "__main__":
    sys.exit(main())
