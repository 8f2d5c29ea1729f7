#!/usr/bin/python3
"""The python3-serial side of serial_bench: opens both ends of a null-modem
cable and answers one line per command read from standard input:
  move N   moves N bytes from the first end to the second in 4 KiB writes and
           reads; answers the seconds it took
  trip N   N one-byte round trips (the second end echoes); answers the mean,
           p50 and p99 in seconds
Usage: serial_bench_peer.py DEVICE_A DEVICE_B"""
import sys
import threading
import time

import serial

a = serial.Serial(sys.argv[1], 115200, timeout=10)
b = serial.Serial(sys.argv[2], 115200, timeout=10)
print("ready", flush=True)

for command in sys.stdin:
    verb, count = command.split()
    count = int(count)
    if verb == "move":
        data = bytes(i & 0xFF for i in range(count))

        def write():
            for at in range(0, count, 4096):
                a.write(data[at:at + 4096])

        start = time.perf_counter()
        writer = threading.Thread(target=write)
        writer.start()
        got = bytearray()
        while len(got) < count:
            piece = b.read(min(4096, count - len(got)))
            if not piece:
                break
            got += piece
        writer.join()
        elapsed = time.perf_counter() - start
        print(elapsed if got == data else "lost", flush=True)
    elif verb == "trip":
        def echo():
            for _ in range(count):
                b.write(b.read(1))

        echoer = threading.Thread(target=echo)
        echoer.start()
        trips = []
        for i in range(count):
            start = time.perf_counter()
            a.write(bytes([i & 0xFF]))
            a.read(1)
            trips.append(time.perf_counter() - start)
        echoer.join()
        trips.sort()
        print(sum(trips) / count, trips[count // 2], trips[count * 99 // 100], flush=True)
