#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Has a thousand strangers do their worst on the web server of inputhost, while a thousand devices send:
every message arrives while they are there, memory stays bounded, and nothing is changed by any method.
Argument: the build folder."""

import itertools
import json
import os
import pathlib
import re
import socket
import statistics
import sys
import tempfile
import time

from harness.devices import Devices
from harness.hosts import Host
from harness.processes import wait_until

STRANGERS = 1000
AT_A_TIME = 100
MESSAGES_BESIDE_EACH = 20  # of one device, for each hundred strangers
DEVICES = 1000
# 64 connections with 16 KiB and an answer each, and the allocator's share.
MOST_GROWTH = 32 * 1024 * 1024

GET = b"GET %s HTTP/1.1\r\nHost: %s\r\n\r\n"
ATTACKS = {
    "silent": b"",
    "half a request": b"GET /metr",
    "half the headers": b"GET /metrics HTTP/1.1\r\nHost: local",
    "huge headers": b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"x" * 1_000_000,
    "many headers": b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"A: b\r\n" * 100_000,
    "huge path": b"GET /" + b"a" * 1_000_000,
    "many arguments": GET % (b"/status.json?" + b"a=b&" * 3000, b"localhost"),
    "pipelined": GET % (b"/status.json?limit=500", b"localhost") * 1000,
    "never reads": GET % (b"/status.json?limit=500", b"localhost"),
    "wrong host": GET % (b"/status.json", b"evil.example"),
    "cross-site": b"POST /status.json HTTP/1.1\r\nHost: localhost\r\nOrigin: http://evil.example\r\n"
                  b"Content-Type: text/plain\r\nContent-Length: 1000000000\r\n\r\n" + b"x" * 100_000,
    "chunks": b"GET /ready HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
              b"ffffffffffffffff\r\n",
    "no HTTP": bytes(range(256)) * 100,
    "a byte at a time": b"GET /status.json HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "TLS": b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 508,
}
SLOW = ATTACKS["a byte at a time"]
METHODS = ("POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "PROPFIND", "get", "X")
PATHS = ("/", "/metrics", "/ready", "/live", "/status.json", "/status.json?limit=0", "/reload", "/../config", "*")


def web_port(host):
    return int(re.search(r"Status at http://127\.0\.0\.1:(\d+)/", host.complaints())[1])


def attack(port, bytes_sent):
    """A stranger that has sent what the kernel takes, and neither reads nor closes."""
    stranger = socket.socket()
    stranger.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    stranger.setblocking(False)
    stranger.connect_ex(("127.0.0.1", port))
    say(stranger, bytes_sent[:1] if bytes_sent is SLOW else bytes_sent)
    return stranger


def say(stranger, bytes_sent):
    try:
        stranger.send(bytes_sent)
    except OSError:
        pass  # not connected yet, or refused: it is one of the silent ones


def answer_to(port, bytes_sent):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=20) as client:
            client.sendall(bytes_sent)
            return b"".join(iter(lambda: client.recv(65536), b"")).decode()
    except OSError:
        return ""  # the strangers have all places


def answer_of(port, path):
    return answer_to(port, GET % (path.encode(), b"localhost"))


def state_of(port):
    """What an operator has set, and what a command could change."""
    status = json.loads(answer_of(port, "/status.json").partition("\r\n\r\n")[2])
    return {member: status[member] for member in ("input", "limits", "certificates", "version")}


def try_methods(port):
    """Raises if a request is not refused that neither is GET nor HEAD."""
    for method, path in itertools.product(METHODS, PATHS):
        answer = answer_to(port, f"{method} {path} HTTP/1.1\r\nHost: localhost\r\n"
                                 "Content-Length: 2\r\n\r\n{}".encode())
        if not re.match(r"HTTP/1\.1 (400|403|404|405|501) ", answer):
            raise RuntimeError(f"{method} {path}: {answer[:100]!r}")


class Messengers:
    """Devices that take turns: one sends a message, and waits until it is printed. Each has its turn so
    late that its last message delays nothing: the plugin offers bytes of a connection five times a
    second."""

    COUNT = 20
    PAUSE_SECONDS = 0.015

    def __init__(self, host, printed):
        self.printed = printed
        self.devices = itertools.cycle([socket.create_connection(("127.0.0.1", host.port))
                                        for _ in range(self.COUNT)])
        self.read = 0
        self.times = []

    def send_one(self):
        time.sleep(self.PAUSE_SECONDS)
        text = f'"beside strangers {len(self.times)}."'.encode()
        began = time.monotonic()
        next(self.devices).sendall(text.strip(b'"') + b"\n")
        news = b""
        while text not in news:
            if time.monotonic() > began + 60:
                raise TimeoutError(f"not printed: {text}")
            time.sleep(0.0005)
            news += os.pread(self.printed.fileno(), 1 << 20, self.read + len(news))
        self.times.append(time.monotonic() - began)
        self.read += len(news)


def play(host, messengers):
    """Returns by how many bytes the host has grown at most."""
    port = web_port(host)
    wait_until(lambda: f' {DEVICES + messengers.COUNT}\n' in "".join(
        re.findall(r"^inputhost_connections\{.*\n", answer_of(port, "/metrics"), re.MULTILINE)),
        "all devices")
    messengers.send_one()
    state = state_of(port)
    before = most = host.resident_bytes()
    kinds = itertools.cycle(ATTACKS.values())
    for _ in range(STRANGERS // AT_A_TIME):
        attacks = [next(kinds) for _ in range(AT_A_TIME)]
        strangers = [attack(port, each) for each in attacks]
        slow_ones = [stranger for stranger, each in zip(strangers, attacks) if each is SLOW]
        for number in range(MESSAGES_BESIDE_EACH):
            messengers.send_one()
            for stranger in slow_ones:
                say(stranger, SLOW[number + 1:number + 2])
            most = max(most, host.resident_bytes())
        for stranger in strangers:
            stranger.close()
    wait_until(lambda: " 200 " in answer_of(port, "/ready"), "answer behind the strangers")
    try_methods(port)
    most = max(most, host.resident_bytes())
    if state_of(port) != state:
        raise RuntimeError(f"changed: {state} to {state_of(port)}")
    return most - before


def main():
    build = pathlib.Path(sys.argv[1])
    with tempfile.TemporaryFile() as printed, \
            Host(build, options=["--http", "0"], out=printed) as host, \
            Devices(host, "--connections", DEVICES, "--messages", 15, "--rate", 1) as devices:
        messengers = Messengers(host, printed)
        growth = play(host, messengers)
        devices.finish()
        times = sorted(messengers.times)
        sent = devices.sent()[0] + len(times)
        wait_until(lambda: host.counted()[0] >= sent, "last messages")
        if host.counted()[0] != sent:
            raise RuntimeError(f"{sent} messages were sent, {host.counted()[0]} have come")
        host.stop()
    print(f"{STRANGERS} strangers beside {DEVICES} devices: {growth / 1024:.0f} KiB more; all {sent} messages "
          f"arrived; {len(times)} of them were printed after a median of {1000 * statistics.median(times):.1f} "
          f"ms, 99 of 100 within {1000 * times[len(times) * 99 // 100]:.1f} ms, the last after "
          f"{1000 * times[-1]:.1f} ms")
    if growth >= MOST_GROWTH:
        raise RuntimeError("too much memory")


main()
