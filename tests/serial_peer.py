#!/usr/bin/python3
"""The far end of a serial line, through python3-serial: reads a 64 KiB
pattern, checks it, answers with another. Usage: serial_peer.py DEVICE"""
import sys

import serial


def pattern(size, step):
    return bytes(((i * step + (i >> 8)) & 0xFF) for i in range(size))


port = serial.Serial(sys.argv[1], 115200, timeout=20)
print("ready", flush=True)
got = port.read(65536)
port.write(pattern(65536, 13))
port.flush()
if got == pattern(65536, 7):
    print("received %d bytes as sent" % len(got))
else:
    print("received %d bytes, differing from what was sent" % len(got))
    sys.exit(1)
