"""Discovery messages: header, flags, sessions, entries and their fields."""

import struct

from devices import *
from network import *
import suite


class DiscoveryMessages(suite.Group):
    title = "Discovery messages"

    def test_sessions(self):
        peer = self.peer()
        host = self.host("offer first")
        peer.entry(OFFER, VEHICLE, count=3)
        request = discovery([find(VEHICLE)], flags=UNICAST)
        seen = []
        window = 64
        with peer.unicast.unwatched() as channel:
            while len(seen) < 0xFFFF + 2:
                for _ in range(window):
                    channel.sendto(request, (host.address, self.network.discovery_port))
                for _ in range(window):
                    answer = channel.recv(200)
                    seen.append((int.from_bytes(answer[10:12], "big"), bool(answer[16] & REBOOT)))
        expected = [(number % 0xFFFF + 1, number < 0xFFFF) for number in range(len(seen))]
        self.assertEqual(seen, expected)
        answer, = self.peer().ask(host, find(VEHICLE))
        self.assertEqual(answer.message.session, 1)
        start = time.time()
        peer.entry(OFFER, VEHICLE, after=start, multicast=True)
        groups = [one for one, _ in peer.multicast.discovery if one.source[0] == host.address]
        self.assertEqual([one.session for one in groups], list(range(1, len(groups) + 1)))
        self.assertTrue(all(one.payload[0] & REBOOT for one in (answer.message, *groups)))

    def test_initial_data_control(self):
        host, _ = self.vehicle("notify first value 0a")
        for flags, initial, expected in ((EXPLICIT, False, 0), (EXPLICIT, True, 1), (0, False, 1), (0, True, 1)):
            peer = self.peer(flags=REBOOT | UNICAST | flags)
            events = self.subscription(host, peer, initial=initial)
            self.settled(host, peer)
            self.assertEqual(len(events.messages), expected, (flags, initial))

    def test_order_of_entries(self):
        host, peer = self.vehicle()
        kept, left = peer.socket(), peer.socket()
        for via, order in ((kept, (0, ENDLESS)), (left, (ENDLESS, 0))):
            answer, = peer.ask(host, [subscribe(VEHICLE, TICK_GROUP, ttl=ttl) for ttl in order], [endpoint(via)])
            self.assertEqual(answer.ttl, ENDLESS, "a stop is not answered")
        self.event(host, kept)
        peer.call(host, *host.ping)
        self.assertEqual(left.messages, [])

    def test_malformed(self):
        host, peer = self.vehicle()
        good = discovery([find(VEHICLE)], flags=UNICAST)

        def with_word(at, value):
            return good[:at] + struct.pack("!I", value) + good[at + 4:]
        bad = [discovery([find(VEHICLE)], flags=UNICAST, **change) for change in (
            {"protocol": 2}, {"interface": 2}, {"type": REQUEST}, {"code": 1}, {"session": 0}, {"method": 0x8101},
            {"service": 0xFFFE})]
        bad += [good[:size] for size in (3, *range(16, len(good)))]
        bad += [with_word(at, value) for at, value in ((4, 7), (4, len(good)), (20, 15), (20, 0x7FFFFFF0), (40, 1),
                                                       (40, 0xFFFFFFFF))]
        for message in bad:
            peer.unicast.send(message, (host.address, self.network.discovery_port))
        peer.barrier(host)
        self.assertEqual(peer.unicast.messages, [])
        self.assertEqual(host.count("droppedDiscoveryMalformed"), len(bad))

    def test_two_messages(self):
        host, peer = self.vehicle()
        wishes = [subscribe(VEHICLE, group) for group in (TICK_GROUP, VALUE_GROUP)]
        peer.unicast.send(b"".join(discovery([wish], [endpoint(peer.caller())], session=session)
                                   for session, wish in enumerate(wishes, 1)),
                          (host.address, self.network.discovery_port))
        for group in (TICK_GROUP, VALUE_GROUP):
            peer.entry(ACKNOWLEDGE, VEHICLE, group=group)

    def test_offer(self):
        for ttl in (2, ENDLESS):
            host, peer = self.vehicle(offerTtlS=ttl)
            raw = bytes(peer.entry(OFFER, VEHICLE).raw)
            self.assertEqual(raw.hex(), f"01000010{VEHICLE:04x}0001{MAJOR:02x}{ttl:06x}{MINOR:08x}")
            host.kill()

    def test_shared_options(self):
        peer = self.peer()
        peer.ask(self.pos, [find(service) for service in (INPUTS, SYSTEM_STATUS, POSITIONING)])
        _, sd = peer.unicast.discovery[0]
        self.assertEqual(len(sd.entry_array), 3)
        self.assertEqual(len(sd.option_array), 2, "both identifiers are behind one port")

    def test_find(self):
        host, peer = self.vehicle("find Remote")
        entry = peer.entry(FIND, REMOTE)
        self.assertEqual(bytes(entry.raw).hex(), f"00000000{REMOTE:04x}ffff{MAJOR:02x}{entry.ttl:06x}ffffffff")
        self.assertGreater(entry.ttl, 0)

    def test_matching_of_finds(self):
        host, peer = self.vehicle("offer second")
        peer.entry(OFFER, VEHICLE, instance=2)
        for fields, found in (({}, [1, 2]), ({"instance": 2}, [2]), ({"instance": 3}, []), ({"major": MAJOR}, [1, 2]),
                              ({"major": MAJOR + 1}, []), ({"minor": MINOR}, [1, 2]), ({"minor": MINOR + 1}, []),
                              ({"ttl": 0}, [])):
            answers = peer.ask(host, [find(VEHICLE, **fields), find(GROUP), find(UNKNOWN)])
            self.assertEqual([one.instance for one in answers], found, fields)
        answers = peer.ask(host, [find(VEHICLE), find(VEHICLE, 2)] * 60)
        self.assertEqual([one.instance for one in answers], [1, 2])

    def test_stop_offer(self):
        host, peer = self.vehicle("offer stream")
        for specifier, service in (("first", VEHICLE), ("stream", STREAM)):
            offered = peer.entry(OFFER, service)
            host.do(f"stop {specifier}")
            stopped = peer.entry(OFFER, service, ttl=0)
            for field in ("instance", "major", "minor", "endpoints", "multicast"):
                self.assertEqual(getattr(stopped, field), getattr(offered, field), field)
        self.assertEqual(peer.call(host, VEHICLE, ECHO).code, 0x02, "like an unknown service")

    def test_subscribe(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        self.assertEqual(bytes(entry.raw).hex(),
                         f"06000010{REMOTE:04x}0001{MAJOR:02x}0000020080{VALUE_GROUP:04x}")
        self.assertEqual(entry.endpoints, [(host.address, CLIENT_PORT, UDP_PROTOCOL)])
        self.assertFalse(entry.multicast)
        self.assertEqual(len(entry.options), 1)
        host.do("unsubscribe Remote 1 value")
        stop = peer.entry(SUBSCRIBE, REMOTE, ttl=0)
        for field in ("instance", "major", "group", "counter", "flags", "endpoints", "multicast"):
            self.assertEqual(getattr(stop, field), getattr(entry, field), field)

    def test_acknowledgement(self):
        host, peer = self.vehicle()
        for ttl, counter, reserved in ((3, 0, 0x000), (0xABCDE, 15, 0x008), (ENDLESS, 5, 0xFFF)):
            sent = subscribe(VEHICLE, TICK_GROUP, ttl=ttl, counter=counter, res=reserved)
            answer, = peer.ask(host, sent, [endpoint(peer.caller())])
            self.assertEqual(bytes(answer.raw).hex(), "07000000" + bytes(sent).hex()[8:])
        self.event(host, peer.caller())
        self.settled(host, peer)
        self.assertEqual(sum(one.method == TICK for one in peer.caller().messages), 1, "one for all counters")

    def test_refusal(self):
        host, peer = self.vehicle()
        for change in ({"service": UNKNOWN}, {"instance": 9}, {"major": MAJOR + 1}, {"group": 0x77}):
            fields = {"service": VEHICLE, "instance": 1, "group": TICK_GROUP, "major": MAJOR, **change}
            answer, = peer.ask(host, subscribe(**fields, counter=6, res=0xA58), [endpoint(peer.caller())])
            self.assertEqual({name: getattr(answer, name) for name in fields}, fields)
            # The request for initial data and the three bits beside it are not repeated.
            self.assertEqual((answer.ttl, answer.counter, answer.flags, answer.options), (0, 6, 0xA50, []))

    def test_refusal_for_want_of_means(self):
        host, peer = self.vehicle("offer stream", limits={"subscribersPerEventGroup": 2})
        answers = [peer.subscribed(host, VEHICLE, TICK_GROUP, peer.socket()).ttl for _ in range(3)]
        self.assertEqual(answers, [ENDLESS, ENDLESS, 0])
        peer.entry(OFFER, STREAM)
        answer, = peer.ask(host, subscribe(STREAM, TICK_GROUP), [endpoint(peer.address, 50000, TCP_PROTOCOL)])
        self.assertEqual(answer.ttl, 0)

    def test_multicast_subscription(self):
        host, peer = self.vehicle()
        events = peer.socket()
        peer.tell(subscribe(VEHICLE, TICK_GROUP), [endpoint(events)])
        peer.barrier(host)
        peer.subscribed(host, VEHICLE, VALUE_GROUP, events)
        self.assertEqual([(one.group, one.multicast) for one in peer.entries(ACKNOWLEDGE)], [(VALUE_GROUP, False)])

    def test_what_is_unknown(self):
        host, peer = self.vehicle()
        unknown = [find(VEHICLE) for _ in range(4)]
        for entry, type in zip(unknown, (0x02, 0x03, 0x08, 0xFF)):
            entry.type = type
        answers = peer.ask(host, [*unknown, find(VEHICLE)], flags=REBOOT | UNICAST | 0x1F, reserved=0xABCDEF)
        self.assertEqual([one.type for one in answers], [OFFER])


if __name__ == "__main__":
    suite.main(DiscoveryMessages)
