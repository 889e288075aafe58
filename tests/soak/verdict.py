# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Whether everything has returned to its level. docs/SOAK.md tells the rules."""

import dataclasses

MIB = 1 << 20
# The level of memory is the highest value of the first cycles.
LEVEL_PART = 1 / 4
LEAST_LEVEL_CYCLES = 2
IN_USE_TOLERANCE = 1 * MIB
# Allocators keep free memory for the next peak, and the number of devices at a peak is random.
KEPT_TOLERANCE = 0.25  # of the level
# If a host waited longer for a CPU during the steady load, handshakes and idle devices may time
# out. Such a cycle shows that the machine was busy, and says nothing about the host.
MOST_WAITING_SECONDS = 2
MOST_DISTURBED_PART = 1 / 10
# The main thread has timers of some seconds. One beat more or less may fall into the measured time.
MAIN_WAKE_UPS_TOLERANCE = 3


@dataclasses.dataclass
class Record:
    """Of one host."""

    level: dict  # descriptors and threads
    keeps_free_memory: bool
    quiet: list = dataclasses.field(default_factory=list)  # of QuietPoint
    connections: int = 0
    sent: int = 0  # messages, while nothing was restarted
    counted: int = 0
    connections_after: list = dataclasses.field(default_factory=list)  # one for each cycle
    disturbed: list = dataclasses.field(default_factory=list)  # one for each cycle
    faults: list = dataclasses.field(default_factory=list)

    def add_steady(self, sent, counted, waited_seconds):
        """Nothing was restarted meanwhile. counted: (messages, bytes)."""
        self.connections += sent.connections
        self.disturbed.append(waited_seconds > MOST_WAITING_SECONDS)
        if self.disturbed[-1]:
            return
        self.sent += sent.content[0]
        self.counted += counted[0]
        self.faults += sent.failures
        if sent.content != counted:
            self.faults.append(f"sent {sent.content}, counted {counted} (messages, bytes)")

    def add_rough(self, sent, counted):
        """A restart may lose what no client had read, but nothing comes twice."""
        self.connections += sent.connections
        if counted[0] > sent.content[0]:
            self.faults.append(f"while restarting: sent {sent.content}, counted {counted}")

    def add_quiet(self, point):
        self.quiet.append(point)
        self.connections_after.append(self.connections)

    def level_cycles(self):
        return max(LEAST_LEVEL_CYCLES, round(len(self.quiet) * LEVEL_PART))

    def memory_level(self):
        points = self.quiet[:self.level_cycles()]
        if self.keeps_free_memory:  # in disturbed cycles more devices are there at once
            points = points + [point for point, disturbed in zip(self.quiet, self.disturbed)
                               if disturbed]
        return max(point.resident for point in points)

    def most_memory(self):
        level = self.memory_level()
        return level + (KEPT_TOLERANCE * level if self.keeps_free_memory else IN_USE_TOLERANCE)

    def highest_memory(self):
        """After the cycles that make the level; None if there were none."""
        later = self.quiet[self.level_cycles():]
        return max((point.resident for point in later), default=None)

    def judge(self):
        """Returns all that is wrong, as lines."""
        first = self.quiet[0]
        wrong = list(self.faults)
        for point in self.quiet:
            when = f"minute {point.minutes:.1f}: "
            for name, level in self.level.items():
                value = getattr(point, name)
                if value != level:
                    wrong.append(f"{when}{value} {name} instead of {level}")
            if point.worker_wake_ups > 0:
                wrong.append(f"{when}workers without connections woke up "
                             f"{point.worker_wake_ups} times")
            if point.main_wake_ups > first.main_wake_ups + MAIN_WAKE_UPS_TOLERANCE:
                wrong.append(f"{when}the main thread woke up {point.main_wake_ups} times instead "
                             f"of {first.main_wake_ups}")
        if sum(self.disturbed) > MOST_DISTURBED_PART * len(self.disturbed):
            wrong.append(f"the machine was too busy in {sum(self.disturbed)} cycles")
        highest = self.highest_memory()
        if highest is not None and highest > self.most_memory():
            wrong.append(f"{highest / MIB:.2f} MiB resident, level {self.memory_level() / MIB:.2f}")
        return wrong
