# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Plays devices on inputhost under valgrind. Started by scripts/memcheck, which says what it shows."""

import os
import pathlib
import re
import sys
import tempfile

from harness import ROOT
from harness.certificates import Certificates
from harness.devices import Devices
from harness.hosts import Host
from harness.processes import exit_on_sigterm, wait_until

BUILD = ROOT / "build/dev"
LEAKS = "definite,indirect,possible"
VALGRIND = ("valgrind", "--leak-check=full", f"--show-leak-kinds={LEAKS}",
            f"--errors-for-leak-kinds={LEAKS}", "--error-exitcode=99", "--num-callers=30")
WORKERS = 4
DESCRIPTORS_PER_THREAD = 2
MESSAGES = 20  # of each device


def main():
    exit_on_sigterm()
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        certificates = Certificates(folder / "certificates")
        # Without TLS there is no version to choose.
        check("TCP", folder / "valgrind", None, (None,))
        check("TLS", folder / "valgrind", certificates, ("1.2", "1.3"))


def check(name, log, certificates, tls_versions):
    complaints = ""
    try:
        with Host(BUILD, certificates=certificates, prefix=(*VALGRIND, f"--log-file={log}"),
                  settings={"timeout": 20, "threadpoolSize": WORKERS},
                  options=("--output", "count", "--log-level", "info")) as host:
            try:
                counted = play(host, tls_versions)
            finally:
                complaints = host.complaints()
    except (RuntimeError, TimeoutError) as error:
        sys.exit(f"memcheck: {name}: {error}\n{complaints}{text_of(log)}")
    summary = re.search(r"ERROR SUMMARY: (.*)", text_of(log))[1]
    print(f"{name}: {counted.strip()}; {summary}", flush=True)


def text_of(log):
    return log.read_text(encoding="utf-8", errors="replace") if log.exists() else ""


def play(host, tls_versions):
    """Returns what the host wrote at its end. Fails if that was not a good one."""
    threads = WORKERS
    if tls_versions[-1]:  # handshakes have threads of their own
        threads += min(WORKERS, len(os.sched_getaffinity(0)))
    at_rest = host.descriptors() + threads * DESCRIPTORS_PER_THREAD
    sent = 0
    for version in tls_versions:
        for ending in ("close", "half-close", "abort"):
            sent += send(host, version, 5, "--close", ending)
        sent += send(host, version, 1, "--close", "stay", "--linger-ms", 100)
    wait_for_messages(host, sent)

    last = tls_versions[-1]
    with Devices(host, "--messages", MESSAGES, "--close", "stay", tls_version=last) as staying:
        sent += MESSAGES
        wait_for_messages(host, sent)
        host.reload()
        wait_until(lambda: host.complaints().count("Listening on") == 2, "reloaded host")
        staying.finish()
    sent += send(host, last, 5)
    wait_for_messages(host, sent)

    # Each of the new workers has had a connection.
    wait_until(lambda: host.descriptors() == at_rest, "end of connections")
    with Devices(host, "--fault", "silent", tls_version=last) as silent:
        wait_until(lambda: host.descriptors() == at_rest + 1, "connection of the silent device")
        counted = host.stop()
        silent.wait()
    return counted


def send(host, tls_version, count, *options):
    """One after the other: under valgrind, handshakes at the same time take longer than they may."""
    with Devices(host, "--connections", count, "--parallel", 1, "--messages", MESSAGES,
                 "--segments", "random", *options, tls_version=tls_version) as devices:
        devices.finish()
    return MESSAGES * count


def wait_for_messages(host, count):
    wait_until(lambda: host.counted()[0] == count, f"{count} messages")


if __name__ == "__main__":
    main()
