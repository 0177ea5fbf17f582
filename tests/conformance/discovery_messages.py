"""Discovery messages: header, flags, sessions, entries and their fields."""

import struct

from scapy.contrib.automotive.someip import SD

from devices import *
from network import *
import suite
from suite import covers


class DiscoveryMessages(suite.Group):
    title = "Discovery messages"
    base = 99

    def vehicle(self, *commands, **options):
        host = self.host(*commands, "offer first", **options)
        peer = self.peer()
        self.offered(peer, VEHICLE)
        return host, peer

    def remote(self, flags=REBOOT | UNICAST, ttl=ENDLESS):
        """The host knows a service of the peer's."""
        peer = self.peer(flags=flags)
        host = self.host("find Remote")
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(REMOTE, 1, MAJOR, ttl=ttl), [endpoint(server)])
        host.said("found Remote 1")
        return host, peer, server

    @covers("someipsd_26 someipsd_27",
            """Discovery messages travel over UDP with the ids, versions, type and return code set aside
            for them, client id 0 and a length that fits""")
    def test_header(self):
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

    @covers("someipsd_38 someipsd_39 someipsd_42 someipsd_44 someipsd_101 someipsd_103 someipsd_1180",
            """Behind it: flags, reserved bytes that are 0, the entries and the options, each array with
            its length in bytes; unused flags are 0""")
    def test_arrays(self):
        peer = self.peer()
        raw = self.offered(peer, POSITIONING).message.payload
        self.assertEqual(raw[0] & 0x1F, 0)
        self.assertEqual(raw[1:4], b"\0\0\0")
        entries, = struct.unpack_from("!I", raw, 4)
        self.assertEqual(entries % 16, 0)
        options, = struct.unpack_from("!I", raw, 8 + entries)
        self.assertEqual(len(raw), 12 + entries + options)

    @covers("someipsd_40 someipsd_41 someipsd_26",
            """After the start: the reboot flag is set, and sessions count from 1, to the group and to
            each peer by themselves""")
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

    @covers("someipsd_41 someipsd_26 someipsd_765 someipsd_813",
            """After 0xFFFF messages to one peer its session goes on with 1 and its reboot flag is 0;
            towards the group and other peers nothing changes""")
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

    @covers("someipsd_87 someipsd_100", "The unicast flag is set in every message")
    def test_unicast_flag(self):
        host, peer = self.vehicle()
        peer.barrier(host.address)
        self.assertTrue(all(one.payload[0] & UNICAST for one in self.network.seen
                            if one.is_discovery))

    @covers("someipsd_1187 someipsd_1188 someipsd_1194",
            "The flag that announces the processing of initial-data requests is set in every message")
    def test_explicit_flag(self):
        host, peer = self.vehicle()
        peer.barrier(host.address)
        self.assertTrue(all(one.payload[0] & EXPLICIT for one in self.network.seen
                            if one.is_discovery))

    @covers("someipsd_1180 someipsd_42", "Unknown flags and reserved bytes of a peer are ignored")
    def test_unknown_flags(self):
        host, peer = self.vehicle()
        start = time.time()
        peer.tell(find(VEHICLE), to=host.address, flags=REBOOT | UNICAST | 0x1F, reserved=0xABCDEF)
        peer.entry(OFFER, VEHICLE, after=start, multicast=False)

    @covers("someipsd_1188",
            """From a peer that announces initial-data requests the request bit decides about initial
            values; from one that does not, every new subscription gets them""")
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

    @covers("someipsd_862",
            """The entries of a message are processed in their order: subscribe and stop leaves nothing,
            stop and subscribe leaves a subscription""")
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

    @covers("someipsd_26 someipsd_1220",
            "Messages whose header is not that of discovery, or whose arrays do not fit, are dropped")
    def test_malformed(self):
        host, peer = self.vehicle()
        good = discovery([find(VEHICLE)], flags=UNICAST)
        to = (host.address, self.network.discovery_port)
        bad = [discovery([find(VEHICLE)], flags=UNICAST, **change) for change in (
            {"proto_ver": 2}, {"iface_ver": 2}, {"msg_type": REQUEST}, {"retcode": 1}, {"session": 0},
            {"event_id": 0x101}, {"srv_id": 0xFFFE})]
        def with_word(at, value):
            return good[:at] + struct.pack("!I", value) + good[at + 4:]
        bad += [with_word(4, 7), with_word(4, len(good)), with_word(20, 15),
                with_word(20, 0x7FFFFFF0), with_word(40, 1), with_word(40, 0xFFFFFFFF),
                good[:30], good[:16], good[:3]]
        for message in bad:
            peer.unicast.send(message, to)
        since = len(peer.unicast.messages)
        peer.barrier(host.address)
        self.assertEqual(len(peer.unicast.messages), since)
        self.assertEqual(host.count("droppedDiscoveryMalformed"), len(bad))

    @covers("someipsd_26 someipsd_1220",
            "Several discovery messages in one datagram are each processed")
    def test_two_messages(self):
        host, peer = self.vehicle()
        peer.unicast.send(discovery([find(VEHICLE)], session=1) + discovery([find(VEHICLE)], session=2),
                          (host.address, self.network.discovery_port))
        self.network.wait(lambda: len(peer.unicast.entries) == 2, "two answers")

    @covers("someipsd_46 someipsd_47 someipsd_252 someipsd_253 someipsd_256 someipsd_808",
            """An offer: type, first option run, service, instance, versions, time to live of the
            manifest, all as the manifest has them""")
    def test_offer(self):
        host, peer = self.vehicle()
        raw = bytes(self.offered(peer, VEHICLE).raw)
        self.assertEqual(raw.hex(), "01" "00" "00" "10" f"{VEHICLE:04x}" "0001" f"{MAJOR:02x}" "000002"
                         f"{MINOR:08x}")

    @covers("someipsd_253", "A time to live without end is sent as such")
    def test_endless_offer(self):
        host, peer = self.vehicle(offerTtlS=ENDLESS)
        self.assertEqual(peer.entries(OFFER, VEHICLE)[0].ttl, ENDLESS)

    @covers("someipsd_681 someipsd_756 someipsd_780 someipsd_849 someipsd_814",
            """Every offer refers to its endpoints: one option for each transport that the service is
            reachable by, none twice""")
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

    @covers("someipsd_336 someipsd_342 someipsd_343 someipsd_348",
            """An option run is an index and a number; of an empty run the index is 0; the runs of every
            entry lie within the options""")
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

    @covers("someipsd_900", "Entries that need the same option share one")
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

    @covers("someipsd_238 someipsd_239 someipsd_877 someipsd_808",
            """A search: type, service, any instance, major version of the interface, any minor version, a
            time to live, no option""")
    def test_find(self):
        host, peer = self.vehicle("find Remote")
        entry = peer.entry(FIND, REMOTE)
        self.assertEqual(bytes(entry.raw).hex(),
                         "00" "00" "00" "00" f"{REMOTE:04x}" "ffff" f"{MAJOR:02x}"
                         f"{entry.ttl:06x}" "ffffffff")
        self.assertGreater(entry.ttl, 0)

    @covers("someipsd_239",
            """Searches are answered by what they ask for: service, instance or any, major version or any,
            minor version or any""")
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

    @covers("someipsd_261 someipsd_262 someipsd_820 someipsd_22",
            "A stop offer repeats the offer that it ends, options included, with time to live 0")
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

    @covers("someipsd_109 someipsd_237 someipsd_321 someipsd_322 someipsd_1191",
            """A subscription: type, service, instance, major version, time to live of the manifest,
            event group, reserved bits 0, counter 0, initial data asked for""")
    def test_subscribe(self):
        host, peer, _ = self.remote()
        host.do("subscribe Remote 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        self.assertEqual(bytes(entry.raw).hex(), "06" "00" "00" "10" f"{REMOTE:04x}" "0001"
                         f"{MAJOR:02x}" "000002" "0080" f"{VALUE_GROUP:04x}")

    @covers("someipsd_682 someipsd_786 someipsd_848 someipsd_798 someipsd_818 someipsd_814",
            """A subscription refers to one endpoint for each transport of its events: where the client
            listens; it goes by unicast to the peer that offers""")
    def test_endpoints_of_subscriptions(self):
        host, peer, server = self.remote()
        host.do("subscribe Remote 1 tick")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        self.assertEqual(entry.endpoints, [(host.address, CLIENT_PORT, UDP_PROTOCOL)])
        self.assertFalse(entry.multicast)
        self.assertEqual(len(entry.options), 1)

    @covers("someipsd_332 someipsd_333 someipsd_1177 someipsd_433 someipsd_822 someipsd_18",
            "The end of a subscription repeats its entry and its options with time to live 0")
    def test_stop_subscribe(self):
        host, peer, server = self.remote()
        host.do("subscribe Remote 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        peer.tell(acknowledge(entry), to=host.address)
        host.said("state Remote 1 value on")
        host.do("unsubscribe Remote 1 value")
        stop = peer.entry(SUBSCRIBE, REMOTE, ttl=0)
        self.assertEqual((stop.instance, stop.major, stop.group, stop.counter, stop.endpoints),
                         (entry.instance, entry.major, entry.group, entry.counter, entry.endpoints))

    @covers("someipsd_613 someipsd_614 someipsd_808",
            "An acknowledgement repeats every field of the subscription, the reserved bits too")
    def test_acknowledgement(self):
        host, peer = self.vehicle()
        events = peer.socket()
        for ttl, counter, reserved in ((3, 0, 0x000), (0xABCDE, 15, 0x008), (ENDLESS, 5, 0xFFF)):
            start = time.time()
            sent = subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=ttl, counter=counter, res=reserved)
            peer.tell(sent, [endpoint(events)], to=host.address)
            answer = peer.entry(ACKNOWLEDGE, VEHICLE, after=start)
            self.assertEqual(bytes(answer.raw).hex(), "07000000" + bytes(sent).hex()[8:])

    @covers("someipsd_618 someipsd_619 someipsd_1137",
            """A refusal has the type of an acknowledgement, time to live 0, and repeats ids, version,
            counter and reserved bits""")
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

    @covers("someipsd_1137",
            "What cannot be subscribed at the moment is refused too: beyond the bound of subscribers, over "
            "a connection that does not exist")
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

    @covers("someipsd_763 someipsd_789 someipsd_790 someipsd_854 someipsd_724 someipsd_793",
            """The acknowledgement of a group that is multicast refers to one multicast option (UDP), that
            of another group to none""")
    def test_multicast_option(self):
        host, peer = self.vehicle("offer group")
        self.offered(peer, GROUP)
        answer = peer.subscribed(host.address, GROUP, 1, TICK_GROUP, peer.socket(), major=MAJOR)
        self.assertEqual([bytes(one).hex() for one in answer.options],
                         ["0009" "14" "00" f"efc3{self.network.number:02x}01" "00" "11"
                          f"{MULTICAST_PORT:04x}"])
        answer = peer.subscribed(host.address, VEHICLE, 1, TICK_GROUP, peer.socket(), major=MAJOR)
        self.assertEqual(answer.options, [])

    @covers("someipsd_818",
            "Event group entries that come by multicast are not obeyed, their answers go by unicast only")
    def test_multicast_subscription(self):
        host, peer = self.vehicle()
        events = peer.socket()
        peer.tell(subscribe(VEHICLE, 1, TICK_GROUP, MAJOR), [endpoint(events)])
        peer.barrier(host.address)
        peer.subscribed(host.address, VEHICLE, 1, VALUE_GROUP, events, major=MAJOR)
        self.assertEqual([one.group for one in peer.entries(ACKNOWLEDGE, VEHICLE)], [VALUE_GROUP])
        self.assertFalse(peer.entries(ACKNOWLEDGE, multicast=True))

    @covers("someipsd_808", "Entries of an unknown type are passed over, their neighbours are not")
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

    @covers("someipsd_26 someipsd_38 someipsd_47 someipsd_109",
            "Another program dissects everything that was sent in this group without complaint")
    def test_dissection(self):
        complaints, dissected, sent = self.dissect()
        self.assertEqual(complaints, [])
        self.assertGreaterEqual(dissected, sent)

    not_applicable = (
        ("someipsd_26", "A prefix in the client id of discovery messages",
         "the manifest has none for discovery: its client id is 0"),
        ("someipsd_757 someipsd_810", "Options for IPv6", "the networks of the manifest are IPv4"),
    )


if __name__ == "__main__":
    suite.main(DiscoveryMessages)
