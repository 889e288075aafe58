# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Runs the small examples as a newcomer would: sends something, and reads what they print."""

import json
import os
import pathlib
import signal
import socket
import struct
import sys
import tempfile
import unittest

from harness.certificates import Certificates
from harness.processes import Process, wait_until

BUILD = pathlib.Path(sys.argv.pop(1))
# Of this process: no other test uses it.
ADDRESS = f"127.{64 + (os.getpid() >> 16 & 63)}.{os.getpid() >> 8 & 255}.{os.getpid() & 255}"


def free_port():
    with socket.socket() as probe:
        probe.bind((ADDRESS, 0))
        return probe.getsockname()[1]


def crc(data):
    """CRC-16 of ISO 3309, as Qt's qChecksum()."""
    value = 0xFFFF
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = value >> 1 ^ (0x8408 if value & 1 else 0)
    return ~value & 0xFFFF


def position(device, time, latitude, longitude):
    body = struct.pack(">IIii", device, time, latitude, longitude)
    return struct.pack(">H", 18) + body + struct.pack(">H", crc(body))


class Examples(unittest.TestCase):
    def send(self, data, port):
        with socket.create_connection((ADDRESS, port)) as device:
            device.sendall(data)

    def started(self, name, port, *arguments):
        program = Process([BUILD / "examples" / name, *arguments])
        self.addCleanup(program.kill)
        wait_until(lambda: program.listens_on(port), "listening")
        return program

    def expect(self, program, text):
        wait_until(lambda: program.output() == text, repr(text) + ", not " + repr(program.output()))

    def test_lines(self):
        port = free_port()
        program = self.started("lines", port, ADDRESS, port)
        self.send(b"one\r\ntwo\n", port)
        self.expect(program, "127.0.0.1 one\n127.0.0.1 two\n")

    def test_lines_is_short(self):
        source = pathlib.Path(__file__).parents[2] / "examples/lines.cpp"
        own = [line for line in source.read_text(encoding="utf-8").splitlines()
               if line and not line.startswith("//")]
        self.assertLessEqual(len(own), 30)

    def test_tracker(self):
        port = free_port()
        program = self.started("tracker", port, ADDRESS, port)
        good = position(7, 1_800_000_000, 52_520_008, -13_404_954)
        bad = good[:-1] + bytes([good[-1] ^ 1])
        self.send(good + bad + position(8, 0, 1, 2) + good[:5], port)
        self.expect(program, "7 2027-01-15T08:00:00Z 52.520008 -13.404954\n"
                             "8 1970-01-01T00:00:00Z 0.000001 0.000002\n")

    def test_recording(self):
        port = free_port()
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "traffic"
            program = self.started("recording", port, ADDRESS, port, file)
            self.send(b"one\ntwo\nrest", port)

            def recorded():
                with Process([BUILD / "recording/devicecat", "--json", file]) as shown:
                    shown.wait()  # with 3 while it is being written
                    entries = [json.loads(line) for line in shown.output().splitlines()]
                return "".join(entry.get("text", "") for entry in entries)

            wait_until(lambda: recorded() == "one\ntwo\nrest", "recorded bytes")
            self.assertEqual(program.stop(), "3 lines\n")

    def test_reloading_needs_a_configuration(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "input.json"
            for content, complaint in ((None, "No such file"), ("{", "no JSON object"), ("[]", "no JSON object")):
                if content:
                    file.write_text(content, encoding="utf-8")
                with Process([BUILD / "examples/reloading", file]) as program:
                    self.assertEqual(program.wait(), 1, content)
                    self.assertIn(f"{file}: {complaint}", program.complaints())

    def test_reloading(self):
        port, other = free_port(), free_port()
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "input.json"

            def configure(value):
                file.write_text(json.dumps({"ipAddr": ADDRESS, "port": value}), encoding="utf-8")

            configure(port)
            program = self.started("reloading", port, file)
            self.send(b"one\n", port)
            self.expect(program, "one\n")
            configure(other)
            program.popen.send_signal(signal.SIGHUP)
            wait_until(lambda: program.listens_on(other), "the other port")
            self.send(b"two\n", other)
            self.expect(program, "one\ntwo\n")
            file.write_text("{", encoding="utf-8")
            program.popen.send_signal(signal.SIGHUP)
            wait_until(lambda: "input.json" in program.complaints(), "a complaint")
            self.send(b"three\nrest", other)
            self.expect(program, "one\ntwo\nthree\nrest\n")
            program.stop()

    @unittest.skipUnless((BUILD / "examples/store").exists(), "store is not built")
    def test_store_goes_on_without_its_certificate(self):
        port = free_port()
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            certificates = Certificates(folder)
            program = self.started("store", port, ADDRESS, port, folder / "messages.sqlite", 0,
                                   certificates.server, certificates.server_key)
            pathlib.Path(certificates.server).write_text("", encoding="utf-8")
            program.popen.send_signal(signal.SIGHUP)
            wait_until(lambda: "not reloaded: " in program.complaints(), "a complaint")
            self.assertTrue(program.listens_on(port))
            program.stop()


if __name__ == "__main__":
    unittest.main()
