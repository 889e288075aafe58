# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The hosts under load: inputhost, which makes a new plugin when it reloads, and restartinghost,
which stops and starts the one it has and keeps no free memory."""

import os
import time

from harness.hosts import INPUTHOST, Host
from harness.processes import wait_until

RESTARTINGHOST = "tests/soak/restartinghost"
PROGRAMS = (INPUTHOST, RESTARTINGHOST)
WORKERS = 4
DESCRIPTORS_PER_THREAD = 2
# Short, so that idle connections have ended at the next quiet point.
IDLE_TIMEOUT_SECONDS = 8


class WatchedHost(Host):
    """One host, with what it is to return to when its connections have ended."""

    def __init__(self, build, program, certificates):
        self.name = f"{program.rpartition('/')[2]}, {'TLS' if certificates else 'TCP'}"
        self.keeps_free_memory = program == INPUTHOST
        self.reloads = 0
        super().__init__(build, program, certificates=certificates,
                         settings={"timeout": IDLE_TIMEOUT_SECONDS, "threadpoolSize": WORKERS},
                         options=("--output", "count", "--log-level", "warning"))
        # What a host without connections has when all its workers have started.
        more = WORKERS
        if certificates and program == INPUTHOST:  # its handshakes have threads of their own
            more += min(WORKERS, len(os.sched_getaffinity(0)))
        self.level = {"descriptors": self.descriptors() + more * DESCRIPTORS_PER_THREAD,
                      "threads": self.threads() + more}
        self._most_at_rest = self.level["descriptors"]

    def wait_for_end_of_connections(self, until):
        """Not strict: what stays is for the verdict, and is not waited for again."""
        wait_until(lambda: self.descriptors() <= self._most_at_rest, "end of connections",
                   seconds=until - time.monotonic(), strict=False)
        self._most_at_rest = max(self._most_at_rest, self.descriptors())
        self.settle()

    def reload(self):
        self.reloads += 1
        super().reload()

    def errors(self):
        """Lines about what must not happen, whatever devices do."""
        return [line for line in self.complaints().splitlines()
                if line.startswith(("error: ", "fatal: "))]
