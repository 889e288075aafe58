# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Starts hosts and devices, and waits for them. Programs that measure and check them from outside
use it. A script starts such a program, and puts the project's folder into PYTHONPATH."""

import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[1]
