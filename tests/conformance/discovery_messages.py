"""Discovery messages: header, flags, sessions, entries and their fields."""

import struct

from scapy.contrib.automotive.someip import SD

from devices import *
from network import *
import suite


class DiscoveryMessages(suite.Group):
    title = "Discovery messages"
    base = 99

    def test_every_message(self):
        peer = self.peer()
        self.offered(peer, POSITIONING)
        peer.tell(find(POSITIONING), to=self.pos.address)
        peer.entry(OFFER, POSITIONING, multicast=False)
        seen = [one for one in self.network.seen if one.is_discovery]
        self.assertGreater(len(seen), 1)
        for one in seen:
            self.assertEqual(one.raw[:4] + one.raw[8:10] + one.raw[12:16],
                             bytes.fromhex("ffff8100" "0000" "01010200"))
            self.assertEqual(one.length, len(one.raw) - 8)
            self.assertNotEqual(one.session, 0)
            self.assertEqual(one.payload[0] & ~REBOOT, UNICAST | EXPLICIT)
            self.assertEqual(one.payload[1:4], b"\0\0\0")
            entries, = struct.unpack_from("!I", one.payload, 4)
            self.assertEqual(entries % 16, 0)
            options, = struct.unpack_from("!I", one.payload, 8 + entries)
            self.assertEqual(len(one.payload), 12 + entries + options)

    def test_first_sessions(self):
        first, second = self.peer(), self.peer()
        host = self.host("offer first")
        self.network.wait(lambda: len([one for one in first.multicast.discovery
                                       if one[0].source[0] == host.address]) >= 3, "three offers")
        for peer in (first, second, first, second):
            known = len(peer.unicast.messages)
            peer.tell(find(VEHICLE), to=host.address)
            peer.unicast.wait(lambda one: True, "answer", known)
        groups = [one for one, _ in first.multicast.discovery if one.source[0] == host.address]
        self.assertEqual([one.session for one in groups], list(range(1, len(groups) + 1)))
        for peer in (first, second):
            self.assertEqual([one.session for one in peer.unicast.messages], [1, 2])
        self.assertTrue(all(sd.flags & REBOOT for _, sd in
                            first.multicast.discovery + first.unicast.discovery))

    def test_wrap(self):
        host, peer = self.vehicle()
        other = self.peer()
        self.network.unwatch(peer.unicast.socket)
        peer.unicast.socket.settimeout(PATIENCE)
        to = (host.address, self.network.discovery_port)
        request = discovery([find(VEHICLE)], flags=UNICAST)
        seen = []
        window = 64
        while len(seen) < 0xFFFF + 2:
            for _ in range(window):
                peer.unicast.socket.sendto(request, to)
            for _ in range(window):
                answer = peer.unicast.socket.recv(200)
                seen.append((int.from_bytes(answer[10:12], "big"), bool(answer[16] & REBOOT)))
        peer.unicast.socket.setblocking(False)
        self.network.watch(peer.unicast.socket, peer.unicast._readable)
        expected = [(number % 0xFFFF + 1, number < 0xFFFF) for number in range(len(seen))]
        self.assertEqual(seen, expected)
        other.tell(find(VEHICLE), to=host.address)
        answer = other.entry(OFFER, VEHICLE, multicast=False)
        self.assertEqual(answer.message.session, 1)
        self.assertTrue(answer.message.payload[0] & REBOOT)
        group = other.entry(OFFER, VEHICLE, multicast=True)
        self.assertTrue(group.message.payload[0] & REBOOT)

    def test_unknown_flags(self):
        host, peer = self.vehicle()
        start = time.time()
        peer.tell(find(VEHICLE), to=host.address, flags=REBOOT | UNICAST | 0x1F, reserved=0xABCDEF)
        peer.entry(OFFER, VEHICLE, after=start, multicast=False)

    def test_initial_data_control(self):
        host, _ = self.vehicle("update first value 0a")
        for flags, initial, expected in ((EXPLICIT, False, 0), (EXPLICIT, True, 1), (0, False, 1),
                                         (0, True, 1)):
            with self.subTest(flags=flags, initial=initial):
                peer = self.peer(flags=REBOOT | UNICAST | flags)
                events = peer.socket()
                answer = peer.subscribed(host.address, VEHICLE, 1, VALUE_GROUP, events, major=MAJOR,
                                         initial=initial)
                self.assertEqual(answer.ttl, 3)
                peer.barrier(host.address)
                peer.call(host.udp(), VEHICLE, ECHO, interface=MAJOR)
                self.assertEqual(len(events.messages), expected)

    def test_order_of_entries(self):
        host, peer = self.vehicle()
        kept, left = peer.socket(), peer.socket()
        def pair(first, second, via):
            peer.tell([subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=first),
                       subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=second)], [endpoint(via)],
                      to=host.address)
            peer.barrier(host.address)
        pair(0, ENDLESS, kept)
        pair(ENDLESS, 0, left)
        host.do("event first tick 01")
        kept.wait(lambda one: one.method == TICK)
        peer.call(host.udp(), VEHICLE, ECHO, interface=MAJOR)
        self.assertEqual(left.messages, [])

    def test_malformed(self):
        host, peer = self.vehicle()
        good = discovery([find(VEHICLE)], flags=UNICAST)
        to = (host.address, self.network.discovery_port)
        bad = [discovery([find(VEHICLE)], flags=UNICAST, **change) for change in (
            {"proto_ver": 2}, {"iface_ver": 2}, {"msg_type": REQUEST}, {"retcode": 1}, {"session": 0},
            {"event_id": 0x101}, {"srv_id": 0xFFFE})]
        def with_word(at, value):
            return good[:at] + struct.pack("!I", value) + good[at + 4:]
        bad += [good[:size] for size in range(17, len(good))]
        bad += [with_word(4, 7), with_word(4, len(good)), with_word(20, 15),
                with_word(20, 0x7FFFFFF0), with_word(40, 1), with_word(40, 0xFFFFFFFF),
                good[:16], good[:3]]
        for message in bad:
            peer.unicast.send(message, to)
        since = len(peer.unicast.messages)
        peer.barrier(host.address)
        self.assertEqual(len(peer.unicast.messages), since)
        self.assertEqual(host.count("droppedDiscoveryMalformed"), len(bad))

    def test_two_messages(self):
        host, peer = self.vehicle()
        peer.unicast.send(discovery([find(VEHICLE)], session=1) + discovery([find(VEHICLE)], session=2),
                          (host.address, self.network.discovery_port))
        self.network.wait(lambda: len(peer.unicast.entries) == 2, "two answers")

    def test_offer(self):
        host, peer = self.vehicle()
        raw = bytes(self.offered(peer, VEHICLE).raw)
        self.assertEqual(raw.hex(), "01" "00" "00" "10" f"{VEHICLE:04x}" "0001" f"{MAJOR:02x}" "000002"
                         f"{MINOR:08x}")

    def test_endless_offer(self):
        host, peer = self.vehicle(offerTtlS=ENDLESS)
        self.assertEqual(peer.entries(OFFER, VEHICLE)[0].ttl, ENDLESS)

    def test_endpoints_of_offers(self):
        host, peer = self.vehicle("offer stream", "offer group")
        both = self.offered(peer, STREAM)
        self.assertEqual(sorted(both.endpoints),
                         [(host.address, STREAM_PORT, TCP_PROTOCOL),
                          (host.address, STREAM_PORT, UDP_PROTOCOL)])
        self.assertEqual(self.offered(peer, GROUP).endpoints,
                         [(host.address, GROUP_PORT, UDP_PROTOCOL)])
        self.offered(peer, MONITOR)
        for one in peer.entries(OFFER):
            self.assertIn(len(one.options), (1, 2))
            self.assertEqual({option.type for option in one.options}, {0x04})

    def test_option_runs(self):
        host, peer = self.vehicle("offer stream", "find Remote")
        peer.entry(FIND, REMOTE)
        self.offered(peer, STREAM)
        self.offered(peer, MONITOR)
        for channel in (peer.unicast, peer.multicast):
            for _, sd in channel.discovery:
                for one in sd.entry_array:
                    for index, count in ((one.index_1, one.n_opt_1), (one.index_2, one.n_opt_2)):
                        self.assertLessEqual(index + count, len(sd.option_array))
                        if count == 0:
                            self.assertEqual(index, 0)

    def test_shared_options(self):
        peer = self.peer()
        peer.tell([find(service) for service in (INPUTS, SYSTEM_STATUS, POSITIONING)],
                  to=self.pos.address)
        peer.entry(OFFER, SYSTEM_STATUS, multicast=False)
        message, sd = peer.unicast.discovery[0]
        self.assertEqual(len(sd.entry_array), 3)
        self.assertEqual(len(sd.option_array), 2, "both identifiers are behind one port")
        for _, sd in peer.multicast.discovery:
            options = [bytes(one) for one in sd.option_array]
            self.assertEqual(len(options), len(set(options)))

    def test_find(self):
        host, peer = self.vehicle("find Remote")
        entry = peer.entry(FIND, REMOTE)
        self.assertEqual(bytes(entry.raw).hex(),
                         "00" "00" "00" "00" f"{REMOTE:04x}" "ffff" f"{MAJOR:02x}"
                         f"{entry.ttl:06x}" "ffffffff")
        self.assertGreater(entry.ttl, 0)

    def test_matching_of_finds(self):
        host, peer = self.vehicle("offer second")
        self.offered(peer, VEHICLE, instance=2)
        def answers(**fields):
            since = len(peer.unicast.entries)
            peer.tell([find(VEHICLE, **fields), find(GROUP), find(0x4FFF)], to=host.address)
            peer.barrier(host.address)
            return [one.instance for one in peer.unicast.entries[since:]]
        self.assertEqual(answers(), [1, 2])
        self.assertEqual(answers(instance=2), [2])
        self.assertEqual(answers(instance=3), [])
        self.assertEqual(answers(major=MAJOR), [1, 2])
        self.assertEqual(answers(major=MAJOR + 1), [])
        self.assertEqual(answers(minor=MINOR), [1, 2])
        self.assertEqual(answers(minor=MINOR + 1), [])

    def test_stop_offer(self):
        host, peer = self.vehicle("offer stream")
        self.offered(peer, STREAM)
        for specifier, service in (("first", VEHICLE), ("stream", STREAM)):
            offered = self.offered(peer, service)
            host.do(f"stop {specifier}")
            stopped = peer.entry(OFFER, service, ttl=0)
            self.assertEqual((stopped.service, stopped.instance, stopped.major, stopped.minor),
                             (offered.service, offered.instance, offered.major, offered.minor))
            self.assertEqual(stopped.endpoints, offered.endpoints)
            self.assertTrue(stopped.multicast)

    def test_subscribe(self):
        host, peer, _ = self.remote("subscribe Remote 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        self.assertEqual(bytes(entry.raw).hex(), "06" "00" "00" "10" f"{REMOTE:04x}" "0001"
                         f"{MAJOR:02x}" "000002" "0080" f"{VALUE_GROUP:04x}")
        self.assertEqual(entry.endpoints, [(host.address, CLIENT_PORT, UDP_PROTOCOL)])
        self.assertFalse(entry.multicast)
        self.assertEqual(len(entry.options), 1)

    def test_stop_subscribe(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        host.do("unsubscribe Remote 1 value")
        stop = peer.entry(SUBSCRIBE, REMOTE, ttl=0)
        self.assertEqual((stop.instance, stop.major, stop.group, stop.counter, stop.endpoints),
                         (entry.instance, entry.major, entry.group, entry.counter, entry.endpoints))

    def test_acknowledgement(self):
        host, peer = self.vehicle()
        events = peer.socket()
        for ttl, counter, reserved in ((3, 0, 0x000), (0xABCDE, 15, 0x008), (ENDLESS, 5, 0xFFF)):
            start = time.time()
            sent = subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=ttl, counter=counter, res=reserved)
            peer.tell(sent, [endpoint(events)], to=host.address)
            answer = peer.entry(ACKNOWLEDGE, VEHICLE, after=start)
            self.assertEqual(bytes(answer.raw).hex(), "07000000" + bytes(sent).hex()[8:])

    def test_refusal(self):
        host, peer = self.vehicle()
        events = peer.socket()
        for change in ({"service": 0x4FFF}, {"instance": 9}, {"major": MAJOR + 1}, {"group": 0x77}):
            with self.subTest(change):
                start = time.time()
                fields = {"service": VEHICLE, "instance": 1, "group": TICK_GROUP, "major": MAJOR,
                          **change}
                sent = subscribe(**fields, ttl=3, counter=6, res=0xA50)
                peer.tell(sent, [endpoint(events)], to=host.address)
                answer = peer.entry(ACKNOWLEDGE, fields["service"], after=start)
                self.assertEqual((answer.ttl, answer.instance, answer.major, answer.group,
                                  answer.counter, answer.flags >> 4, answer.options),
                                 (0, fields["instance"], fields["major"], fields["group"], 6, 0xA5, []))

    def test_refusal_for_want_of_means(self):
        manifest = host_manifest(self.network)
        manifest["limits"] = {"subscribersPerEventGroup": 2}
        host, peer = self.vehicle("offer stream", manifest=manifest)
        answers = [peer.subscribed(host.address, VEHICLE, 1, TICK_GROUP, peer.socket(), major=MAJOR,
                                   ttl=ENDLESS).ttl for _ in range(3)]
        self.assertEqual(answers, [ENDLESS, ENDLESS, 0])
        self.offered(peer, STREAM)
        start = time.time()
        peer.tell(subscribe(STREAM, 1, TICK_GROUP, MAJOR), [endpoint(peer.address, 50000, TCP_PROTOCOL)],
                  to=host.address)
        self.assertEqual(peer.entry(ACKNOWLEDGE, STREAM, after=start).ttl, 0)

    def test_multicast_option(self):
        host, peer = self.vehicle("offer group")
        self.offered(peer, GROUP)
        answer = peer.subscribed(host.address, GROUP, 1, TICK_GROUP, peer.socket(), major=MAJOR)
        self.assertEqual([bytes(one).hex() for one in answer.options],
                         ["0009" "14" "00" f"efc3{self.network.number:02x}01" "00" "11"
                          f"{MULTICAST_PORT:04x}"])
        answer = peer.subscribed(host.address, VEHICLE, 1, TICK_GROUP, peer.socket(), major=MAJOR)
        self.assertEqual(answer.options, [])

    def test_multicast_subscription(self):
        host, peer = self.vehicle()
        events = peer.socket()
        peer.tell(subscribe(VEHICLE, 1, TICK_GROUP, MAJOR), [endpoint(events)])
        peer.barrier(host.address)
        peer.subscribed(host.address, VEHICLE, 1, VALUE_GROUP, events, major=MAJOR)
        self.assertEqual([one.group for one in peer.entries(ACKNOWLEDGE, VEHICLE)], [VALUE_GROUP])
        self.assertFalse(peer.entries(ACKNOWLEDGE, multicast=True))

    def test_unknown_entries(self):
        host, peer = self.vehicle()
        unknown = [find(VEHICLE) for _ in range(4)]
        for entry, type in zip(unknown, (0x02, 0x03, 0x08, 0xFF)):
            entry.type = type
        start = time.time()
        peer.tell([*unknown, find(VEHICLE)], to=host.address)
        peer.entry(OFFER, VEHICLE, after=start, multicast=False)
        peer.barrier(host.address)
        self.assertEqual(len(peer.unicast.entries), 1)


if __name__ == "__main__":
    suite.main(DiscoveryMessages)
