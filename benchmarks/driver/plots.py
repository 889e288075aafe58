# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Draws the plots with gnuplot."""

import subprocess

from document import sweep_counts
from receivers import ALL, EPOLL, INPUTHOST, QT, TITLES

HEAD = """
set terminal svg size 800,480 font 'sans-serif,13' background 'white'
set output '{output}'
set grid
"""

CONNECTIONS = HEAD + """
set title 'CPU per message of 200 bytes; 1,000 messages a second in all'
set xlabel 'connections'
set ylabel 'receiver CPU, µs per message'
set logscale xy
set yrange [1:*]
set key left top
plot {curves}
"""

RATIOS = HEAD + """
set title 'CPU as a multiple of the bare epoll sink'
set ylabel 'times bare epoll'
set logscale y
set yrange [0.5:*]
set style data histograms
set style fill solid 0.8
set boxwidth 0.9
set key left top
plot {curves}
"""

COLOURS = {EPOLL: "#777777", QT: "#d95f02", INPUTHOST: "#1b6ca8"}


def draw(directory, results):
    _gnuplot(_connections(directory / "performance-connections.svg", results))
    _gnuplot(_ratios(directory / "performance-ratios.svg", results))


def _connections(output, results):
    blocks, curves = [], []
    for receiver in ALL:
        points = ((count, results.median(f"sweep_{count}", receiver))
                  for count in sweep_counts(results))
        name = f"${receiver}"
        blocks.append(_block(name, (f"{x} {y}" for x, y in points if y is not None)))
        curves.append(f"{name} using 1:2 with linespoints lw 2 pt 7 "
                      f"lc rgb '{COLOURS[receiver]}' title '{TITLES[receiver]}'")
    return "\n".join(blocks) + CONNECTIONS.format(output=output, curves=", ".join(curves))


def _ratios(output, results):
    figures = ("bulk", "churn", "paced", "sweep_100", "sweep_10000", "opening_few", "opening_many")
    rows = []
    for figure in figures:
        values = [results.ratio((figure, name), (figure, EPOLL)) for name in (QT, INPUTHOST)]
        if None not in values:
            rows.append(f'"{figure.replace("_", " ")}" {values[0]} {values[1]}')
    curves = [f"$ratios using {column}:xtic(1) lc rgb '{COLOURS[name]}' title '{TITLES[name]}'"
              for column, name in ((2, QT), (3, INPUTHOST))]
    return _block("$ratios", rows) + RATIOS.format(output=output, curves=", ".join(curves))


def _block(name, lines):
    return f"{name} << EOD\n" + "\n".join(lines) + "\nEOD\n"


def _gnuplot(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
