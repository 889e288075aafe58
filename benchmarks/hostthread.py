# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Measures how long the plugin holds its host's thread. Started by benchmarks/host-thread, which says
what it measures."""

import argparse
import itertools
import json
import os
import pathlib
import sys
import tempfile

from harness.certificates import Certificates
from harness.devices import Devices
from harness.hosts import Host, knows_tls_keys
from harness.processes import exit_on_sigterm

PROGRAM = "benchmarks/hostthread"  # in a build folder
PARALLEL = 64
ENDLESS = 10**9  # connections
HEAD = ("engine", "workers", "cores", "median, ms", "99 %, ms", "99.9 %, ms", "longest, ms",
        "host's thread, CPU s/s", "waited for CPU, s/s", "other threads, CPU s/s",
        "handshakes/s", "CPU µs a handshake")


def main():
    arguments = parse_arguments()
    exit_on_sigterm()
    print(f"| {' | '.join(HEAD)} |\n|---|{'---:|' * (len(HEAD) - 1)}", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        certificates = Certificates(pathlib.Path(folder))
        if arguments.elliptic:
            if not knows_tls_keys(arguments.build, certificates, KeyAlgorithm="auto"):
                sys.exit("host-thread: --elliptic: this library takes RSA keys only")
            certificates = certificates.elliptic()
        for engine in set(arguments.engines.split(",")) - {"default"}:
            if not knows_tls_keys(arguments.build, certificates, engine=engine):
                print(f"note: '{engine}' is the default: this library has no such engine")
        variants = itertools.product(arguments.engines.split(","), arguments.workers.split(","),
                                     map(int, arguments.cores.split(",")))
        for engine, workers, cores in variants:
            measure(arguments, certificates, engine, workers, cores)


def parse_arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--engines", default="default")
    parser.add_argument("--workers", default="4")
    parser.add_argument("--cores", default="0,1,2")
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--tls-version", default="1.3")
    parser.add_argument("--elliptic", action="store_true")
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--ssl", action="append", default=[])
    parser.add_argument("--set", action="append", default=[])
    parser.add_argument("--threads", action="store_true")
    arguments = parser.parse_args()
    if arguments.elliptic:
        # Otherwise every handshake would fail, and the host wait for the first one that does not.
        keys = dict(pairs(arguments.ssl))
        if keys.get("KeyAlgorithm", "auto") != "auto":
            parser.error(f"--elliptic does not go with KeyAlgorithm={keys['KeyAlgorithm']}")
        arguments.ssl = ["KeyAlgorithm=auto", *arguments.ssl]
    return arguments


def measure(arguments, certificates, engine, workers, cores):
    tls = {} if engine == "default" else {"engine": engine}
    tls.update((key, as_json(value)) for key, value in pairs(arguments.ssl))
    usable = sorted(os.sched_getaffinity(0))[:cores]
    prefix = ["taskset", "-c", ",".join(map(str, usable))] if cores else []
    with Host(arguments.build, PROGRAM, certificates=certificates, tls=tls, prefix=prefix,
              settings={"threadpoolSize": workers, **dict(pairs(arguments.set))},
              options=("--seconds", arguments.seconds)) as host, \
            Devices(host, "--connections", ENDLESS, "--parallel", PARALLEL, "--messages", 1,
                    "--size", 199, "--quiet", *(["--resume"] * arguments.resume),
                    tls_version=arguments.tls_version):
        figures = json.loads(host.finish())
    show(figures, engine, workers, cores, arguments.threads)


def pairs(settings):
    return [setting.split("=", 1) for setting in settings]


def as_json(text):
    """A text that is no JSON stands for itself."""
    try:
        return json.loads(text)
    except ValueError:
        return text


def show(figures, engine, workers, cores, with_threads):
    seconds, handshakes = figures["seconds"], figures["handshakes"]
    cpu = figures["hostThread"] + figures["otherThreads"]
    row = [engine, workers, cores or "all",
           *(f"{figures[name]:.2f}" for name in ("medianMs", "p99Ms", "p999Ms", "longestMs")),
           *(f"{figures[name] / seconds:.3f}"
             for name in ("hostThread", "hostThreadWaited", "otherThreads")),
           f"{handshakes / seconds:.0f}", f"{cpu / max(handshakes, 1) * 1e6:.0f}"]
    print("| " + " | ".join(map(str, row)) + " |", flush=True)
    if figures["failedHandshakes"]:
        print(f"note: {figures['failedHandshakes']} handshakes have failed", flush=True)
    if with_threads:
        for thread in sorted(figures["threads"], key=lambda each: -each["cpu"]):
            print(f"  {thread['name']}: {thread['cpu'] / seconds:.3f} CPU s/s", flush=True)


if __name__ == "__main__":
    main()
