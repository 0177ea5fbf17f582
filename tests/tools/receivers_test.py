"""gnss-gateway with receivers that speak: serial devices (pseudo-terminals), pipes, pauses, noise."""

import functools
import itertools
import json
import operator
import os
import pathlib
import subprocess
import termios
import time
import unittest

from desk import GATEWAY, Desk_test, until
from terminal import Terminal

POSITION = ",4807.038,N,01131.000,E,"


def sentence(body):
    checksum = functools.reduce(operator.xor, body.encode(), 0)
    return f"${body}*{checksum:02X}\r\n"


def instant(second):
    return sentence(f"GPRMC,0000{second:02d},A{POSITION}10.0,20.0,010124,,") + sentence(
        f"GPGGA,0000{second:02d}{POSITION}1,08,0.9,,,,,,")


class Receivers(Desk_test):
    def start(self, path, *arguments, **options):
        return self.desk.start(GATEWAY, "--json", "--nmea", path, *arguments, **options)

    def plugged_in(self):
        terminal = Terminal(self.desk.path / "receiver")
        self.addCleanup(terminal.plug_out)
        return terminal

    def ends(self, gateway, code, text=""):
        """Returns the statistics."""
        output, _ = gateway.communicate(timeout=30)
        errors = gateway.log.read_text()
        self.assertEqual(gateway.returncode, code, errors)
        self.assertIn(text, errors)
        return json.loads(output) if output else None

    def test_a_serial_device_is_raw_and_silent_towards_the_receiver(self):
        terminal = self.plugged_in()
        gateway = self.start(terminal.path, "--count", 3, "--baud", 57600)
        until(lambda: terminal.is_raw() and terminal.rate() == termios.B57600, "raw, at the wanted rate")
        noise = bytes(byte for byte in range(256) if byte != ord("$")) + b"\x04\x03\x11\x13\x1a\x04\r\n"
        for second in range(3):
            terminal.send(noise + instant(second).encode())
        told = self.ends(gateway, 0)
        self.assertEqual((told["notifications"], told["fixes"], told["sentences"]), (3, 3, 6))
        self.assertEqual(terminal.echo(), b"")

    def test_the_rate_is_found_by_trying(self):
        terminal = self.plugged_in()
        gateway = self.start(terminal.path)
        until(terminal.is_raw, "raw")
        first = terminal.rate()
        # At another rate than the receiver's its sentences are noise.
        until(lambda: terminal.rate() != first or terminal.send(b"\xf0\x0f"), "another rate")
        seconds = itertools.cycle(range(60))
        until(lambda: "sends NMEA 0183 at " in gateway.log.read_text() or terminal.send(instant(next(seconds)).encode()),
              "found")
        self.assertEqual(self.desk.stop(gateway)[0], 0)

    def test_a_device_that_goes_is_an_error_and_may_come_back(self):
        terminal = Terminal(self.desk.path / "receiver")
        gateway = self.start(terminal.path)
        until(terminal.is_raw, "raw")
        terminal.plug_out()
        self.ends(gateway, 1, "has gone")

        gateway = self.start(terminal.path, "--reconnect", "--count", 2)
        for second in range(2):
            until(lambda: gateway.log.read_text().count("waiting for it") == second + 1, "the gateway waits")
            terminal = Terminal(terminal.path)
            until(terminal.is_raw, "raw")
            terminal.send(instant(second).encode())
            if second == 0:
                until(lambda: "sends NMEA 0183 at " in gateway.log.read_text(), "read")
                terminal.plug_out()
        self.assertEqual(self.ends(gateway, 0)["fixes"], 2)
        terminal.plug_out()

    def test_pauses_within_an_instant_make_no_second_position(self):
        gateway = self.start("-", stdin=subprocess.PIPE)

        def say(text):
            gateway.stdin.write(text)
            gateway.stdin.flush()
            time.sleep(0.15)  # a radio link

        for second in range(3):
            say(instant(second))
            say(sentence("GPGSA,A,3,04,,,,,,,,,,,,2.5,1.3,2.1") + sentence("GPGSV,1,1,01,04,40,083,46"))
            say(sentence(f"GPZDA,0000{second + 1:02d},01,01,2024,00,00"))
        told = self.ends(gateway, 0)
        self.assertEqual((told["notifications"], told["fixes"], told["duplicates"]), (3, 3, 0))

    def test_an_input_without_sentences_says_so(self):
        gateway = self.start("-", stdin=subprocess.PIPE)
        for silences, text in enumerate(("garbage\n", instant(0)), 1):
            gateway.stdin.write(text)
            gateway.stdin.flush()
            until(lambda: gateway.log.read_text().count('no NMEA 0183 sentence from "-" for 5 s') == silences, "a message")
        self.ends(gateway, 0)
        self.ends(self.start("-", stdin=subprocess.DEVNULL), 1, "held no NMEA 0183 sentence")

    def test_bounds_hold_for_a_live_input(self):
        endless = self.desk.start(pathlib.Path("/usr/bin/yes"), "noise")
        self.assertEqual(self.ends(self.start("-", "--seconds", 0.3, stdin=endless.stdout), 0)["notifications"], 0)
        many = "".join(map(instant, range(9)))
        gateway = self.start("-", "--count", 2, stdin=subprocess.PIPE)
        gateway.stdin.write(many)
        self.assertEqual(self.ends(gateway, 0)["notifications"], 2)

    def test_options_that_make_no_sense_are_refused(self):
        recording, pipe = self.desk.path / "recording.log", self.desk.path / "pipe"
        recording.write_text(instant(1))
        os.mkfifo(pipe)
        device = self.plugged_in().path
        for path, option in (
            (None, "--speed-up=2"), (None, "--baud=9600"), (None, "--reconnect"), (None, "--plt-offset=1"),
            (recording, "--rate=5"), (recording, "--satellites=5"), (recording, "--start-at=5"),
            (recording, "--baud=9600"), (recording, "--reconnect"), (recording, "--plt-offset=1"),
            (pipe, "--loop"), (pipe, "--once"), (pipe, "--speed-up=1"), (pipe, "--max-gap=1"),
            (pipe, "--baud=9600"), (pipe, "--reconnect"), (device, "--loop"), (device, "--baud=9601"),
        ):
            code, output, errors = self.desk.run(GATEWAY, *(("--nmea", path) if path else ()), option)
            self.assertEqual((code, output), (3, ""), (path, option))
            self.assertIn(option.partition("=")[0], errors)


if __name__ == "__main__":
    unittest.main()
