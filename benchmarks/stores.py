# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What storing costs inputhost, beside counting. Started by benchmarks/stores, which says what it shows."""

import argparse
import os
import pathlib
import statistics
import sys
import tempfile
import time

from harness.databases import STORES
from harness.devices import Devices
from harness.hosts import Host
from harness.processes import exit_on_sigterm, wait_until
from harness.progress import Progress, Steps

CONNECTIONS = 1000
PACED = ("--connections", CONNECTIONS, "--size", 199, "--rate", 1, "--parallel", 100)
BARS = {"SQLite": (1.5, 50_000), "JetStream R1": (2.5, 40_000)}  # CPU beside counting, messages/s


class Counting:
    """No store."""

    name = "count"
    output = "count"

    def __init__(self, _folder):
        pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--messages", type=int, default=400)
    arguments = parser.parse_args()
    exit_on_sigterm()
    os.environ["PATH"] += ":/usr/sbin"
    kinds = [Counting, *(store for store in STORES if store.is_installed())]
    costs = {kind.name: [] for kind in kinds}
    rates = {kind.name: [] for kind in kinds}
    at_full_speed = {kind.name: [] for kind in kinds}
    progress = Steps(arguments.rounds * len(kinds))
    with Progress(progress.describe):
        for number in range(arguments.rounds):
            for kind in kinds:
                progress.begin(f"{kind.name}, round {number + 1}")
                costs[kind.name].append(paced(arguments, kind))
                rate, cost = full_speed(arguments, kind)
                rates[kind.name].append(rate)
                at_full_speed[kind.name].append(cost)
    show(costs, rates, at_full_speed)


def run(arguments, kind, *options):
    """Returns a folder, the store in it, and what starts a host that uses it."""
    folder = tempfile.TemporaryDirectory()
    store = kind(folder.name)
    return folder, store, lambda: Host(arguments.build, options=("--output", store.output, "--log-level",
                                                                 "warning", *options))


def paced(arguments, kind):
    """Returns the CPU time of a message in µs, at 1,000 messages a second from 1,000 connections."""
    folder, store, new_host = run(arguments, kind)
    with folder, store, new_host() as host, \
            Devices(host, *PACED, "--messages", arguments.seconds + 5) as devices:
        # Without what connecting costs, and the first messages.
        wait_until(lambda: host.counted()[0] >= 2 * CONNECTIONS, "messages of all devices")
        before, cpu = host.counted()[0], host.cpu_seconds()
        time.sleep(arguments.seconds)
        after, cpu_after = host.counted()[0], host.cpu_seconds()
        devices.kill()
        host.stop()
    return (cpu_after - cpu) / (after - before) * 1e6


def full_speed(arguments, kind):
    """Returns messages a second until all are safe, and CPU time of a message in µs."""
    count = CONNECTIONS * arguments.messages
    folder, store, new_host = run(arguments, kind, "--exit-after", count)
    with folder, store, new_host() as host:
        cpu = host.cpu_seconds()
        begin = time.monotonic()
        with Devices(host, "--connections", CONNECTIONS, "--size", 199, "--parallel", 200,
                     "--messages", arguments.messages):
            last = cpu
            while host.popen.poll() is None:
                try:
                    last = host.cpu_seconds()
                except (OSError, RuntimeError):
                    pass
                time.sleep(0.01)
        end = time.monotonic()
        host.finish()
    return count / (end - begin), (last - cpu) / count * 1e6


def show(costs, rates, at_full_speed):
    print("| Output | CPU µs a message, 1,000/s | beside count | messages/s at full speed | "
          "CPU µs a message | bars |\n|---|---:|---:|---:|---:|---|")
    for name, values in costs.items():
        ratio = statistics.median(value / count for value, count in zip(values, costs["count"]))
        rate = statistics.median(rates[name])
        verdict = "-"
        if name in BARS:
            cost_bar, rate_bar = BARS[name]
            verdict = f"at most {cost_bar}: {'met' if ratio <= cost_bar else 'MISSED'}; " \
                      f"at least {rate_bar:,}/s: {'met' if rate >= rate_bar else 'MISSED'}"
        print(f"| {name} | {spread(values, '.1f')} | {ratio:.2f} | {spread(rates[name], ',.0f')} | "
              f"{spread(at_full_speed[name], '.1f')} | {verdict} |")


def spread(values, form):
    return f"{statistics.median(values):{form}} ({min(values):{form}} to {max(values):{form}})"


if __name__ == "__main__":
    sys.exit(main())
