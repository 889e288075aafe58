# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""How far a program is: in the last line of a terminal on standard error, and nowhere else."""

import contextlib
import os
import sys
import threading
import time

INTERVAL_SECONDS = 0.5
USUAL_COLUMNS = 80
FORECAST_AFTER_SECONDS = 5  # before, the mean says little
CLEAR = "\r\033[K"


class Progress:
    """Shows how far a program is while the with block lasts. What is printed meanwhile comes above.

    describe: is called in another thread, and returns a text and the share that is done, 0 to 1.
    started: when that share was 0, as time.monotonic(); default: now."""

    def __init__(self, describe, started=None):
        self._describe = describe
        self._started = time.monotonic() if started is None else started
        self._lock = threading.Lock()  # guards the terminal's last line
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._redirection = contextlib.ExitStack()

    def __enter__(self):
        if sys.stderr.isatty():
            above = _Above(self, sys.stdout)
            self._redirection.callback(above.close_line)
            self._redirection.enter_context(contextlib.redirect_stdout(above))
            self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        if self._thread.is_alive():
            self._thread.join()
        self._redirection.close()

    def write_above(self, stream, text):
        """Writes to the stream, which may be the same terminal."""
        with self._lock:
            sys.stderr.write(CLEAR)
            sys.stderr.flush()
            stream.write(text)
            stream.flush()

    def _run(self):
        while not self._over.wait(INTERVAL_SECONDS):
            self._show(self._line())
        self._show("")

    def _show(self, line):
        with self._lock:
            # A terminal may not know its size. A text in its last column could wrap.
            columns = os.get_terminal_size(sys.stderr.fileno()).columns or USUAL_COLUMNS
            sys.stderr.write(CLEAR + line[:columns - 1])
            sys.stderr.flush()

    def _line(self):
        text, share = self._describe()
        elapsed = time.monotonic() - self._started
        line = f"{text}, {time_text(elapsed)}"
        if 0 < share < 1 and elapsed > FORECAST_AFTER_SECONDS:
            line += f", {time_text(elapsed * (1 - share) / share)} left"
        return line


class Steps:
    """Counts the steps of a program whose number is known, for Progress."""

    def __init__(self, count):
        self.count = count
        self.done = 0
        self.name = ""

    def begin(self, name):
        """The next step begins; all before it are done."""
        self.done += 1 if self.name else 0
        self.name = name

    def describe(self):
        return f"{self.done + 1} of {self.count}: {self.name}", self.done / self.count


class _Above:
    """Standard output while there is such a line. Only whole lines are written, for the next text
    would begin with clearing what is there."""

    def __init__(self, progress, stream):
        self._progress = progress
        self._stream = stream
        self._of_thread = threading.local()  # rest: the beginning of its line

    def write(self, text):
        begun = getattr(self._of_thread, "rest", "") + text
        lines, end, self._of_thread.rest = begun.rpartition("\n")
        if end:
            self._progress.write_above(self._stream, lines + end)
        return len(text)

    def close_line(self):
        """Writes what has no end yet, of this thread."""
        self._stream.write(getattr(self._of_thread, "rest", ""))

    def __getattr__(self, name):
        return getattr(self._stream, name)


def time_text(seconds):
    """As m:ss or h:mm:ss."""
    minutes, seconds = divmod(round(seconds), 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02}:{seconds:02}" if hours else f"{minutes}:{seconds:02}"
