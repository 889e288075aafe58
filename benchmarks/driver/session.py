# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What all scenarios need: how much of everything, and a receiver with its devices."""

import dataclasses
import time

from harness.devices import Devices
from receivers import ALL, Receiver

WARM_UP_CONNECTIONS = 16


@dataclasses.dataclass(frozen=True)
class Scale:
    """How much of everything: the full form, and the smoke form, which only shows that it works."""

    bulk_messages: int  # a connection
    churn_connections: int
    many: int  # connections present at once
    opened: int
    window_seconds: float  # of measuring paced and idle devices
    paced_connections: int
    paced_rate: float  # messages per second and device
    sweep: tuple  # connections that share sweep_rate
    sweep_rate: float  # messages per second in all
    tls_bulk_messages: int  # of all connections
    tls_full: int  # connections with a full handshake
    tls_resumed: int
    tls_few: int  # connections present at once
    tls_many: int


FULL = Scale(bulk_messages=125_000, churn_connections=10_000, many=10_000, opened=2_000,
             window_seconds=8, paced_connections=1_000, paced_rate=10,
             sweep=(10, 100, 1_000, 5_000, 10_000, 15_000), sweep_rate=1_000,
             tls_bulk_messages=960_000, tls_full=2_000, tls_resumed=4_000, tls_few=3_000,
             tls_many=10_000)
SMOKE = Scale(bulk_messages=200, churn_connections=200, many=200, opened=50, window_seconds=0.5,
              paced_connections=50, paced_rate=10, sweep=(10, 100), sweep_rate=500,
              tls_bulk_messages=3_200, tls_full=50, tls_resumed=50, tls_few=50, tls_many=150)


class Mismatch(Exception):
    """The receiver has not counted what was sent."""


@dataclasses.dataclass(frozen=True)
class Setup:
    build: object  # directory
    certificates: object  # harness.certificates.Certificates
    scale: Scale


@dataclasses.dataclass(frozen=True)
class Scenario:
    name: str
    run: object  # run(setup, receiver name) returns {figure: value}
    receivers: tuple = ALL


def stay(rate):
    return ["--messages", 1, "--size", 199, "--close", "stay", "--connect-rate", rate, "--quiet"]


def cpu_over(receiver, seconds):
    cpu = receiver.cpu_seconds()
    time.sleep(seconds)
    return receiver.cpu_seconds() - cpu


class Session:
    """One receiver, the devices that were put on it, and the sum of what they have sent."""

    def __init__(self, setup, name, tls=None, one_thread=False):
        self.tls_version = tls.version if tls else None
        self.receiver = Receiver(setup, name, tls=tls, one_thread=one_thread)
        self.messages = 0
        self.bytes = 0

    def devices(self, connections, options):
        return Devices(self.receiver, "--connections", connections, *options,
                       tls_version=self.tls_version)

    def add_sent(self, devices):
        messages, size = devices.sent()
        self.messages += messages
        self.bytes += size

    def warm_up(self):
        """A few connections, so that threads, arenas and caches are there."""
        with self.devices(WARM_UP_CONNECTIONS, ["--messages", 10, "--size", 199]) as devices:
            devices.finish()
            self.add_sent(devices)
        self.receiver.settle()
        self.receiver.note_base()

    def cpu_of_complete_run(self, connections, options, resumed=0):
        """resumed: how many of the connections have to resume a TLS session."""
        cpu = self.receiver.cpu_seconds()
        with self.devices(connections, options) as devices:
            devices.finish()
            self.add_sent(devices)
            if devices.resumed() != resumed:
                raise Mismatch(f"{self.receiver.name} has resumed {devices.resumed()} sessions, "
                               f"not {resumed}")
        self.receiver.wait_for_end_of_connections()
        self.receiver.settle()
        return self.receiver.cpu_seconds() - cpu

    def stop_and_compare(self):
        self.receiver.wait_for_end_of_connections()
        counted = self.receiver.stop_and_count()
        if counted != (self.messages, self.bytes):
            raise Mismatch(f"{self.receiver.name} counted {counted} (messages, bytes), "
                           f"sent were {(self.messages, self.bytes)}")
