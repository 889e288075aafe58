# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Plays devices on inputhost while it reloads its configuration: no message is lost or doubled, no
connect is refused, and the old plugins' threads end. Prints a line for each run, and fails if one is
wrong.

  sending   devices that send without end and close when they are told, some reloads, and then
            SIGTERM with --drain
  connects  devices that connect, send a message and close, as fast as they can, many reloads
  stubborn  devices that never close, ten reloads at once, and SIGTERM while old plugins leave
"""

import argparse
import asyncio
import collections
import contextlib
import json
import os
import pathlib
import re
import sqlite3
import ssl
import subprocess
import sys
import tempfile

from harness.certificates import Certificates
from harness.hosts import Host
from harness.processes import HANG_GUARD_SECONDS, exit_on_sigterm

# More connections at a time would find the kernel's queue full, and wait a second.
MOST_OPENING = 128
PAUSE_SECONDS = 0.02
# Of this process: no other test uses it.
SOURCE = f"127.{64 + (os.getpid() >> 16 & 63)}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("run", choices=RUNS, nargs="+")
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--devices", type=int, default=40, help="default: 40")
    parser.add_argument("--reloads", type=int, default=3, help="default: 3")
    parser.add_argument("--keep", action="store_true",
                        help="messages go to an SQLite database, and all is recorded, too")
    parser.add_argument("--drain", type=int, default=1, help="in seconds; default: 1")
    arguments = parser.parse_args()
    exit_on_sigterm()
    faults = 0
    with tempfile.TemporaryDirectory() as folder:
        for name in arguments.run:
            run = RUNS[name](arguments, pathlib.Path(folder))
            asyncio.run(asyncio.wait_for(run.play(), 10 * HANG_GUARD_SECONDS))
            faults += len(run.faults)
            transport = "TLS" if arguments.tls else "TCP"
            print(f"{name} over {transport}: {run.summary()}: {'; '.join(run.faults) or 'good'}",
                  flush=True)
    sys.exit(1 if faults else 0)


class Device:
    """Sends numbered messages over one connection after the other."""

    def __init__(self, run, number):
        self.run = run
        self.number = number
        self.sent = 0
        self.connections = 0

    def next_message(self):
        self.sent += 1
        return b"d%d-%d\n" % (self.number, self.sent)

    async def connect(self):
        async with self.run.opening:
            try:
                reader, writer = await asyncio.open_connection(
                    "127.0.0.1", self.run.host.port, ssl=self.run.context,
                    local_addr=(SOURCE, 0))
            except OSError as error:
                self.run.failures[f"connect: {error}"] += 1
                raise
        self.connections += 1
        return reader, writer

    async def send_without_end(self):
        """Closes when its server says that nothing follows, and connects again."""
        while not self.run.over:
            try:
                reader, writer = await self.connect()
            except OSError:
                return
            while not self.run.over and not reader.at_eof():
                # Before the next look at the stream's end nothing else runs: what is written now goes out.
                writer.write(self.next_message())
                await asyncio.sleep(PAUSE_SECONDS)
            await self.close(writer)

    async def connect_without_end(self):
        while not self.run.over:
            try:
                reader, writer = await self.connect()
            except OSError:
                return
            if not reader.at_eof():
                writer.write(self.next_message())
            await self.close(writer)

    async def close(self, writer):
        writer.close()
        try:
            await writer.wait_closed()
        except OSError as error:
            self.run.failures[f"close: {error}"] += 1


class Run:
    def __init__(self, arguments, folder):
        self.arguments = arguments
        self.folder = folder
        self.certificates = Certificates(folder) if arguments.tls else None
        self.context = None
        if self.certificates:
            self.context = ssl.create_default_context(cafile=self.certificates.authority)
            self.context.check_hostname = False
        self.opening = asyncio.Semaphore(MOST_OPENING)
        self.failures = collections.Counter()
        self.faults = []
        self.over = False
        self.host = None
        self.reloads = 0
        self.devices = []
        self.database = folder / f"{type(self).__name__}.sqlite"
        self.recording = folder / f"{type(self).__name__}.rec"

    def options(self):
        options = ["--drain", self.arguments.drain]
        if self.arguments.keep:
            options += ["--output", f"sqlite:{self.database}", "--record", self.recording]
        return options

    async def play(self):
        with Host(self.arguments.build, certificates=self.certificates, options=self.options()) as self.host:
            await self.play_host()
            await asyncio.to_thread(self.host.finish)
            if self.arguments.keep:
                self.compare(self.stored())
                self.compare_recording()
            else:
                self.compare([json.loads(line)["text"] for line in self.host.output().splitlines()])
            self.faults += [f"{count} times {text}" for text, count in self.failures.items()]

    async def reload(self):
        """Returns when the new plugin serves."""
        self.reloads += 1
        self.host.reload()
        await self.wait_until(lambda: self.lines("Listening on ") > self.reloads, "new plugin")

    def lines(self, text):
        return self.host.complaints().count(text)

    async def wait_until(self, condition, what):
        """As of harness.processes; devices go on meanwhile."""
        for _ in range(int(HANG_GUARD_SECONDS / PAUSE_SECONDS)):
            if condition():
                return
            if self.host.popen.poll() is not None:
                raise RuntimeError(f"no {what}: the host has ended: {self.host.complaints()[-2000:]}")
            await asyncio.sleep(PAUSE_SECONDS)
        raise TimeoutError(f"no {what}: {self.host.complaints()[-2000:]}")

    def total(self):
        return sum(device.sent for device in self.devices)

    def stored(self):
        with contextlib.closing(sqlite3.connect(self.database)) as database:
            return [text for text, in database.execute("select cast(bytes as text) from messages")]

    def compare_recording(self):
        """It has what was sent, each connection from its beginning to its end."""
        shown = subprocess.run([self.arguments.build / "recording/devicecat", "--json", self.recording],
                               check=True, capture_output=True).stdout
        reached = {}
        ended = {}
        texts = collections.defaultdict(str)
        for entry in map(json.loads, shown.splitlines()):
            connection = entry.get("connection")
            if entry["type"] == "bytes":
                self.expect(entry["position"] == reached.get(connection, 0), "a gap in the recording")
                reached[connection] = entry["position"] + entry["bytes"]
                texts[connection] += entry["text"]
            elif entry["type"] == "end":
                ended[connection] = entry["position"]
            elif entry["type"] == "gap":
                self.expect(False, "a gap in the recording")
        self.expect(ended == {connection: reached.get(connection, 0) for connection in ended},
                    "an end in another place")
        self.expect(reached.keys() <= ended.keys(), "a connection without its end in the recording")
        self.compare([line for text in texts.values() for line in text.splitlines()])

    def compare(self, texts):
        """Each message that was sent is there once."""
        counts = collections.Counter(texts)
        sent = {f"d{device.number}-{n}" for device in self.devices
                for n in range(1, device.sent + 1)}
        missing = sent - counts.keys()
        double = [text for text, count in counts.items() if count > 1]
        strange = counts.keys() - sent
        for texts, what in ((missing, "lost"), (double, "twice"), (strange, "never sent")):
            if texts:
                self.faults.append(f"{len(texts)} {what}, {sorted(texts)[0]} for one")

    def expect(self, condition, text):
        if not condition:
            self.faults.append(text)

    def summary(self):
        return (f"{len(self.devices)} devices, {sum(d.connections for d in self.devices)} connections, "
                f"{self.total()} messages, {self.reloads} reloads")


class Sending(Run):
    async def play_host(self):
        self.devices = [Device(self, n) for n in range(self.arguments.devices)]
        tasks = [asyncio.create_task(device.send_without_end()) for device in self.devices]
        await self.wait_for_connections(1)
        threads = self.host.threads()
        for number in range(self.arguments.reloads):
            await self.reload()
            await self.wait_for_connections(number + 2)
        await self.wait_until(lambda: self.host.threads() <= threads, "end of the old plugins' threads")
        self.over = True
        self.host.ask_to_end()
        await asyncio.gather(*tasks)
        self.expect("were not closed" not in self.host.complaints(), "a device was cut off")

    async def wait_for_connections(self, count):
        await self.wait_until(lambda: self.failures or all(device.connections >= count
                                                           for device in self.devices),
                              f"{count} connections of each device")


class Connects(Run):
    async def play_host(self):
        self.devices = [Device(self, n) for n in range(self.arguments.devices)]
        tasks = [asyncio.create_task(device.connect_without_end()) for device in self.devices]
        for _ in range(self.arguments.reloads):
            await self.reload()
            before = self.total()
            await self.wait_until(lambda before=before: self.failures or self.total() >= before + 2,
                                  "messages")
        self.over = True
        await asyncio.gather(*tasks)
        self.host.ask_to_end()


class Stubborn(Run):
    """With the kit's limit of plugins that leave, and a device that closes beside them."""
    RELOADS = 10

    async def play_host(self):
        threads = self.host.threads()
        self.devices = [Device(self, n) for n in range(self.RELOADS + 1)]
        streams = []
        for device in self.devices:
            streams.append(await device.connect())
            streams[-1][1].write(device.next_message())
            await self.wait_until(lambda: len(self.host.output().splitlines()) >= len(streams), "message")
            if device.number < self.RELOADS:
                await self.reload()
        # Who is told may go on to send, unless its plugin was the oldest of too many.
        for device, (_, writer) in list(zip(self.devices, streams))[-4:]:
            writer.write(device.next_message())
        await self.wait_until(lambda: len(self.host.output().splitlines()) >= self.total(), "all messages")
        late = r"(\d+) connections were not closed by their devices, closing"
        await self.wait_until(lambda: len(re.findall(late, self.host.complaints())) >= 8, "end of the old plugins")
        await self.wait_until(lambda: self.host.threads() <= threads + 1, "end of the threads")
        await self.reload()
        self.host.ask_to_end()  # while the old one leaves
        await self.wait_until(lambda: self.lines("Stopping: ") > 0, "stop")
        for _, writer in streams:
            writer.close()


RUNS = {"sending": Sending, "connects": Connects, "stubborn": Stubborn}

if __name__ == "__main__":
    main()
