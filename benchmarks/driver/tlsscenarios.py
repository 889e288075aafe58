# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What TLS costs: the scenarios with receivers and devices that speak it."""

import time

from harness.processes import wait_until
from receivers import ALL_TLS, OPENSSL, OWN, QT, Tls, has_own_engine
from session import Scenario, Session, cpu_over

# How many devices connect, send and close at a time: a server that starts again, with all its
# devices back.
PARALLEL = 64
STREAMS = (1, 16)
RECORD_KIB = (16, 1)
# Of those that stay: how many are in their handshake at a time. At a fixed rate a slow receiver
# would let handshakes time out.
STAY = ["--messages", 1, "--size", 199, "--close", "stay", "--opening", PARALLEL, "--quiet"]

# A receiver may give memory back some seconds after it has freed it.
RETURN_SECONDS = 10


def _full(elliptic, version):
    def run(setup, name):
        connections = setup.scale.tls_full
        session = Session(setup, name, tls=Tls(version=version, elliptic=elliptic))
        with session.receiver:
            session.warm_up()
            cpu = session.cpu_of_complete_run(connections, _short_visits())
            session.stop_and_compare()
        return {_full_name(elliptic, version): cpu / connections * 1e6}

    return run


def _full_name(elliptic, version):
    return f"tls_full_{'ec' if elliptic else 'rsa'}_{_digits(version)}"


def _resumed(version):
    def run(setup, name):
        connections = setup.scale.tls_resumed
        session = Session(setup, name, tls=Tls(version=version, tickets=True))
        resumes = name != OWN or has_own_engine(setup)
        with session.receiver:
            session.warm_up()
            cpu = session.cpu_of_complete_run(
                connections, [*_short_visits(), "--resume"],
                resumed=connections - 1 if resumes else 0)  # the first one has no session yet
            session.stop_and_compare()
        return {f"tls_resumed_{_digits(version)}": cpu / connections * 1e6}

    return run


def _short_visits():
    return ["--parallel", PARALLEL, "--messages", 1, "--size", 199, "--quiet"]


def _digits(version):
    return version.replace(".", "")


def _bulk(streams, record_kib):
    def run(setup, name):
        messages = setup.scale.tls_bulk_messages // streams
        session = Session(setup, name, tls=Tls())
        with session.receiver:
            session.warm_up()
            cpu = session.cpu_of_complete_run(
                connections=streams,
                options=["--messages", messages, "--size", 999, "--segments", "blocks",
                         "--record-size", record_kib * 1024])
            session.stop_and_compare()
        return {_bulk_name(streams, record_kib): cpu / (streams * messages * 1000 / 1e9)}

    return run


def _bulk_name(streams, record_kib):
    return f"tls_bulk_{streams}_{record_kib}"


def _idle(setup, name):
    """Devices that have sent one message and stay, first a few, then many, then none."""
    few, many = setup.scale.tls_few, setup.scale.tls_many
    session = Session(setup, name, tls=Tls())
    with session.receiver as receiver:
        session.warm_up()
        none = receiver.resident_bytes()
        with session.devices(few, STAY) as first:
            _wait_for_all(receiver, first, few, few)
            with_few = receiver.resident_bytes()
            window = setup.scale.window_seconds / 4
            background = cpu_over(receiver, window) / window

            started, cpu = time.monotonic(), receiver.cpu_seconds()
            with session.devices(many - few, STAY) as others:
                _wait_for_all(receiver, others, many - few, many)
                cpu = receiver.cpu_seconds() - cpu - background * (time.monotonic() - started)
                with_many = receiver.resident_bytes()
                for devices in (first, others):
                    devices.ask_to_end()
                for devices in (first, others):
                    devices.finish()
                    session.add_sent(devices)
        receiver.wait_for_end_of_connections()
        time.sleep(RETURN_SECONDS)
        left = receiver.resident_bytes()
        session.stop_and_compare()
    return {"tls_memory_few": (with_few - none) / few, "tls_memory_many": (with_many - none) / many,
            "tls_memory_left": (left - none) / many, "tls_opening": cpu / (many - few) * 1e6}


def _wait_for_all(receiver, devices, count, open_connections):
    """Waits until each of the devices has sent its message, and the receiver has handled all."""
    receiver.wait_for_connections(open_connections)
    wait_until(lambda: devices.messages_so_far() == count, f"{count} messages")
    receiver.settle()


def tls_scenarios(setup, smoke):
    """smoke: one of a kind."""
    # The engine of Qt takes no EC key from inputhost's configuration.
    elliptic = (OPENSSL, QT, OWN) if has_own_engine(setup) else (OPENSSL, QT)
    versions = ("1.3",) if smoke else ("1.3", "1.2")
    bulk = [(1, 1)] if smoke else [(streams, kib) for kib in RECORD_KIB for streams in STREAMS]
    return [
        *(Scenario(_full_name(False, version), _full(False, version), ALL_TLS)
          for version in versions),
        *(Scenario(_full_name(True, version), _full(True, version), elliptic)
          for version in versions),
        *(Scenario(f"tls_resumed_{_digits(version)}", _resumed(version), (OPENSSL, OWN))
          for version in ("1.3", "1.2")),
        *(Scenario(_bulk_name(streams, kib), _bulk(streams, kib), ALL_TLS)
          for streams, kib in bulk),
        Scenario("tls_idle", _idle, ALL_TLS),
    ]
