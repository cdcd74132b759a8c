#!/usr/bin/env python3
"""Sends every line of standard input as one event, through the C library.

    ./send_lines.py HOST PORT [CA_FILE NAME]

With CA_FILE and NAME the connection is TLS 1.2 or newer, and the Receiver must prove the name.
"""
import ctypes
import sys
import time

ruv = ctypes.CDLL("libruv.so.1")
# Pointers must not be cut to ints, which is what a call returns and takes unless it is told.
ruv.RUVAllocConn.restype = ctypes.c_void_p
ruv.RUVAllocData.restype = ctypes.c_void_p
ruv.RUVAllocData.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int]
ruv.RUVOpen.argtypes = ruv.RUVFreeConn.argtypes = [ctypes.c_void_p]
ruv.RUVSetTLSOptions.argtypes = [ctypes.c_void_p] + [ctypes.c_char_p] * 5
ruv.RUVResetData.argtypes = ruv.RUVFreeData.argtypes = [ctypes.c_void_p]
ruv.RUVSyslogSet_message.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
ruv.RUVSyslogSet_collect_time.argtypes = [ctypes.c_void_p, ctypes.c_uint32]
ruv.RUVSendData.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p]
ruv.RUVStrError.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p]


def check(succeeded, conn, what):
    if not succeeded:
        text = ctypes.create_string_buffer(512)
        ruv.RUVStrError(conn, ctypes.c_int.in_dll(ruv, "ruverrno").value, text)
        sys.exit(f"{what}: {text.value.decode()}")


def main():
    if len(sys.argv) not in (3, 5):
        sys.exit(__doc__)
    encrypt = len(sys.argv) == 5
    conn = ruv.RUVAllocConn(sys.argv[1].encode(), int(sys.argv[2]), 0, int(encrypt), 0)
    check(conn, None, "allocate")
    if encrypt:
        ca_file, name = sys.argv[3].encode(), sys.argv[4].encode()
        check(ruv.RUVSetTLSOptions(conn, b"1.2", ca_file, name, None, None) == 0, conn, "tls")
    check(ruv.RUVOpen(conn) == 0, conn, "connect")
    record = ruv.RUVAllocData(conn, 3, 0, 0)
    check(record, conn, "record")
    count = 0
    for line in sys.stdin.buffer:
        text = line.rstrip(b"\n")  # kept in a name: the record points at its bytes
        if not text:
            continue
        ruv.RUVResetData(record)
        ruv.RUVSyslogSet_message(record, text, len(text))
        ruv.RUVSyslogSet_collect_time(record, int(time.time()))
        check(ruv.RUVSendData(conn, record, None) >= 0, conn, "send")
        count += 1
    ruv.RUVFreeData(record)
    ruv.RUVFreeConn(conn)
    print(f"{count} events sent")


if __name__ == "__main__":
    main()
