"""Recordings of real receivers through gateway, application and consumer: the positions that come out
say what the sentences said, to the last printed digit."""

import decimal
import json
import struct
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, RECORDINGS, Desk

NAMES = ("garmin25lp", "haicom-305N", "nmea-rtk", "quectel-eg25-g", "ublox-8")
SPEED_UP = 100


def sentences(path):
    """Fields of each sentence with a right checksum, in order."""
    for line in path.read_bytes().replace(b"\r", b"\n").split(b"\n"):
        start = line.rfind(b"$")
        body, star, checksum = line[start + 1 :].partition(b"*")
        if start < 0 or not star or line.startswith(b"#"):
            continue
        value = 0
        for byte in body:
            value ^= byte
        if f"{value:02X}".encode() == checksum:
            yield body.decode().split(",")


def told(path):
    """What each instant with a valid fix says, by its time: name to printed digits."""
    instants = {}
    for fields in sentences(path):
        kind = fields[0][2:]
        if kind == "GGA" and fields[1] and fields[6] != "0":
            instant = instants.setdefault(fields[1], {})
            instant["altitude"] = fields[9]
        elif kind == "RMC" and fields[2] == "A":
            instant = instants.setdefault(fields[1], {})
            instant["speed"], instant["course"] = fields[7], fields[8]
        else:
            continue
        at = 2 if kind == "GGA" else 3
        instant["position"] = fields[at : at + 4]
    return list(instants.values())


def digits(value, printed):
    """`value` rounded to as many decimals as `printed` has, without leading zeros."""
    exponent = decimal.Decimal(1).scaleb(-len(printed.partition(".")[2]))
    return decimal.Decimal(value).quantize(exponent, rounding=decimal.ROUND_HALF_EVEN)


def single(value):
    """The exact value of a number that travelled in single precision."""
    return struct.unpack("f", struct.pack("f", value))[0]


def angle(value, printed):
    value = abs(decimal.Decimal(value))
    whole = int(value + decimal.Decimal("1e-12"))
    return digits(whole * 100 + (value - whole) * 60, printed)


@unittest.skipUnless(RECORDINGS.is_dir(), f"{RECORDINGS} is not there")
class Replay(unittest.TestCase):
    def test_recordings(self):
        for name in NAMES:
            with self.subTest(name):
                self.replay(RECORDINGS / f"{name}.log")

    def replay(self, path):
        expected = told(path)
        with Desk() as desk:
            application = desk.start(APPLICATION)
            consumer = desk.start(POSCTL, "watch", "--json", "--field", "positions")
            # The initial value shows that the whole road is open; the gateway comes last and the
            # application has to find it, so the recording goes round until everything was seen.
            self.assertNotIn("LAT", json.loads(consumer.stdout.readline())["records"][0])
            gateway = desk.start(GATEWAY, "--json", "--nmea", path, "--speed-up", SPEED_UP, "--loop")
            positions = []
            while len(positions) < 2 * len(expected):
                record = json.loads(consumer.stdout.readline())["records"][0]
                if "LAT" in record:
                    positions.append(record)
            code, statistics = desk.stop(gateway)
            self.assertEqual(code, 0)
            self.assertEqual(desk.stop(consumer)[0], 0)
            self.assertEqual(desk.stop(application)[0], 0)
        fixes = json.loads(statistics)["fixes"]
        self.assertGreaterEqual(fixes, len(expected))
        self.assertLessEqual(self.instants_passed(positions, expected), fixes + len(expected), "out of order")

    def instants_passed(self, positions, expected):
        """Each position is the next instant of the recording, or a later one: the consumer may come in anywhere, and
        a busy machine may lose positions."""
        passed = 0
        for record in positions:
            later = (n for n in range(len(expected)) if self.same(record, expected[(passed + n) % len(expected)]))
            lost = next(later, None)
            self.assertIsNotNone(lost, f"no instant says {record}; the next one: {expected[passed % len(expected)]}")
            passed += lost + 1
        return passed

    @staticmethod
    def same(record, instant):
        latitude, north, longitude, east = instant["position"]
        pairs = [
            (angle(record["LAT"], latitude), latitude),
            (angle(record["LON"], longitude), longitude),
        ]
        if (record["LAT"] < 0) != (north == "S") or (record["LON"] < 0) != (east == "W"):
            return False
        if instant.get("altitude"):
            pairs.append((digits(single(record["altitudeMeanSeaLevel"]), instant["altitude"]), instant["altitude"]))
        if instant.get("speed"):
            knots = decimal.Decimal(single(record["speed2D"])) * 3600 / 1852
            pairs.append((digits(knots, instant["speed"]), instant["speed"]))
        if instant.get("course"):
            pairs.append((digits(single(record["courseOverGround"]), instant["course"]), instant["course"]))
        return all(value == decimal.Decimal(printed) for value, printed in pairs)


if __name__ == "__main__":
    unittest.main()
