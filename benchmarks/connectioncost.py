# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What connections cost a host. Started by scripts/connection-cost, which says what it measures."""

import argparse
import os
import pathlib
import tempfile
import time

from harness.certificates import Certificates
from harness.devices import Devices
from harness.hosts import Host
from harness.processes import HANG_GUARD_SECONDS, exit_on_sigterm, wait_until

CONNECT_RATE = 100  # a second
IDLE_TIMEOUT_SECONDS = 3600  # longer than the run
STAYING = ("--messages", 1, "--close", "stay")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("connections", type=int)
    parser.add_argument("build", type=pathlib.Path)
    arguments = parser.parse_args()
    exit_on_sigterm()
    with tempfile.TemporaryDirectory() as folder:
        certificates = Certificates(pathlib.Path(folder) / "certificates")
        print("| Transport | Workers | Threads | Resident, KiB, workers started | "
              f"with {arguments.connections} connections | KiB a connection | "
              "Descriptors a connection |\n|---|---|---|---|---|---|---|", flush=True)
        idle(arguments, "TCP", 4)
        idle(arguments, "TCP", 64)
        idle(arguments, "TLS 1.2", 4, certificates, "1.2")
        idle(arguments, "TLS 1.3", 4, certificates, "1.3")
    print("\n| Seconds | KB sent by all devices | Resident, KiB |\n|---|---|---|", flush=True)
    still(arguments.build)


def host_with(build, workers, **more):
    return Host(build, options=("--output", "raw", "--log-level", "warning"),
                settings={"timeout": IDLE_TIMEOUT_SECONDS, "threadpoolSize": workers}, **more)


def idle(arguments, name, workers, certificates=None, tls_version=None):
    count = arguments.connections
    with host_with(arguments.build, workers, certificates=certificates) as host, \
            Devices(host, "--connections", workers, *STAYING, tls_version=tls_version):
        # The first connection of each worker makes its thread.
        wait_for_messages(host, workers)
        memory, descriptors = host.resident_bytes(), host.descriptors()
        with Devices(host, "--connections", count, "--connect-rate", CONNECT_RATE, *STAYING,
                     tls_version=tls_version):
            wait_for_messages(host, workers + count, seconds=count / CONNECT_RATE)
            grown = host.resident_bytes() - memory
            print(f"| {name} | {workers} | {host.threads()} | {memory // 1024} | "
                  f"{(memory + grown) // 1024} | {grown / 1024 / count:.2f} | "
                  f"{(host.descriptors() - descriptors) / count:.2f} |", flush=True)


def wait_for_messages(host, count, seconds=0):
    wait_until(lambda: host.output().count("\n") >= count, f"{count} messages",
               seconds=seconds + HANG_GUARD_SECONDS)


def still(build):
    """100 devices send 10 messages of 100 bytes a second each: 100 KB/s. Nobody reads the host's
    output."""
    reader, writer = os.pipe()
    with open(reader, "rb"), open(writer, "wb") as out, host_with(build, 4, out=out) as host, \
            Devices(host, "--connections", 100, "--messages", 0, "--rate", 10, "--size", 99):
        for seconds in (10, 20, 30, 40):
            time.sleep(10)
            print(f"| {seconds} | {seconds * 100} | {host.resident_bytes() // 1024} |", flush=True)


if __name__ == "__main__":
    main()
