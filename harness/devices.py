# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The load: devicesim, and its report of what it has sent."""

import json
import re
import signal

from harness.processes import Process, wait_until

# Not the hosts' address: no device may take a port that a host leaves for a moment. A connection
# that a device has closed keeps its port for a minute: several addresses give more ports.
SOURCES = "127.77.0.1-127.77.0.8"
CONNECT_TIMEOUT_MS = 120_000  # a busy machine is no failure


class Devices(Process):
    """Devices that connect to a listener, with TLS if it has certificates.

    options: devicesim's. build: the folder that devicesim is from; default: the listener's.
    checksum: whether the report has the connections' checksums."""

    def __init__(self, listener, *options, tls_version="1.3", build=None, checksum=False):
        command = [(build or listener.build) / "simulator/devicesim", "--port", listener.port,
                   "--bind", SOURCES, "--connect-timeout-ms", CONNECT_TIMEOUT_MS,
                   "--output", "json"]
        if not checksum:
            command.append("--no-checksum")
        if listener.certificates:
            command += ["--tls", "--tls-version", tls_version,
                        "--ca", listener.certificates.authority]
        super().__init__([*command, *options])

    def messages_so_far(self):
        before = self.complaints().count("\n")
        self.popen.send_signal(signal.SIGUSR1)
        wait_until(lambda: self.complaints().count("\n") > before, "progress of devicesim")
        return int(re.findall(r"; (\d+) messages", self.complaints())[-1])

    def report(self):
        """The report that devicesim writes at its end."""
        return json.loads(self.output())

    def resumed(self):
        """How many connections have resumed a TLS session, when it has ended."""
        return self.report()["summary"]["resumed"]

    def sent(self):
        """Returns (messages, bytes without newlines), when it has ended."""
        summary = self.report()["summary"]
        return summary["messages"], summary["bytes"] - summary["messages"]
