# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The load: devicesim, and what it says it has sent."""

import json
import re
import signal

from processes import Process, wait_until

# Connections that a device has closed keep their port for a minute: more addresses, more ports.
SOURCES = "127.77.0.1-127.77.0.8"
CONNECT_TIMEOUT_MS = 120_000  # a busy machine is no failure


class Devices(Process):
    """Devices that connect to the receiver. More options are devicesim's own."""

    def __init__(self, setup, receiver, *, connections, tls=False, options=()):
        command = [setup.build / "simulator/devicesim", "--port", receiver.port, "--bind", SOURCES,
                   "--connections", connections, "--connect-timeout-ms", CONNECT_TIMEOUT_MS,
                   "--output", "json", "--no-checksum"]
        if tls:
            command += ["--tls", "--tls-version", "1.3", "--ca", setup.certificates / "ca.pem"]
        super().__init__(command + list(options))

    def messages_so_far(self):
        before = self.complaints().count("\n")
        self.popen.send_signal(signal.SIGUSR1)
        wait_until(lambda: self.complaints().count("\n") > before, "progress of devicesim")
        return int(re.findall(r"; (\d+) messages", self.complaints())[-1])

    def sent(self, report):
        """Returns (messages, bytes without newlines) of a report that stop() or finish() gave."""
        summary = json.loads(report)["summary"]
        return summary["messages"], summary["bytes"] - summary["messages"]

