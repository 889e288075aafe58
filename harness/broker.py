# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""nats-server nodes on loopback, and the little of their protocol that is needed to look into a stream."""

import json
import signal
import socket
import urllib.request

from harness.processes import Process, wait_until

STREAM = "DEVICES"
SUBJECTS = "dev.>"
PORTS_OF_A_NODE = 3
# The server delivers no more at once, whatever the stream's size: it gives up readers that are slow.
MESSAGES_AT_ONCE = 10_000


class Node:
    """One server. It keeps its name, ports and files when it is started again."""

    def __init__(self, name, folder, address, ports):
        self.name = name
        self.address = f"{address}:{ports[0]}"
        self.route = f"{address}:{ports[1]}"
        self._monitor = f"{address}:{ports[2]}"
        self._folder = folder
        self.process = None

    def write_configuration(self, nodes):
        routes = ", ".join(f"nats://{node.route}" for node in nodes)
        cluster = f"cluster {{ name: drill, listen: {self.route}, routes: [{routes}] }}" \
            if len(nodes) > 1 else ""
        self._configuration().write_text(f"""
server_name: {self.name}
listen: {self.address}
http: {self._monitor}
jetstream {{ store_dir: "{self._folder / self.name}" }}
{cluster}
""", encoding="utf-8")

    def _configuration(self):
        return self._folder / f"{self.name}.conf"

    def start(self):
        log = self._folder / f"{self.name}.log"
        self.process = Process(["nats-server", "-c", self._configuration(), "-l", log])

    def kill(self):
        self.process.kill()
        self.process = None

    def stop(self):
        """As an operator would."""
        self.process.ask_to_end()
        self.process.wait()  # its exit status is 1 after SIGTERM
        self.kill()

    def freeze(self):
        self.process.popen.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.popen.send_signal(signal.SIGCONT)

    def clients(self):
        """How many programs are connected to it."""
        with urllib.request.urlopen(f"http://{self._monitor}/connz", timeout=5) as answer:
            return json.load(answer)["num_connections"]


class Broker:
    """A node, or several with a stream on each. Leaving the with block ends them.

    folder: for their files. address: for all of them. ports: PORTS_OF_A_NODE for each."""

    def __init__(self, folder, address, ports):
        self.nodes = [Node(f"n{first // PORTS_OF_A_NODE}", folder, address, ports[first:])
                      for first in range(0, len(ports), PORTS_OF_A_NODE)]
        for node in self.nodes:
            node.write_configuration(self.nodes)

    def __enter__(self):
        for node in self.nodes:
            node.start()
        return self

    def __exit__(self, *_):
        for node in self.nodes:
            if node.process:
                node.kill()

    def addresses(self, first=0):
        """Of all nodes, beginning with one of them."""
        return ",".join(node.address for node in self.nodes[first:] + self.nodes[:first])

    def create_stream(self, duplicate_window_seconds):
        request = {"name": STREAM, "subjects": [SUBJECTS], "num_replicas": len(self.nodes),
                   "storage": "file", "retention": "limits",
                   "duplicate_window": duplicate_window_seconds * 10**9}
        # Before the nodes have found each other, the answer is an error, or none comes.
        wait_until(lambda: self._ask(f"STREAM.CREATE.{STREAM}", request), "stream with its replicas")

    def leader(self):
        """The node that leads the stream, or None while there is none."""
        name = self._info().get("cluster", {}).get("leader")
        return next((node for node in self.nodes if node.name == name and node.process), None)

    def wait_until_whole(self):
        """Waits until the stream has a leader and all its replicas are current. For several nodes."""
        def is_whole():
            cluster = self._info().get("cluster", {})
            replicas = cluster.get("replicas", [])
            return cluster.get("leader") and len(replicas) == len(self.nodes) - 1 \
                and all(replica.get("current") for replica in replicas)

        wait_until(is_whole, "stream with a leader and current replicas")

    def stored(self):
        """How many messages the stream has, or None while nobody answers."""
        return self._info().get("state", {}).get("messages")

    def messages(self):
        """Yields all messages of the stream in its order, as bytes without headers."""
        wait_until(lambda: self.stored() is not None, "answer of the stream")
        with Connection(self._running()[0]) as connection:
            yield from connection.messages(STREAM, self._info()["state"]["last_seq"])

    def _running(self):
        return [node for node in self.nodes if node.process]

    def _info(self):
        return self._ask(f"STREAM.INFO.{STREAM}") or {}

    def _ask(self, what, request=None):
        """The answer, or None: a node that is frozen or has no leader gives none."""
        for node in self._running():
            try:
                with Connection(node, seconds=2) as connection:
                    answer = connection.ask(f"$JS.API.{what}", request)
                if "error" not in answer:
                    return answer
            except (OSError, EOFError):
                pass
        return None


class Connection:
    """A client of a node that asks and reads."""

    def __init__(self, node, seconds=60):
        host, port = node.address.split(":")
        self._socket = socket.create_connection((host, int(port)), timeout=seconds)
        self._file = self._socket.makefile("rwb")
        self._line()  # what the server says of itself
        self._send('CONNECT {"verbose":false,"pedantic":false,"headers":true,"no_responders":true}')
        self._send("SUB _INBOX.drill 1")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def ask(self, subject, request=None):
        """Returns the answer to a request of JetStream."""
        self._request(subject, request)
        return _answer(*self._next()[1:])

    def messages(self, stream, count):
        """Yields the first messages of the stream."""
        for first in range(1, count + 1, MESSAGES_AT_ONCE):
            yield from self._part(stream, first, min(MESSAGES_AT_ONCE, count + 1 - first))

    def _part(self, stream, first, count):
        subject = f"_INBOX.drill.{first}"
        self._send(f"SUB {subject} {first + 1}")  # the answers' is 1
        self._send(f"UNSUB {first + 1} {count}")  # when so many have come
        self._request(f"$JS.API.CONSUMER.CREATE.{stream}",
                      {"stream_name": stream,
                       "config": {"deliver_subject": subject, "deliver_policy": "by_start_sequence",
                                  "opt_start_seq": first, "ack_policy": "none", "num_replicas": 1,
                                  "mem_storage": True}})
        while count > 0:
            subscription, header, body = self._next()
            if subscription != 1:
                count -= 1
                yield body
            elif "error" in _answer(header, body):
                raise RuntimeError(f"the stream cannot be read: {body.decode()}")

    def _request(self, subject, request):
        body = json.dumps(request) if request else ""
        self._send(f"PUB {subject} _INBOX.drill {len(body)}\r\n{body}")

    def _next(self):
        """Returns a message's subscription, headers and body."""
        while True:
            words = self._line().split()
            if words[0] == b"PING":
                self._send("PONG")
            elif words[0] in (b"MSG", b"HMSG"):
                content = self._file.read(int(words[-1]) + 2)[:-2]
                end = int(words[-2]) if words[0] == b"HMSG" else 0
                return int(words[2]), content[:end], content[end:]

    def _line(self):
        line = self._file.readline()
        if not line:
            raise EOFError("the server has closed")
        return line

    def _send(self, text):
        self._file.write(text.encode() + b"\r\n")
        self._file.flush()


def _answer(header, body):
    if b"503" in header:
        raise EOFError("nobody answers")
    return json.loads(body)
