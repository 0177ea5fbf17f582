"""Message format: the header, its fields and the payload, at the application."""

import struct

from devices import *
from network import *
from payload import block, f32, f64, records, u32, u64
import suite

PHYSICAL, UNDEFINED = 4, 99
# Members of a GNSS position, and of what the application makes of it
COUNTER, LATITUDE, LONGITUDE, HEADING = 1, 2, 4, 10
OWN_COUNTER, OWN_LATITUDE, OWN_LONGITUDE, OWN_HEADING, OWN_SATELLITES = 1, 2, 3, 6, 27


def position(counter, *more, latitude=48.5):
    """A GNSS position with everything that the application forwards."""
    return [u32(0, 2), u32(COUNTER, counter), f64(LATITUDE, latitude), u32(3, PHYSICAL), f64(LONGITUDE, 11.25),
            u32(5, PHYSICAL), u32(38, 77), u32(39, PHYSICAL), *more]


def members(payload):
    """Of each record of a list the members, their bytes by data id."""
    length, = struct.unpack_from("!I", payload)
    assert length == len(payload) - 4, (length, len(payload))
    at, result = 4, []
    while at < len(payload):
        end = at + 4 + struct.unpack_from("!I", payload, at)[0]
        at += 4
        result.append({})
        while at < end:
            tag, = struct.unpack_from("!H", payload, at)
            size = 1 << (tag >> 12)
            result[-1][tag & 0xFFF] = payload[at + 2:at + 2 + size]
            at += 2 + size
        assert at == end
    return result


