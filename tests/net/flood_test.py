"""Floods from an attacker on the network segment: whatever is thrown at the application, its memory stays
within the bound that docs/robustness.md states and the honest source's positions keep coming out. The same holds for
the worst payloads of a provider and of clients."""

import contextlib
import json
import os
import pathlib
import re
import socket
import struct
import time

from desk import APPLICATION, DEADLINE, GATEWAY, POSCTL, SANITIZERS, Desk, Positions, until
from network import NOTIFICATION, SUBSCRIBE, TP, Network, discovery, endpoint, find, offer, segments, someip
import payload

# A sanitizer multiplies what the process holds.
RESIDENT_BOUND_KIB = (1024 if SANITIZERS else 48) * 1024
GNSS, TIME, INPUTS = 0x2A10, 0x2A11, 0x34A0
POSITIONING_PORT, INPUTS_PORT = 30511, 30512
FIELDS = ((GNSS, 1), (GNSS, 2), (GNSS, 3), (TIME, 1), (TIME, 2))  # service; event group, and notifier from 0x8000 on
ROUNDS = 16
HEADER, ENTRY, SEGMENT = 16, 16, 16_384  # bytes
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


def resident_kib(pid, which="VmRSS"):
    return int(re.search(rf"{which}:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def worst_payloads():
    """The peak of the application's memory in KiB. In each round the longest messages end at the same moment: lists of
    empty records in all fields that the application uses, and maps of short texts in requests of other addresses. The
    rounds follow faster than its handlers, beside segment trains that never end."""
    with Desk() as desk, contextlib.ExitStack() as stack:
        (desk.path / "initdata-POS_Key_Value_Port.json").write_text(
            json.dumps({"timeClientEnabled": {"type": "Boolean", "value": True}}))
        application = desk.start(APPLICATION, environment={"POS_INITDATA_DIR": str(desk.path)})
        network = Network(desk)
        stack.callback(network.close)
        provider, *strangers = (network.peer(desk.address(host), listen=host == 20) for host in (20, 51, 52, 53))
        server = provider.socket()
        until(lambda: desk.is_bound("POS"), "start of the application")
        provider.tell([offer(GNSS), offer(TIME)], [endpoint(server)])
        wanted = [provider.entry(SUBSCRIBE, service, group=event, seconds=DEADLINE) for service, event in FIELDS]
        room = desk.manifest["limits"]["messageBytes"] - HEADER - 4
        texts = payload.block(b"".join(payload.block(struct.pack("!H", number)) + payload.block(b"")
                                       for number in range(room // 10)))

        def send(source, data, to):
            until(lambda: desk.bytes_waiting("POS") < 100_000, "room in the application's sockets")
            source.send(data, to)

        for number in range(ROUNDS):
            # The first length is the longest that fits, the others are the longest that the records' sizes allow.
            lists = payload.block(bytes(4 * (room // 4, 50_000, 20_000, 11_000)[number % 4]))
            trains = [(server, one.endpoints[0][:2], segments(someip(service, 0x8000 + event, lists, type=NOTIFICATION,
                                                                     session=number + 1), SEGMENT))
                      for (service, event), one in zip(FIELDS, wanted)]
            trains += [(stranger.caller(), (desk.address(10), INPUTS_PORT),
                        segments(someip(INPUTS, 1, texts, session=session), SEGMENT))
                       for stranger in strangers for session in (2 * number + 1, 2 * number + 2)]
            for source, to, parts in trains:
                for part in parts[:-1]:
                    send(source, part, to)
            if number % 4 == 3:  # their trains never end
                trains = trains[:len(FIELDS)]
            for source, to, parts in trains:
                send(source, parts[-1], to)
        strangers[0].call((desk.address(10), INPUTS_PORT), INPUTS, 1, bytes(4), session=0x7777)
        peak = resident_kib(application.pid, "VmHWM")
        assert desk.stop(application)[0] == 0
        return peak


def main():
    with Desk() as desk:
        application = desk.start(APPLICATION)
        desk.start(GATEWAY)
        positions = Positions(desk.start(POSCTL, "watch", "--json"))
        positions.flow("before the floods", 10)
        resident = [resident_kib(application.pid)]
        attacker = Attacker(desk)
        for flood in (attacker.garbage, attacker.segment_trains, attacker.offers):
            flood(desk.client_port("POS"))
            positions.flow(f"after {flood.__name__}", 10)
            resident.append(resident_kib(application.pid))
        assert max(resident) < RESIDENT_BOUND_KIB, f"KiB resident, the first at rest: {resident}"
        code, _ = desk.stop(application)
        assert code == 0, code
        print(f"KiB resident {resident}; {positions.count} positions")
    peak = worst_payloads()
    assert peak < RESIDENT_BOUND_KIB, f"KiB resident at most, with the worst payloads: {peak}"
    print(f"KiB resident at most, with the worst payloads: {peak}")


if __name__ == "__main__":
    main()
