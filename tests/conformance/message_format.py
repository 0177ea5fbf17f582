"""Message format: the header, its fields and the payload, at the application."""

import struct
import time

from devices import *
from network import *
import suite


def vector(*records):
    """A list of records as it travels: length in bytes, then each record with its own length."""
    body = b"".join(struct.pack("!I", len(record)) + record for record in records)
    return struct.pack("!I", len(body)) + body


def member(number, value):
    """One member of a record: tag, value (4 or 8 bytes)."""
    return struct.pack("!H", ({4: 2, 8: 3}[len(value)] << 12) | number) + value


def position(counter, *more, latitude=48.5):
    """A GNSS position with everything that the application forwards."""
    physical = struct.pack("!I", 4)
    return (member(0, struct.pack("!I", 2)) + member(1, struct.pack("!I", counter))
            + member(2, struct.pack("!d", latitude)) + member(3, physical)
            + member(4, struct.pack("!d", 11.25)) + member(5, physical)
            + member(38, struct.pack("!I", 77)) + member(39, physical) + b"".join(more))


def members(record):
    """Data id → value bytes, as the tags say."""
    result, at = {}, 0
    while at < len(record):
        tag, = struct.unpack_from("!H", record, at)
        kind, number = tag >> 12, tag & 0xFFF
        at += 2
        size = {0: 1, 1: 2, 2: 4, 3: 8}[kind]
        result[number] = record[at:at + size]
        at += size
    return result


def records(payload):
    length, = struct.unpack_from("!I", payload)
    assert length == len(payload) - 4, (length, len(payload))
    at, result = 4, []
    while at < len(payload):
        size, = struct.unpack_from("!I", payload, at)
        result.append(payload[at + 4:at + 4 + size])
        assert len(result[-1]) == size
        at += 4 + size
    return result


