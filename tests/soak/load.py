# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What devices do to the hosts in each cycle. Modest on purpose: it goes on for hours."""

import contextlib
import dataclasses
import functools
import itertools
import operator
import time

from harness.devices import Devices
from hosts import IDLE_TIMEOUT_SECONDS

STEADY_SECONDS = 12
ROUGH_SECONDS = 6
RELOADS_A_CYCLE = 3
SECONDS_FOR_THE_END = 30  # for the end of the last connections, after the devices' end


@dataclasses.dataclass(frozen=True)
class Sent:
    connections: int
    content: tuple  # (messages, bytes without newlines)
    failures: list  # devices that could not do their task

    def __add__(self, other):
        content = tuple(map(sum, zip(self.content, other.content)))
        return Sent(self.connections + other.connections, content,
                    self.failures + other.failures)


def report_of(devices):
    """Waits for their end."""
    devices.wait()
    report = devices.report()
    return Sent(report["summary"]["opened"], devices.sent(),
                [f"device {each['device']} {each['end']} after {each['endMs']} ms: "
                 f"{each['error']}" for each in report["connections"] if each["failed"]])


def steady(hosts):
    """Nothing is restarted: what was sent has to be counted. Returns what was sent to each host."""

    def of(host):
        def devices(*options, **more):
            return Devices(host, "--size", 199, *options, **more)

        yield devices("--connections", 10, "--messages", 5 * STEADY_SECONDS, "--rate", 5,
                      "--segments", "random")
        yield devices("--connections", 60, "--messages", 1, "--close", "stay", "--linger-ms", 2000)
        if host.certificates:
            for version in ("1.2", "1.3"):
                yield devices(*_churn(rate=8), "--close", "close", tls_version=version)
            yield devices(*_churn(rate=4), "--close", "half-close")
            yield devices(*_churn(rate=1), "--fault", "close-notify-only",
                          "--linger-ms", 1000 * IDLE_TIMEOUT_SECONDS)
        else:
            for ending in ("close", "half-close", "abort"):
                yield devices(*_churn(rate=15), "--close", ending)
        # The idle time-out ends these.
        yield devices("--connections", 3, "--messages", 1, "--close", "stay")

    return _play(hosts, of)


def rough(hosts):
    """The hosts restart while devices come and go, well and badly behaved ones."""

    def of(host):
        def devices(*options):
            return Devices(host, *options)

        yield devices("--connections", 10, "--messages", 0, "--rate", 5)
        yield devices("--connections", 25 * ROUGH_SECONDS, "--connect-rate", 25, "--messages", 10,
                      "--rate", 10, "--segments", "random")
        yield devices("--connections", 5, "--fault", "silent")
        if host.certificates:
            for fault in ("garbage", "abort-handshake", "close-without-reading"):
                yield devices("--connections", 5 * ROUGH_SECONDS, "--connect-rate", 5,
                              "--fault", fault)

    def restart_now_and_then():
        for _ in range(RELOADS_A_CYCLE):
            time.sleep(ROUGH_SECONDS / (RELOADS_A_CYCLE + 1))
            for host in hosts:
                host.reload()
        time.sleep(ROUGH_SECONDS / (RELOADS_A_CYCLE + 1))

    return _play(hosts, of, restart_now_and_then)


def _churn(rate):
    return ("--connections", rate * STEADY_SECONDS, "--connect-rate", rate, "--messages", 2)


def _play(hosts, devices_of, meanwhile=None):
    """Returns what was sent to each host. meanwhile: devices are ended after it; without it they
    come to their end by themselves."""
    with contextlib.ExitStack() as stack:
        playing = [[stack.enter_context(devices) for devices in devices_of(host)]
                   for host in hosts]
        if meanwhile:
            meanwhile()
            for devices in itertools.chain(*playing):
                devices.ask_to_end()
        sent = [functools.reduce(operator.add, map(report_of, of_one_host))
                for of_one_host in playing]
    until = time.monotonic() + SECONDS_FOR_THE_END
    for host in hosts:
        host.wait_for_end_of_connections(until)
    return sent
