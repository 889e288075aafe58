# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Writes the measured tables into docs/PERFORMANCE.md, between the markers."""

import datetime
import os
import platform
import re

from receivers import ALL, ALL_TLS, INPUTHOST, OPENSSL, TITLES
from results import BARS

BEGIN = "<!-- begin: written by benchmarks/run -->"
END = "<!-- end: written by benchmarks/run -->"
TLS_BEGIN = "<!-- begin: written by benchmarks/run --tls -->"
TLS_END = "<!-- end: written by benchmarks/run --tls -->"

FIGURES = {
    "bulk": ("bulk, 16 connections, 1,000 B lines: CPU s per GB", "{:.3f}"),
    "churn": ("connect, 200 B, close: CPU µs per connection", "{:.1f}"),
    "paced": ("1,000 connections, each 10 messages/s: CPU µs per message", "{:.1f}"),
    "sweep_10000": ("10,000 connections, each 200 B every 10 s: CPU µs per message", "{:.1f}"),
    "opening_few": ("opening one more at 10: CPU µs", "{:.1f}"),
    "opening_many": ("opening one more at 10,000: CPU µs", "{:.1f}"),
    "idle_memory": ("resident bytes per idle connection at 10,000", "{:,.0f}"),
    "idle_cpu": ("10,000 idle connections: % of a core", "{:.2f}"),
}

TLS_FIGURES = {
    "tls_full_rsa_13": ("full handshake, TLS 1.3, RSA-2048: CPU µs per connection", "{:,.0f}"),
    "tls_full_rsa_12": ("the same, TLS 1.2", "{:,.0f}"),
    "tls_full_ec_13": ("full handshake, TLS 1.3, EC P-256: CPU µs per connection", "{:,.0f}"),
    "tls_full_ec_12": ("the same, TLS 1.2", "{:,.0f}"),
    "tls_resumed_13": ("resumed, TLS 1.3: CPU µs per connection", "{:,.0f}"),
    "tls_resumed_12": ("the same, TLS 1.2", "{:,.0f}"),
    "tls_bulk_1_16": ("bulk, TLS 1.3, 1 connection, records of 16 KiB: CPU s per GB", "{:.3f}"),
    "tls_bulk_16_16": ("the same, 16 connections", "{:.3f}"),
    "tls_bulk_1_1": ("bulk, TLS 1.3, 1 connection, records of 1 KiB: CPU s per GB", "{:.3f}"),
    "tls_bulk_16_1": ("the same, 16 connections", "{:.3f}"),
    "tls_memory_few": ("resident bytes per idle connection at 3,000", "{:,.0f}"),
    "tls_memory_many": ("the same, at 10,000", "{:,.0f}"),
    "tls_memory_left": ("resident bytes left of each of the 10,000, 10 s after all have closed",
                        "{:,.0f}"),
    "tls_opening": ("opening one more at 3,000 and more: CPU µs", "{:,.0f}"),
}


def write(path, results, rounds, command):
    _replace(path, BEGIN, END, _section(results, rounds, command))


def write_tls(path, results, rounds, command):
    _replace(path, TLS_BEGIN, TLS_END, "\n\n".join([
        *_origin(rounds, command), _table(results, TLS_FIGURES, ALL_TLS,
                                          [(name, OPENSSL) for name in ALL_TLS[1:]])]))


def _replace(path, begin, end, section):
    """Puts the section between the markers."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    section = f"{begin}\n{section}\n{end}"
    pattern = re.escape(begin) + ".*" + re.escape(end)
    text, count = re.subn(pattern, lambda _: section, text, flags=re.DOTALL)
    if count != 1:
        raise ValueError(f"{path}: not exactly one pair of markers: {begin}")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _origin(rounds, command):
    return [f"`{command}`, {datetime.date.today()}, medians of {rounds} rounds, in brackets the "
            "smallest and the largest.", _machine()]


def _section(results, rounds, command):
    parts = [
        *_origin(rounds, command),
        "### The bars", _bars(results),
        "### The receivers",
        _table(results, FIGURES, ALL, [(INPUTHOST, other) for other in ALL[:2]]),
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


def _table(results, figures, receivers, compared):
    """compared: pairs of receivers whose ratio is shown."""
    def rows():
        for figure, (title, form) in figures.items():
            if figure not in results.samples:
                continue
            ratios = [results.ratio((figure, over), (figure, under)) for over, under in compared]
            yield (title, *(_cell(results, figure, receiver, form) for receiver in receivers),
                   *("-" if ratio is None else f"{ratio:.2f}" for ratio in ratios))

    names = [TITLES[receiver] for receiver in receivers]
    ratios = [f"{TITLES[over]} : {TITLES[under]}" for over, under in compared]
    return _markdown(("", *names, *ratios), rows())


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
