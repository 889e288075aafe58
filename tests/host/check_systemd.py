#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Has a real systemd start, reload, watch and stop inputhost as a service. The systemd is a user's manager
of its own, without a bus, which sees no units but those of this test. Arguments: the build folder, and the
library with which a device can have a worker stand still. Skipped where such a manager cannot run."""

import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile

from harness.hosts import free_port, host_command
from harness.processes import wait_until

MANAGER = pathlib.Path("/lib/systemd/systemd")
BOOTED = pathlib.Path("/run/systemd")  # a manager wants to see here that systemd has booted the machine
INSIDE = "--inside"  # the second start of this script, in its own mount namespace
MANAGERS = "name=systemd"  # the hierarchy of control groups, where there is more than one
WATCHDOG_SECONDS = 2
SKIPPED = 77  # exit status, for ctest

UNIT = """[Unit]
DefaultDependencies=no
[Service]
Type=notify
Environment=LD_PRELOAD={library} TCPINPUT_STANDSTILL={pipe}
ExecStart={command}
ExecReload=/bin/kill -HUP $MAINPID
WatchdogSec={watchdog}
Restart=on-watchdog
RestartSec=0
StandardOutput=null
StandardError=append:{log}
"""


class ControlGroups:
    """Of this test alone. A manager takes the group in which it starts for its own, and moves all processes
    there: so it must not be one with others. Leaving the with block removes them."""

    def __init__(self):
        mounts = [line.split() for line in _lines("/proc/self/mounts")]
        self._before = []
        for number, name, path in groups_of_this_process():
            self._before += [pathlib.Path(mount[1] + path) for mount in mounts
                             if mount[2] == "cgroup2" and number == "0"
                             or mount[2] == "cgroup" and name == MANAGERS in mount[3].split(",")]
        self._name = f"tcpinput-{os.getpid()}"

    def __enter__(self):
        for folder in self._before:
            (folder / self._name).mkdir()
            self._enter(folder / self._name)
        outside = [path for number, name, path in groups_of_this_process()
                   if (number == "0" or name == MANAGERS) and not path.endswith("/" + self._name)]
        if outside or not self._before:
            raise OSError(f"none for this test alone: {outside}")

    def __exit__(self, *_):
        for folder in self._before:
            self._enter(folder)
            for group, _, _ in os.walk(folder / self._name, topdown=False):
                os.rmdir(group)

    @staticmethod
    def _enter(folder):
        (folder / "cgroup.procs").write_text(str(os.getpid()), encoding="ascii")


def groups_of_this_process():
    """Yields (number of the hierarchy, its name, path)."""
    for line in _lines("/proc/self/cgroup"):
        yield line.split(":", 2)


def _lines(file):
    return pathlib.Path(file).read_text(encoding="utf-8").splitlines()


class Manager:
    """Leaving the with block ends it, with its services."""

    def __init__(self, folder):
        self._runtime = folder / "runtime"
        self._units = folder / "units"
        (self._runtime / "systemd").mkdir(parents=True, mode=0o700)
        self._units.mkdir()
        (self._units / "idle.target").write_text("[Unit]\nDefaultDependencies=no\n", encoding="ascii")
        self._environment = {**os.environ, "XDG_RUNTIME_DIR": str(self._runtime),
                             "SYSTEMD_UNIT_PATH": str(self._units)}
        self._popen = None

    def add(self, name, text):
        (self._units / f"{name}.service").write_text(text, encoding="utf-8")

    def __enter__(self):
        self._popen = subprocess.Popen([MANAGER, "--user", "--unit=idle.target"],
                                       env=self._environment, stdin=subprocess.DEVNULL)
        return self

    def __exit__(self, *_):
        if self._popen.poll() is None:
            self.command("stop", "*.service")
            self._popen.kill()
        self._popen.wait()

    def can_run(self):
        ready = self._runtime / "systemd/private"
        wait_until(lambda: ready.exists() or self._popen.poll() is not None, "manager")
        return self._popen.poll() is None

    def command(self, *words):
        """Returns its exit status."""
        return self._systemctl(*words).returncode

    def show(self, name, member):
        return self._systemctl("show", name, "--property", member, "--value").stdout.strip()

    def fed(self, name):
        """When its watchdog was fed last, in seconds."""
        return int(self.show(name, "WatchdogTimestampMonotonic")) / 1e6

    def _systemctl(self, *words):
        return subprocess.run(["systemctl", "--user", *words], env=self._environment, text=True,
                              check=False, capture_output=True, timeout=120)


def expect(what, found, wanted):
    if found != wanted:
        raise RuntimeError(f"{what}: {found!r}, not {wanted!r}")


def play(manager, port, log):
    expect("start", manager.command("start", "host"), 0)
    expect("state", manager.show("host", "ActiveState"), "active")
    wait_until(lambda: manager.show("host", "StatusText") == "0 connections, 0 messages", "status")
    process = manager.show("host", "MainPID")

    with socket.create_connection(("127.0.0.1", port)) as device:
        device.sendall(b"good\n")
        wait_until(lambda: manager.show("host", "StatusText") == "1 connections, 1 messages", "message")
    # Until it has been fed for longer than WatchdogSec.
    first = manager.fed("host")
    wait_until(lambda: manager.fed("host") > first + WATCHDOG_SECONDS, "food for the watchdog")
    expect("process", manager.show("host", "MainPID"), process)

    # With Type=notify, systemd may take the reload for done before the program has begun with it.
    expect("reload", manager.command("reload", "host"), 0)
    wait_until(lambda: log.read_text(encoding="utf-8").count("Listening on ") == 2, "reload")
    wait_until(lambda: manager.show("host", "ActiveState") == "active", "end of the reload")
    expect("process", manager.show("host", "MainPID"), process)

    # Its port is in use: it is never ready.
    expect("start of a second one", manager.command("start", "second"), 1)
    expect("its exit code", manager.show("second", "ExecMainStatus"), "6")

    with socket.create_connection(("127.0.0.1", port)) as device:
        device.sendall(b"stand still\n")
        wait_until(lambda: manager.show("host", "NRestarts") == "1", "end by the watchdog")
    wait_until(lambda: manager.show("host", "ActiveState") == "active", "new start")
    if manager.show("host", "MainPID") == process:
        raise RuntimeError("it is the same process")

    expect("stop", manager.command("stop", "host"), 0)
    expect("result", manager.show("host", "Result"), "success")
    expect("exit code", manager.show("host", "ExecMainStatus"), "0")


def inside(build, library):
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", BOOTED], check=True)
    (BOOTED / "system").mkdir()
    groups = ControlGroups()
    try:
        groups.__enter__()
    except OSError as error:
        skip(f"no control groups: {error}")
    try:
        with tempfile.TemporaryDirectory() as folder:
            run(build, library, pathlib.Path(folder))
    finally:
        groups.__exit__()
    print("systemd has started, reloaded, watched and stopped inputhost")


def run(build, library, folder):
    pipe, port = folder / "pipe", free_port()
    os.mkfifo(pipe)
    command = " ".join(map(str, host_command(build, "host/inputhost", port, {}, None)))
    manager = Manager(folder)
    for name in ("host", "second"):
        manager.add(name, UNIT.format(library=library, pipe=pipe, command=command, log=folder / name,
                                      watchdog=WATCHDOG_SECONDS))
    with manager:
        if not manager.can_run():
            skip("systemd --user does not run here")
        play(manager, port, folder / "host")


def skip(reason):
    print(f"SKIPPED: {reason}")
    sys.exit(SKIPPED)


def main():
    if sys.argv[1] == INSIDE:
        inside(*(pathlib.Path(word).resolve() for word in sys.argv[2:4]))
        return
    # Without a namespace of one's own, and the right to mount in it, there is no test.
    if not MANAGER.exists() or not shutil.which("systemctl") or not BOOTED.exists() \
            or subprocess.run(["unshare", "--mount", "mount", "-t", "tmpfs", "tmpfs", BOOTED],
                              check=False, capture_output=True).returncode != 0:
        skip("no systemd, or no right to mount")
    os.execvp("unshare", ["unshare", "--mount", sys.executable, "-B", __file__, INSIDE, *sys.argv[1:]])


main()
