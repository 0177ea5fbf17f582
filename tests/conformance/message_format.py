"""Message format: the header, its fields and the payload, at the application."""

import struct
import time

from devices import *
from network import *
import suite
from suite import covers


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

    @covers("someip_42 someip_44 someip_45 someip_47 someip_675",
            "All fields of the 16-byte header lie in their places, most significant byte first")
    def test_layout(self):
        answer = self.read(self.peer(), client=0x1234, session=0x5678)
        raw = answer.raw
        self.assertEqual(raw[0:4].hex(), "34a00001", "service, method")
        self.assertEqual(int.from_bytes(raw[4:8], "big"), len(raw) - 8, "length")
        self.assertEqual(raw[8:16].hex(), "12345678" "01" "01" "80" "00",
                         "client, session, protocol, interface version, type, return code")

    @covers("someip_77",
            "The length field counts what stands behind it, in responses, notifications and discovery")
    def test_length(self):
        peer = self.peer()
        events = self.positions(peer)
        self.gnss(peer)(vector(position(1)))
        self.forwarded(events, 1)
        self.read(peer)
        kinds = {message.type for message in self.network.seen}
        self.assertLessEqual({NOTIFICATION, RESPONSE}, kinds)
        for _, _, _, datagram in self.network.raw:
            self.assertEqual(struct.unpack_from("!I", datagram, 4)[0], len(datagram) - 8)

    @covers("someip_798", "A message whose length field is below 8 is dropped without an answer")
    def test_short_length(self):
        peer = self.peer()
        for length in range(8):
            peer.caller().send(someip(INPUTS, READ, session=100 + length, length=length),
                               self.pos.identifiers)
        self.read(peer, session=0x200)
        peer.barrier(self.pos.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x200])

    @covers("someip_538 someip_539 someip_541 someip_56 someip_59 someip_60 someip_625",
            "Service id and method id choose the method: services that share a port are told apart")
    def test_message_id(self):
        peer = self.peer()
        answers = {service: self.read(peer, service) for service in (INPUTS, SYSTEM_STATUS)}
        for service, answer in answers.items():
            self.assertEqual((answer.service, answer.method, answer.code), (service, READ, 0))
        self.assertNotEqual(answers[INPUTS].payload, answers[SYSTEM_STATUS].payload)
        self.assertEqual(self.read(peer, 0x34AF).code, 0x02)
        self.assertEqual(peer.call(self.pos.identifiers, INPUTS, 0x7001).code, 0x03)

    @covers("someip_67", "Events have ids of their own, from 0x8000 on")
    def test_event_id(self):
        peer = self.peer()
        events = self.positions(peer)
        self.assertEqual(events.wait(lambda one: one.service == POSITIONING).method, POSITIONS)
        self.assertTrue(all(one.method >= 0x8000 for one in self.network.seen
                            if one.type == NOTIFICATION))

    @covers("someip_545 someip_546 someip_547",
            "The event group id chooses which events come: one subscribed group brings its own only")
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

    @covers("someip_542 someip_543 someip_544 someip_579",
            """The application offers the instance ids of its manifest, never 0 or 0xFFFF; an offer
            with one of those two is not used""")
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

    @covers("someip_627", "Reserved service ids are neither offered nor searched, and not answered")
    def test_reserved_services(self):
        peer = self.peer()
        self.assertEqual({self.read(peer, service, session=service or 1).code
                          for service in (0x0000, 0xFFFF)}, {0x02})
        self.offered(peer, POSITIONING)
        self.assertFalse({0, 0xFFFE, 0xFFFF} & {one.service for one in peer.entries()})

    @covers("someip_79 someip_83 someip_699",
            "A response repeats client and session id of its request, whatever they are")
    def test_request_id(self):
        peer = self.peer()
        for client, session in ((0, 1), (1, 0xFFFF), (0xFFFF, 0x8000), (0xABCD, 0x0102)):
            answer = self.read(peer, client=client, session=session)
            self.assertEqual((answer.client, answer.session), (client, session))

    @covers("someip_79 someip_56",
            "Requests of several clients that are open at the same time get each its own response")
    def test_parallel_requests(self):
        peers = [self.peer() for _ in range(4)]
        for session in range(1, 9):
            for peer in peers:
                peer.caller().send(someip(INPUTS, READ, session=session, client=7),
                                   self.pos.identifiers)
        for peer in peers:
            self.network.wait(lambda: len(peer.caller().messages) == 8, "eight responses")
            self.assertEqual({one.session for one in peer.caller().messages}, set(range(1, 9)))

    @covers("someip_700", "A request with session id 0 gets a response with session id 0")
    def test_no_session(self):
        self.assertEqual(self.read(self.peer(), session=0).session, 0)

    @covers("someip_667",
            "Notifications are numbered: session ids from 1 on, one more each time, client id 0")
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

    @covers("someip_88 someip_649 someip_669 someip_701",
            """Own requests carry the client id of the manifest and session ids that begin with 1 and
            differ for each call""")
    def test_own_requests(self):
        peer = self.peer()
        host = self.host("find Remote")
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(REMOTE, 1, MAJOR), [endpoint(server)])
        host.said("found Remote 1")
        for _ in range(3):
            host.do("call Remote 1 echo 01")
        self.network.wait(lambda: len(server.messages) == 3, "three requests")
        self.assertEqual([(one.client, one.session) for one in server.messages],
                         [(CLIENT_ID, session) for session in (1, 2, 3)])
        self.assertEqual({(one.type, one.code, one.interface) for one in server.messages},
                         {(REQUEST, 0, MAJOR)})

    @covers("someip_677", "The session id of calls goes from 0xFFFF to 1, leaving out 0")
    def test_wrap_of_calls(self):
        peer = self.peer()
        host = self.host("find Remote")
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(REMOTE, 1, MAJOR, ttl=ENDLESS), [endpoint(server)])
        host.said("found Remote 1")
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

    @covers("someip_90", "Every message of the device has protocol version 1")
    def test_protocol_version(self):
        peer = self.peer()
        self.read(peer)
        self.assertEqual({one.protocol for one in self.network.seen}, {1})

    @covers("someip_92",
            "The interface version is the major version of the service, in responses and notifications")
    def test_interface_version(self):
        peer = self.peer()
        events = self.positions(peer)
        self.assertEqual(events.wait(lambda one: True).interface, POSITIONING_MAJOR)
        self.assertEqual(self.read(peer).interface, IDENTIFIER_MAJOR)
        for service, version in ((POSITIONING, POSITIONING_MAJOR), (INPUTS, IDENTIFIER_MAJOR)):
            self.assertEqual({one.interface for one in self.network.seen
                              if one.service == service and one.code == 0}, {version})

    @covers("someip_95 someip_141 someip_144",
            """Message types on the wire: response to a request, notification for an event; their
            return code is 0 when all went well""")
    def test_message_types(self):
        peer = self.peer()
        self.assertEqual((self.read(peer).type, self.read(peer).code), (RESPONSE, 0))
        events = self.positions(peer)
        message = events.wait(lambda one: True)
        self.assertEqual((message.type, message.code), (NOTIFICATION, 0))

    @covers("someip_95",
            "Message types that are reserved or unknown are dropped: no answer, nothing executed")
    def test_unknown_types(self):
        peer = self.peer()
        for session, type in enumerate((0x40, 0x41, 0x42, 0xC0, 0xC1, 0x03, 0x10, 0x7F, 0xFF), 1):
            peer.caller().send(someip(INPUTS, READ, type=type, session=session),
                               self.pos.identifiers)
        self.read(peer, session=0x300)
        peer.barrier(self.pos.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x300])

    @covers("someip_165 someip_168",
            "Bytes behind the parameters that the method knows are ignored, the call is executed")
    def test_longer_payload(self):
        peer = self.peer()
        self.assertEqual(self.read(peer, payload=NO_TEXTS + b"later versions").code, 0)
        answer = peer.call((self.pos.address, MONITOR_PORT), MONITOR, 1, b"\x01" + b"more")
        self.assertEqual((answer.code, answer.payload), (0, b""))

    @covers("someip_172 someip_224 someip_623",
            """Numbers of 32 and 64 bits and floating-point numbers travel most significant byte first,
            in both directions""")
    def test_basic_types(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        notify(vector(position(0x01020304, latitude=-12.0625)))
        _, record = self.forwarded(events, 0x01020304)
        self.assertEqual(record[2], struct.pack("!d", -12.0625))
        self.assertEqual(record[3], struct.pack("!d", 11.25))
        self.assertEqual(record[27], struct.pack("!I", 77))

    @covers("someip_169 someip_230 someip_574 someip_575 someip_711",
            "Members follow each other without padding: a record is as long as its members")
    def test_no_padding(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        notify(vector(position(5)))
        message, record = self.forwarded(events, 5)
        self.assertEqual(len(message.payload), 4 + 4 + sum(2 + len(one) for one in record.values()))

    @covers("someip_600 someip_601",
            """A structure has a length in front; what it holds beyond the known members is skipped,
            and the next structure is still found""")
    def test_longer_structure(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        later = member(0x700, b"abcdefgh")
        notify(vector(position(6, later, later), position(7)))
        # The last record of a kind is the one that counts.
        self.assertEqual(self.forwarded(events, 7)[1][2], struct.pack("!d", 48.5))
        notify(vector(position(60, later, later)))
        self.assertNotIn(0x700, self.forwarded(events, 60)[1])

    @covers("someip_252",
            "A member that the sender leaves out is absent in what the application forwards")
    def test_optional_members(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        physical = struct.pack("!I", 4)
        notify(vector(position(8, member(10, struct.pack("!f", 90.0)), member(11, physical))))
        self.assertIn(6, self.forwarded(events, 8)[1])
        notify(vector(position(9)))
        self.assertNotIn(6, self.forwarded(events, 9)[1])

    @covers("someip_254 someip_255 someip_257 someip_621",
            """A list begins with a 32-bit length in bytes that does not count itself; an empty one is
            length 0""")
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

    @covers("someip_254 someip_601",
            """Lengths that reach beyond the payload make the notification void: nothing of it is
            forwarded, later ones are""")
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

    @covers("someip_237 someip_562 someip_581 someip_582",
            """A string begins with a 32-bit length in bytes that does not count itself; one that reaches
            beyond the parameter is malformed""")
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

    @covers("someip_799",
            "An enumeration value that nobody defined does not make the record unreadable")
    def test_unknown_enumeration(self):
        peer = self.peer()
        notify, events = self.gnss(peer), self.positions(peer)
        unknown = struct.pack("!I", 99)
        notify(vector(position(40, member(10, struct.pack("!f", 90.0)), member(11, unknown))))
        self.assertNotIn(6, self.forwarded(events, 40)[1], "a heading of unknown kind is not used")

    @covers("someip_45 someipsd_38",
            "Another program dissects everything that was sent in this group without complaint")
    def test_dissection(self):
        complaints, dissected, sent = self.dissect()
        self.assertEqual(complaints, [])
        self.assertGreaterEqual(dissected, sent)

    not_applicable = (
        ("someip_102 someip_103", "End-to-end protection header behind the return code",
         "no element of the manifest is protected end to end"),
        ("someip_624", "Service id of services that do not speak SOME/IP",
         "none is provided or used (see Options)"),
        ("someip_817", "Booleans use the lowest bit only",
         "no boolean reaches the wire by way of the application's outputs"),
        ("someip_234 someip_235 someip_238 someip_639 someip_640 someip_641 someip_642 someip_662 "
         "someip_666 someip_687 someip_800", "Byte order mark, terminator and encodings of strings",
         "these interfaces define their strings as bytes behind a length, without mark and terminator"),
        ("someip_233 someip_239", "Strings of fixed length, padding behind strings",
         "no interface has one"),
        ("someip_241 someip_243 someip_246 someip_259 someip_260", "Arrays of fixed length, arrays of arrays",
         "no interface has one"),
        ("someip_602", "Structures without length field",
         "every structure of these interfaces has one"),
        ("someip_263 someip_264 someip_272 someip_273 someip_274 someip_563 someip_564 someip_565 "
         "someip_566 someip_571 someip_572 someip_573 someip_583", "Unions", "no interface has one"),
        ("someip_651", "Enumerations of other sizes", "those of these interfaces are 32 bits wide"),
        ("someip_689 someip_690 someip_691", "Bit fields with named bits",
         "bit sets are passed on as the numbers that they are"),
    )


if __name__ == "__main__":
    suite.main(MessageFormat)
