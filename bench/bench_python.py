#!/usr/bin/python3
"""What the Python package costs beside what it wraps, each pair alternating in one run:

  exchange   deck.status() through the package (ctypes, the library's exchange) against a raw
             Python socket sending the same datagram (61 20 0A behind the 10-byte header) to the
             same devsim on loopback UDP and reading its answer;
  call       timecode.from_frames() (the package's argument checks, its buffer and the decoding)
             against the bare ctypes call of tc_frames2tcstr with a buffer made beforehand.

Usage: bench/bench_python.py [BUILD] [COUNT]   (default build/release if built, else build/dev;
10000 of each). The package and the library are BUILD's; devsim is BUILD's if it has one, else
build/dev's (it serves both sides alike). Prints p50 and p99 in microseconds and their ratios.
"""

import os
import pathlib
import re
import socket
import struct
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else
                     next(b for b in (ROOT / "build/release", ROOT / "build/dev") if b.exists()))
COUNT = int(sys.argv[2]) if len(sys.argv) > 2 else 10000
sys.path.insert(0, str(BUILD / "bindings/python"))

import zqhandler  # noqa: E402  (from the build chosen above)
from zqhandler import timecode  # noqa: E402


def percentiles(samples):
    ordered = sorted(samples)
    return ordered[len(ordered) // 2] / 1000, ordered[len(ordered) * 99 // 100] / 1000


def alternate(baseline, measured):
    times = ([], [])
    for _ in range(COUNT):
        for function, kept in ((baseline, times[0]), (measured, times[1])):
            start = time.perf_counter_ns()
            function()
            kept.append(time.perf_counter_ns() - start)
    return percentiles(times[0]), percentiles(times[1])


def report(name, baseline_name, measured_name, figures):
    (b50, b99), (m50, m99) = figures
    print("%-9s %-38s p50 %8.2f us  p99 %8.2f us" % (name, baseline_name, b50, b99))
    print("%-9s %-38s p50 %8.2f us  p99 %8.2f us" % ("", measured_name, m50, m99))
    print("%-9s %-38s p50 %8.2f     p99 %8.2f" % ("", "ratio", m50 / b50, m99 / b99))


def main():
    devsim = next(d for d in (BUILD, ROOT / "build/dev") if (d / "tools/devsim/devsim").exists())
    server = subprocess.Popen([devsim / "tools/devsim/devsim", "udp", "127.0.0.1", "0"],
                              stdout=subprocess.PIPE, text=True)
    try:
        port = int(re.search(r":(\d+)", server.stdout.readline()).group(1))
        # devsim's log of every frame is read and dropped: both sides pay for it alike.
        threading.Thread(target=server.stdout.read, daemon=True).start()
        frame = bytes([0x61, 0x20, 0x0A])
        datagram = struct.pack(">5H", 1, 4, 0, 0, 0) + frame + bytes([sum(frame) & 0xFF])
        raw = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        raw.connect(("127.0.0.1", port))
        raw.settimeout(1)

        def raw_exchange():
            raw.send(datagram)
            raw.recv(64)

        with zqhandler.connect_udp("127.0.0.1", port, timeout=1) as deck:
            assert deck.status() and raw_exchange() is None
            report("exchange", "raw socket round trip (baseline)", "deck.status()",
                   alternate(raw_exchange, deck.status))
        lib, out = zqhandler._lib, zqhandler._calls.text_buffer()
        report("call", "ctypes tc_frames2tcstr (baseline)", "timecode.from_frames()",
               alternate(lambda: lib.tc_frames2tcstr(107892, 30, 1, out),
                         lambda: timecode.from_frames(107892, 30, True)))
        print("%d of each, %s, Python %s, load average %.1f"
              % (COUNT, BUILD.name, sys.version.split()[0], os.getloadavg()[0]))
    finally:
        server.terminate()
        server.wait()


if __name__ == "__main__":
    main()
