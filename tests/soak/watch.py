# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What the hosts hold: every few seconds for the plot, and at quiet points for the verdict."""

import dataclasses
import threading
import time

from hosts import IDLE_TIMEOUT_SECONDS

# Longer than any timer of a connection: the idle time-out, and the look at its buffer every 2 s.
QUIET_SECONDS = IDLE_TIMEOUT_SECONDS + 2
# A worker looks at buffers up to a second after a read, even if that client is gone by then.
LAST_LOOK_SECONDS = 2
MOST_SAMPLES = 600  # more would not improve the plot


@dataclasses.dataclass(frozen=True)
class Sample:
    minutes: float
    resident: int  # bytes
    descriptors: int
    threads: int


@dataclasses.dataclass(frozen=True)
class QuietPoint(Sample):
    """While no device is there. What timers there are shows in how often threads wake up."""

    worker_wake_ups: int  # of all worker threads within QUIET_SECONDS
    main_wake_ups: int


class Watch(threading.Thread):
    """Takes samples in the background, from start() to the end of the with block."""

    def __init__(self, hosts, minutes):
        super().__init__(daemon=True)
        self._begun = time.monotonic()
        self._interval = max(2.0, 60 * minutes / MOST_SAMPLES)
        self._over = threading.Event()
        self.samples = {host: [] for host in hosts}

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self.join()

    def run(self):
        while not self._over.wait(self._interval):
            for host, samples in self.samples.items():
                try:
                    samples.append(Sample(**self._held_by(host)))
                except OSError:
                    return  # the host is gone; the next request to it will report that

    def quiet_points(self):
        """Waits for the last look and QUIET_SECONDS. Returns {host: QuietPoint}."""
        time.sleep(LAST_LOOK_SECONDS)
        before = {host: host.wake_ups() for host in self.samples}
        time.sleep(QUIET_SECONDS)
        return {host: self._quiet_point(host, before[host]) for host in self.samples}

    def _quiet_point(self, host, before):
        woken = {thread: count - before.get(thread, 0)
                 for thread, count in host.wake_ups().items()}
        main = woken.pop(host.pid)
        return QuietPoint(**self._held_by(host), worker_wake_ups=sum(woken.values()),
                          main_wake_ups=main)

    def _held_by(self, host):
        return {"minutes": (time.monotonic() - self._begun) / 60,
                "resident": host.resident_bytes(), "descriptors": host.descriptors(),
                "threads": host.threads()}
