# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Starts hosts and devices, and waits for them: for the programs that measure and check them from
outside. Who uses it is started by a script, which puts the project's folder into PYTHONPATH."""

import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[1]
