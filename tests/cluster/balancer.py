# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""haproxy, with the configuration that operators get."""

import csv
import socket

from harness import ROOT
from harness.hosts import Listener
from harness.processes import wait_until

CONFIGURATION = ROOT / "deploy/haproxy.cfg"
# Of a service: here there is no system log, no root, and perhaps a lower limit of descriptors.
OF_A_SERVICE = ("log", "user", "group", "maxconn")


class Balancer:
    """Leaving the with block ends it, and all that have handed over to it.

    address, port: where devices come in. hosts: (HOST:PORT, port that answers /ready) each. source: the
    address from which it connects to the hosts."""

    def __init__(self, folder, address, port, hosts, source):
        self._port = port
        self._socket = folder / "haproxy.sock"
        self._file = folder / "haproxy.cfg"
        self._file.write_text(_configuration(f"{address}:{port}", hosts, source, self._socket),
                              encoding="utf-8")
        self._count = len(hosts)
        self._processes = []  # the last one takes devices

    def __enter__(self):
        self._start()
        return self

    def __exit__(self, *_):
        for process in self._processes:
            process.kill()

    def restart(self):
        """A new process takes over the port. The old one keeps its connections, and ends with the last."""
        self._start("-x", self._socket, "-sf", self._processes[-1].pid)

    def wait_until_handed_over(self):
        """Waits until only one process is left."""
        for process in self._processes[:-1]:
            process.finish()
            process.kill()
        del self._processes[:-1]

    def wait_until_whole(self):
        """Waits until all hosts are up for it."""
        wait_until(lambda: self._states().count("UP") == self._count, "hosts that haproxy takes for up")

    def _start(self, *options):
        self._processes.append(Listener(["haproxy", "-db", "-f", self._file, *options], None, self._port))

    def _states(self):
        try:
            with socket.socket(socket.AF_UNIX) as connection:
                connection.connect(str(self._socket))
                connection.sendall(b"show stat\n")
                table = connection.makefile(encoding="utf-8").read()
        except OSError:  # between two processes
            return []
        rows = csv.DictReader(table.removeprefix("# ").splitlines())
        return [row["status"] for row in rows if row["svname"].startswith("host")]


def _configuration(address, hosts, source, stats):
    """The configuration for operators with other addresses."""
    left = 2 * list(hosts)  # each host has a second line, for devices that no host is ready for
    lines = []
    for line in CONFIGURATION.read_text(encoding="utf-8").splitlines():
        words = line.split()
        if words and words[0] in OF_A_SERVICE:
            continue
        if words[:1] == ["bind"]:
            line = f"    bind {address}"
        elif words[:2] == ["stats", "socket"]:
            line = f"    stats socket {stats} {' '.join(words[3:])}"
        elif words[:1] == ["server"]:
            host, ready_port = left.pop(0)
            line = " ".join(["    server", words[1], host, "port", str(ready_port), *words[3:]])
        elif words[:1] == ["balance"]:
            line += f"\n    source {source}"
        lines.append(line)
    if left:
        raise RuntimeError(f"{CONFIGURATION} has too few servers")
    return "\n".join(lines) + "\n"
