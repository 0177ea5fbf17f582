"""gnss-gateway with a real gpsd, whose receivers are pseudo-terminals that speak binary protocols."""

import binary_receivers
import contextlib
import json
import os
import pathlib
import socket
import struct
import threading
import tty
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, Desk_test, until
from terminal import Terminal

GPSD = pathlib.Path("/usr/sbin/gpsd")
# Member of the position, attribute of TPV.
MEMBERS = {"altitudeMeanSeaLevel": "altMSL", "altitudeWGS84": "altHAE", "speed2D": "speed", "speedVertical": "climb",
           "courseOverGround": "track", "accuracyHorizontal": "eph", "accuracyVertical": "epv"}


def single(value):
    """What is left of a number that travels in single precision."""
    return struct.unpack("f", struct.pack("f", value))[0]


class Receiver:
    """Sends an instant every 0.2 s while it is plugged in."""

    def __init__(self, path, instant):
        self.path, self.instant = path, instant
        self.second = 0
        self.end = None

    def plug_in(self):
        self.terminal = Terminal(self.path)
        tty.setraw(self.terminal.device)
        os.chmod(self.path, 0o666)  # gpsd gives up its rights
        self.end = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.end.wait(0.2):
            self.second += 1
            with contextlib.suppress(BlockingIOError):
                self.terminal.send(self.instant(self.second))
            self.terminal.echo()  # what gpsd asks for

    def pull_out(self):
        if self.end is None:
            return
        self.end.set()
        self.thread.join()
        self.end = None
        self.terminal.plug_out()


@unittest.skipUnless(GPSD.exists(), "gpsd is not installed")
class Gpsd(Desk_test):
    def setUp(self):
        super().setUp()
        self.port = 20_000 + self.desk.network
        self.path = self.desk.path / "receiver"
        self.desk.path.chmod(0o755)

    def plug_in(self, instant):
        receiver = Receiver(self.path, instant)
        receiver.plug_in()
        self.addCleanup(receiver.pull_out)
        return receiver

    def start_gpsd(self):
        gpsd = self.desk.start(GPSD, "-N", "-n", "-F", self.desk.path / "control", "-S", self.port, self.path)
        until(self.listens, "gpsd listens")
        return gpsd

    def hotplug(self, sign):
        """As udev does it. gpsd forgets a device for good when it looks for one that is not there."""
        with socket.socket(socket.AF_UNIX) as control:
            control.connect(str(self.desk.path / "control"))
            control.sendall(f"{sign}{self.path}\r\n".encode())
            control.recv(100)

    def listens(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def start_gateway(self, *arguments):
        return self.desk.start(GATEWAY, "--json", "--gpsd", f"127.0.0.1:{self.port}", *arguments)

    def log_of(self, gateway):
        return [line for line in gateway.log.read_text().splitlines() if line.startswith("gnss-gateway:")]

    def test_positions_of_binary_receivers_are_those_of_gpsd(self):
        for instant in (binary_receivers.u_blox, binary_receivers.sirf, binary_receivers.trimble,
                        binary_receivers.garmin):
            with self.subTest(instant.__name__):
                receiver = self.plug_in(instant)
                gpsd = self.start_gpsd()
                client = self.enterContext(socket.create_connection(("127.0.0.1", self.port)))
                client.sendall(b'?WATCH={"enable":true,"json":true};\n')
                application = self.desk.start(APPLICATION)
                consumer = self.desk.start(POSCTL, "watch", "--json", "--field", "positions")
                gateway = self.start_gateway()
                seen = []
                while len(seen) < 10:
                    record = json.loads(consumer.stdout.readline())["records"][0]
                    if "LAT" in record:
                        seen.append(record)
                for process in (gateway, consumer, application):
                    self.assertEqual(self.desk.stop(process)[0], 0)
                self.desk.stop(gpsd)
                receiver.pull_out()
                reports = [json.loads(line) for line in client.makefile()]
                self.compare(seen, [one for one in reports if one["class"] == "TPV" and one["mode"] >= 2])

    def compare(self, seen, told):
        distinct = set()
        for record in seen:
            same = [report for report in told if (report["lat"], report["lon"]) == (record["LAT"], record["LON"])
                    and all(single(report[attribute]) == single(record[member])
                            for member, attribute in MEMBERS.items() if attribute in report)]
            self.assertTrue(same, f"no TPV says {record}")
            distinct.add(record["LAT"])
        self.assertGreater(len(distinct), 5)

    def test_a_gpsd_or_a_device_that_goes_is_found_again(self):
        gateway = self.start_gateway()
        until(lambda: self.log_of(gateway), "the first line")
        receiver = self.plug_in(binary_receivers.u_blox)
        gpsd = self.start_gpsd()
        until(lambda: len(self.log_of(gateway)) == 2, "found")
        gpsd.kill()
        gpsd.wait()
        until(lambda: len(self.log_of(gateway)) == 3, "gpsd has gone")
        gpsd = self.start_gpsd()
        until(lambda: len(self.log_of(gateway)) == 4, "found again")
        receiver.pull_out()
        until(lambda: len(self.log_of(gateway)) == 5, "the device has gone")
        self.hotplug("-")
        receiver.plug_in()
        self.hotplug("+")
        until(lambda: len(self.log_of(gateway)) == 6, "the device is back")
        code, output = self.desk.stop(gateway)
        place, there = f"gpsd at 127.0.0.1:{self.port}", f'receiver "{self.path}" of gpsd at 127.0.0.1:{self.port}'
        self.assertEqual([line.removeprefix("gnss-gateway: ") for line in self.log_of(gateway)],
                         [f"{place} is not there, waiting for it", f"{there} is there",
                          f"{place} has gone, waiting for it", f"{there} is there",
                          f"{there} has gone, waiting for it", f"{there} is there"])
        told = json.loads(output)
        self.assertEqual((code, told["malformed"]), (0, 0))
        self.assertGreater(told["notifications"], told["fixes"] + told["withoutFix"], "also while nothing was there")


if __name__ == "__main__":
    unittest.main()
