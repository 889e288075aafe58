# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What the drill's account finds, and the configuration that its haproxy gets."""

import pathlib
import tempfile
import types
import unittest

from tests.cluster.balancer import Balancer
from tests.cluster.fleet import Fleet
from tests.cluster.report import Account

BYTES = 30


def device(*connections):
    """connections: for each, the steps of its messages, a letter each."""
    begins = [sum(map(len, connections[:number])) for number in range(len(connections))]
    return types.SimpleNamespace(begins=begins, steps=list("".join(connections)))


def account(devices, *stored):
    """stored: (device, number) of each message."""
    fleet = Fleet("", 0, "", 0, 1, BYTES)
    return Account(devices, [fleet.message(*message).rstrip(b"\n") for message in stored], BYTES)


class TestAccount(unittest.TestCase):

    def faults(self, *arguments, may_lose=()):
        return list(account(*arguments).faults(may_lose))

    def test_all_is_well(self):
        self.assertEqual(self.faults([device("aab"), device("a")], (0, 1), (1, 1), (0, 2), (0, 3)), [])

    def test_lost(self):
        self.assertEqual(self.faults([device("aab")], (0, 1), (0, 2)), ["1 messages lost: b"])

    def test_lost_where_it_may_be(self):
        self.assertEqual(self.faults([device("ab", "c")], (0, 1), (0, 3), may_lose=["b"]), [])

    def test_lost_within_a_connection(self):
        self.assertEqual(self.faults([device("ab", "abc")], (0, 1), (0, 2), (0, 5), may_lose="abc"),
                         ["2 messages lost in the middle of a connection"])

    def test_doubled(self):
        self.assertEqual(self.faults([device("ab")], (0, 1), (0, 2), (0, 2)), ["1 messages doubled: b"])

    def test_out_of_order(self):
        self.assertEqual(self.faults([device("ab"), device("b")], (0, 2), (1, 1), (0, 1)),
                         ["1 messages out of order: a"])

    def test_never_sent(self):
        self.assertEqual(self.faults([device("a")], (0, 1), (0, 2), (1, 1)),
                         ["2 messages that nobody has sent"])

    def test_the_beginning_of_a_message_counts_for_nothing(self):
        result = Account([device("a")], [b"0 1 xxx"], BYTES)
        self.assertEqual(list(result.faults("a")), [])
        self.assertEqual(result.steps["a"].stored, 0)

    def test_table(self):
        table = account([device("ab"), device("a")], (0, 1), (1, 1)).table("ab").splitlines()
        self.assertEqual(table[2:5], ["| a | 2 | 2 | 0 | 0 | 0 |", "| b | 1 | 0 | 1 | 0 | 0 |",
                                      "| all | 3 | 2 | 1 | 0 | 0 |"])
        self.assertEqual(table[6], "Worst devices: 0 (1 lost, 0 doubled, 0 out of order).")


class TestBalancer(unittest.TestCase):

    def test_configuration(self):
        hosts = [(f"192.0.2.1:{port}", port + 100) for port in (1001, 1002, 1003)]
        with tempfile.TemporaryDirectory() as folder:
            Balancer(pathlib.Path(folder), "127.1.1.1", 1000, hosts, "127.2.2.2")
            lines = (pathlib.Path(folder) / "haproxy.cfg").read_text(encoding="utf-8").splitlines()
            self.assertIn(f"    stats socket {folder}/haproxy.sock mode 660 level admin "
                          "expose-fd listeners", lines)
        self.assertIn("    bind 127.1.1.1:1000", lines)
        self.assertIn("    source 127.2.2.2", lines)
        servers = [line.split() for line in lines if line.split()[:1] == ["server"]]
        self.assertEqual([(words[2], int(words[4])) for words in servers], 2 * hosts)


if __name__ == "__main__":
    unittest.main()
