"""Receivers of binary protocols: each function makes the messages of one instant, `second` counts the instants.

The receiver moves, so that no two positions are equal.
"""

import math
import struct

WEEK, WEEK_SECOND, LEAP_SECONDS = 2295, 402_000, 18  # of GPS time: 5 January 2024


def place(second):
    """Latitude, longitude, metres above the ellipsoid."""
    return 48.1234567 + second * 1.2345e-4, -11.7654321 - second * 1.2345e-4, 545.123 + second * 0.317


def velocity(second):
    """East, north, up in m/s."""
    return 4.0 + second * 0.11, 10.0 - second * 0.07, 0.15


def ubx(group, number, payload):
    body = bytes((group, number)) + struct.pack("<H", len(payload)) + payload
    first = last = 0
    for byte in body:
        first = (first + byte) & 0xFF
        last = (last + first) & 0xFF
    return b"\xb5\x62" + body + bytes((first, last))


def u_blox(second, fix=3):
    """NAV-PVT, NAV-SAT and NAV-EOE. `fix`: 0 none, 1 dead reckoning, 2 and 3 dimensions, 4 both."""
    latitude, longitude, height = place(second)
    east, north, up = (round(part * 1000) for part in velocity(second))
    time = (WEEK_SECOND + second) * 1000
    solution = struct.pack(
        "<IHBBBBBBIiBBBBiiiiIIiiiiiIIHHIihH", time, 2024, 1, 5, 15, 40 + second // 60, second % 60, 0x37, 20, 0,
        fix, fix != 0, 0, 9, round(longitude * 1e7), round(latitude * 1e7), round(height * 1000),
        round(height * 1000) - 47_469, 1234, 2345, north, east, -up, round(math.hypot(east, north)),
        round(math.degrees(math.atan2(east, north)) * 1e5), 321, 150_000, 120, 0, 0, 0, 0, 0)
    satellites = ((0, 5, 44, 60, 120, 1), (6, 9, 38, 30, 250, 1), (2, 11, 0, 10, 12, 0), (3, 20, 33, 45, 300, 1),
                  (1, 123, 30, 25, 180, 0), (5, 2, 31, 40, 90, 0))
    sky = struct.pack("<IBBH", time, 1, len(satellites), 0) + b"".join(
        struct.pack("<BBBbhhI", system, number, signal, elevation, azimuth, 0, 8 * used + 7)
        for system, number, signal, elevation, azimuth, used in satellites)
    return ubx(1, 0x07, solution) + ubx(1, 0x35, sky) + ubx(1, 0x61, struct.pack("<I", time))


def sirf(second):
    """Measured navigation data: earth-centred, in metres."""
    latitude, longitude, height = place(second)
    phi, lam = math.radians(latitude), math.radians(longitude)
    square = 6.69437999014e-3
    radius = 6378137 / math.sqrt(1 - square * math.sin(phi) ** 2)
    point = ((radius + height) * math.cos(phi) * math.cos(lam), (radius + height) * math.cos(phi) * math.sin(lam),
             (radius * (1 - square) + height) * math.sin(phi))
    payload = struct.pack(">BiiihhhBBBHIB", 2, *map(round, point), 24 + second, 40, -16, 4, 5, 0, WEEK % 1024,
                          (WEEK_SECOND + second) * 100, 6) + bytes((2, 5, 9, 12, 25, 29)) + bytes(6)
    return (b"\xa0\xa2" + struct.pack(">H", len(payload)) + payload + struct.pack(">H", sum(payload) & 0x7FFF)
            + b"\xb0\xb3")


def between_escapes(packet):
    return b"\x10" + packet[:1] + packet[1:].replace(b"\x10", b"\x10\x10") + b"\x10\x03"


def trimble(second):
    """Time, satellites, position and velocity."""
    latitude, longitude, height = place(second)
    time = float(WEEK_SECOND + second)
    reports = ((0x41, struct.pack(">fhf", time, WEEK, LEAP_SECONDS)),
               (0x6D, struct.pack(">Bffff", 0x54, 1.8, 0.9, 1.5, 0.7) + bytes((2, 5, 9, 12, 25))),
               (0x84, struct.pack(">ddddf", math.radians(latitude), math.radians(longitude), height, 0, time)),
               (0x56, struct.pack(">fffff", *velocity(second), 0, time)))
    return b"".join(between_escapes(bytes((number,)) + data) for number, data in reports)


def garmin(second):
    """Position, velocity and time."""
    latitude, longitude, height = place(second)
    data = struct.pack("<ffffHdddffffhI", height, 9.5, 5.5, 7.5, 3, WEEK_SECOND + second + LEAP_SECONDS,
                       math.radians(latitude), math.radians(longitude), *velocity(second), -47.5, LEAP_SECONDS, 12421)
    body = bytes((0x33, len(data))) + data
    return between_escapes(body + bytes((-sum(body) & 0xFF,)))


