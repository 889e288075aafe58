# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The micro-benchmarks: runs the programs and reads their reports."""

import json
import subprocess

PROGRAMS = ("bench_dispatcher", "bench_timers", "bench_client", "bench_cwrn", "bench_record")


def run(setup, smoke):
    """Returns {benchmark: median CPU time in microseconds}, the medians of three repetitions."""
    medians = {}
    for program in PROGRAMS:
        command = [str(setup.build / "benchmarks" / program), "--benchmark_format=json"]
        if smoke:
            command += ["--benchmark_min_time=0.001", "--benchmark_filter=-.*:(10000|16777216).*"]
        else:
            command += ["--benchmark_min_time=0.2", "--benchmark_repetitions=3",
                        "--benchmark_report_aggregates_only=true"]
        report = subprocess.run(command, check=True, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, text=True).stdout
        for entry in json.loads(report)["benchmarks"]:
            if entry.get("aggregate_name", "median") == "median":
                medians[_name(entry)] = _microseconds(entry)
    return medians


def _name(entry):
    """For example: socketEvent ours idle:100"""
    parts = entry["run_name"].split("/")
    parts = [part for part in parts if not part.startswith(("dispatcher:", "iterations:"))]
    return " ".join(parts[:1] + ([entry["label"]] if "label" in entry else []) + parts[1:])


def _microseconds(entry):
    return entry["cpu_time"] * {"ns": 1e-3, "us": 1, "ms": 1e3, "s": 1e6}[entry["time_unit"]]
