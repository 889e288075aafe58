# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Plays cycles of load until the time is over, and judges; see docs/SOAK.md. Started by
scripts/soak."""

import argparse
import contextlib
import os
import signal
import sys
import time

import load
import report
from harness import ROOT
from harness.certificates import Certificates
from harness.processes import exit_on_sigterm
from harness.progress import Progress
from hosts import PROGRAMS, WatchedHost
from verdict import Record
from watch import Watch

BUILD = ROOT / "build/dev"
LEAST_CYCLES = 3  # the first two set the level of memory
SECONDS_FOR_THE_END = 300  # enough to finish the current cycle on a busy machine


def main():
    arguments = parse_arguments()
    exit_on_sigterm()
    signal.signal(signal.SIGALRM, lambda *_: sys.exit("soak: stuck"))
    signal.alarm(round(60 * arguments.minutes) + SECONDS_FOR_THE_END)

    certificates = Certificates(BUILD / "soak-certificates")
    started = time.monotonic()
    with contextlib.ExitStack() as stack:
        hosts = [stack.enter_context(WatchedHost(BUILD, program, of_host))
                 for program in PROGRAMS for of_host in (None, certificates)]
        records = {host: Record(host.level, host.keeps_free_memory) for host in hosts}
        watch = stack.enter_context(Watch(hosts, arguments.minutes))
        with Progress(lambda: elapsed(started, arguments.minutes)):
            play(hosts, records, watch, end=started + 60 * arguments.minutes)
        for host in hosts:
            host.stop()
            records[host].faults += host.errors()
    minutes = (time.monotonic() - started) / 60
    used = os.times()
    cores = (used.children_user + used.children_system) / 60 / minutes

    print(report.table(records))
    if not arguments.check_only:
        command = " ".join(["scripts/soak", *sys.argv[1:]])
        report.draw(ROOT / "docs/soak.svg", minutes, watch.samples, records)
        report.write(ROOT / "docs/SOAK.md", command, records, minutes, cores)
    wrong = [f"{host.name}: {line}" for host in hosts for line in records[host].judge()]
    print("\n".join(wrong) or "everything returned to its level, nothing was lost")
    sys.exit(1 if wrong else 0)


def elapsed(started, minutes):
    """For Progress."""
    return f"soak of {minutes:g} minutes", min(1, (time.monotonic() - started) / 60 / minutes)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__)
    parser.add_argument("minutes", type=float, metavar="MINUTES",
                        help=f"at least {LEAST_CYCLES} cycles of half a minute are played")
    parser.add_argument("--check-only", action="store_true", help="write no documents")
    return parser.parse_args()


def play(hosts, records, watch, end):
    longest = 0
    cycles = 0
    while cycles < LEAST_CYCLES or time.monotonic() + longest < end:
        begun = time.monotonic()
        play_cycle(hosts, records, watch)
        longest = max(longest, time.monotonic() - begun)
        cycles += 1


def play_cycle(hosts, records, watch):
    before = {host: host.counted() for host in hosts}
    sent = load.rough(hosts)
    middle = {host: host.counted() for host in hosts}
    for host, of_host in zip(hosts, sent):
        records[host].add_rough(of_host, difference(middle[host], before[host]))

    waited = {host: host.waited_seconds() for host in hosts}
    sent = load.steady(hosts)
    for host, of_host in zip(hosts, sent):
        records[host].add_steady(of_host, difference(host.counted(), middle[host]),
                                 host.waited_seconds() - waited[host])
    points = watch.quiet_points()
    for host in hosts:
        records[host].add_quiet(points[host])
        point = points[host]
        print(f"minute {point.minutes:5.1f}  {host.name:20} {point.resident / 2**20:6.2f} MiB, "
              f"{point.descriptors} descriptors, {point.threads} threads, "
              f"{point.worker_wake_ups}+{point.main_wake_ups} wake-ups; "
              f"{records[host].connections} connections"
              f"{', disturbed' if records[host].disturbed[-1] else ''}", flush=True)


def difference(later, earlier):
    return tuple(a - b for a, b in zip(later, earlier))


if __name__ == "__main__":
    main()
