# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Measures the receivers against each other; see --help. Started by benchmarks/run."""

import argparse
import json
import os
import sys

import document
import micro
import plots
from harness import ROOT
from harness.certificates import Certificates
from harness.processes import exit_on_sigterm
from harness.progress import Progress, Steps
from results import Results
from scenarios import scenarios
from session import FULL, SMOKE, Setup
from tlsscenarios import tls_scenarios

BUILD = ROOT / "build/bench"


def main():
    arguments = parse_arguments()
    exit_on_sigterm()
    scale = SMOKE if arguments.smoke else FULL
    setup = Setup(BUILD, Certificates(BUILD / "benchmarks/certs"), scale)
    plain = [] if arguments.tls else scenarios(scale)
    chosen = choose(plain + tls_scenarios(setup, arguments.smoke), arguments.only)
    results = Results()
    if arguments.micro:
        print("micro-benchmarks", flush=True)
        results.micro = micro.run(setup, arguments.smoke)
    run_rounds(setup, chosen, arguments.rounds, results)
    print_summary(results)
    if arguments.write:
        path = ROOT / "docs/PERFORMANCE.md"
        command = " ".join(["benchmarks/run", *sys.argv[1:]])
        document.write_tls(path, results, arguments.rounds, command)
        if not arguments.tls:
            plots.draw(ROOT / "docs", results)
            document.write(path, results, arguments.rounds, command)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="benchmarks/run", description=(
        "Builds bare epoll and OpenSSL sinks, a stock Qt sink and the reference host with the "
        "library, puts devicesim's load on each in turn, measures the receiver's CPU time and "
        "memory, and writes docs/PERFORMANCE.md. Other programs on the machine disturb the "
        "figures."))
    parser.add_argument("--rounds", type=int, default=5, help="default: 5")
    parser.add_argument("--only", default="", metavar="NAMES",
                        help="scenarios that begin so, with commas: bulk,sweep_100. "
                             "Nothing is written")
    parser.add_argument("--tls", action="store_true",
                        help="what TLS costs alone, and writes its table alone")
    parser.add_argument("--smoke", action="store_true",
                        help="little of everything, once: shows that it works and that all that "
                             "was sent is counted. Nothing is written")
    arguments = parser.parse_args()
    arguments.write = not arguments.smoke and not arguments.only
    arguments.micro = "micro" in arguments.only.split(",") or not (arguments.only or arguments.tls)
    if arguments.smoke:
        arguments.rounds = 1
    return arguments


def choose(available, names):
    prefixes = tuple(names.split(",")) if names else ("",)
    return [scenario for scenario in available if scenario.name.startswith(prefixes)]


def run_rounds(setup, chosen, rounds, results):
    """All scenarios in each round, the receivers in turn: what disturbs, disturbs all alike."""
    plays = [(scenario, receiver) for scenario in chosen for receiver in scenario.receivers]
    steps = Steps(rounds * len(plays))
    with Progress(steps.describe):
        for number in range(1, rounds + 1):
            for scenario, receiver in plays:
                steps.begin(f"{scenario.name}, {receiver}")
                figures = scenario.run(setup, receiver)
                results.add(receiver, figures)
                shown = ", ".join(f"{name} {value:.4g}" for name, value in figures.items())
                print(f"round {number}  {receiver:10} {shown}", flush=True)
            save(results)


def save(results):
    with open(BUILD / "benchmarks/results.json", "w", encoding="utf-8") as file:
        json.dump({"samples": results.samples, "micro": results.micro}, file, indent=1)


def print_summary(results):
    print(f"\nload average {os.getloadavg()[1]:.1f}")
    for text, limit, value, verdict in document.bar_rows(results):
        print(f"{verdict.strip('*'):12} {value:>8} of {limit:>7}  {text}")


if __name__ == "__main__":
    main()
