# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Plays devices on the example "store" and looks into its database: each line once. Prints a line for
each run, and fails if a line is missing, double or mangled.

With reloads, a device that is cut off connects again and goes on with its next line; then all that the
plugin has accepted must be there: the stored positions of a connection have no gap and no overlap, from
0 to the position at its end."""

import argparse
import contextlib
import os
import pathlib
import random
import signal
import socket
import sqlite3
import ssl
import sys
import tempfile
import threading

from harness.certificates import Certificates
from harness.processes import HANG_GUARD_SECONDS, Process, exit_on_sigterm, wait_until

# Of this process: no other test uses it.
ADDRESS = f"127.{64 + (os.getpid() >> 16 & 63)}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--devices", type=int, default=20)
    parser.add_argument("--messages", type=int, default=100)
    parser.add_argument("--delay-ms", type=int, default=50, help="of each commit")
    parser.add_argument("--reloads", type=int, default=0)
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--tls", action="store_true")
    arguments = parser.parse_args()
    exit_on_sigterm()
    faults = 0
    for number in range(arguments.runs):
        with tempfile.TemporaryDirectory() as folder:
            run = Run(arguments, pathlib.Path(folder), random.Random(number))
            result = run.play()
            faults += result != Run.GOOD
            print(f"run {number}: {run.sent} lines sent, {run.stored} stored: {result}", flush=True)
    sys.exit(1 if faults else 0)


class Run:
    GOOD = "good"

    def __init__(self, arguments, folder, generator):
        self.arguments = arguments
        self.database = folder / "messages.sqlite"
        self.certificates = Certificates(folder) if arguments.tls else None
        self.seeds = [generator.random() for _ in range(arguments.devices)]
        self.lock = threading.Lock()
        self.sent = 0
        self.stored = 0
        self.failed = []
        with socket.socket() as probe:
            probe.bind((ADDRESS, 0))
            self.port = probe.getsockname()[1]

    def play(self):
        command = [self.arguments.build / "examples/store", ADDRESS, self.port, self.database,
                   self.arguments.delay_ms]
        if self.certificates:
            command += [self.certificates.server, self.certificates.server_key]
        with Process(command) as store:
            wait_until(lambda: store.listens_on(self.port), "listening")
            devices = [threading.Thread(target=self.device, args=(number, seed), daemon=True)
                       for number, seed in enumerate(self.seeds)]
            for device in devices:
                device.start()
            self.reload(store)
            for device in devices:
                device.join(HANG_GUARD_SECONDS)
            # A connection that nobody has taken yet is closed when the program ends.
            if not self.arguments.reloads and not self.failed:
                wait_until(lambda: self.ended() == self.arguments.devices, "the end of each device")
            store.stop()
        if self.failed:
            return self.failed[0]
        return self.compare()

    def reload(self, store):
        total = self.arguments.devices * self.arguments.messages
        for number in range(self.arguments.reloads):
            mark = total * (number + 1) // (self.arguments.reloads + 1)
            wait_until(lambda mark=mark: self.sent >= mark or self.failed, "some lines")
            store.popen.send_signal(signal.SIGHUP)

    def device(self, number, seed):
        try:
            self.send(number, random.Random(seed))
        except Exception as error:  # pylint: disable=broad-except
            self.failed.append(f"device {number}: {error!r}")

    def send(self, number, generator):
        connection = self.connect()
        lines = [b"device %d line %d\n" % (number, line) for line in range(self.arguments.messages)]
        while lines:
            count = min(generator.randint(1, 20), len(lines))
            data = b"".join(lines[:count])
            cut = generator.randrange(len(data))
            try:
                connection.sendall(data[:cut])
                connection.sendall(data[cut:])
            except OSError:
                if not self.arguments.reloads:
                    raise
                connection.close()
                connection = self.connect()
            del lines[:count]
            with self.lock:
                self.sent += count
        if self.certificates:
            # A plain close would be a reset if something from the store lies unread, and the last lines
            # would be gone.
            with contextlib.suppress(OSError):  # the store need not answer
                connection.unwrap()
        connection.close()

    def connect(self):
        while True:
            try:
                connection = socket.create_connection((ADDRESS, self.port), HANG_GUARD_SECONDS)
                if not self.certificates:
                    return connection
                context = ssl.create_default_context(cafile=self.certificates.authority)
                context.check_hostname = False
                return context.wrap_socket(connection)
            except OSError:
                if not self.arguments.reloads:
                    raise

    def ended(self):
        """How many connections are over, and stored as a whole."""
        with contextlib.closing(sqlite3.connect(self.database)) as database:
            return database.execute("select count(*) from ends").fetchone()[0]

    def compare(self):
        """What is wrong, or GOOD."""
        with contextlib.closing(sqlite3.connect(self.database)) as database:
            messages = database.execute(
                "select connection, position, finish, partial, bytes from messages").fetchall()
            ends = dict(database.execute("select connection, position from ends").fetchall())
        self.stored = len(messages)
        whole = [bytes(line) for _, _, _, partial, line in messages if not partial]
        if len(set(whole)) != len(whole):
            return f"{len(whole) - len(set(whole))} lines are stored twice"
        known = {b"device %d line %d" % (device, line) for device in range(self.arguments.devices)
                 for line in range(self.arguments.messages)}
        if set(whole) - known:
            return f"mangled: {sorted(set(whole) - known)[0]!r}"
        if not self.arguments.reloads and set(whole) != known:
            return f"{len(known - set(whole))} lines are missing"
        reached = {}
        for connection, position, finish, _, _ in messages:
            if position != reached.get(connection, 0):
                return f"connection {connection}: {position} follows {reached.get(connection, 0)}"
            reached[connection] = finish
        if reached != {connection: end for connection, end in ends.items() if end}:
            return "not all that came before an end is stored"
        return self.GOOD


if __name__ == "__main__":
    main()
