# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What the receivers are put through. Each scenario runs one receiver once and returns figures."""

import time

from session import Scenario, Session, cpu_over, stay


def bulk(setup, name):
    messages = setup.scale.bulk_messages
    session = Session(setup, name)
    with session.receiver:
        session.warm_up()
        cpu = session.cpu_of_complete_run(
            connections=16,
            options=["--messages", messages, "--size", 999, "--segments", "blocks"])
        session.stop_and_compare()
    return {"bulk": cpu / (16 * messages * 1000 / 1e9)}


def churn(setup, name):
    """At a rate that every receiver can keep up with: what is measured is not how it is flooded."""
    connections = setup.scale.churn_connections
    session = Session(setup, name)
    with session.receiver:
        session.warm_up()
        cpu = session.cpu_of_complete_run(
            connections=connections,
            options=["--connect-rate", 1_000, "--messages", 1, "--size", 199, "--quiet"])
        session.stop_and_compare()
    return {"churn": cpu / connections * 1e6}


def idle(setup, name):
    """Devices that have sent one message and stay. The plugin has all of them in one worker."""
    many, window = setup.scale.many, setup.scale.window_seconds
    session = Session(setup, name, one_thread=True)
    with session.receiver as receiver:
        session.warm_up()
        resident = receiver.resident_bytes()
        with session.devices(many, stay(rate=2_000)) as devices:
            receiver.wait_for_connections(many)
            receiver.settle()
            resident = receiver.resident_bytes() - resident
            used = cpu_over(receiver, window)
            devices.stop()
            session.add_sent(devices)
        session.stop_and_compare()
    return {"idle_memory": resident / many, "idle_cpu": used / window * 100}


def opening_few(setup, name):
    return {"opening_few": _opening(setup, name, 10)}


def opening_many(setup, name):
    return {"opening_many": _opening(setup, name, setup.scale.many)}


def _opening(setup, name, present):
    """What one more connection costs, less what those present cost meanwhile."""
    opened = setup.scale.opened
    session = Session(setup, name)
    with session.receiver as receiver:
        session.warm_up()
        with session.devices(present, stay(rate=2_000)) as others:
            receiver.wait_for_connections(present)
            receiver.settle()
            background = cpu_over(receiver, setup.scale.window_seconds / 4)
            background /= setup.scale.window_seconds / 4

            started, cpu = time.monotonic(), receiver.cpu_seconds()
            with session.devices(opened, stay(rate=2_000)) as devices:
                receiver.wait_for_connections(present + opened)
                receiver.settle()
                cpu = receiver.cpu_seconds() - cpu
                cpu -= background * (time.monotonic() - started)
                devices.stop()
                session.add_sent(devices)
            others.stop()
            session.add_sent(others)
        session.stop_and_compare()
    return cpu / opened * 1e6


def paced(setup, name):
    scale = setup.scale
    return {"paced": _paced(setup, name, scale.paced_connections, scale.paced_rate)}


def sweep(connections):
    def run(setup, name):
        rate = setup.scale.sweep_rate / connections
        return {f"sweep_{connections}": _paced(setup, name, connections, rate)}

    return run


def _paced(setup, name, connections, rate):
    """CPU per message while each device sends 200 bytes at the rate, evenly spread over time."""
    window = setup.scale.window_seconds
    session = Session(setup, name)
    # Opened at the rate at which they will send: each has a moment of its own.
    options = ["--messages", 0, "--rate", rate, "--size", 199, "--connect-rate", connections * rate,
               "--quiet"]
    with session.receiver as receiver:
        session.warm_up()
        with session.devices(connections, options) as devices:
            receiver.wait_for_connections(connections)
            messages = devices.messages_so_far()
            cpu = cpu_over(receiver, window)
            messages = devices.messages_so_far() - messages
            devices.stop()
            session.add_sent(devices)
        if messages < 0.8 * connections * rate * window:
            print(f"      note: {messages} messages in {window} s, this machine is too busy")
        session.stop_and_compare()
    return cpu / messages * 1e6


def scenarios(scale):
    result = [
        Scenario("bulk", bulk),
        Scenario("churn", churn),
        Scenario("paced", paced),
        Scenario("idle", idle),
        Scenario("opening_few", opening_few),
        Scenario("opening_many", opening_many),
    ]
    return result + [Scenario(f"sweep_{count}", sweep(count)) for count in scale.sweep]
