# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The stores that check_stores.py plays on: each starts, is killed in the middle of its work, comes
back, and shows what it has."""

import contextlib
import itertools
import json
import os
import pathlib
import re
import shutil
import socket
import sqlite3
import subprocess
import sys
from typing import NamedTuple

from harness.processes import HANG_GUARD_SECONDS, Process, wait_until

NATS_SERVER = "/usr/sbin/nats-server"
NOBODY = 65534


class Row(NamedTuple):
    """A message as a store has it."""

    connection: tuple  # the epoch and the number
    position: int
    end: int
    data: bytes


class Sqlite:
    """A file. It is away while another program writes into it; that program is killed then."""

    WRITER = """
import sqlite3, sys, time
database = sqlite3.connect(sys.argv[1], timeout=60, isolation_level=None)
database.execute("begin immediate")
database.execute("insert into messages (epoch, connection, position, finish, time, partial, bytes)"
                 " values (0, 0, 0, 1, 0, 0, x'00')")
print("writing", flush=True)
time.sleep(3600)
"""

    def __init__(self, folder, _address):
        self.file = folder / "messages.sqlite"
        self.output = f"sqlite:{self.file}"
        self.options = []
        self.writer = None

    @staticmethod
    def is_installed():
        return True

    def start(self):
        if self.writer:
            self.writer.kill()

    def kill(self):
        self.writer = Process([sys.executable, "-c", self.WRITER, self.file])
        wait_until(lambda: self.writer.output(), "write lock")

    def close(self):
        self.start()

    def rows(self):
        """All messages, in the order of storing. Fails if the file is damaged."""
        with contextlib.closing(sqlite3.connect(self.file)) as database:
            verdict = database.execute("pragma integrity_check").fetchone()[0]
            if verdict != "ok":
                raise RuntimeError(f"the file is damaged: {verdict}")
            found = database.execute(
                "select epochs.epoch, connection, position, finish, bytes from messages"
                " join epochs on messages.epoch = epochs.id order by messages.id")
            return [Row((epoch, connection), position, end, bytes(data))
                    for epoch, connection, position, end, data in found]

    def count(self):
        """How many messages it has, while the host writes."""
        if not self.file.exists():
            return 0
        with contextlib.closing(sqlite3.connect(self.file)) as database:
            if not database.execute("select 1 from sqlite_master where name = 'messages'").fetchone():
                return 0
            return database.execute("select count(*) from messages").fetchone()[0]


class Postgres:
    """A PostgreSQL server with a socket in the folder, and no port."""

    def __init__(self, folder, _address):
        self.folder = folder / "postgres"
        self.folder.mkdir()
        self.user = {}
        if os.getuid() == 0:  # the server refuses to run as root
            folder.chmod(0o755)
            os.chown(self.folder, NOBODY, NOBODY)
            self.user = {"user": NOBODY, "group": NOBODY}
        self._run("initdb", "-D", self.folder / "data", "-U", "inputhost", "-A", "trust", "-E", "UTF8",
                  "--no-sync", "--locale=C")
        self.address = f"host={self.folder} user=inputhost dbname=postgres"
        self.output = f"postgresql:{self.address}"
        self.options = []
        self.server = None

    @staticmethod
    def programs():
        """Debian's folder of programs, or None."""
        found = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
        return found[0].parent if found else None

    @classmethod
    def is_installed(cls):
        return cls.programs() is not None

    def start(self):
        become = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"] if self.user else []
        self.server = Process([*become, self.programs() / "postgres", "-D", self.folder / "data",
                               "-k", self.folder, "-c", "listen_addresses="])
        wait_until(self._is_ready, "answer of PostgreSQL")

    def kill(self):
        """All its processes at once, in the middle of what they do."""
        self.server.kill()  # the others end when they see that it is gone
        wait_until(lambda: not self._has_processes(), "end of PostgreSQL")

    def close(self):
        if self.server and self.server.popen.poll() is None:
            self.kill()

    def rows(self):
        """All messages, in the order of storing."""
        text = self._ask("copy (select epochs.epoch, connection, position, finish, encode(bytes, 'hex')"
                         " from inputhost.messages join inputhost.epochs on messages.epoch = epochs.id"
                         " order by messages.id) to stdout")
        rows = []
        for line in text.splitlines():
            epoch, connection, position, end, data = line.split("\t")
            rows.append(Row((epoch, int(connection)), int(position), int(end), bytes.fromhex(data)))
        return rows

    def count(self):
        """How many messages it has, while the host writes."""
        if self._ask("select to_regclass('inputhost.messages')") == "":
            return 0
        return int(self._ask("select count(*) from inputhost.messages"))

    def _is_ready(self):
        try:
            return self._ask("select 1") == "1"
        except subprocess.CalledProcessError:
            return False

    def _has_processes(self):
        # A server cannot start while a process of the one before has its memory.
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if os.readlink(process / "cwd").startswith(str(self.folder)):
                    return True
        return False

    def _ask(self, statement):
        return self._run("psql", "-XAtq", "-v", "ON_ERROR_STOP=1", "-c", statement, self.address).strip()

    def _run(self, program, *arguments):
        done = subprocess.run([self.programs() / program, *arguments], cwd="/", check=True, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=HANG_GUARD_SECONDS,
                              **self.user)
        return done.stdout


