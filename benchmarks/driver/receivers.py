# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The receivers that are compared."""

import dataclasses
import functools
import re

from harness.hosts import INPUTHOST as INPUTHOST_PROGRAM
from harness.hosts import Listener, free_port, host_command, knows_tls_keys
from harness.processes import wait_until

INPUTHOST = "inputhost"  # with TLS: its engine "qt"
OWN = "own engine"  # inputhost with its engine "own"
EPOLL = "epollsink"
OPENSSL = "sslsink"
QT = "qtsink"
ALL = (EPOLL, QT, INPUTHOST)
ALL_TLS = (OPENSSL, QT, INPUTHOST, OWN)

TITLES = {EPOLL: "bare epoll", OPENSSL: "bare OpenSSL", QT: "stock Qt", INPUTHOST: "inputhost",
          OWN: "inputhost, own engine"}


# Opening thousands of TLS connections takes longer than the default on a busy machine.
IDLE_TIMEOUT_SECONDS = 3600


@dataclasses.dataclass(frozen=True)
class Tls:
    """How a receiver and its devices speak TLS."""

    version: str = "1.3"
    elliptic: bool = False  # an EC P-256 key instead of RSA-2048
    tickets: bool = False  # and devices that use them


class Receiver(Listener):
    """A receiver on a free port of 127.0.0.1, ready for connections."""

    def __init__(self, setup, name, tls=None, one_thread=False):
        self.name = name
        port = free_port()
        certificates = None
        if tls:
            certificates = setup.certificates.elliptic() if tls.elliptic else setup.certificates
        super().__init__(_command(setup.build, name, port, certificates, tls, one_thread),
                         setup.build, port, certificates)
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
        return messages, size if self.name in (INPUTHOST, OWN) else size - messages


@functools.cache
def has_own_engine(setup):
    """Whether the library has an engine of its own. If not, inputhost is measured with Qt's twice."""
    has = knows_tls_keys(setup.build, setup.certificates, engine="own", sessionTickets=True)
    if not has:
        print(f"note: this library has one TLS engine: '{OWN}' is '{INPUTHOST}' again", flush=True)
    return has


def _command(build, name, port, certificates, tls, one_thread):
    files = [certificates.server, certificates.server_key] if certificates else []
    if name == EPOLL:
        return [build / "benchmarks/epollsink", port]
    if name == OPENSSL:
        return [build / "benchmarks/sslsink", port, *files, *(["--tickets"] * tls.tickets)]
    if name == QT:
        return [build / "benchmarks/qtsink", port, *files]
    settings = {"threadpoolSize": 1} if one_thread else {}
    if tls:
        settings["timeout"] = IDLE_TIMEOUT_SECONDS
    engine = {"engine": "qt"} if tls else {}
    if tls and name == OWN:
        # Not strict: a library without the engine ignores the keys. has_own_engine() tells of it.
        settings["strict"] = "false"
        engine = {"engine": "own", "sessionTickets": tls.tickets}
    return [*host_command(build, INPUTHOST_PROGRAM, port, settings, certificates, engine),
            "--output", "count", "--log-level", "warning"]
