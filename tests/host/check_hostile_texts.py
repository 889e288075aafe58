#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Sends lines with all that terminals, browsers and JSON readers stumble over. What inputhost prints
must be harmless to look at, and read by Python and by jq to the same text."""

import json
import pathlib
import random
import socket
import subprocess
import sys
import tempfile

from harness.hosts import Host

LINES = 20_000
SEED = 20261124
# In plain view these would command a terminal, break a line or turn the direction of writing.
HARMFUL = {*range(0x20), 0x7F, *range(0x80, 0xA0), 0x61C, 0x200E, 0x200F, *range(0x2028, 0x202F),
           *range(0x2066, 0x206A), 0xFEFF}
PIECES = [*(chr(code) for code in HARMFUL if code != ord("\n")), "\x1b[31m", "\x1b]0;title\x07", "\u009b2J",
          "\u202etxt.exe", "<script>alert(1)</script>", "&amp;", "\\", "\"", "\\u0000", "'; --", "%s%n", "{}",
          "\u00e4", "\u4e2d", "\U0001f600", "\uffff", "\ufffd", "a", "b", " "]


def hostile_lines():
    dice = random.Random(SEED)
    return ["".join(dice.choices(PIECES, k=dice.randrange(1, 30))) + "." for _ in range(LINES)]


def send(port, lines):
    with socket.create_connection(("127.0.0.1", port)) as device:
        device.sendall("".join(line + "\n" for line in lines).encode())
        device.shutdown(socket.SHUT_WR)
        while device.recv(4096):
            pass


def read_by_jq(output):
    """Returns the texts as jq has them, told in numbers so that nothing is changed on the way."""
    done = subprocess.run(["jq", "-c", ".text | explode"], stdin=output, capture_output=True, check=True,
                          timeout=280)
    return ["".join(map(chr, json.loads(line))) for line in done.stdout.splitlines()]


def main():
    build = pathlib.Path(sys.argv[1])
    lines = hostile_lines()
    with tempfile.TemporaryFile() as output:
        with Host(build, options=["--exit-after", LINES], out=output) as host:
            send(host.port, lines)
            host.wait()
        output.seek(0)
        printed = output.read()
        output.seek(0)
        by_jq = read_by_jq(output)
    faults = []
    shown = printed.decode()  # UTF-8, or it fails here
    if bad := sorted({ord(character) for character in shown if character != "\n"} & HARMFUL):
        faults.append("Printed as they are: " + " ".join(f"U+{code:04X}" for code in bad))
    by_python = [json.loads(line)["text"] for line in shown.split("\n")[:-1]]
    for reader, texts in (("Python", by_python), ("jq", by_jq)):
        if texts != lines:
            wrong = sum(one != other for one, other in zip(texts, lines))
            faults.append(f"{reader} reads {len(texts)} of {len(lines)} lines, {wrong} of them wrong")
    print("\n".join(faults) or f"{len(lines)} lines, read to the same text by Python and jq")
    sys.exit(bool(faults))


if __name__ == "__main__":
    main()
