# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What inputhost stores in, each empty and in a folder of its own."""

import os
import pathlib
import shutil
import signal
import subprocess

from harness.broker import PORTS_OF_A_NODE, STREAM, Broker
from harness.hosts import free_port
from harness.processes import Process, wait_until

DUPLICATE_WINDOW_SECONDS = 120


class Sqlite:
    """A file."""

    name = "SQLite"

    def __init__(self, folder):
        self.output = f"sqlite:{pathlib.Path(folder) / 'messages.db'}"

    @staticmethod
    def is_installed():
        return True

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass


class Postgres:
    """A server that listens on a socket in its folder. Leaving the with block ends it."""

    name = "PostgreSQL"

    def __init__(self, folder):
        self._folder = pathlib.Path(folder)
        self.output = f"postgresql:host={folder} user=inputhost dbname=postgres"
        self._process = None

    @staticmethod
    def programs():
        """Debian's folder of the newest version, or None."""
        found = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
        return found[-1].parent if found else None

    @classmethod
    def is_installed(cls):
        return cls.programs() is not None

    def __enter__(self):
        if os.getuid() == 0:
            shutil.chown(self._folder, "nobody", "nogroup")
        data = self._folder / "data"
        subprocess.run(self._command("initdb", "-D", data, "-U", "inputhost", "-A", "trust", "-E", "UTF8",
                                     "--no-sync", "--locale=C"),
                       check=True, stdout=subprocess.DEVNULL, cwd="/")
        self._process = Process(self._command("postgres", "-D", data, "-k", self._folder,
                                              "-c", "listen_addresses="))
        wait_until(lambda: self._ask("select 1").returncode == 0, "answer of PostgreSQL")
        return self

    def __exit__(self, *_):
        if self._process:
            self._process.popen.send_signal(signal.SIGQUIT)
            self._process.wait()
            self._process.kill()

    def _ask(self, statement):
        return subprocess.run([self.programs() / "psql", "-XAtq", "-c", statement,
                               self.output.removeprefix("postgresql:")],
                              capture_output=True, text=True, check=False)

    def _command(self, program, *arguments):
        # The server refuses to run as root.
        user = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"] if os.getuid() == 0 else []
        return [*user, self.programs() / program, *arguments]


class JetStream:
    """A stream on one node. Leaving the with block ends it."""

    name = "JetStream R1"

    def __init__(self, folder):
        ports = [free_port() for _ in range(PORTS_OF_A_NODE)]
        self._broker = Broker(pathlib.Path(folder), "127.0.0.1", ports)
        self.output = f"nats://{self._broker.addresses()}/{STREAM}"

    @staticmethod
    def is_installed():
        return shutil.which("nats-server") is not None

    def __enter__(self):
        self._broker.__enter__()
        self._broker.create_stream(DUPLICATE_WINDOW_SECONDS)
        return self

    def __exit__(self, *_):
        self._broker.__exit__()


STORES = (Sqlite, Postgres, JetStream)
