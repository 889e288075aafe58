# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The three receivers that are compared."""

import re

from harness.hosts import INPUTHOST as INPUTHOST_PROGRAM
from harness.hosts import Listener, free_port, host_command
from harness.processes import wait_until

INPUTHOST = "inputhost"
EPOLL = "epollsink"
QT = "qtsink"
ALL = (EPOLL, QT, INPUTHOST)

TITLES = {EPOLL: "bare epoll", QT: "stock Qt", INPUTHOST: "inputhost"}


class Receiver(Listener):
    """A receiver on a free port of 127.0.0.1, ready for connections."""

    def __init__(self, setup, name, tls=False, one_thread=False):
        self.name = name
        port = free_port()
        certificates = setup.certificates if tls else None
        super().__init__(_command(setup.build, name, port, certificates, one_thread), setup.build,
                         port, certificates)
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


def _command(build, name, port, certificates, one_thread):
    if name == EPOLL:
        return [build / "benchmarks/epollsink", port]
    if name == QT:
        tls = [certificates.server, certificates.server_key] if certificates else []
        return [build / "benchmarks/qtsink", port, *tls]
    settings = {"threadpoolSize": 1} if one_thread else {}
    return [*host_command(build, INPUTHOST_PROGRAM, port, settings, certificates),
            "--output", "count", "--log-level", "warning"]
