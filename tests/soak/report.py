# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The plot, and the section of docs/SOAK.md between the markers."""

import datetime
import re
import subprocess

from verdict import MIB

BEGIN = "<!-- begin: written by scripts/soak -->"
END = "<!-- end: written by scripts/soak -->"

HEAD = """
set terminal svg size 800,900 font 'sans-serif,12' background 'white'
set output '{output}'
set multiplot layout 3,1
set grid
set xrange [0:{minutes}]
set yrange [0:*]
set lmargin 9
set key outside top center horizontal
"""
COLOURS = ("1b6ca8", "d95f02", "2a9d5c", "8e44ad")


def draw(output, minutes, samples, records):
    """samples, records: by host. The thick lines join quiet points."""
    script = [HEAD.format(output=output, minutes=minutes)]
    for number, host in enumerate(samples):
        script += [_block(f"$busy{number}", samples[host]),
                   _block(f"$quiet{number}", records[host].quiet)]
    panels = (("resident, MiB", 2), ("descriptors", 3), ("threads", 4))
    for title, column in panels:
        script.append(f"set ylabel '{title}'")
        if column == panels[-1][1]:
            script.append("set xlabel 'minutes'")
        script.append("plot " + ", ".join(_curves(samples, column)))
        script.append("unset key")
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


def _curves(samples, column):
    for number in range(len(samples)):
        yield (f"$busy{number} using 1:{column} with lines lw 1 "
               f"lc rgb '#a0{COLOURS[number]}' notitle")
    for number, host in enumerate(samples):
        yield (f"$quiet{number} using 1:{column} with lines lw 3 "
               f"lc rgb '#{COLOURS[number]}' title '{host.name}'")


def _block(name, samples):
    lines = (f"{sample.minutes:.2f} {sample.resident / MIB:.2f} {sample.descriptors} "
             f"{sample.threads}" for sample in samples)
    return f"{name} << EOD\n" + "\n".join(lines) + "\nEOD"


def write(path, command, records, minutes, cores):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    section = f"{BEGIN}\n{_section(command, records, minutes, cores)}\n{END}"
    pattern = re.escape(BEGIN) + ".*" + re.escape(END)
    text, count = re.subn(pattern, lambda _: section, text, flags=re.DOTALL)
    if count != 1:
        raise ValueError(f"{path}: not exactly one pair of markers")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _section(command, records, minutes, cores):
    cycles = len(next(iter(records.values())).quiet)
    wrong = sum(len(record.judge()) for record in records.values())
    verdict = f"**{wrong} rules broken**" if wrong else "everything returned, nothing was lost"
    return "\n\n".join([
        f"`{command}`, {datetime.date.today()}: {minutes:.1f} minutes, {cycles} cycles, "
        f"{cores:.0%} of a core for hosts and devices; {verdict}.",
        table(records),
        "![Memory, descriptors and threads over time](soak.svg)",
    ])


HEADINGS = ("Host", "Connections", "Restarts", "Cycles disturbed", "Messages sent", "counted",
            "Resident: level, MiB", "highest after", "last", "Growth, bytes a connection",
            "Descriptors", "Threads", "Wake-ups: workers", "main")


def table(records):
    rows = [HEADINGS, ["---"] + ["---:"] * (len(HEADINGS) - 1)]
    rows += [_row(host, record) for host, record in records.items()]
    return "\n".join("| " + " | ".join(row) + " |" for row in rows)


def _row(host, record):
    highest, last = record.highest_memory(), record.quiet[-1].resident
    return (host.name, f"{record.connections:,}", f"{host.reloads}",
            f"{sum(record.disturbed)}", f"{record.sent:,}", f"{record.counted:,}",
            f"{record.memory_level() / MIB:.2f}", "-" if highest is None else f"{highest / MIB:.2f}", f"{last / MIB:.2f}",
            _growth(record), _range(record, "descriptors"), _range(record, "threads"),
            _range(record, "worker_wake_ups"), _range(record, "main_wake_ups"))


def _growth(record):
    """Of resident memory, from the end of the cycles that make the level to the last one."""
    at_level = record.level_cycles() - 1
    connections = record.connections - record.connections_after[at_level]
    if connections == 0:
        return "-"
    return f"{(record.quiet[-1].resident - record.quiet[at_level].resident) / connections:.1f}"


def _range(record, name):
    values = [getattr(point, name) for point in record.quiet]
    low, high = min(values), max(values)
    return f"{low}" if low == high else f"{low}–{high}"
