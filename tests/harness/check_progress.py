# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""The line that shows how far a program is: on a terminal, and nowhere else."""

import os
import pty
import subprocess
import sys
import time
import unittest

from harness import progress

# Prints in between, and ends when its line was shown three times.
PROGRAM = """
import sys, time
from harness.progress import Progress
shown = 0
def describe():
    global shown
    shown += 1
    return "step %d of a long way" % shown, 0.25
with Progress(describe):
    print("above", flush=True)
    while sys.stderr.isatty() and shown < 3:
        time.sleep(0.01)
print("behind")
"""


def run_on_terminal(columns):
    """Returns what the program writes to a terminal."""
    ours, theirs = pty.openpty()
    subprocess.run(["stty", "cols", str(columns)], stdin=theirs, check=True)
    with subprocess.Popen([sys.executable, "-B", "-c", PROGRAM], stdout=theirs, stderr=theirs):
        os.close(theirs)
        output = b""
        try:
            while piece := os.read(ours, 4096):
                output += piece
        except OSError:  # the other end is closed
            pass
    os.close(ours)
    return output.decode()


class OfPrograms(unittest.TestCase):
    def test_shows_on_a_terminal(self):
        output = run_on_terminal(80)
        self.assertIn(progress.CLEAR + "above\r\n", output)
        self.assertIn(progress.CLEAR + "step 1 of a long way, 0:0", output)
        self.assertIn(progress.CLEAR + "step 3 of a long way, 0:0", output)
        self.assertTrue(output.endswith(progress.CLEAR + "behind\r\n"), output)

    def test_fits_into_the_line(self):
        output = run_on_terminal(8)
        self.assertIn(progress.CLEAR + "step 1 " + progress.CLEAR, output)

    def test_shows_where_the_size_is_unknown(self):
        self.assertRegex(run_on_terminal(0), "step 3 of a long way, 0:0[0-9]\r")

    def test_forecasts(self):
        begun = time.monotonic() - 30
        line = progress.Progress(lambda: ("text", 0.25), begun)._line()
        self.assertRegex(line, "^text, 0:3[0-9], [12]:[0-9]{2} left$")

    def test_is_silent_elsewhere(self):
        ended = subprocess.run([sys.executable, "-B", "-c", PROGRAM], capture_output=True,
                               check=True, text=True)
        self.assertEqual((ended.stdout, ended.stderr), ("above\nbehind\n", ""))

    def test_counts_steps(self):
        steps = progress.Steps(4)
        steps.begin("one")
        self.assertEqual(steps.describe(), ("1 of 4: one", 0))
        steps.begin("two")
        self.assertEqual(steps.describe(), ("2 of 4: two", 0.25))

    def test_writes_times(self):
        self.assertEqual([progress.time_text(seconds) for seconds in (0, 59.6, 3599, 3600, 86400)],
                         ["0:00", "1:00", "59:59", "1:00:00", "24:00:00"])


if __name__ == "__main__":
    unittest.main()
