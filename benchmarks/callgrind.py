# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Counts inputhost's instructions. Started by benchmarks/profile, which says what is counted."""

import argparse
import pathlib
import re
import subprocess
import tempfile

from harness.devices import Devices
from harness.hosts import Host
from harness.processes import exit_on_sigterm


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--record", action="store_true", help="also with a recording")
    parser.add_argument("build", type=pathlib.Path, help="of the host")
    parser.add_argument("simulator", type=pathlib.Path, help="build folder of the devices")
    arguments = parser.parse_args()
    exit_on_sigterm()

    # Three messages a second: each is an offer of its own.
    devices = ("--connections", 20, "--connect-rate", 100, "--rate", 3, "--close", "stay")
    plain = a_message(arguments, "messages", devices)
    print(f"instructions a message: {plain}", flush=True)
    if arguments.record:
        for name, more in (("recorded", ()), ("compressed", ("--record-compress",))):
            count = a_message(arguments, name, devices, more)
            recorder = (recorders(arguments, f"{name}-600") - recorders(arguments, f"{name}-200")) // 400
            print(f"instructions a message, {name}: {count}; "
                  f"the recorder's: {recorder}, {recorder / plain:.1%} of {plain}", flush=True)

    devices = ("--connect-rate", 50, "--messages", 1)
    few = instructions(arguments, "connections-100", 100, *devices, "--connections", 100)
    many = instructions(arguments, "connections-300", 300, *devices, "--connections", 300)
    print(f"instructions a connection with one message: {(many - few) // 200}", flush=True)


def a_message(arguments, name, devices, recording=None):
    """Returns the instructions of one more message. recording: options beside --record; None: no
    recording."""
    counts = []
    for each in (10, 30):
        with tempfile.TemporaryDirectory() as folder:
            host = () if recording is None else ("--record", f"{folder}/traffic", *recording)
            counts.append(instructions(arguments, f"{name}-{20 * each}", 20 * each, *devices,
                                       "--messages", each, host_options=host))
    return (counts[1] - counts[0]) // 400


def recorders(arguments, name):
    """Returns the instructions of the recorder alone. Those of the whole host differ more from run to
    run than the recorder takes."""
    table = annotated(arguments.build / f"profile-{name}.out", 100)
    pattern = (r"^\s*([\d,]+) \([^)]*\)\s+\S+:(?:inputkit::TrafficRecorder::read|recording::Recorder::run)"
               r"\(.*\[")
    return sum(int(count.replace(",", "")) for count in re.findall(pattern, table, re.MULTILINE))


def annotated(counts, threshold):
    return subprocess.run(["callgrind_annotate", "--inclusive=yes", f"--threshold={threshold}", counts],
                          check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True).stdout


def instructions(arguments, name, messages, *options, host_options=()):
    """Returns the instructions of a host that takes so many messages and ends."""
    counts = arguments.build / f"profile-{name}.out"
    valgrind = ("valgrind", "--tool=callgrind", f"--callgrind-out-file={counts}",
                "--log-file=/dev/null")
    with Host(arguments.build, prefix=valgrind,
              options=("--output", "count", "--log-level", "warning", "--exit-after", messages, *host_options)) \
            as host, Devices(host, "--size", 199, *options, build=arguments.simulator):
        host.finish()
    table = annotated(counts, 99)
    (arguments.build / f"profile-{name}.txt").write_text(table, encoding="utf-8")
    return int(re.search(r"^\s*([\d,]+).*PROGRAM TOTALS", table, re.MULTILINE)[1].replace(",", ""))


if __name__ == "__main__":
    main()
