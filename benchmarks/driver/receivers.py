# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The three receivers that are compared."""

import json
import re
import socket

from processes import Process, wait_until

INPUTHOST = "inputhost"
EPOLL = "epollsink"
QT = "qtsink"
ALL = (EPOLL, QT, INPUTHOST)

TITLES = {EPOLL: "bare epoll", QT: "stock Qt", INPUTHOST: "inputhost"}


class Receiver(Process):
    """A receiver on a free port of 127.0.0.1, ready for connections."""

    def __init__(self, setup, name, tls=False, one_thread=False):
        self.name = name
        self.port = _free_port()
        super().__init__(_command(setup, name, self.port, tls, one_thread))
        wait_until(lambda: self.listens_on(self.port), f"listening {name}", seconds=20)
        self.settle()
        self.base = self.descriptors()

    def wait_for_connections(self, count):
        wait_until(lambda: self.descriptors() >= self.base + count, f"{count} connections")

    def wait_for_end_of_connections(self):
        wait_until(lambda: self.descriptors() <= self.base, "end of connections")

    def note_base(self):
        """From now on the descriptors open do not count as connections."""
        self.base = self.descriptors()

    def stop_and_count(self):
        """Returns (messages, bytes) that it has received; bytes without newlines."""
        counted = re.search(r"messages (\d+) bytes (\d+)", self.stop())
        lines = self.complaints().splitlines()
        if len(lines) > 1:
            print(f"      note: {self.name} wrote {len(lines)} lines, such as: {lines[0]}")
        messages, size = int(counted[1]), int(counted[2])
        return messages, size if self.name == INPUTHOST else size - messages


def _command(setup, name, port, tls, one_thread):
    certificate, key = setup.certificates / "server.pem", setup.certificates / "server.key"
    if name == EPOLL:
        return [setup.build / "benchmarks/epollsink", port]
    if name == QT:
        return [setup.build / "benchmarks/qtsink", port] + ([certificate, key] if tls else [])
    command = [setup.build / "host/inputhost", "--output", "count", "--log-level", "warning",
               "--plugin", setup.build / "tcpinput/libtcpinputplugin2.so",
               "--set", "ipAddr=127.0.0.1", "--set", f"port={port}"]
    if one_thread:
        command += ["--set", "threadpoolSize=1"]
    if tls:
        ssl = {"CertFile": str(certificate), "KeyFile": str(key), "verifyPeer": False}
        command += ["--set", f"ssl={json.dumps(ssl)}"]
    return command


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
