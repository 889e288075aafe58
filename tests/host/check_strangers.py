#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Has a thousand strangers do their worst on the web server of inputhost, while devices send: every
message arrives while they are there, and memory stays bounded. Argument: the build folder."""

import itertools
import pathlib
import re
import socket
import statistics
import sys
import time

from harness.devices import Devices
from harness.hosts import Host
from harness.processes import wait_until

STRANGERS = 1000
AT_A_TIME = 100
MESSAGES_BESIDE_EACH = 5  # of one device, for each hundred strangers
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
    "TLS": b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 508,
}


def web_port(host):
    return int(re.search(r"Status at http://127\.0\.0\.1:(\d+)/", host.complaints())[1])


def attack(port, bytes_sent):
    """A stranger that has sent what the kernel takes, and neither reads nor closes."""
    stranger = socket.socket()
    stranger.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    stranger.setblocking(False)
    stranger.connect_ex(("127.0.0.1", port))
    try:
        stranger.send(bytes_sent)
    except OSError:
        pass  # not connected yet, or refused: it is one of the silent ones
    return stranger


def answer_of(port, path):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=20) as client:
            client.sendall(GET % (path.encode(), b"localhost"))
            return b"".join(iter(lambda: client.recv(65536), b"")).decode()
    except OSError:
        return ""  # the strangers have all places


class Messenger:
    """A device that sends one message at a time, and waits until it is printed."""

    def __init__(self, host):
        self.host = host
        self.numbers = itertools.count()
        self.device = socket.create_connection(("127.0.0.1", host.port))
        self.times = []

    def send_one(self):
        text = f"beside strangers {next(self.numbers)}."
        began = time.monotonic()
        self.device.sendall(text.encode() + b"\n")
        end = began + 60
        while f'"{text}"' not in self.host.output():
            if time.monotonic() > end:
                raise TimeoutError(f"not printed: {text}")
            time.sleep(0.001)
        self.times.append(time.monotonic() - began)


def play(host):
    """Returns by how many bytes the host has grown at most, and the messenger's times."""
    port = web_port(host)
    messenger = Messenger(host)
    messenger.send_one()
    assert " 200 " in answer_of(port, "/status.json")
    before = most = host.resident_bytes()
    kinds = itertools.cycle(ATTACKS.values())
    for _ in range(STRANGERS // AT_A_TIME):
        strangers = [attack(port, next(kinds)) for _ in range(AT_A_TIME)]
        for _ in range(MESSAGES_BESIDE_EACH):
            messenger.send_one()
            most = max(most, host.resident_bytes())
        for stranger in strangers:
            stranger.close()
    wait_until(lambda: " 200 " in answer_of(port, "/ready"), "answer behind the strangers")
    most = max(most, host.resident_bytes())
    return most - before, messenger.times


def main():
    build = pathlib.Path(sys.argv[1])
    with Host(build, options=["--http", "0"]) as host:
        devices = Devices(host, "--connections", 20, "--messages", 200, "--rate", 20)
        with devices:
            growth, times = play(host)
            devices.finish()
            sent = devices.sent()[0] + len(times)
            wait_until(lambda: host.counted()[0] >= sent, "last messages")
        assert host.counted()[0] == sent, (host.counted(), sent)
        host.stop()
    print(f"{STRANGERS} strangers: {growth / 1024:.0f} KiB more; {len(times)} messages beside them, "
          f"median {1000 * statistics.median(times):.1f} ms, longest {1000 * max(times):.1f} ms; "
          f"all {sent} arrived")
    assert growth < MOST_GROWTH, growth


main()
