# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Checks a host with limits while it stands still: its memory, and whether it loses bytes. Started
by scripts/standing-host."""

import argparse
import concurrent.futures
import contextlib
import hashlib
import os
import pathlib
import sys
import tempfile
import threading
import time

from harness.certificates import Certificates
from harness.devices import Devices
from harness.hosts import Host
from harness.processes import exit_on_sigterm, wait_until
from harness.progress import Progress

TRANSPORTS = (None, "1.2", "1.3")  # TLS versions; None: TCP
TOTAL_BYTES = 64 << 20
LIMITS = '{"connectionBuffer": %d, "totalBuffer": %d}' % (1 << 20, TOTAL_BYTES)
MOST_OF_TOTAL = 1.3
SLOW = ("--connections", 100, "--rate", 5, "--size", 199)  # 1 KB/s each
SLOW_MESSAGES_PER_SECOND = 5
FAST = ("--connections", 16, "--size", 999, "--segments", "blocks", "--messages", 40_000)
DEVICES = SLOW[1] + FAST[1]
POLL_SECONDS = 0.1


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--parallel", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=60)
    arguments = parser.parse_args()
    exit_on_sigterm()
    print("| Transport | before, MiB | at most, MiB more | of the limit | MB | wrong devices |\n"
          "|---|---|---|---|---|---|", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        certificates = Certificates(pathlib.Path(folder))
        with concurrent.futures.ThreadPoolExecutor(arguments.parallel) as runs:
            good = [runs.submit(play, arguments, version, certificates)
                    for version in TRANSPORTS for _ in range(arguments.runs)]
            try:
                with Progress(lambda: finished(good)):
                    concurrent.futures.wait(good)
            except BaseException:
                runs.shutdown(cancel_futures=True)  # those that go on are waited for
                raise
    sys.exit(0 if all(run.result() for run in good) else 1)


def finished(runs):
    """For Progress."""
    done = sum(run.done() for run in runs)
    return f"{done} of {len(runs)} runs", done / len(runs)


def play(arguments, version, certificates):
    """One run. Returns whether it was as it should be."""
    read_end, write_end = os.pipe()
    with contextlib.ExitStack() as stack:
        host = stack.enter_context(Host(
            arguments.build, settings={"limits": LIMITS}, options=("--output", "raw"),
            out=write_end, certificates=certificates if version else None))
        os.close(write_end)
        before = host.resident_bytes()
        reader = Reader(read_end)
        reader.start()
        stack.callback(reader.reads.set)  # or a run that fails would never end
        messages = ("--messages", SLOW_MESSAGES_PER_SECOND * (arguments.seconds + 2))
        groups = [Reports(host, version, FAST), Reports(host, version, (*SLOW, *messages))]
        for group in groups:
            stack.enter_context(group.devices)
        # A host that stands still makes no handshakes.
        wait_until(lambda: len(reader.streams) == DEVICES, "messages of all devices")

        reader.reads.clear()
        most = 0
        end = time.monotonic() + arguments.seconds
        while time.monotonic() < end:
            time.sleep(POLL_SECONDS)
            most = max(most, host.resident_bytes())
        reader.reads.set()
        while any(group.devices.popen.poll() is None for group in groups):
            time.sleep(POLL_SECONDS)
            most = max(most, host.resident_bytes())
        sent = [connection for group in groups for connection in group.sent()]
        expected = sum(connection["bytes"] for connection in sent)
        wait_until(lambda: reader.bytes >= expected or host.popen.poll() is not None,
                   "the output of all messages", strict=False)
        host.stop()
        reader.join()
    faults = reader.faults(sent)
    more = most - before
    print(f"| {'TLS ' + version if version else 'TCP'} | {before / 2**20:.0f} | "
          f"{more / 2**20:.0f} | {more / TOTAL_BYTES:.2f} | {expected / 1e6:.0f} | {faults} |",
          flush=True)
    return faults == 0 and more <= MOST_OF_TOTAL * TOTAL_BYTES


class Reports:
    """Devices and their reports. Each group of devices has its own size of messages."""

    def __init__(self, host, version, options):
        self.size = options[options.index("--size") + 1]
        self.devices = Devices(host, *options, checksum=True, tls_version=version or "1.3")

    def sent(self):
        """Returns what each connection has sent."""
        self.devices.finish()
        connections = self.devices.report()["connections"]
        return [{**connection, "size": self.size} for connection in connections]


class Reader(threading.Thread):
    """Reads all messages that inputhost prints, while reads is set."""

    def __init__(self, descriptor):
        super().__init__()
        self.file = os.fdopen(descriptor, "rb")
        self.bytes = 0
        self.reads = threading.Event()
        self.reads.set()
        self.streams = {}  # SHA-1, by the messages' size and the device's number

    def run(self):
        with self.file:
            for line in self.file:
                self.reads.wait()
                device = line[1:line.index(b"-")]
                key = len(line) - 1, int(device)
                if key not in self.streams:
                    self.streams[key] = hashlib.sha1()
                self.streams[key].update(line)
                self.bytes += len(line)

    def faults(self, sent):
        """Counts the connections whose bytes did not all come, each once and in order."""
        streams = {key: stream.hexdigest() for key, stream in self.streams.items()}
        wrong = sum(streams.pop((connection["size"], connection["device"]), None)
                    != connection["sha1"] or connection["failed"] for connection in sent)
        return wrong + len(streams)


if __name__ == "__main__":
    main()
