# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""What was sent, and what the stream has of it."""

import dataclasses

WORST = 5


@dataclasses.dataclass
class Row:
    """Messages of a step, or of a device."""

    sent: int = 0
    stored: int = 0
    doubled: int = 0
    unordered: int = 0

    @property
    def lost(self):
        return self.sent - self.stored

    @property
    def faults(self):
        return self.lost + self.doubled + self.unordered

    def __add__(self, other):
        return Row(self.sent + other.sent, self.stored + other.stored, self.doubled + other.doubled,
                   self.unordered + other.unordered)

    def texts(self):
        numbers = self.sent, self.stored, self.lost, self.doubled, self.unordered
        return [f"{number:,}" for number in numbers]


class Account:
    """Compares the devices' messages with the stream's.

    devices: see fleet.Device; their steps and begins are used. stored: the stream's messages without
    line ends, in its order. message_bytes: with the line's end; what is shorter is the beginning of a
    message that was sent again."""

    def __init__(self, devices, stored, message_bytes):
        self.steps = {}  # rows, in the order of the steps
        self.devices = [Row() for _ in devices]
        self.foreign = 0  # messages that nobody has sent
        self.gaps = 0  # messages that are lost although a later one of their connection is not
        seen = [bytearray(len(device.steps)) for device in devices]
        latest = [0] * len(devices)
        for message in stored:
            if len(message) == message_bytes - 1:
                self._note(message, devices, seen, latest)
        for number, device in enumerate(devices):
            self._sum_up(number, device, seen[number])

    def _note(self, message, devices, seen, latest):
        try:
            device, number = (int(word) for word in message.split(b" ", 2)[:2])
        except ValueError:
            device, number = -1, 0
        if not 0 <= device < len(devices) or not 0 < number <= len(devices[device].steps):
            self.foreign += 1
            return
        for row in self.devices[device], self._row(devices[device].steps[number - 1]):
            row.doubled += seen[device][number - 1]
            row.unordered += number < latest[device]
        seen[device][number - 1] = 1
        latest[device] = max(latest[device], number)

    def _sum_up(self, number, device, seen):
        for step, is_stored in zip(device.steps, seen):
            for row in self.devices[number], self._row(step):
                row.sent += 1
                row.stored += is_stored
        ends = device.begins[1:] + [len(seen)]
        for begin, end in zip(device.begins, ends):
            self.gaps += seen[begin:end].rstrip(b"\0").count(0)

    def _row(self, step):
        return self.steps.setdefault(step, Row())

    def table(self, names):
        """names: of the steps, in their order."""
        rows = [(name, self._row(name)) for name in names]
        rows.append(("all", sum((row for _, row in rows), Row())))
        lines = ["| Step | sent | stored | lost | doubled | out of order |", "|---|---:|---:|---:|---:|---:|"]
        lines += [" | ".join([f"| {name}", *row.texts()]) + " |" for name, row in rows]
        return "\n".join(lines + ["", self._worst()])

    def _worst(self):
        worst = sorted(enumerate(self.devices), key=lambda pair: -pair[1].faults)[:WORST]
        texts = [f"{number} ({row.lost} lost, {row.doubled} doubled, {row.unordered} out of order)"
                 for number, row in worst if row.faults]
        return "Worst devices: " + (", ".join(texts) or "none has lost anything") + "."

    def faults(self, may_lose):
        """Yields what is wrong. may_lose: the names of steps in which messages may be lost."""
        for name, row in self.steps.items():
            if row.lost and name not in may_lose:
                yield f"{row.lost} messages lost: {name}"
            if row.doubled:
                yield f"{row.doubled} messages doubled: {name}"
            if row.unordered:
                yield f"{row.unordered} messages out of order: {name}"
        if self.gaps:
            yield f"{self.gaps} messages lost in the middle of a connection"
        if self.foreign:
            yield f"{self.foreign} messages that nobody has sent"
