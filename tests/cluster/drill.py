# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Three hosts behind haproxy, three nats-server nodes behind them, and what can go wrong with each.
Started by scripts/cluster, which says what it shows."""

import argparse
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import time

from harness.broker import PORTS_OF_A_NODE, STREAM, Broker
from harness.hosts import Host
from harness.processes import exit_on_sigterm, wait_until
from harness.progress import Progress, Steps
from tests.cluster.balancer import Balancer
from tests.cluster.fleet import Fleet
from tests.cluster.report import Account

HOSTS = NODES = 3
PROGRAMS = ("haproxy", "nats-server")
SAVE_WITHIN_SECONDS = 60
SKIPPED = 77  # exit status, for ctest
# After so long without a new message in the stream, what is missing is lost. An answer of the stream
# is waited for 5 s, and an election takes up to 9 s.
REST_SECONDS = 15


class Addresses:
    """Addresses of this process. So nobody takes a port while its program is being restarted, neither
    another program nor a connection."""

    def __init__(self):
        number = os.getpid()
        rest = f"{number >> 8 & 255}.{number & 255}"
        self.listening = f"127.{128 + (number >> 16 & 63)}.{rest}"
        self.connecting = f"127.{192 + (number >> 16 & 31)}.{rest}"

    def free_ports(self, count):
        probes = [socket.socket() for _ in range(count)]
        for probe in probes:
            probe.bind((self.listening, 0))
        ports = [probe.getsockname()[1] for probe in probes]
        for probe in probes:
            probe.close()
        return ports


class System:
    """All programs of the drill. Leaving the with block ends them."""

    def __init__(self, arguments, folder):
        addresses = Addresses()
        port, *others = addresses.free_ports(1 + 2 * HOSTS + NODES * PORTS_OF_A_NODE)
        self._build = arguments.build
        self._addresses = addresses
        self._ports = others[:HOSTS]
        self._ready_ports = others[HOSTS:2 * HOSTS]
        self._drain_seconds = max(1, round(arguments.seconds / 3))
        # The nodes know a message's id for half of the time for which they will be away.
        self._window_seconds = max(1, round(arguments.away / 2))
        self.hosts = []
        self.broker = Broker(folder, addresses.listening, others[2 * HOSTS:])
        self.balancer = Balancer(folder, addresses.listening, port,
                                 [(f"{addresses.listening}:{host}", ready)
                                  for host, ready in zip(self._ports, self._ready_ports)],
                                 addresses.connecting)
        self.fleet = Fleet(addresses.listening, port, addresses.connecting, arguments.devices,
                           arguments.interval, arguments.bytes)

    def __enter__(self):
        try:
            self.broker.__enter__()
            self.broker.create_stream(self._window_seconds)
            for number in range(HOSTS):
                self.hosts.append(self._new_host(number))
            self.balancer.__enter__()
            self.balancer.wait_until_whole()
            self.fleet.__enter__()
        except BaseException:
            self._end_programs()
            raise
        return self

    def __exit__(self, *_):
        self.fleet.__exit__()
        self._end_programs()

    def _end_programs(self):
        self.balancer.__exit__()
        for host in self.hosts:
            host.kill()
        self.broker.__exit__()

    def _new_host(self, number):
        # Each begins with another node: so all nodes have connections.
        stream = f"nats://{self.broker.addresses(number)}/{STREAM}"
        settings = {"ipAddr": self._addresses.listening,
                    "proxyProtocol": json.dumps({"from": [self._addresses.connecting],
                                                 "others": "refuse"})}
        return Host(self._build, port=self._ports[number], settings=settings,
                    options=["--output", stream, "--save-within", SAVE_WITHIN_SECONDS,
                             "--drain", self._drain_seconds, "--log-level", "warning",
                             "--http", f"{self._addresses.listening}:{self._ready_ports[number]}"])

    def start_host(self, number):
        self.hosts[number] = self._new_host(number)
        self.balancer.wait_until_whole()

    def leave_host(self, number):
        """Ends it in order. Raises if it could not save all that it had read."""
        self.hosts[number].stop()
        self.hosts[number].kill()


class Drill:
    """The steps, and what devices do between them: they pause until all that they have sent is stored.
    So each step is accounted for by itself."""

    def __init__(self, system, arguments):
        self._system = system
        self._broker = system.broker
        self._seconds = arguments.seconds
        self._away_seconds = arguments.away
        self._lost = 0
        self.may_lose = {"a host is killed"}
        self.steps = {
            "nothing happens": self._calm,
            "a host is killed": self._kill_host,
            "the stream's leader is killed": self._kill_leader,
            "another node with hosts is killed": self._kill_connected,
            "the stream's leader stands still": self._freeze_leader,
            "haproxy and hosts are restarted": self._restart_hosts,
            "the nodes are restarted": self._restart_nodes,
            "the broker is away": self._be_away,
            "nothing happens again": self._calm,
        }

    def play(self):
        """Prints how it goes."""
        progress = Steps(len(self.steps))
        fleet = self._system.fleet
        with Progress(progress.describe):
            for name, run in self.steps.items():
                progress.begin(name)
                fleet.go_on(name)
                run()
                fleet.hold()
                begin = time.monotonic()
                self._wait_until_stored(fleet.total())
                print(f"{name}: {fleet.total():,} messages sent so far, {self._lost:,} lost; the rest was "
                      f"stored {time.monotonic() - begin:.1f} s later", flush=True)

    def _wait_until_stored(self, sent):
        """Until all is stored, or nothing has come for a while."""
        stored, since = -1, time.monotonic()

        def is_settled():
            nonlocal stored, since
            now = self._broker.stored()
            if now is None or now != stored:
                stored, since = now, time.monotonic()
            return stored is not None and (stored >= sent - self._lost
                                           or time.monotonic() - since > REST_SECONDS)

        wait_until(is_settled, "end of storing")
        self._lost = sent - stored

    def _calm(self):
        time.sleep(self._seconds)

    def _kill_host(self):
        time.sleep(self._seconds / 3)
        self._system.hosts[0].kill()
        time.sleep(self._seconds / 3)
        self._system.start_host(0)
        time.sleep(self._seconds / 3)

    def _kill(self, node):
        node.kill()
        time.sleep(self._seconds)
        node.start()
        self._broker.wait_until_whole()

    def _kill_leader(self):
        self._kill(self._leader())

    def _kill_connected(self):
        leader = self._leader()
        node = max((node for node in self._broker.nodes if node is not leader),
                   key=lambda node: node.clients())
        if node.clients() == 0:
            raise RuntimeError("all hosts are connected to the stream's leader")
        self._kill(node)

    def _freeze_leader(self):
        node = self._leader()
        node.freeze()
        time.sleep(self._seconds)
        node.thaw()
        self._broker.wait_until_whole()

    def _leader(self):
        wait_until(self._broker.leader, "leader of the stream")
        return self._broker.leader()

    def _restart_hosts(self):
        """The old haproxy keeps its connections until the hosts have let their devices go."""
        self._system.balancer.restart()
        for number in range(HOSTS):
            self._system.leave_host(number)
            self._system.start_host(number)
        self._system.balancer.wait_until_handed_over()

    def _restart_nodes(self):
        for node in self._broker.nodes:
            node.stop()
            node.start()
            time.sleep(self._seconds / 3)  # until the others have noticed
            self._broker.wait_until_whole()

    def _be_away(self):
        for node in self._broker.nodes:
            node.kill()
        time.sleep(self._away_seconds)
        for node in self._broker.nodes:
            node.start()
        self._broker.wait_until_whole()


def play(arguments):
    """Returns what is wrong, as lines."""
    with tempfile.TemporaryDirectory() as folder, System(arguments, pathlib.Path(folder)) as system:
        drill = Drill(system, arguments)
        drill.play()
        system.fleet.__exit__()
        for number in range(HOSTS):
            system.leave_host(number)
        account = Account(system.fleet.devices, system.broker.messages(), arguments.bytes)
        print(f"\n{arguments.devices:,} devices, {system.fleet.connections():,} connections:\n\n"
              + account.table(drill.steps))
        return list(account.faults(drill.may_lose))


def main():
    exit_on_sigterm()
    parser = argparse.ArgumentParser(prog="cluster", description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--devices", type=int, default=2000)
    parser.add_argument("--interval", type=float, default=2.0)
    parser.add_argument("--bytes", type=int, default=200)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--away", type=float, default=20.0)
    arguments = parser.parse_args()
    os.environ["PATH"] += ":/usr/sbin"  # Debian's place for both, which users do not have
    for program in PROGRAMS:
        if not shutil.which(program):
            print(f"SKIPPED: {program} is not installed, see scripts/install-dependencies")
            sys.exit(SKIPPED)
    try:
        faults = play(arguments)
    except (RuntimeError, OSError, EOFError, subprocess.SubprocessError) as error:
        sys.exit(f"cluster: {error}")
    except KeyboardInterrupt:
        sys.exit("cluster: interrupted")
    sys.exit("\n".join(faults) or None)


if __name__ == "__main__":
    main()