class Nats:
    """A nats-server with a stream S on disk."""

    def __init__(self, folder, address):
        self.folder = folder
        self.host = address
        with socket.socket() as probe:
            probe.bind((address, 0))
            self.port = probe.getsockname()[1]
        self.output = f"nats://{address}:{self.port}/S"
        self.options = ["--nats-create", "R1"]
        self.server = None

    @staticmethod
    def is_installed():
        return shutil.which(NATS_SERVER) is not None

    def start(self):
        configuration = self.folder / "nats.conf"
        configuration.write_text(f'host: {self.host}\nport: {self.port}\nserver_name: test\n'
                                 f'jetstream {{ store_dir: "{self.folder}/nats" }}\n', encoding="ascii")
        self.server = Process([NATS_SERVER, "-c", configuration])
        wait_until(lambda: "Server is ready" in self.server.complaints(), "nats-server")

    def kill(self):
        self.server.kill()

    def close(self):
        if self.server:
            self.server.kill()

    def rows(self):
        """All messages, in the order of storing."""
        with contextlib.closing(NatsReader(self.host, self.port)) as reader:
            return reader.rows("S")

    def count(self):
        """How many messages it has, while the host writes."""
        with contextlib.closing(NatsReader(self.host, self.port)) as reader:
            return reader.count("S")


class NatsReader:
    """Reads a stream."""

    numbers = itertools.count()

    def __init__(self, host, port):
        self.socket = socket.create_connection((host, port), HANG_GUARD_SECONDS)
        self.file = self.socket.makefile("rb", 1 << 20)
        self.file.readline()  # the server's information
        self.place = f"data{next(self.numbers)}"  # the consumer of a reader before may still be there
        self.answer = None
        self.delivered = []  # headers and data of a stream's messages
        self._send(b'CONNECT {"verbose":false,"headers":true,"no_responders":true,"lang":"py","version":"1"}\r\n'
                   b"SUB answer 1\r\nSUB %s 2\r\n" % self.place.encode())

    def close(self):
        self.file.close()
        self.socket.close()

    def count(self, stream):
        """How many messages it has; none if there is no such stream."""
        return self._ask(f"$JS.API.STREAM.INFO.{stream}", {}).get("state", {}).get("messages", 0)

    def rows(self, stream):
        """All messages, in their order."""
        count = self.count(stream)
        if count == 0:
            return []
        consumer = self._ask(f"$JS.API.CONSUMER.CREATE.{stream}", {
            "stream_name": stream,
            "config": {"deliver_subject": self.place, "deliver_policy": "all", "ack_policy": "none"}})
        if "error" in consumer:
            raise RuntimeError(consumer["error"])
        while len(self.delivered) < count:
            self._read()
        return [self._row(*message) for message in self.delivered]

    @staticmethod
    def _row(headers, data):
        fields = dict(re.findall(rb"^Input-(\w+): (.*)\r$", headers, re.MULTILINE))
        return Row((fields[b"Epoch"].decode(), int(fields[b"Connection"])), int(fields[b"Position"]),
                   int(fields[b"End"]), data)

    def _send(self, data):
        self.socket.sendall(data)

    def _ask(self, subject, question):
        text = json.dumps(question).encode()
        self._send(b"PUB %s answer %d\r\n%s\r\n" % (subject.encode(), len(text), text))
        self.answer = None
        while self.answer is None:
            self._read()
        return json.loads(self.answer or "{}")  # nothing: nobody answers yet

    def _read(self):
        words = self.file.readline().split()
        if not words:
            raise RuntimeError("nats-server has closed the connection")
        if words[0] == b"PING":
            self._send(b"PONG\r\n")
        if words[0] not in (b"MSG", b"HMSG"):
            return
        size = int(words[-2]) if words[0] == b"HMSG" else 0
        content = self.file.read(int(words[-1]) + 2)[:-2]
        if words[1] == b"answer":
            self.answer = content[size:]
        else:
            self.delivered.append((content[:size], content[size:]))


STORES = {"sqlite": Sqlite, "postgresql": Postgres, "nats": Nats}
