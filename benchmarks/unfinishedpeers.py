# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""How soon a good device is served while peers keep the TLS server busy. Started by
benchmarks/unfinished-peers, which says what it plays."""

import argparse
import concurrent.futures
import contextlib
import math
import pathlib
import re
import socket
import ssl
import tempfile
import time

from harness.certificates import Certificates
from harness.hosts import Host
from harness.processes import Process, exit_on_sigterm
from worstdevices import FOLDER, MemoryWatch, Watch

PROGRAM = "benchmarks/unfinishedpeers"  # in a build folder
CASES = {"none": 0, "silent": 12_000, "slow-hello": 5_000, "whole-hello": 3_000, "key-updates": 64}
GOOD_INTERVAL = 0.25
POLL_SECONDS = 0.001
LONGEST_WAIT = 30
CONNECTS_A_SECOND = 5_000  # of the program
HEAD = ("Case", "good devices", "failed", "median, ms", "99 %, ms", "longest, ms",
        "host's CPU, s/s", "most resident, MiB", "connected", "closed by the host", "KeyUpdates")


def main():
    arguments = parse_arguments()
    exit_on_sigterm()
    print(f"| {' | '.join(HEAD)} |\n|---|{'---:|' * (len(HEAD) - 1)}", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        certificates = Certificates(pathlib.Path(folder))
        for name in arguments.only.split(",") if arguments.only else CASES:
            measure(arguments, certificates, name)


def parse_arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--only")
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--scale", type=float, default=1)
    parser.add_argument("--ssl", action="append", default=[])
    parser.add_argument("--set", action="append", default=[])
    return parser.parse_args()


def measure(arguments, certificates, name):
    count = math.ceil(CASES[name] * arguments.scale)
    pairs = (setting.split("=", 1) for setting in arguments.ssl)
    settings = dict(setting.split("=", 1) for setting in arguments.set)
    with tempfile.NamedTemporaryFile(dir=FOLDER) as out, \
            Host(arguments.build, certificates=certificates, settings=settings, out=out,
                 tls={key: boolean(value) for key, value in pairs},
                 options=("--log-level", "warning")) as host, \
            contextlib.ExitStack() as stack:
        peers = None
        if count:
            peers = stack.enter_context(
                Process([arguments.build / PROGRAM, name, host.port, count]))
            time.sleep(count / CONNECTS_A_SECOND + 1)
        memory = MemoryWatch(host)
        stack.callback(memory.end)
        good = GoodDevices(host, certificates, out.name)
        stack.callback(good.end)
        cpu, begin = host.cpu_seconds(), time.monotonic()
        good.send_lines(arguments.seconds)
        cpu = (host.cpu_seconds() - cpu) / (time.monotonic() - begin)
        counts = re.findall(r"\d+", peers.stop()) if peers else ["0"] * 3
    waits = [f"{good.wait_ms(share):.0f}" for share in (0.5, 0.99, 1)]
    print("| " + " | ".join([name, str(good.lines), str(good.failed), *waits, f"{cpu:.2f}",
                             str(memory.most >> 20), *counts]) + " |", flush=True)


def boolean(text):
    return {"true": True, "false": False}.get(text, text)


class GoodDevices(Watch):
    """Each connects, sends a line, and stays until the host has printed it. The thread notes when the
    host has."""

    def __init__(self, host, certificates, out):
        self.out = out
        self.context = ssl.create_default_context(cafile=certificates.authority)
        self.lines = 0
        self.printed = {}  # when, by the line's number
        self.waits = []  # in seconds, of lines that were printed
        super().__init__(host)

    def run(self):
        text = b""
        with open(self.out, "rb", buffering=0) as file:
            while not self.over.wait(POLL_SECONDS):
                text += file.read()
                for number in re.findall(rb"good (\d+)\.", text):
                    self.printed.setdefault(int(number), time.monotonic())
                text = text[-len("good 1234567."):]

    def send_lines(self, seconds):
        """One line in an interval, however long those before it take."""
        with concurrent.futures.ThreadPoolExecutor(math.ceil(seconds / GOOD_INTERVAL)) as pool:
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                self.lines += 1
                pool.submit(self._send_line, self.lines)
                time.sleep(GOOD_INTERVAL)

    @property
    def failed(self):
        return self.lines - len(self.waits)

    def _send_line(self, number):
        begin = time.monotonic()
        # OSError: time-outs and what TLS complains of, too.
        with contextlib.suppress(OSError), self._connect() as device:
            device.sendall(b"good %d.\n" % number)
            while number not in self.printed and time.monotonic() < begin + LONGEST_WAIT:
                time.sleep(10 * POLL_SECONDS)
        if number in self.printed:
            self.waits.append(self.printed[number] - begin)

    def _connect(self):
        device = socket.create_connection(("127.0.0.1", self.host.port), LONGEST_WAIT,
                                          ("127.0.0.1", 0))
        # Its line follows its last handshake message at once.
        device.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            return self.context.wrap_socket(device, server_hostname="127.0.0.1")
        except BaseException:
            device.close()
            raise

    def wait_ms(self, share):
        """The wait that the given share of all waits does not exceed."""
        if not self.waits:
            return math.nan
        return 1000 * sorted(self.waits)[math.ceil(share * len(self.waits)) - 1]


if __name__ == "__main__":
    main()
