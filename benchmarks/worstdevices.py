# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Measures inputhost while devices do their worst. Started by scripts/worst-devices."""

import argparse
import math
import os
import pathlib
import socket
import struct
import tempfile
import threading
import time

from harness.hosts import Host
from harness.processes import exit_on_sigterm
from harness.progress import Progress, Steps

FOLDER = "/dev/shm"  # for the output: a disk would slow the host down
SECONDS = 20  # duration of a case, unless it sends a fixed amount
GOOD_INTERVAL = 0.25  # longer than that of the offers: each line is offered at once
POLL_SECONDS = 0.001
LONGEST_WAIT = 120


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--only", help="cases, separated by commas")
    arguments = parser.parse_args()
    exit_on_sigterm()
    print("| Case | CPU, s | good device: median, ms | 99 %, ms | longest, ms | "
          "most resident, MiB | log, KB | stop, s |\n|---|---|---|---|---|---|---|---|", flush=True)
    chosen = [name for name in CASES
              if not arguments.only or name in arguments.only.split(",")]
    steps = Steps(len(chosen))
    with Progress(steps.describe):
        for name in chosen:
            steps.begin(name)
            measure(arguments.build, *CASES[name])


def measure(build, play, options):
    with tempfile.NamedTemporaryFile(dir=FOLDER) as out, \
            Host(build, options=options, out=out) as host:
        good = GoodDevice(host, out.name)
        memory = MemoryWatch(host)
        time.sleep(1)
        connections = play(host)
        time.sleep(2)
        good.end()
        memory.end()
        cpu, log = host.cpu_seconds(), host.complaints()
        before = time.monotonic()
        host.stop()
        print(f"| {play.__doc__} | {cpu:.2f} | {good.wait_ms(0.5):.0f} | "
              f"{good.wait_ms(0.99):.0f} | {good.wait_ms(1):.0f} | {memory.most >> 20} | "
              f"{len(log) / 1000:.0f} | {time.monotonic() - before:.1f} |",
              flush=True)
        for connection in connections:
            connection.close()


class Watch(threading.Thread):
    """A thread that looks at a host until end()."""

    def __init__(self, host):
        super().__init__()
        self.host = host
        self.over = threading.Event()
        self.start()

    def end(self):
        self.over.set()
        self.join()


class MemoryWatch(Watch):
    most = 0

    def run(self):
        while not self.over.wait(0.02):
            self.most = max(self.most, self.host.resident_bytes())


class GoodDevice(Watch):
    """Sends a line now and then, and waits until it is printed."""

    def __init__(self, host, out):
        self.out = out
        self.waits = []
        super().__init__(host)

    def run(self):
        number = 0
        with connect(self.host) as device, open(self.out, "rb", buffering=0) as printed:
            while not self.over.wait(GOOD_INTERVAL):
                number += 1
                mark = b"good %d." % number
                begin = time.monotonic()
                position = os.fstat(printed.fileno()).st_size
                device.sendall(mark + b"\n")
                self.waits.append(self._wait_for(mark, printed, position, begin))

    def _wait_for(self, mark, printed, position, begin):
        tail = b""
        while not self.over.is_set():
            read = os.pread(printed.fileno(), 1 << 22, position)
            position += len(read)
            tail = tail[-len(mark):] + read
            if mark in tail:
                break
            if not read:
                time.sleep(POLL_SECONDS)
        return time.monotonic() - begin

    def wait_ms(self, share):
        """The wait that the given share of all waits does not exceed."""
        return 1000 * sorted(self.waits)[math.ceil(share * len(self.waits)) - 1]


def connect(host, port=0):
    device = socket.socket()
    device.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    device.bind(("127.0.0.1", port))
    device.connect(("127.0.0.1", host.port))
    return device


def for_seconds(interval=0.0):
    """Yields for SECONDS, at most once in an interval."""
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        begin = time.monotonic()
        yield
        time.sleep(max(0.0, interval - (time.monotonic() - begin)))


def full_speed(host):
    """1 GB of lines, as fast as it can"""
    device = connect(host)
    lines = (b"x" * 99 + b"\n") * 1000
    for _ in range(10_000):
        device.sendall(lines)
    return [device]


def endless(host):
    """as fast as it can, no line end"""
    device = connect(host)
    for _ in for_seconds():
        device.sendall(b"x" * 100_000)
    return [device]


def line_ends(host):
    """10 MB of bare line ends"""
    device = connect(host)
    device.sendall(b"\n" * 10_000_000)
    return [device]


def unfinished(host):
    """800 devices with 1 MB each and no line end, 50 MB a second, then a byte every 100 ms"""
    devices = [connect(host) for _ in range(800)]
    for _ in range(4):
        for device in devices:
            device.sendall(b"x" * 260_000)
            time.sleep(0.005)
    for _ in for_seconds(0.1):
        for device in devices:
            device.sendall(b"x")
    return devices


def come_and_go(host):
    """connecting, sending 1 MB without a line end, closing, 50 times a second"""
    for _ in for_seconds(0.02):
        with connect(host) as device:
            device.sendall(b"x" * 1_000_000)
    return []


def too_long(host):
    """a million messages that are too long"""
    device = connect(host)
    for _ in range(20):
        device.sendall(50_000 * (b"x" * 20 + b"\n"))
    return [device]


def single_bytes(host):
    """a byte a write, as fast as it can, no line end"""
    device = connect(host)
    device.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for _ in for_seconds():
        device.sendall(b"x")
    return [device]


def resets(host):
    """a message, reset, and back from the same port"""
    with connect(host) as device:
        port = device.getsockname()[1]
    for _ in for_seconds(0.001):
        try:
            device = connect(host, port)
        except OSError:
            continue  # the port is not free yet
        device.sendall(b"message\nhalf of one")
        device.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        device.close()
    return []


DEFAULTS = ()
CASES = {
    "full-speed": (full_speed, DEFAULTS),
    "endless": (endless, DEFAULTS),
    "line-ends": (line_ends, DEFAULTS),
    "unfinished": (unfinished, DEFAULTS),
    "come-and-go": (come_and_go, DEFAULTS),
    "too-long": (too_long, ("--max-message", "15")),
    "single-bytes": (single_bytes, DEFAULTS),
    "resets": (resets, DEFAULTS),
}

if __name__ == "__main__":
    main()
