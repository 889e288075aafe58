# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Running programs, seen from outside: what they use and whether they are at rest."""

import ctypes
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

POLL_SECONDS = 0.05
HANG_GUARD_SECONDS = 180

_libc = ctypes.CDLL(None, use_errno=True)


class Process:
    """A program that the constructor starts. Leaving the with block ends it at the latest.

    out: a file for its standard output; then output() has nothing."""

    def __init__(self, arguments, out=None):
        self.arguments = [str(argument) for argument in arguments]
        # Files, not pipes: nobody reads while the program runs, and a full pipe would stop it.
        self._out, self._err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.popen = subprocess.Popen(self.arguments, stdin=subprocess.DEVNULL,
                                      stdout=out or self._out, stderr=self._err)
        self._clock = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def kill(self):
        if self.popen.poll() is None:
            self.popen.kill()
            self.popen.wait()
        self._out.close()
        self._err.close()

    @property
    def pid(self):
        return self.popen.pid

    def cpu_seconds(self):
        """User and system time of all its threads, those that have ended included."""
        if self._clock is None:
            clock = ctypes.c_int()
            if _libc.clock_getcpuclockid(self.pid, ctypes.byref(clock)) != 0:
                raise RuntimeError(f"{self.arguments[0]} is gone")
            self._clock = clock.value
        return time.clock_gettime(self._clock)

    def resident_bytes(self):
        with open(f"/proc/{self.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def wake_ups(self):
        """Returns how often each thread has gone to sleep so far: {thread: count}."""
        counts = {}
        for thread in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{thread}/status", encoding="ascii") as file:
                counts[int(thread)] = int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)",
                                                    file.read(), re.MULTILINE)[1])
        return counts

    def waited_seconds(self):
        """How long its main thread has been ready to run and had no CPU."""
        with open(f"/proc/{self.pid}/schedstat", encoding="ascii") as file:
            return int(file.read().split()[1]) / 1e9

    def is_asleep(self):
        """Whether none of its threads is running or ready to run."""
        for thread in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{thread}/stat", encoding="ascii") as file:
                if file.read().rpartition(")")[2].split()[0] != "S":
                    return False
        return True

    def listens_on(self, port):
        """Whether a program in its network namespace listens on the port."""
        with open(f"/proc/{self.pid}/net/tcp", encoding="ascii") as file:
            listening = (line.split()[1] for line in file if line.split()[3] == "0A")
            return any(int(local.split(":")[1], 16) == port for local in listening)

    def settle(self):
        """Waits until only timers give it something to do."""
        quiet = 0
        before = self.cpu_seconds()

        def is_quiet():
            nonlocal quiet, before
            now = self.cpu_seconds()
            idle = now - before < 0.02 * POLL_SECONDS and self.is_asleep()
            quiet = quiet + 1 if idle else 0
            before = now
            return quiet >= 4

        # A program with timers never rests for long. For such a program this is a pause.
        wait_until(is_quiet, "rest", seconds=3, strict=False)

    def ask_to_end(self):
        """Asks it to end, as an operator would."""
        self.popen.send_signal(signal.SIGTERM)

    def stop(self):
        """Ends it as an operator would. Returns what it wrote to standard output."""
        self.ask_to_end()
        return self.finish()

    def wait(self):
        """Waits for its end. Returns the exit status, whatever it is."""
        return self.popen.wait(HANG_GUARD_SECONDS)

    def finish(self):
        """Waits for its end. Returns what it wrote to standard output."""
        status = self.wait()
        if status != 0:
            raise RuntimeError(f"{' '.join(self.arguments)}: exit status {status}: "
                               f"{_text_of(self._err)[-1000:]} {_text_of(self._out)[-1000:]}")
        return self.output()

    def output(self):
        """What it wrote to standard output."""
        return _text_of(self._out)

    def complaints(self):
        """What it wrote to standard error."""
        return _text_of(self._err)


def _text_of(file):
    # pread() does not move the position at which the program goes on writing.
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0).decode()


def exit_on_sigterm():
    """Makes SIGTERM an exit that leaves all with blocks: these end what they have started."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))


def wait_until(condition, what, seconds=HANG_GUARD_SECONDS, strict=True):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            if strict:
                raise TimeoutError(f"no {what} within {seconds} s")
            return
        time.sleep(POLL_SECONDS)
