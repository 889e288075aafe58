# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Plays devices on inputhost with a store, and looks into the store: each message once, and those of a
connection in order. Prints a line for each run, and fails if a message is lost, double or out of order.

Devices close at random, and go on with another connection. Meanwhile the store is killed and started
again. With --kills the host itself is killed under load, and started again with the same store: then
what the store has of a connection is its beginning, without a gap, and nothing that it had is gone."""

import argparse
import contextlib
import json
import os
import pathlib
import random
import signal
import socket
import ssl
import sys
import tempfile
import threading
from collections import Counter

from harness.certificates import Certificates
from harness.hosts import Listener
from harness.processes import HANG_GUARD_SECONDS, exit_on_sigterm, wait_until
from playedstores import STORES

# Of this process: no other test uses it.
ADDRESS = f"127.{64 + (os.getpid() >> 16 & 63)}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"

# On a busy machine a device may have to wait for long: it must not be closed for that.
PATIENCE_SECONDS = 2 * HANG_GUARD_SECONDS
LIMITS = {"connectionBuffer": 1 << 20, "totalBuffer": 128 << 20}

SKIPPED = 77  # for ctest


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("store", choices=STORES)
    parser.add_argument("--devices", type=int, default=50)
    parser.add_argument("--messages", type=int, default=200, help="of each device")
    parser.add_argument("--restarts", type=int, default=3, help="of the store, in each run")
    parser.add_argument("--kills", type=int, default=0, help="of the host, in each run")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--first-run", type=int, default=0, help="its number is the seed")
    parser.add_argument("--tls", action="store_true")
    arguments = parser.parse_args()
    exit_on_sigterm()
    if not STORES[arguments.store].is_installed():
        print(f"{arguments.store} is not installed")
        sys.exit(SKIPPED)
    play = KillRun if arguments.kills else RestartRun
    faults = 0
    for number in range(arguments.first_run, arguments.first_run + arguments.runs):
        with tempfile.TemporaryDirectory() as folder:
            run = play(arguments, pathlib.Path(folder), random.Random(number))
            result = run.play()
            faults += bool(result)
            print(f"{arguments.store} {'TLS' if arguments.tls else 'TCP'} run {number}: {run.summary()}:"
                  f" {result or 'good'}", flush=True)
    sys.exit(1 if faults else 0)


class Run:
    """One store, and hosts that use it."""

    def __init__(self, arguments, folder, generator):
        self.arguments = arguments
        self.generator = generator
        self.certificates = Certificates(folder) if arguments.tls else None
        self.store = STORES[arguments.store](folder, ADDRESS)
        with socket.socket() as probe:
            probe.bind((ADDRESS, 0))
            self.port = probe.getsockname()[1]

    def play(self):
        """Returns what is wrong; None: nothing."""
        self.store.start()
        try:
            return self.course()
        finally:
            self.store.close()

    def host(self):
        command = [self.arguments.build / "host/inputhost", "--plugin",
                   self.arguments.build / "tcpinput/libtcpinputplugin2.so", "--output", self.store.output,
                   *self.store.options, "--set", f"ipAddr={ADDRESS}", "--set", f"port={self.port}",
                   "--set", f"timeout={PATIENCE_SECONDS}",
                   "--set", f"limits={json.dumps({**LIMITS, 'stalledTimeout': PATIENCE_SECONDS})}"]
        if self.certificates:
            command += ["--set", f"ssl={self.certificates.setting()}"]
        return Listener(command, self.arguments.build, self.port, self.certificates)

    def connect(self):
        connection = socket.create_connection((ADDRESS, self.port), HANG_GUARD_SECONDS)
        if not self.certificates:
            return connection
        context = ssl.create_default_context(cafile=self.certificates.authority)
        context.check_hostname = False
        return context.wrap_socket(connection)

    def leave(self, connection):
        if self.certificates:
            with contextlib.suppress(OSError):  # the host need not answer
                connection.unwrap()
        connection.close()


def fault_of(rows):
    """Rows in the order of storing: what is wrong with a connection's, or None. Each begins where the one
    before ends, and its line has the next number."""
    reached = {}
    lines = {}
    for row in rows:
        before = reached.get(row.connection, 0)
        if row.position != before:
            return f"{row.connection}: {row.position} follows {before}"
        reached[row.connection] = row.end
        if row.end != row.position + len(row.data) + 1:
            return f"{row.connection}: {row.data!r} ends at {row.end}"
        device, number = line_of(row.data)
        if lines.setdefault(row.connection, (device, number)) != (device, number):
            return f"{row.connection}: {row.data!r} is out of order"
        lines[row.connection] = (device, number + 1)
    return None


def line_of(data):
    """Returns (device, number)."""
    words = data.split()
    if len(words) != 4 or words[0] != b"device" or words[2] != b"line":
        raise RuntimeError(f"a mangled message: {data!r}")
    return int(words[1]), int(words[3])


class RestartRun(Run):
    """Devices that send numbered lines and close at random, while the store goes and comes back."""

    def __init__(self, arguments, folder, generator):
        super().__init__(arguments, folder, generator)
        self.seeds = [generator.random() for _ in range(arguments.devices)]
        self.total = arguments.devices * arguments.messages
        self.changed = threading.Condition()
        self.sent = 0
        self.allowed = self.mark(1)
        self.connections = 0
        self.failed = []
        self.rows = []

    def mark(self, number):
        """So many lines come before the store is killed for that time."""
        return self.total * number // (self.arguments.restarts + 1)

    def course(self):
        with self.host() as host:
            devices = [threading.Thread(target=self.device, args=(number, seed), daemon=True)
                       for number, seed in enumerate(self.seeds)]
            for device in devices:
                device.start()
            for number in range(1, self.arguments.restarts + 1):
                self.restart(number)
            for device in devices:
                device.join(HANG_GUARD_SECONDS)
            if self.failed:
                return self.failed[0]
            # A connection that nobody has taken yet is closed when the program ends.
            wait_until(lambda: host.popen.poll() is not None or self.counted(host) == self.total, "all lines")
            host.stop()
        self.rows = self.store.rows()
        return self.fault()

    def restart(self, number):
        self.wait_for_lines(self.mark(number))
        self.store.kill()
        with self.changed:
            self.allowed = self.mark(number + 1)
            self.changed.notify_all()
        # Half of what is allowed now comes while the store is away.
        self.wait_for_lines((self.mark(number) + self.mark(number + 1)) // 2)
        self.store.start()

    def wait_for_lines(self, count):
        with self.changed:
            if not self.changed.wait_for(lambda: self.sent >= count or self.failed, HANG_GUARD_SECONDS):
                self.failed.append(f"{self.sent} instead of {count} lines could be sent")

    @staticmethod
    def counted(host):
        before = host.complaints().count("\nmessages ")
        host.popen.send_signal(signal.SIGUSR1)
        wait_until(lambda: host.complaints().count("\nmessages ") > before, "counters")
        return int(host.complaints().rpartition("\nmessages ")[2].split()[0])

    def device(self, number, seed):
        try:
            self.send(number, random.Random(seed))
        except Exception as error:  # pylint: disable=broad-except
            with self.changed:
                self.failed.append(f"device {number}: {error!r}")
                self.changed.notify_all()

    def send(self, device, generator):
        number = 0
        while number < self.arguments.messages:
            connection = self.connect()
            with self.changed:
                self.connections += 1
            last = min(number + generator.randint(1, 100), self.arguments.messages)
            while number < last:
                count = min(generator.randint(1, 20), last - number)
                lines = [b"device %d line %d\n" % (device, n) for n in range(number, number + count)]
                data = b"".join(lines)
                cut = generator.randrange(len(data))
                connection.sendall(data[:cut])
                connection.sendall(data[cut:])
                number += count
                self.note_sent(count)
            self.leave(connection)

    def note_sent(self, count):
        with self.changed:
            self.sent += count
            self.changed.notify_all()
            if not self.changed.wait_for(lambda: self.sent < self.allowed or self.allowed == self.total
                                         or self.failed, HANG_GUARD_SECONDS):
                self.failed.append("the store was not restarted")

    def fault(self):
        fault = fault_of(self.rows)
        if fault:
            return fault
        stored = Counter(line_of(row.data) for row in self.rows)
        double = [line for line, count in stored.items() if count > 1]
        missing = [(device, number) for device in range(self.arguments.devices)
                   for number in range(self.arguments.messages) if (device, number) not in stored]
        if double or missing:
            return f"{len(missing)} lost, {len(double)} double"
        if len(stored) != self.total:
            return f"{len(stored) - self.total} that nobody has sent"
        return None

    def summary(self):
        return (f"{self.sent} lines over {self.connections} connections, {self.arguments.restarts} restarts, "
                f"{len(self.rows)} stored")


class KillRun(Run):
    """A host that is killed under load again and again."""

    def __init__(self, arguments, folder, generator):
        super().__init__(arguments, folder, generator)
        self.rows = []
        self.ending = threading.Event()  # the host was killed

    def course(self):
        for _ in range(self.arguments.kills):
            fault = self.kill_once()
            if fault:
                return fault
        return None

    def kill_once(self):
        known = len(self.rows)
        self.ending.clear()
        with self.host() as host:
            devices = [threading.Thread(target=self.device, args=(number,), daemon=True)
                       for number in range(self.arguments.devices)]
            for device in devices:
                device.start()
            enough = known + self.generator.randint(1, 3000)  # so it is killed in different states
            seen = 0

            def has_stored():
                nonlocal seen
                seen = self.store.count()
                return seen >= enough

            wait_until(has_stored, "stored lines")
            host.kill()
        self.ending.set()
        for device in devices:
            device.join(HANG_GUARD_SECONDS)
        before, self.rows = self.rows, self.store.rows()
        if self.rows[:len(before)] != before:
            return "what an earlier host had stored has changed"
        if len(self.rows) < seen:
            return f"{seen} lines were stored, and {len(self.rows)} are there"
        return fault_of(self.rows)

    def device(self, device):
        with contextlib.suppress(OSError), self.connect() as connection:  # the host is killed
            for number in range(0, self.arguments.messages, 20):
                connection.sendall(b"".join(b"device %d line %d\n" % (device, n)
                                            for n in range(number, number + 20)))
            self.ending.wait(HANG_GUARD_SECONDS)

    def summary(self):
        return f"{self.arguments.kills} kills of the host, {len(self.rows)} lines stored"


if __name__ == "__main__":
    main()
