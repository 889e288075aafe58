# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What the receivers are put through. Each scenario runs one receiver once and returns figures."""

import dataclasses
import time

from harness.devices import Devices
from receivers import ALL, INPUTHOST, QT, Receiver

WARM_UP_CONNECTIONS = 16


@dataclasses.dataclass(frozen=True)
class Scale:
    """How much of everything: the full form, and the smoke form, which only shows that it works."""

    bulk_messages: int  # a connection
    tls_bulk_messages: int
    churn_connections: int
    tls_connections: int
    many: int  # connections present at once
    opened: int
    window_seconds: float  # of measuring paced and idle devices
    paced_connections: int
    paced_rate: float  # messages per second and device
    sweep: tuple  # connections that share sweep_rate
    sweep_rate: float  # messages per second in all


FULL = Scale(bulk_messages=125_000, tls_bulk_messages=60_000, churn_connections=10_000,
             tls_connections=1_000, many=10_000, opened=2_000, window_seconds=8,
             paced_connections=1_000, paced_rate=10,
             sweep=(10, 100, 1_000, 5_000, 10_000, 15_000), sweep_rate=1_000)
SMOKE = Scale(bulk_messages=200, tls_bulk_messages=200, churn_connections=200, tls_connections=50,
              many=200, opened=50, window_seconds=0.5, paced_connections=50, paced_rate=10,
              sweep=(10, 100), sweep_rate=500)


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


def bulk(setup, name):
    return _bulk(setup, name, setup.scale.bulk_messages, tls=False)


def tls_bulk(setup, name):
    return _bulk(setup, name, setup.scale.tls_bulk_messages, tls=True)


def _bulk(setup, name, messages, tls):
    session = _Session(setup, name, tls=tls)
    with session.receiver:
        session.warm_up()
        cpu = session.cpu_of_complete_run(
            connections=16,
            options=["--messages", messages, "--size", 999, "--segments", "blocks"])
        session.stop_and_compare()
    return {"tls_bulk" if tls else "bulk": cpu / (16 * messages * 1000 / 1e9)}


def churn(setup, name):
    """At a rate that every receiver can keep up with: what is measured is not how it is flooded."""
    return _churn(setup, name, "churn", setup.scale.churn_connections, rate=1_000, tls=False)


def tls_handshakes(setup, name):
    return _churn(setup, name, "tls_handshake", setup.scale.tls_connections, rate=200, tls=True)


def _churn(setup, name, figure, connections, rate, tls):
    session = _Session(setup, name, tls=tls)
    with session.receiver:
        session.warm_up()
        cpu = session.cpu_of_complete_run(
            connections=connections,
            options=["--connect-rate", rate, "--messages", 1, "--size", 199, "--quiet"])
        session.stop_and_compare()
    return {figure: cpu / connections * 1e6}


def idle(setup, name):
    """Devices that have sent one message and stay. The plugin has all of them in one worker."""
    many, window = setup.scale.many, setup.scale.window_seconds
    session = _Session(setup, name, one_thread=True)
    with session.receiver as receiver:
        session.warm_up()
        resident = receiver.resident_bytes()
        with session.devices(many, _stay(rate=2_000)) as devices:
            receiver.wait_for_connections(many)
            receiver.settle()
            resident = receiver.resident_bytes() - resident
            used = _cpu_over(receiver, window)
            devices.stop()
            session.add_sent(devices)
        session.stop_and_compare()
    return {"idle_memory": resident / many, "idle_cpu": used / window * 100}


def opening_few(setup, name):
    return {"opening_few": _opening(setup, name, 10)}


def opening_many(setup, name):
    return {"opening_many": _opening(setup, name, setup.scale.many)}


def _opening(setup, name, present):
    """What one more connection costs, less what those present cost meanwhile."""
    opened = setup.scale.opened
    session = _Session(setup, name)
    with session.receiver as receiver:
        session.warm_up()
        with session.devices(present, _stay(rate=2_000)) as others:
            receiver.wait_for_connections(present)
            receiver.settle()
            background = _cpu_over(receiver, setup.scale.window_seconds / 4)
            background /= setup.scale.window_seconds / 4

            started, cpu = time.monotonic(), receiver.cpu_seconds()
            with session.devices(opened, _stay(rate=2_000)) as devices:
                receiver.wait_for_connections(present + opened)
                receiver.settle()
                cpu = receiver.cpu_seconds() - cpu
                cpu -= background * (time.monotonic() - started)
                devices.stop()
                session.add_sent(devices)
            others.stop()
            session.add_sent(others)
        session.stop_and_compare()
    return cpu / opened * 1e6


def paced(setup, name):
    scale = setup.scale
    return {"paced": _paced(setup, name, scale.paced_connections, scale.paced_rate)}


def sweep(connections):
    def run(setup, name):
        rate = setup.scale.sweep_rate / connections
        return {f"sweep_{connections}": _paced(setup, name, connections, rate)}

    return run


def _paced(setup, name, connections, rate):
    """CPU per message while each device sends 200 bytes at the rate, evenly spread over time."""
    window = setup.scale.window_seconds
    session = _Session(setup, name)
    # Opened at the rate at which they will send: each has a moment of its own.
    options = ["--messages", 0, "--rate", rate, "--size", 199, "--connect-rate", connections * rate,
               "--quiet"]
    with session.receiver as receiver:
        session.warm_up()
        with session.devices(connections, options) as devices:
            receiver.wait_for_connections(connections)
            messages = devices.messages_so_far()
            cpu = _cpu_over(receiver, window)
            messages = devices.messages_so_far() - messages
            devices.stop()
            session.add_sent(devices)
        if messages < 0.8 * connections * rate * window:
            print(f"      note: {messages} messages in {window} s, this machine is too busy")
        session.stop_and_compare()
    return cpu / messages * 1e6


def _stay(rate):
    return ["--messages", 1, "--size", 199, "--close", "stay", "--connect-rate", rate, "--quiet"]


def _cpu_over(receiver, seconds):
    cpu = receiver.cpu_seconds()
    time.sleep(seconds)
    return receiver.cpu_seconds() - cpu


class _Session:
    """One receiver, the devices that were put on it, and the sum of what they have sent."""

    def __init__(self, setup, name, tls=False, one_thread=False):
        self.receiver = Receiver(setup, name, tls=tls, one_thread=one_thread)
        self.messages = 0
        self.bytes = 0

    def devices(self, connections, options):
        return Devices(self.receiver, "--connections", connections, *options)

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

    def cpu_of_complete_run(self, connections, options):
        cpu = self.receiver.cpu_seconds()
        with self.devices(connections, options) as devices:
            devices.finish()
            self.add_sent(devices)
        self.receiver.wait_for_end_of_connections()
        self.receiver.settle()
        return self.receiver.cpu_seconds() - cpu

    def stop_and_compare(self):
        self.receiver.wait_for_end_of_connections()
        counted = self.receiver.stop_and_count()
        if counted != (self.messages, self.bytes):
            raise Mismatch(f"{self.receiver.name} counted {counted} (messages, bytes), "
                           f"sent were {(self.messages, self.bytes)}")


def scenarios(scale):
    result = [
        Scenario("bulk", bulk),
        Scenario("churn", churn),
        Scenario("paced", paced),
        Scenario("idle", idle),
        Scenario("opening_few", opening_few),
        Scenario("opening_many", opening_many),
        Scenario("tls_bulk", tls_bulk, (QT, INPUTHOST)),
        Scenario("tls_handshakes", tls_handshakes, (QT, INPUTHOST)),
    ]
    return result + [Scenario(f"sweep_{count}", sweep(count)) for count in scale.sweep]
