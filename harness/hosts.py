# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Programs that devices connect to: any that listens, and hosts with the library."""

import os
import re
import signal
import socket

from harness.processes import Process, wait_until

INPUTHOST = "host/inputhost"  # in a build folder


class Listener(Process):
    """A program that is told to listen on this port of 127.0.0.1. The constructor returns when it
    listens.

    build: the folder that the program is from. certificates: None if the program speaks no TLS.
    out: see Process."""

    def __init__(self, command, build, port, certificates=None, out=None):
        super().__init__(command, out)
        self.build = build
        self.port = port
        self.certificates = certificates
        try:
            wait_until(self._is_ready, f"listening {self.arguments[0]}")
        except BaseException:
            self.kill()
            raise

    def _is_ready(self):
        if self.popen.poll() is not None:
            self.finish()
            raise RuntimeError(f"{self.arguments[0]} has ended before it listened")
        return self.listens_on(self.port)


class Host(Listener):
    """A host with the library: inputhost, or a program of the build folder with its options.

    settings: of the plugin's configuration. tls: more keys of its object "ssl", which is there if
    there are certificates. options: the program's own. prefix: a command that runs the program,
    valgrind for example. port: default is a free one."""

    def __init__(self, build, program=INPUTHOST, *, settings=None, options=(), certificates=None,
                 tls=None, prefix=(), out=None, port=None):
        port = port or free_port()
        command = host_command(build, program, port, settings or {}, certificates, tls)
        super().__init__([*prefix, *command, *options], build, port, certificates, out)

    def reload(self):
        self.popen.send_signal(signal.SIGHUP)

    def counted(self):
        """Returns (messages, bytes without newlines) so far."""
        before = os.fstat(self._err.fileno()).st_size
        self.popen.send_signal(signal.SIGUSR1)
        answer = None

        def has_answered():
            nonlocal answer
            if self.popen.poll() is not None:
                self.finish()
                raise RuntimeError(f"{self.arguments[0]} has ended")
            news = os.pread(self._err.fileno(), 1 << 20, before).decode(errors="replace")
            answer = re.search(r"^messages (\d+) bytes (\d+) .*$", news, re.MULTILINE)
            return answer

        wait_until(has_answered, f"answer of {self.arguments[0]}")
        return int(answer[1]), int(answer[2])


def knows_tls_keys(build, certificates, **keys):
    """Whether the library of the build has these keys, with these values, in its object "ssl"."""
    try:
        with Host(build, settings={"strict": "true"}, certificates=certificates, tls=keys) as host:
            host.stop()
        return True
    except RuntimeError:
        return False


def host_command(build, program, port, settings, certificates, tls=None):
    command = [build / program, "--plugin", build / "tcpinput/libtcpinputplugin2.so"]
    settings = {"ipAddr": "127.0.0.1", "port": port, **settings}
    if certificates:
        settings["ssl"] = certificates.setting(**(tls or {}))
    for key, value in settings.items():
        command += ["--set", f"{key}={value}"]
    return command


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