class MessageFormat(suite.Group):
    title = "Message format"
    base = 96

    def read(self, peer, service=INPUTS, **fields):
        fields.setdefault("interface", IDENTIFIER_MAJOR)
        fields.setdefault("payload", NO_TEXTS)
        return peer.call(self.pos.identifiers, service, READ, **fields)

    def gnss(self, peer):
        """The peer becomes the application's GNSS receiver; returns what sends notifications there."""
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(GNSS, 1, GNSS_MAJOR), [endpoint(server)])
        entry = peer.entry(SUBSCRIBE, GNSS, group=1)
        peer.tell(acknowledge(entry), to=self.pos.address)
        target = entry.endpoints[0][:2]
        self.addCleanup(lambda: peer.tell(offer(GNSS, 1, GNSS_MAJOR, ttl=0), [endpoint(server)]))
        sessions = iter(range(1, 1000))

        def notify(payload, event=0x8001):
            server.send(someip(GNSS, event, payload, type=NOTIFICATION, client=0,
                               session=next(sessions), interface=GNSS_MAJOR), target)
        return notify

    def positions(self, peer):
        """The peer subscribes to the application's positions; returns where they come."""
        events = peer.socket()
        answer = peer.subscribed(self.pos.address, POSITIONING, 1, POSITIONS_GROUP, events,
                                 major=POSITIONING_MAJOR, ttl=ENDLESS)
        self.assertEqual(answer.ttl, ENDLESS)
        return events

    def forwarded(self, events, counter):
        """The record that the application made of the GNSS position with that counter."""
        def fits(message):
            return message.method == POSITIONS and any(
                members(one).get(1) == struct.pack("!I", counter)
                for one in records(message.payload))
        message = events.wait(fits, f"position {counter}")
        return message, members(records(message.payload)[0])

    def test_layout(self):
        answer = self.read(self.peer(), client=0x1234, session=0x5678)
        raw = answer.raw
        self.assertEqual(raw[0:4].hex(), "34a00001", "service, method")
        self.assertEqual(int.from_bytes(raw[4:8], "big"), len(raw) - 8, "length")
        self.assertEqual(raw[8:16].hex(), "12345678" "01" "01" "80" "00",
                         "client, session, protocol, interface version, type, return code")

    def test_every_message(self):
        peer = self.peer()
        events = self.positions(peer)
        self.gnss(peer)(vector(position(1)))
        message, _ = self.forwarded(events, 1)
        answer = self.read(peer)
        self.assertEqual((message.type, message.code, message.method, message.interface),
                         (NOTIFICATION, 0, POSITIONS, POSITIONING_MAJOR))
        self.assertEqual((answer.type, answer.code, answer.interface), (RESPONSE, 0, IDENTIFIER_MAJOR))
        for one in self.network.seen:
            self.assertEqual((one.protocol, one.length), (1, len(one.raw) - 8))
            self.assertEqual(one.method >= 0x8000, one.type == NOTIFICATION)
            version = {POSITIONING: POSITIONING_MAJOR, INPUTS: IDENTIFIER_MAJOR}.get(one.service)
            self.assertTrue(one.code or version in (None, one.interface), one)

    def test_short_length(self):
        peer = self.peer()
        for length in range(8):
            peer.caller().send(someip(INPUTS, READ, session=100 + length, length=length),
                               self.pos.identifiers)
        self.read(peer, session=0x200)
        peer.barrier(self.pos.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x200])

    def test_message_id(self):
        peer = self.peer()
        answers = {service: self.read(peer, service) for service in (INPUTS, SYSTEM_STATUS)}
        for service, answer in answers.items():
            self.assertEqual((answer.service, answer.method, answer.code), (service, READ, 0))
        self.assertNotEqual(answers[INPUTS].payload, answers[SYSTEM_STATUS].payload)
        self.assertEqual(self.read(peer, 0x34AF).code, 0x02)
        self.assertEqual(peer.call(self.pos.identifiers, INPUTS, 0x7001).code, 0x03)

    def test_event_group(self):
        peer = self.peer()
        each = {}
        for group in (POSITIONS_GROUP, MAP_INFO_GROUP):
            events = each[group] = peer.socket()
            answer = peer.subscribed(self.pos.address, POSITIONING, 1, group, events,
                                     major=POSITIONING_MAJOR)
            self.assertGreater(answer.ttl, 0)
        each[POSITIONS_GROUP].wait(lambda one: one.method == POSITIONS)
        each[MAP_INFO_GROUP].wait(lambda one: one.method == MAP_INFO)
        peer.barrier(self.pos.address)
        self.assertEqual({one.method for one in each[POSITIONS_GROUP].messages}, {POSITIONS})
        self.assertEqual({one.method for one in each[MAP_INFO_GROUP].messages}, {MAP_INFO})

    def test_instance_id(self):
        peer = self.peer()
        peer.entry(OFFER, MONITOR)
        peer.tell(find(MONITOR), to=self.pos.address)
        deployed = {int(one["id"], 16) for one in
                    self.pos.manifest["services"]["mw::dm::dem::DiagnosticMonitor"]["instances"]}
        self.network.wait(lambda: {one.instance for one in peer.entries(OFFER, MONITOR)} == deployed,
                          "offers of all monitors")
        server = peer.socket(SERVER_PORT)
        for instance in (0, 0xFFFF, 1):
            peer.tell(offer(GNSS, instance, GNSS_MAJOR), [endpoint(server)])
        peer.entry(SUBSCRIBE, GNSS, instance=1)
        peer.tell(offer(GNSS, 1, GNSS_MAJOR, ttl=0), [endpoint(server)])
        peer.barrier(self.pos.address)
        self.assertEqual({one.instance for one in peer.entries(SUBSCRIBE, GNSS)}, {1})

    def test_reserved_services(self):
        peer = self.peer()
        self.assertEqual({self.read(peer, service, session=service or 1).code
                          for service in (0x0000, 0xFFFF)}, {0x02})
        self.offered(peer, POSITIONING)
        self.assertFalse({0, 0xFFFE, 0xFFFF} & {one.service for one in peer.entries()})

    def test_request_id(self):
        peer = self.peer()
        for client, session in ((0, 1), (1, 0xFFFF), (0xFFFF, 0x8000), (0xABCD, 0x0102), (1, 0)):
            answer = self.read(peer, client=client, session=session)
            self.assertEqual((answer.client, answer.session), (client, session))

    def test_parallel_requests(self):
        peers = [self.peer() for _ in range(4)]
        for session in range(1, 9):
            for peer in peers:
                peer.caller().send(someip(INPUTS, READ, session=session, client=7),
                                   self.pos.identifiers)
        for peer in peers:
            self.network.wait(lambda: len(peer.caller().messages) == 8, "eight responses")
            self.assertEqual({one.session for one in peer.caller().messages}, set(range(1, 9)))

    def test_sessions_of_events(self):
        peer = self.peer()
        notify = self.gnss(peer)
        events = self.positions(peer)
        events.wait(lambda one: one.method == POSITIONS)
        for counter in range(10, 14):
            notify(vector(position(counter)))
            self.forwarded(events, counter)
        sessions = [one.session for one in events.messages]
        self.assertEqual(sessions, list(range(sessions[0], sessions[0] + len(sessions))))
        self.assertEqual({one.client for one in events.messages}, {0})
        self.assertNotIn(0, sessions)

    def test_own_requests(self):
        host, peer, server = self.remote()
        for _ in range(3):
            host.do("call Remote 1 echo 01")
        self.network.wait(lambda: len(server.messages) == 3, "three requests")
        self.assertEqual([(one.client, one.session) for one in server.messages],
                         [(CLIENT_ID, session) for session in (1, 2, 3)])
        self.assertEqual({(one.type, one.code, one.interface) for one in server.messages},
                         {(REQUEST, 0, MAJOR)})

    def test_wrap_of_calls(self):
        host, peer, server = self.remote()
        # The packets of this check are too many to be kept.
        self.network.unwatch(server.socket)
        server.socket.settimeout(PATIENCE)
        host.do(f"call Remote 1 echo - {0xFFFF + 3}")
        sessions = []
        for _ in range(0xFFFF + 3):
            request, source = server.socket.recvfrom(100)
            sessions.append(request[10:12])
            server.socket.sendto(request[:14] + b"\x80\x00", source)
        self.network.watch(server.socket, server._readable)
        host.said("response 0x00")
        expected = list(range(1, 0x10000)) + [1, 2, 3]
        self.assertEqual([int.from_bytes(one, "big") for one in sessions], expected)

    def test_unknown_types(self):
        peer = self.peer()
        for session, type in enumerate((0x40, 0x41, 0x42, 0xC0, 0xC1, 0x03, 0x10, 0x7F, 0xFF), 1):
            peer.caller().send(someip(INPUTS, READ, type=type, session=session),
                               self.pos.identifiers)
        self.read(peer, session=0x300)
        peer.barrier(self.pos.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x300])

    def test_longer_payload(self):
        peer = self.peer()
        self.assertEqual(self.read(peer, payload=NO_TEXTS + b"later versions").code, 0)
        answer = peer.call((self.pos.address, MONITOR_PORT), MONITOR, 1, b"\x01" + b"more")
        self.assertEqual((answer.code, answer.payload), (0, b""))

    def test_basic_types(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        notify(vector(position(0x01020304, latitude=-12.0625)))
        message, record = self.forwarded(events, 0x01020304)
        self.assertEqual(record[2], struct.pack("!d", -12.0625))
        self.assertEqual(record[3], struct.pack("!d", 11.25))
        self.assertEqual(record[27], struct.pack("!I", 77))
        self.assertEqual(len(message.payload), 4 + 4 + sum(2 + len(one) for one in record.values()))

    def test_longer_structure(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        later = member(0x700, b"abcdefgh")
        notify(vector(position(6, later, later), position(7)))
        # The last record of a kind is the one that counts.
        self.assertEqual(self.forwarded(events, 7)[1][2], struct.pack("!d", 48.5))
        notify(vector(position(60, later, later)))
        self.assertNotIn(0x700, self.forwarded(events, 60)[1])

    def test_optional_members(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        physical = struct.pack("!I", 4)
        notify(vector(position(8, member(10, struct.pack("!f", 90.0)), member(11, physical))))
        self.assertIn(6, self.forwarded(events, 8)[1])
        notify(vector(position(9)))
        self.assertNotIn(6, self.forwarded(events, 9)[1])

    def test_lists(self):
        peer = self.peer()
        events = self.positions(peer)
        for message in (events.wait(lambda one: True), ):
            length, = struct.unpack_from("!I", message.payload)
            self.assertEqual(length, len(message.payload) - 4)
        notify = self.gnss(peer)
        notify(vector())
        notify(vector(position(20)))
        self.assertEqual(len(records(self.forwarded(events, 20)[0].payload)), 1)

    def test_wrong_lengths(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        whole = vector(position(30))
        notify(whole[:-1])
        notify(struct.pack("!I", len(whole)) + whole[4:])
        notify(whole[:4] + struct.pack("!I", 0xFFFFFFFF) + whole[8:])
        notify(b"\x00\x00")
        notify(vector(position(31)))
        self.forwarded(events, 31)
        self.assertFalse([one for one in events.messages
                          if struct.pack("!HI", 0x2001, 30) in one.payload])

    def test_strings(self):
        def text(value, length=None):
            return struct.pack("!I", len(value) if length is None else length) + value

        def texts(*values):
            body = b"".join(values)
            return struct.pack("!I", len(body)) + body
        peer = self.peer()
        for payload, code in ((texts(text(b"key"), text(b"a longer value")), 0),
                              (texts(text(b""), text(b"")), 0),
                              (texts(text(b"key"), text(b"value", 6)), 9),
                              (texts(text(b"key", 0xFFFFFFFF), text(b"value")), 9),
                              (texts(text(b"key")), 9),
                              (struct.pack("!I", 5), 9),
                              (b"\0\0", 9)):
            self.assertEqual(self.read(peer, payload=payload).code, code, payload)

    def test_unknown_enumeration(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        unknown = struct.pack("!I", 99)
        notify(vector(position(40, member(10, struct.pack("!f", 90.0)), member(11, unknown))))
        self.assertNotIn(6, self.forwarded(events, 40)[1], "a heading of unknown kind is not used")


if __name__ == "__main__":
    suite.main(MessageFormat)
