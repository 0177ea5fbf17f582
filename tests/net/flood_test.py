"""Floods from an attacker on the network segment: whatever is thrown at the application, its memory stays
within the bound that docs/robustness.md states and the honest source's positions keep coming out."""

import os
import pathlib
import re
import socket
import struct
import time

from desk import APPLICATION, GATEWAY, POSCTL, SANITIZERS, Desk, Positions
from network import NOTIFICATION, TP, discovery, endpoint, find, offer, someip, subscribe

# A sanitizer multiplies what the process holds.
RESIDENT_BOUND_KIB = (1024 if SANITIZERS else 48) * 1024
GNSS, POSITIONING = 0x2A10, 0x2A20
POSITIONING_PORT = 30511
HEADER, ENTRY = 16, 16  # bytes
CLIENT_AND_SESSION, FIRST_ENTRY = 8, HEADER + 8  # where they begin


class Attacker:
    def __init__(self, desk):
        self.pos, self.address = (desk.address(host) for host in (10, 66))
        self.sd = (self.pos, desk.manifest["serviceDiscovery"]["port"])
        self.group = (desk.manifest["serviceDiscovery"]["multicastAddress"], self.sd[1])
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((self.address, 0))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(self.address))
        self.session = 0

    def send(self, data, to):
        try:
            self.socket.sendto(data, to)
        except OSError:
            pass  # a full buffer on the way is the flood's problem

    def send_next(self, message, to, client=0):
        self.session = self.session % 0xFFFF + 1
        struct.pack_into("!HH", message, CLIENT_AND_SESSION, client, self.session)
        self.send(message, to)

    def garbage(self, client_port):
        """100 000 datagrams that are nothing, a header of something, or a cut discovery message."""
        pieces = [os.urandom(size) for size in (0, 1, 15, 16, 40, 200, 1400)]
        good = discovery([find(0x1234)], [endpoint(self.address, 1)])
        pieces += [good[:size] for size in (8, 20, 27, 40, 50)]
        pieces += [someip(GNSS, 0x8001, os.urandom(100), type=NOTIFICATION, interface=3),
                   struct.pack("!HHI", GNSS, 0x8001, 0xFFFFFFFF)]
        targets = [self.sd, self.group, (self.pos, client_port), (self.pos, POSITIONING_PORT)]
        start = time.monotonic()
        for number in range(100_000):
            self.send(pieces[number % len(pieces)], targets[number % len(targets)])
            if number % 1000 == 999:
                ahead = start + number / 20_000 - time.monotonic()
                if ahead > 0:
                    time.sleep(ahead)  # the rate of the flood

    def subscribers(self, _):
        wish = subscribe(POSITIONING, group=1, major=3)
        message = bytearray(discovery([wish], [endpoint(self.address, 1)]))
        for port in range(10_000, 11_000):
            struct.pack_into("!H", message, len(message) - 2, port)
            self.send_next(message, self.sd)

    def segment_trains(self, client_port):
        more = struct.pack("!I", 1)
        message = bytearray(someip(GNSS, 0x8003, more + bytes(1392), type=NOTIFICATION | TP, interface=3))
        for number in range(1, 5000):
            self.send_next(message, (self.pos, client_port), client=number % 7)

    def offers(self, _):
        """A million service ids and instances."""
        message = bytearray(discovery([offer(1, major=3)] * 80, [endpoint(self.address, 4000)]))
        for first in range(0, 1_000_000, 80):
            for entry in range(80):
                instance, service = divmod(first + entry, 0xFFF0)
                struct.pack_into("!HH", message, FIRST_ENTRY + ENTRY * entry + 4, service + 1, instance + 1)
            self.send_next(message, self.group)

    def connections(self):
        held = []
        for _ in range(500):
            one = socket.socket()
            one.settimeout(0.2)
            try:
                one.bind((self.address, 0))
                one.connect((self.pos, POSITIONING_PORT))
                held.append(one)
            except OSError:
                one.close()
        return held


def resident_kib(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def client_port(pos):
    """The application's port for its subscriptions: its one UDP port that is in no manifest."""
    address = socket.inet_aton(pos)[::-1].hex().upper()
    ports = re.findall(f" {address}:([0-9A-F]{{4}}) ", pathlib.Path("/proc/net/udp").read_text())
    return next(port for port in (int(one, 16) for one in ports) if port > 32767)


def main():
    with Desk() as desk:
        positioning = desk.manifest["services"]["lumo::services::positioning::Positioning"]
        positioning["instances"][0]["tcpPort"] = POSITIONING_PORT
        desk.write_manifest()
        application = desk.start(APPLICATION)
        desk.start(GATEWAY)
        positions = Positions(desk.start(POSCTL, "watch", "--json"))
        positions.flow("before the floods", 10)
        resident = [resident_kib(application.pid)]
        attacker = Attacker(desk)
        port = client_port(attacker.pos)
        for flood in (attacker.garbage, attacker.subscribers, attacker.segment_trains, attacker.offers):
            flood(port)
            positions.flow(f"after {flood.__name__}", 10)
            resident.append(resident_kib(application.pid))
        held = attacker.connections()
        positions.flow(f"beside {len(held)} silent connections", 10)
        resident.append(resident_kib(application.pid))
        for one in held:
            one.close()
        assert max(resident) < RESIDENT_BOUND_KIB, f"KiB resident, the first at rest: {resident}"
        code, _ = desk.stop(application)
        assert code == 0, code
        print(f"KiB resident {resident}; {positions.count} positions; {len(held)} connections held")


if __name__ == "__main__":
    main()
