# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Writes the measured tables into docs/PERFORMANCE.md, between the markers."""

import datetime
import os
import platform
import re

from receivers import ALL, INPUTHOST, TITLES
from results import BARS

BEGIN = "<!-- begin: written by benchmarks/run -->"
END = "<!-- end: written by benchmarks/run -->"

FIGURES = {
    "bulk": ("bulk, 16 connections, 1,000 B lines: CPU s per GB", "{:.3f}"),
    "churn": ("connect, 200 B, close: CPU µs per connection", "{:.1f}"),
    "paced": ("1,000 connections, each 10 messages/s: CPU µs per message", "{:.1f}"),
    "sweep_10000": ("10,000 connections, each 200 B every 10 s: CPU µs per message", "{:.1f}"),
    "opening_few": ("opening one more at 10: CPU µs", "{:.1f}"),
    "opening_many": ("opening one more at 10,000: CPU µs", "{:.1f}"),
    "idle_memory": ("resident bytes per idle connection at 10,000", "{:,.0f}"),
    "idle_cpu": ("10,000 idle connections: % of a core", "{:.2f}"),
    "tls_bulk": ("TLS 1.3 bulk, 16 connections: CPU s per GB", "{:.3f}"),
    "tls_handshake": ("TLS 1.3, RSA-2048: connect, 200 B, close: CPU µs per connection",
                      "{:,.0f}"),
}


def write(path, results, rounds, command):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    section = f"{BEGIN}\n{_section(results, rounds, command)}\n{END}"
    pattern = re.escape(BEGIN) + ".*" + re.escape(END)
    text, count = re.subn(pattern, lambda _: section, text, flags=re.DOTALL)
    if count != 1:
        raise ValueError(f"{path}: not exactly one pair of markers")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _section(results, rounds, command):
    parts = [
        f"`{command}`, {datetime.date.today()}, medians of {rounds} rounds, in brackets the "
        "smallest and the largest.",
        _machine(),
        "### The bars", _bars(results),
        "### The receivers", _table(results),
        "### CPU µs per message, over connections that send 1,000 messages a second in all",
        "![CPU per message over connections](performance-connections.svg)",
        _sweep(results),
        "### Against bare epoll", "![Ratios to bare epoll](performance-ratios.svg)",
        "### Micro-benchmarks: CPU µs", _micro(results),
    ]
    return "\n\n".join(parts)


def _machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())[1]
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    system = platform.freedesktop_os_release()["PRETTY_NAME"]
    return (f"Machine: {os.cpu_count()} cores ({model}), {memory:.0f} GiB, {system}, "
            f"Linux {platform.release()}; load average at the end {os.getloadavg()[1]:.1f}.")


def bar_rows(results):
    for bar in BARS:
        value = bar.value(results)
        if value is None:
            yield bar.text, bar.format.format(bar.at_most), "-", "not measured"
        else:
            verdict = "met" if value <= bar.at_most else "**missed**"
            yield bar.text, bar.format.format(bar.at_most), bar.format.format(value), verdict


def _bars(results):
    return _markdown(("", "at most", "measured", ""), bar_rows(results))


def _table(results):
    def rows():
        for figure, (title, form) in FIGURES.items():
            if figure not in results.samples:
                continue
            ratios = [results.ratio((figure, INPUTHOST), (figure, other)) for other in ALL[:2]]
            yield (title, *(_cell(results, figure, receiver, form) for receiver in ALL),
                   *("-" if ratio is None else f"{ratio:.2f}" for ratio in ratios))

    names = [TITLES[receiver] for receiver in ALL]
    return _markdown(("", *names, *(f"inputhost : {name}" for name in names[:2])), rows())


def sweep_counts(results):
    return sorted(int(name.split("_")[1]) for name in results.samples if name.startswith("sweep_"))


def _sweep(results):
    def rows():
        for count in sweep_counts(results):
            figure = f"sweep_{count}"
            yield f"{count:,}", *(_cell(results, figure, name, "{:.1f}") for name in ALL)

    return _markdown(("connections", *(TITLES[receiver] for receiver in ALL)), rows())


def _cell(results, figure, receiver, form):
    median = results.median(figure, receiver)
    if median is None:
        return "-"
    low, high = results.spread(figure, receiver)
    return f"{form.format(median)} ({form.format(low)}–{form.format(high)})"


def _micro(results):
    return _markdown(("", "CPU µs"),
                     ((f"`{name}`", f"{value:,.2f}") for name, value in results.micro.items()))


def _markdown(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