class MessageFormat(suite.Group):
    title = "Message format"

    def read(self, peer, service=INPUTS, payload=NO_TEXTS, **fields):
        return peer.call(self.pos, service, READ, payload, **fields)

    def gnss(self, peer):
        """The peer becomes the application's GNSS receiver; returns what sends notifications there."""
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(GNSS), [endpoint(server)])
        entry = peer.entry(SUBSCRIBE, GNSS, group=1)
        peer.acknowledge(entry)
        self.addCleanup(lambda: peer.tell(offer(GNSS, ttl=0), [endpoint(server)]))

        def notify(payload):
            server.send(someip(GNSS, 0x8001, payload, type=NOTIFICATION, client=0), entry.endpoints[0][:2])
        return notify

    def positions(self, peer):
        """The peer subscribes to the application's positions; returns where they come."""
        return self.subscription(self.pos, peer, POSITIONS_GROUP, POSITIONING)

    def forwarded(self, events, counter):
        """The record that the application made of the GNSS position with that counter."""
        def fits(message):
            return any(one.get(OWN_COUNTER) == counter.to_bytes(4, "big") for one in members(message.payload))
        message = events.wait(fits, f"position {counter}")
        return message, members(message.payload)[0]

    def road(self):
        """From a GNSS receiver of the test's through the application; returns what sends, and where it comes."""
        peer = self.peer()
        return self.gnss(peer), self.positions(peer)

    def test_message_id(self):
        peer = self.peer()
        answers = [self.read(peer, service) for service in (INPUTS, SYSTEM_STATUS)]
        self.assertEqual([(one.service, one.method, one.code) for one in answers],
                         [(INPUTS, READ, 0), (SYSTEM_STATUS, READ, 0)])
        self.assertNotEqual(answers[0].payload, answers[1].payload)
        for service, method, code in ((0x34AF, READ, 2), (0, READ, 2), (0xFFFF, READ, 2), (INPUTS, 0x7001, 3),
                                      (POSITIONING, 3, 3), (POSITIONING, 0x7FFF, 3)):
            self.assertEqual(peer.call(self.pos, service, method).code, code, (service, method))

    def test_instance_id(self):
        peer = self.peer()
        deployed = {instance for service, instance in self.pos.provided if service == MONITOR}
        answers = peer.ask(self.pos, find(MONITOR))
        self.assertEqual({one.instance for one in answers}, deployed)
        self.assertEqual(len({one.endpoints[0] for one in answers}), len(deployed))
        server = peer.socket(SERVER_PORT)
        for instance in (0, 0xFFFF, 1):
            peer.tell(offer(GNSS, instance), [endpoint(server)])
        peer.entry(SUBSCRIBE, GNSS, instance=1)
        peer.tell(offer(GNSS, ttl=0), [endpoint(server)])
        peer.barrier(self.pos)
        self.assertEqual({one.instance for one in peer.entries(SUBSCRIBE, GNSS)}, {1})
        self.assertFalse({0, 0xFFFE, 0xFFFF} & {one.service for one in peer.entries()})

    def test_request_id(self):
        ids = ((0x1234, 0x5678), (0, 1), (1, 0xFFFF), (0xFFFF, 0x8000), (0xABCD, 0x0102), (1, 0))
        peers = [self.peer() for _ in range(4)]
        for client, session in ids:
            for peer in peers:
                peer.caller().send(someip(INPUTS, READ, NO_TEXTS, client=client, session=session),
                                   self.pos.at(INPUTS))
        for answers in (peer.caller().messages for peer in peers):
            self.network.wait(lambda: len(answers) == len(ids), "responses")
            self.assertEqual({one.raw[:16].hex() for one in answers},
                             {f"34a00001{len(answers[0].raw) - 8:08x}{client:04x}{session:04x}01018000"
                              for client, session in ids},
                             "service, method, length, client, session, versions, type, return code")

    def test_own_requests(self):
        host, peer, server = self.remote()
        wanted = 0xFFFF + 3
        ids = []
        with server.unwatched() as requests:
            host.do(f"call Remote 1 echo - {wanted}")
            for _ in range(wanted):
                request, source = requests.recvfrom(100)
                ids.append(struct.unpack_from("!HH", request, 8))
                requests.sendto(request[:14] + b"\x80\x00", source)
        host.said("response 0x00")
        self.assertEqual(ids, [(CLIENT_ID, number % 0xFFFF + 1) for number in range(wanted)])

    def test_dropped(self):
        peer = self.peer()
        for fields in (*({"type": type} for type in (0x40, 0x41, 0x42, 0xC0, 0xC1, 0x03, 0x10, 0x7F, 0xFF)),
                       *({"length": length} for length in range(8))):
            peer.caller().send(someip(INPUTS, READ, **fields), self.pos.at(INPUTS))
        self.only_answered(self.pos, peer)

    def test_basic_types(self):
        notify, events = self.road()
        notify(records(position(0x01020304, latitude=-12.0625)))
        message, record = self.forwarded(events, 0x01020304)
        self.assertEqual([record[number].hex() for number in (OWN_LATITUDE, OWN_LONGITUDE, OWN_SATELLITES)],
                         ["c028200000000000", "4026800000000000", "0000004d"])
        self.assertEqual(len(message.payload), 4 + 4 + sum(2 + len(one) for one in record.values()))

    def test_longer_structure(self):
        notify, events = self.road()
        later = u64(0x700, 0x6162636465666768)
        # The last record of a kind is the one that counts.
        notify(records(position(6, later, later), position(7)))
        self.assertEqual(self.forwarded(events, 7)[1][OWN_LATITUDE], f64(0, 48.5)[2:])
        notify(records(position(60, later, later)))
        self.assertNotIn(0x700, self.forwarded(events, 60)[1])

    def test_optional_members(self):
        notify, events = self.road()
        heading = f32(HEADING, 90.0)
        for counter, more, forwarded in ((8, [heading, u32(HEADING + 1, PHYSICAL)], True), (9, [], False),
                                         (40, [heading, u32(HEADING + 1, UNDEFINED)], False)):
            notify(records(position(counter, *more)))
            self.assertEqual(OWN_HEADING in self.forwarded(events, counter)[1], forwarded, counter)

    def test_lists(self):
        notify, events = self.road()
        self.assertEqual(len(members(events.wait().payload)), 1)
        notify(records())
        whole = records(position(30))
        for payload in (whole[:-1], block(whole[4:], len(whole)), whole[:4] + b"\xff" * 4 + whole[8:], b"\0\0"):
            notify(payload)
        notify(records(position(31)))
        self.assertEqual(len(members(self.forwarded(events, 31)[0].payload)), 1)
        self.assertFalse([one for one in events.messages if u32(OWN_COUNTER, 30) in one.payload])

    def test_strings(self):
        peer = self.peer()
        key, value = block(b"key"), block(b"value")
        for payload, code in (
                (block(key + block(b"a longer value")), 0), (block(block(b"") * 2), 0),
                (block(key + block(b"value", 6)), 9), (block(block(b"key", 0xFFFFFFFF) + value), 9),
                (block(key), 9), (block(b"", 5), 9), (b"\0\0", 9), (NO_TEXTS + b"later versions", 0)):
            answer = self.read(peer, payload=payload)
            self.assertEqual((answer.code, answer.type, answer.payload == b""), (code, RESPONSE, code != 0), payload)
        self.assertEqual(peer.call(self.pos, MONITOR, 1, b"\x01" + b"more").code, 0)


if __name__ == "__main__":
    suite.main(MessageFormat)
