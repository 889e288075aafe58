# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Devices that number their messages, and trust TCP: what was sent once is not sent again."""

import heapq
import random
import selectors
import socket
import threading
import time

from harness.processes import wait_until

RECONNECT_SECONDS = (0.05, 0.5)
LONGEST_TURN_SECONDS = 0.1


class Device:
    """Sends a message in every interval. When its connection ends it closes, sends nothing more there,
    comes back soon and goes on counting.

    A message counts as sent when the kernel has taken all of it. One that it has taken in part when
    the connection ends is sent again."""

    def __init__(self, number, fleet):
        self.number = number
        self.steps = []  # of each message; number 1 is the first
        self.begins = []  # of each connection: how many messages were sent before
        self.due = 0.0  # when act() is to be called
        self.rest = b""  # of the message that is being sent
        self._fleet = fleet
        self._socket = None

    def act(self, now):
        """Returns when it is to be called again."""
        if not self._socket:
            self._connect()
            return now
        if not self.rest and not self._fleet.is_holding:
            self.rest = self._fleet.message(self.number, len(self.steps) + 1)
        return self._send(now) if self.rest else now + self._fleet.interval

    def read(self):
        """Returns whether its connection is over: hosts send nothing else."""
        try:
            over = not self._socket.recv(4096)
        except OSError:
            over = True
        if over:
            self.close()
        return over

    def close(self):
        self.rest = b""
        if self._socket:
            self._fleet.selector.unregister(self._socket)
            self._socket.close()
            self._socket = None

    def _connect(self):
        self._socket = socket.socket()
        self._socket.setblocking(False)
        self._socket.bind((self._fleet.source, 0))
        self._socket.connect_ex((self._fleet.host, self._fleet.port))
        self._fleet.selector.register(self._socket, selectors.EVENT_READ, self)
        self.begins.append(len(self.steps))

    def _send(self, now):
        try:
            self.rest = self.rest[self._socket.send(self.rest):]
        except BlockingIOError:  # not connected yet, or the kernel is full
            pass
        except OSError:
            self.close()
            return now + pause_before_coming_back()
        if self.rest:
            return now + LONGEST_TURN_SECONDS
        self.steps.append(self._fleet.step)
        return now + self._fleet.interval


def pause_before_coming_back():
    return random.uniform(*RECONNECT_SECONDS)


class Fleet:
    """All devices, in a thread of their own. Leaving the with block ends them.

    source: the address that they come from. message_bytes: with the line's end."""

    def __init__(self, host, port, source, count, interval_seconds, message_bytes):
        self.host, self.port, self.source = host, port, source
        self.interval = interval_seconds
        self.step = ""  # what is counted as sent now
        self.is_holding = False
        self.selector = selectors.DefaultSelector()
        self._bytes = message_bytes
        self.devices = [Device(number, self) for number in range(count)]
        self._due = []  # heap of (time, number); one is valid if the device says that time
        self._held = threading.Event()
        self._stopping = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stopping.set()
        self._thread.join()

    def message(self, device, number):
        return f"{device} {number} ".encode().ljust(self._bytes - 1, b"x") + b"\n"

    def hold(self):
        """Returns when no device sends any more; they stay connected."""
        self._held.clear()
        self.is_holding = True
        wait_until(self._is_held, "devices that have sent their messages")

    def go_on(self, step):
        self.step = step
        self.is_holding = False

    def total(self):
        return sum(len(device.steps) for device in self.devices)

    def connections(self):
        return sum(len(device.begins) for device in self.devices)

    def _is_held(self):
        if not self._thread.is_alive():
            raise RuntimeError("the devices' thread has ended")
        return self._held.is_set()

    def _run(self):
        now = time.monotonic()
        for device in self.devices:
            self._schedule(device, now + random.uniform(0, self.interval))
        while not self._stopping.is_set():
            if self.is_holding and not any(device.rest for device in self.devices):
                self._held.set()
            self._turn()
        for device in self.devices:
            device.close()

    def _turn(self):
        pause = self._due[0][0] - time.monotonic()
        ready = self.selector.select(min(max(pause, 0), LONGEST_TURN_SECONDS))
        now = time.monotonic()
        for key, _ in ready:
            if key.data.read():
                self._schedule(key.data, now + pause_before_coming_back())
        while self._due[0][0] <= now:
            due, number = heapq.heappop(self._due)
            device = self.devices[number]
            if device.due == due:
                self._schedule(device, device.act(now))

    def _schedule(self, device, due):
        device.due = due
        heapq.heappush(self._due, (due, device.number))
