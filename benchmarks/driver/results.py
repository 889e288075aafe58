# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Samples of all rounds, their medians, and the bars that the library has to meet."""

import dataclasses
import statistics

from receivers import EPOLL, INPUTHOST, QT


class Results:
    """All samples: figure -> receiver -> values, one a round."""

    def __init__(self):
        self.samples = {}
        self.micro = {}

    def add(self, receiver, figures):
        for figure, value in figures.items():
            self.samples.setdefault(figure, {}).setdefault(receiver, []).append(value)

    def median(self, figure, receiver):
        """None if there is none."""
        values = self.samples.get(figure, {}).get(receiver)
        return statistics.median(values) if values else None

    def spread(self, figure, receiver):
        """The smallest and the largest sample."""
        values = self.samples[figure][receiver]
        return min(values), max(values)

    def ratio(self, over, under):
        """Of two (figure, receiver) pairs; None if one is missing."""
        above, below = self.median(*over), self.median(*under)
        return above / below if above is not None and below else None


@dataclasses.dataclass(frozen=True)
class Bar:
    text: str
    value: object  # value(results), None if it was not measured
    at_most: float
    format: str = "{:.2f}"


def _versus(figure, receiver):
    return lambda results: results.ratio((figure, INPUTHOST), (figure, receiver))


def _own(figure, over):
    return lambda results: results.ratio((figure, INPUTHOST), (over, INPUTHOST))


def _of(figure):
    return lambda results: results.median(figure, INPUTHOST)


def _micro(name, over=None):
    def value(results):
        if name not in results.micro:
            return None
        return results.micro[name] / (results.micro[over] if over else 1)

    return value


BARS = (
    Bar("10,000 connections, 200 B every 10 s: against bare epoll",
        _versus("sweep_10000", EPOLL), 2.5),
    Bar("10,000 connections, 200 B every 10 s: against stock Qt",
        _versus("sweep_10000", QT), 1 / 40, "{:.4f}"),
    Bar("Cost of a message: at 10,000 connections against 100, equal load",
        _own("sweep_10000", "sweep_100"), 1.3),
    Bar("1,000 connections, 10 messages/s each: against bare epoll", _versus("paced", EPOLL), 2.5),
    Bar("Bulk: against bare epoll", _versus("bulk", EPOLL), 2),
    Bar("TLS bulk: against stock Qt", _versus("tls_bulk_16_16", QT), 1.15),
    Bar("Connect, 200 B, close: against bare epoll", _versus("churn", EPOLL), 3.5),
    Bar("Opening one more: at 10,000 connections against 10", _own("opening_many", "opening_few"),
        1.3),
    Bar("Memory of an idle connection at 10,000, bytes", _of("idle_memory"), 8000, "{:,.0f}"),
    Bar("A worker with 10,000 idle clients, % of a core", _of("idle_cpu"), 1),
    Bar("One 100-byte message per offer: backlog of 16 MiB against 64 KiB",
        _micro("takeOneMessagePerOffer backlog:16777216", "takeOneMessagePerOffer backlog:65536"),
        2),
    Bar("A log line that is dropped, µs", _micro("logLine"), 1.5),
)
