# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The hosts under load: inputhost, which makes a new plugin when it reloads, and restartinghost,
which stops and starts the one it has and keeps no free memory."""

import json
import os
import re
import signal
import socket
import time

from processes import Process, wait_until

WORKERS = 4
DESCRIPTORS_PER_WORKER = 2
# Short: what an idle connection keeps must be gone at the next quiet point.
IDLE_TIMEOUT_SECONDS = 8


class Host(Process):
    """One host on a free port of 127.0.0.1, ready for connections."""

    def __init__(self, build, certificates, program, tls):
        self.name = f"{program}, {'TLS' if tls else 'TCP'}"
        self.tls = tls
        self.keeps_free_memory = program == "inputhost"
        self.reloads = 0
        self.port = _free_port()
        folder = {"inputhost": "host", "restartinghost": "tests/soak"}[program]
        command = [build / folder / program, "--output", "count", "--log-level", "warning",
                   "--plugin", build / "tcpinput/libtcpinputplugin2.so",
                   "--set", "ipAddr=127.0.0.1", "--set", f"port={self.port}",
                   "--set", f"timeout={IDLE_TIMEOUT_SECONDS}",
                   "--set", f"threadpoolSize={WORKERS}"]
        if tls:
            ssl = {"CertFile": str(certificates / "server.pem"),
                   "KeyFile": str(certificates / "server.key"), "verifyPeer": False}
            command += ["--set", f"ssl={json.dumps(ssl)}"]
        super().__init__(command)
        wait_until(lambda: self.listens_on(self.port), f"listening {self.name}", seconds=20)
        # What a host without connections has, once its workers are there.
        self.level = {"descriptors": self.descriptors() + WORKERS * DESCRIPTORS_PER_WORKER,
                      "threads": self.threads() + WORKERS}
        self._most_at_rest = self.level["descriptors"]

    def wait_for_end_of_connections(self, until):
        """Not strict: what stays is for the verdict, and is not waited for again."""
        wait_until(lambda: self.descriptors() <= self._most_at_rest, "end of connections",
                   seconds=until - time.monotonic(), strict=False)
        self._most_at_rest = max(self._most_at_rest, self.descriptors())
        self.settle()

    def reload(self):
        self.reloads += 1
        self.popen.send_signal(signal.SIGHUP)

    def counted(self):
        """Returns (messages, bytes without newlines) so far."""
        before = os.fstat(self._err.fileno()).st_size
        self.popen.send_signal(signal.SIGUSR1)
        answer = None

        def has_answered():
            nonlocal answer
            if self.popen.poll() is not None:
                self.finish()
                raise RuntimeError(f"{self.name} has ended")
            news = os.pread(self._err.fileno(), 1 << 20, before).decode(errors="replace")
            answer = re.search(r"^messages (\d+) bytes (\d+) .*$", news, re.MULTILINE)
            return answer

        wait_until(has_answered, f"answer of {self.name}")
        return int(answer[1]), int(answer[2])

    def errors(self):
        """Lines about what must not happen, whatever devices do."""
        return [line for line in self.complaints().splitlines()
                if line.startswith(("error: ", "fatal: "))]


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
