"""Floods from an attacker on the network segment: whatever is thrown at the application, its memory stays
within the bound that docs/robustness.md states and the honest source's positions keep coming out."""

import json
import os
import pathlib
import socket
import struct
import sys
import threading
import time

from desk import APPLICATION, GATEWAY, POSCTL, Desk, until

NETWORK = 167
ATTACKER = f"127.{NETWORK}.0.66"
POS = f"127.{NETWORK}.0.10"
# A sanitizer multiplies what the process holds.
RESIDENT_BOUND_KIB = (1024 if os.environ.get("POS_SANITIZE") else 48) * 1024
GNSS, POSITIONING = 0x2A10, 0x2A20


def someip(service, method, payload, kind=2, client=0, session=1, version=1):
    return struct.pack(">HHIHHBBBB", service, method, 8 + len(payload), client, session, 1, version, kind, 0) + payload


def endpoint_option(address, port, protocol=17):
    return struct.pack(">HBB4sBBH", 9, 4, 0, socket.inet_aton(address), 0, protocol, port)


def discovery(entries, options, session):
    body = struct.pack(">BxxxI", 0xC0, 16 * len(entries)) + b"".join(entries)
    options = b"".join(options)
    return someip(0xFFFF, 0x8100, body + struct.pack(">I", len(options)) + options, session=session)


def service_entry(kind, service, ttl, option=0, count=1, instance=1, major=3):
    return struct.pack(">BBBBHHBBHI", kind, option, 0, count << 4, service, instance, major, ttl >> 16, ttl & 0xFFFF, 0)


def group_entry(kind, service, group, ttl, option=0, count=1, instance=1, major=3):
    return struct.pack(
        ">BBBBHHBBHHH", kind, option, 0, count << 4, service, instance, major, ttl >> 16, ttl & 0xFFFF, 0x80, group
    )


class Attacker:
    def __init__(self, desk):
        self.sd = (POS, desk.manifest["serviceDiscovery"]["port"])
        self.group = (desk.manifest["serviceDiscovery"]["multicastAddress"], self.sd[1])
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((ATTACKER, 0))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ATTACKER))
        self.session = 0

    def send(self, data, to):
        try:
            self.socket.sendto(data, to)
        except OSError:
            pass  # a full buffer on the way is the flood's problem

    def discover(self, entries, options, to):
        self.session = self.session % 0xFFFF + 1
        self.send(discovery(entries, options, self.session), to)

    def garbage(self, client_port):
        """100 000 datagrams that are nothing, a header of something, or a cut discovery message."""
        pieces = [os.urandom(size) for size in (0, 1, 15, 16, 40, 200, 1400)]
        good = discovery([service_entry(1, 0x1234, 3)], [endpoint_option(ATTACKER, 1)], 1)
        pieces += [good[:size] for size in (8, 20, 27, 40, 50)]
        pieces += [someip(GNSS, 0x8001, os.urandom(100), version=3), struct.pack(">HHI", GNSS, 0x8001, 0xFFFFFFFF)]
        targets = [self.sd, self.group, (POS, client_port), (POS, 30511)]
        start = time.monotonic()
        for number in range(100_000):
            self.send(pieces[number % len(pieces)], targets[number % len(targets)])
            if number % 1000 == 999:
                ahead = start + number / 20_000 - time.monotonic()
                if ahead > 0:
                    time.sleep(ahead)  # the rate of the flood

    def subscribers(self):
        for port in range(10_000, 11_000):
            self.discover([group_entry(6, POSITIONING, 1, 0xFFFFFF)], [endpoint_option(ATTACKER, port)], self.sd)

    def segment_trains(self, client_port):
        for session in range(1, 5000):
            head = struct.pack(">I", 0 | 1)
            self.send(
                someip(GNSS, 0x8003, head + bytes(1392), kind=0x22, session=session, version=3, client=session % 7),
                (POS, client_port),
            )

    def offers(self):
        """A million service ids and instances."""
        option = endpoint_option(ATTACKER, 4000)
        for first in range(0, 1_000_000, 80):
            entries = [
                service_entry(1, (first + i) % 0xFFF0 + 1, 0xFFFFFF, instance=1 + (first + i) // 0xFFF0)
                for i in range(80)
            ]
            self.discover(entries, [option], self.group)

    def connections(self, port):
        held = []
        for _ in range(500):
            one = socket.socket()
            one.settimeout(0.2)
            try:
                one.bind((ATTACKER, 0))
                one.connect((POS, port))
                held.append(one)
            except OSError:
                one.close()
        return held


def resident_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS"):
            return int(line.split()[1])
    raise AssertionError("no VmRSS")


def client_port(pid):
    """The application's port for its subscriptions: the one UDP port that is in no manifest."""
    address = socket.inet_aton(POS)[::-1].hex().upper()
    ports = {
        int(words[1].split(":")[1], 16)
        for words in (line.split() for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:])
        if words[1].startswith(address)
    }
    return next(port for port in ports if port > 32767)


def main():
    with Desk(NETWORK) as desk:
        positioning = desk.manifest["services"]["lumo::services::positioning::Positioning"]
        positioning["instances"][0]["tcpPort"] = 30511
        (desk.path / "manifest.json").write_text(json.dumps(desk.manifest))
        application = desk.start(APPLICATION)
        desk.start(GATEWAY)
        watch = desk.start(POSCTL, "watch", "--json")
        count = [0]

        def read():
            for line in watch.stdout:
                if "messageCounter" in line:
                    count[0] += 1

        threading.Thread(target=read, daemon=True).start()

        def flows(what):
            before = count[0]
            until(lambda: count[0] >= before + 10, f"ten positions {what}")

        flows("before the floods")
        at_rest = resident_kib(application.pid)
        attacker = Attacker(desk)
        port = client_port(application.pid)
        highest = 0
        for flood, arguments in (
            (attacker.garbage, (port,)),
            (attacker.subscribers, ()),
            (attacker.segment_trains, (port,)),
            (attacker.offers, ()),
        ):
            flood(*arguments)
            flows(f"after {flood.__name__}")
            highest = max(highest, resident_kib(application.pid))
        held = attacker.connections(30511)
        flows(f"beside {len(held)} silent connections")
        highest = max(highest, resident_kib(application.pid))
        for one in held:
            one.close()
        assert highest < RESIDENT_BOUND_KIB, f"{highest} KiB resident, {at_rest} KiB at rest"
        code, _ = desk.stop(application)
        assert code == 0, code
        print(f"resident memory {at_rest} KiB at rest, {highest} KiB at most; {count[0]} positions; "
              f"{len(held)} connections held")
    return 0


if __name__ == "__main__":
    sys.exit(main())
