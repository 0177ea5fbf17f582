"""On the wire: addresses and ports, datagrams and streams, unicast and multicast."""

import pathlib

from devices import *
from network import *
import suite
from suite import covers

COOKIE_OF_CLIENT = bytes.fromhex("ffff0000" "00000008" "deadbeef" "01010100")
COOKIE_OF_SERVER = bytes.fromhex("ffff8000" "00000008" "deadbeef" "01010200")
COOKIES = (0xDEAD, 0xBEEF)


def without_cookies(messages):
    return [one for one in messages if (one.client, one.session) != COOKIES]


class Wire(suite.Group):
    title = "On the wire"
    base = 97

    # Addresses and ports

    @covers("someip_659 someip_733 someip_32",
            """Addresses, ports and transports are those of the manifest: what is offered is where the
            service answers""")
    def test_ports(self):
        peer = self.peer()
        for specifier, instance in (("POSITIONING", POSITIONING), ("INPUTS", INPUTS)):
            offered = self.offered(peer, instance)
            port = POSITIONING_PORT if instance == POSITIONING else IDENTIFIER_PORT
            self.assertEqual(offered.endpoints, [(self.pos.address, port, UDP_PROTOCOL)], specifier)
        self.assertEqual(peer.call((self.pos.address, IDENTIFIER_PORT), INPUTS, READ, NO_TEXTS).code, 0)

    @covers("someip_658 someip_676",
            """Discovery uses the port of the manifest, and that port takes and sends discovery
            messages only""")
    def test_discovery_port(self):
        peer = self.peer()
        self.offered(peer, POSITIONING)
        self.assertEqual({one.source[1] for one in self.network.seen if one.is_discovery},
                         {self.network.discovery_port})
        # A request there is not answered.
        peer.unicast.send(someip(INPUTS, READ), (self.pos.address, self.network.discovery_port))
        peer.barrier(self.pos.address)
        self.assertEqual([one for one in peer.unicast.messages if not one.is_discovery], [])
        self.assertEqual([one for one in self.network.seen if not one.is_discovery
                          and one.source[1] == self.network.discovery_port], [])

    @covers("someip_661 someip_32",
            """The client's own port: the one of the manifest, else one of the range of ephemeral ports
            that is set up on the machine""")
    def test_client_port(self):
        peer = self.peer()
        low, high = map(int, pathlib.Path(
            "/proc/sys/net/ipv4/ip_local_port_range").read_text(encoding="ascii").split())
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(GNSS, 1, GNSS_MAJOR), [endpoint(server)])
        (address, port, _), = peer.entry(SUBSCRIBE, GNSS).endpoints
        self.assertEqual(address, self.pos.address)
        self.assertTrue(low <= port <= high, port)
        peer.tell(offer(GNSS, 1, GNSS_MAJOR, ttl=0), [endpoint(server)])

        host = self.host("find Remote")
        peer.tell(offer(REMOTE, 1, MAJOR), [endpoint(server)])
        host.said("found Remote 1")
        host.do("call Remote 1 echo 01")
        self.assertEqual(server.wait(lambda one: one.service == REMOTE).source,
                         (host.address, CLIENT_PORT))

    @covers("someip_660",
            "A client talks to the address and port that the offer names, and to the new ones after an "
            "offer with others")
    def test_announced_port(self):
        peer = self.peer()
        host = self.host("find Remote")
        for port in (SERVER_PORT, SERVER_PORT + 1):
            server = peer.socket(port)
            since = len(host.lines)
            peer.tell(offer(REMOTE, 1, MAJOR, ttl=ENDLESS), [endpoint(server)])
            host.said("found Remote 1", since)
            host.do("call Remote 1 echo 01")
            server.wait(lambda one: one.service == REMOTE, f"request to port {port}")

    @covers("someip_49",
            "Responses and error responses go from where the request was sent to, back to where it came "
            "from, over the same transport")
    def test_mirrored_addresses(self):
        peer = self.peer()
        host = self.host("offer first", "offer stream")
        self.offered(peer, STREAM)
        for method, code in ((ECHO, 0), (0x77, 3)):
            answer = peer.call(host.udp(), VEHICLE, method, b"x", interface=MAJOR)
            self.assertEqual((answer.code, answer.source, answer.at.address),
                             (code, host.udp(), peer.caller().address))
            stream = peer.connect((host.address, STREAM_PORT))
            answer = peer.call(None, STREAM, method, b"x", interface=MAJOR, via=stream)
            self.assertEqual((answer.code, answer.source), (code, (host.address, STREAM_PORT)))

    # Datagrams

    @covers("someip_702 someip_319 someip_584 someip_318",
            "One datagram may hold several messages, each with its own header: each is answered")
    def test_several_messages(self):
        peer = self.peer()
        host = self.host("offer first")
        self.offered(peer, VEHICLE)
        parts = [someip(VEHICLE, ECHO, bytes([number]) * number, session=number, interface=MAJOR)
                 for number in range(1, 6)]
        peer.caller().send(b"".join(parts), host.udp())
        self.network.wait(lambda: len(peer.caller().messages) == 5, "five responses")
        self.assertEqual({one.session: one.payload for one in peer.caller().messages},
                         {number: bytes([number]) * number for number in range(1, 6)})

    @covers("someip_319",
            "A message that claims to be longer than its datagram is dropped; those in front of it count")
    def test_beyond_the_datagram(self):
        peer = self.peer()
        host = self.host("offer first")
        self.offered(peer, VEHICLE)
        good = someip(VEHICLE, ECHO, b"good", session=1, interface=MAJOR)
        for session, length in ((10, 13), (11, 2000), (12, 0xFFFFFFFF), (13, 0x80000008)):
            cut = someip(VEHICLE, ECHO, b"long", session=session, interface=MAJOR, length=length)
            peer.caller().send(good + cut, host.udp())
        peer.caller().send(good + b"\x40\x01", host.udp())
        self.network.wait(lambda: len(peer.caller().messages) >= 5, "responses")
        peer.barrier(host.address)
        self.assertEqual([one.session for one in peer.caller().messages], [1] * 5)
        self.assertEqual(host.count("droppedMalformed"), 5)

    @covers("someip_664",
            "Messages are understood wherever in a datagram or in a stream they begin")
    def test_unaligned(self):
        peer = self.peer()
        host = self.host("offer first", "offer stream")
        self.offered(peer, STREAM)
        stream = peer.connect((host.address, STREAM_PORT))
        for odd in (1, 3, 5, 7):
            for via, service, to in ((peer.caller(), VEHICLE, [host.udp()]), (stream, STREAM, [])):
                via.send(someip(service, ECHO, b"o" * odd, session=1, interface=MAJOR)
                         + someip(service, ECHO, b"second", session=odd + 10, interface=MAJOR), *to)
                answer = via.wait(lambda one: one.session == odd + 10)
                self.assertEqual(answer.payload, b"second")

    @covers("someip_318",
            "No datagram of the device is larger than 1400 bytes of payload behind the header, and the "
            "first size above travels in segments")
    def test_largest_datagram(self):
        peer = self.peer()
        host = self.host("offer first")
        self.offered(peer, VEHICLE)
        since = len(self.network.raw)
        answer = peer.call(host.udp(), VEHICLE, MAKE, (1400).to_bytes(4, "big"), interface=MAJOR)
        self.assertEqual((answer.type, len(answer.payload)), (RESPONSE, 1400))
        answer = peer.call(host.udp(), VEHICLE, MAKE, (1401).to_bytes(4, "big"), interface=MAJOR)
        self.assertEqual(answer.type, RESPONSE | TP)
        self.assertTrue(all(len(raw) <= 1416 for _, _, _, raw in self.network.raw[since:]))

    @covers("someip_732 someip_354 someip_645",
            """Two users of one event within a process: one subscription on the wire, one notification
            received, and both get it""")
    def test_shared_subscription(self):
        peer = self.peer()
        host = self.host("find Remote")
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(REMOTE, 1, MAJOR, ttl=ENDLESS), [endpoint(server)])
        host.said("found Remote 1")
        host.do("subscribe Remote 1 tick a")
        host.do("subscribe Remote 1 tick b")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        peer.tell(acknowledge(entry), to=host.address)
        self.network.wait(lambda: host.lines.count("state Remote 1 tick on") == 2, "two states")
        server.send(someip(REMOTE, TICK, b"\x55", type=NOTIFICATION, interface=MAJOR),
                    entry.endpoints[0][:2])
        self.network.wait(lambda: host.lines.count("notification Remote 1 tick 55") == 2, "both")
        self.assertEqual({one.endpoints[0] for one in peer.entries(SUBSCRIBE, REMOTE)},
                         {entry.endpoints[0]})

    @covers("someip_732 someip_354",
            """Two subscriptions (with different counters) to one endpoint: each notification is sent
            there once""")
    def test_one_notification(self):
        peer = self.peer()
        host = self.host("offer first")
        self.offered(peer, VEHICLE)
        events = peer.socket()
        for counter in (0, 1):
            peer.subscribed(host.address, VEHICLE, 1, TICK_GROUP, events, major=MAJOR,
                            counter=counter)
        host.do("event first tick 01")
        host.do("event first tick 02")
        events.wait(lambda one: one.payload == b"\x02")
        self.assertEqual([one.payload for one in events.messages], [b"\x01", b"\x02"])

    # Unicast and multicast

    def group_host(self, *commands, **options):
        host = self.host("offer group", *commands, **options)
        peers = [self.peer() for _ in range(3)]
        self.offered(peers[0], GROUP)
        return host, peers

    def listen(self, peer, last):
        made = Socket(self.network, peer.address,
                      group=(f"239.195.{self.network.number}.{last}", MULTICAST_PORT))
        peer.parts.append(made)
        return made

    @covers("someip_811 someip_813 someipsd_626",
            """A group with multicast from one subscriber on: its events come to the multicast address
            that the acknowledgement names, from the offered port, and by unicast to nobody""")
    def test_multicast_only(self):
        host, (peer, *_) = self.group_host()
        group = self.listen(peer, 1)
        events = peer.socket()
        answer = peer.subscribed(host.address, GROUP, 1, TICK_GROUP, events, major=MAJOR)
        self.assertEqual(answer.endpoints, [(*group.address, UDP_PROTOCOL)])
        host.do("event group tick 0a")
        host.do("event group tick 0b")
        self.assertEqual(group.wait(lambda one: one.payload == b"\x0b").source, host.udp(GROUP_PORT))
        self.assertEqual([one.payload for one in group.messages], [b"\x0a", b"\x0b"])
        self.answered_group(host, peer)
        self.assertEqual(events.messages, [])

    def answered_group(self, host, peer):
        for _ in range(2):
            peer.call(host.udp(GROUP_PORT), GROUP, ECHO, interface=MAJOR)

    @covers("someip_813 someipsd_823",
            """A group with multicast from two subscribers on: unicast to one, multicast to two, unicast
            again after one of them has left""")
    def test_threshold(self):
        host, (first, second, _) = self.group_host("update group value 01")
        group = self.listen(first, 2)
        own = {peer: peer.socket() for peer in (first, second)}
        def update(value):
            host.do(f"update group value {value:02x}")
            return bytes([value])
        def subscribe_to(peer, **fields):
            return peer.subscribed(host.address, GROUP, 1, VALUE_GROUP, own[peer], major=MAJOR,
                                   ttl=ENDLESS, **fields)
        answer = subscribe_to(first)
        self.assertEqual(answer.endpoints, [(*group.address, UDP_PROTOCOL)])
        own[first].wait(lambda one: one.payload == b"\x01", "initial value")
        value = update(2)
        own[first].wait(lambda one: one.payload == value, "unicast")
        subscribe_to(second)
        own[second].wait(lambda one: one.payload == b"\x02", "initial value by unicast")
        value = update(3)
        group.wait(lambda one: one.payload == value, "multicast")
        second.tell(subscribe(GROUP, 1, VALUE_GROUP, MAJOR, ttl=0), [endpoint(own[second])],
                    to=host.address)
        second.barrier(host.address)
        value = update(4)
        own[first].wait(lambda one: one.payload == value, "unicast again")
        self.answered_group(host, first)
        self.assertEqual([one.payload for one in own[first].messages], [b"\x01", b"\x02", b"\x04"])
        self.assertEqual([one.payload for one in own[second].messages], [b"\x02"])
        self.assertEqual([one.payload for one in group.messages], [b"\x03"])

    @covers("someip_813", "A group without multicast stays with unicast, however many subscribe")
    def test_unicast_only(self):
        host, peers = self.group_host("update group big 01")
        group = self.listen(peers[0], 3)
        sockets = []
        for peer in peers:
            sockets.append(peer.socket())
            answer = peer.subscribed(host.address, GROUP, 1, BIG_GROUP, sockets[-1], major=MAJOR)
            self.assertEqual(answer.endpoints, [])
        host.do("update group big 02")
        for events in sockets:
            events.wait(lambda one: one.payload == b"\x02")
        self.answered_group(host, peers[0])
        self.assertEqual(group.messages, [])

    @covers("someip_812",
            "Initial values of a group that is multicast go by unicast, to the new subscriber only")
    def test_initial_value_by_unicast(self):
        host, peers = self.group_host("update group value 07", threshold=1)
        group = self.listen(peers[0], 2)
        sockets = [peer.socket() for peer in peers]
        for peer, events in zip(peers, sockets):
            peer.subscribed(host.address, GROUP, 1, VALUE_GROUP, events, major=MAJOR)
            self.assertEqual(events.wait(lambda one: True).payload, b"\x07")
        self.answered_group(host, peers[0])
        self.assertEqual([len(events.messages) for events in sockets], [1, 1, 1])
        self.assertEqual(group.messages, [])

    @covers("someip_814",
            "A client receives the events of one subscription by unicast and by the multicast address of "
            "the acknowledgement")
    def test_client_receives_both(self):
        peer = self.peer()
        host = self.host("find RemoteGroup")
        server = peer.socket(SERVER_PORT)
        peer.tell(offer(REMOTE_GROUP, 1, MAJOR, ttl=ENDLESS), [endpoint(server)])
        host.said("found RemoteGroup 1")
        host.do("subscribe RemoteGroup 1 tick")
        entry = peer.entry(SUBSCRIBE, REMOTE_GROUP)
        group = (f"239.195.{self.network.number}.9", MULTICAST_PORT)
        peer.tell(acknowledge(entry, options=(0, 1)),
                  [SDOption_IP4_Multicast(addr=group[0], port=group[1])], to=host.address)
        host.said("state RemoteGroup 1 tick on")

        def event(value, to):
            server.send(someip(REMOTE_GROUP, TICK, value, type=NOTIFICATION, interface=MAJOR), to)
        event(b"\x01", entry.endpoints[0][:2])
        host.said("notification RemoteGroup 1 tick 01")
        event(b"\x02", group)
        host.said("notification RemoteGroup 1 tick 02")

    # Streams

    def stream_host(self, *commands, **options):
        host = self.host(*commands, "offer stream", **options)
        peer = self.peer()
        self.offered(peer, STREAM)
        return host, peer, peer.connect((host.address, STREAM_PORT))

    def subscribe_stream(self, host, peer, stream, group, ttl=ENDLESS):
        start = time.time()
        peer.tell(subscribe(STREAM, 1, group, MAJOR, ttl=ttl),
                  [endpoint(*stream.address, TCP_PROTOCOL)], to=host.address)
        return peer.entry(ACKNOWLEDGE, STREAM, group=group, after=start)

    @covers("someip_585 someip_702",
            "A stream carries messages one behind the other, each with its header, cut anywhere")
    def test_stream(self):
        host, peer, stream = self.stream_host()
        whole = b"".join(someip(STREAM, ECHO, bytes([number]) * 700 * number, session=number,
                                interface=MAJOR) for number in range(1, 6))
        for at in range(0, len(whole), 997):
            stream.send(whole[at:at + 997])
        self.network.wait(lambda: len(without_cookies(stream.messages)) == 5, "five responses")
        self.assertEqual({one.session: one.payload for one in without_cookies(stream.messages)},
                         {number: bytes([number]) * 700 * number for number in range(1, 6)})

    @covers("someip_585", "A stream cut into single bytes is understood")
    def test_single_bytes(self):
        _, _, stream = self.stream_host()
        stream.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in someip(STREAM, ECHO, b"bytes", session=9, interface=MAJOR):
            stream.send(bytes([byte]))
            self.network.pump(0)
        self.assertEqual(stream.wait(lambda one: one.session == 9).payload, b"bytes")

    @covers("someip_325",
            "Two small messages right after each other are not held back until the first is acknowledged")
    def test_no_delay(self):
        host, peer, stream = self.stream_host()
        self.assertGreater(self.subscribe_stream(host, peer, stream, TICK_GROUP).ttl, 0)
        host.do("event stream tick 00")
        stream.wait(lambda one: one.method == TICK)
        delays = []
        for number in range(1, 20, 2):
            # Acknowledgements of the kernel wait 40 ms when nothing is sent back.
            for value in (number, number + 1):
                stream.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
                start = time.time()
                host.do(f"event stream tick {value:02x}")
                message = stream.wait(lambda one: one.payload == bytes([value]))
            delays.append(message.time - start)
        self.assertLess(sorted(delays)[len(delays) // 2], 0.025, delays)

    @covers("someip_644 someip_645 someipsd_788",
            """All methods, events and fields of the services at one TCP port share one connection, as
            client and as server""")
    def test_one_connection(self):
        host, peer, stream = self.stream_host("update stream value 11", "find RemoteStream")
        for group in (TICK_GROUP, VALUE_GROUP):
            self.assertGreater(self.subscribe_stream(host, peer, stream, group).ttl, 0)
        stream.wait(lambda one: one.method == VALUE)
        self.assertEqual(peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=stream).code, 0)
        host.do("event stream tick 01")
        stream.wait(lambda one: one.method == TICK)

        server = peer.listener(SERVER_PORT)
        peer.tell([offer(REMOTE_STREAM, instance, MAJOR, ttl=ENDLESS) for instance in (1, )],
                  [endpoint(*server.address, TCP_PROTOCOL)])
        host.said("found RemoteStream 1")
        host.do("call RemoteStream 1 echo 01")
        host.do("subscribe RemoteStream 1 tick")
        host.do("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, group=VALUE_GROUP)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, group=TICK_GROUP)
        self.network.wait(lambda: without_cookies(server.connections[0].messages), "request")
        self.assertEqual(len(server.connections), 1)
        self.assertEqual(entry.endpoints, [(*server.connections[0].source, TCP_PROTOCOL)])

    def remote_stream(self, *commands):
        """The host as client of a stream service of the peer's."""
        host = self.host("find RemoteStream")
        peer = self.peer()
        server = peer.listener(SERVER_PORT)
        options = [endpoint(*server.address, TCP_PROTOCOL)]
        peer.tell(offer(REMOTE_STREAM, 1, MAJOR, ttl=ENDLESS), options)
        host.said("found RemoteStream 1")
        for command in commands:
            host.do(command)
        return host, peer, server, options

    @covers("someip_646",
            "The client opens the connection with its first call or subscription, not before")
    def test_connection_when_needed(self):
        host, peer, server, _ = self.remote_stream()
        peer.tell(find(VEHICLE), to=host.address)
        self.network.quiet(0.05)
        self.assertEqual(server.connections, [])
        host.do("call RemoteStream 1 echo 01")
        self.network.wait(lambda: server.connections, "connection")

    @covers("someip_646 someipsd_767",
            "The connection stands before the subscription that names it is sent")
    def test_connection_before_subscription(self):
        host, peer, server, _ = self.remote_stream("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM)
        self.network.pump(0)
        self.assertEqual([(*one.source, TCP_PROTOCOL) for one in server.connections],
                         entry.endpoints)

    @covers("someip_326", "A call whose connection is lost ends as one that timed out")
    def test_lost_connection(self):
        host, peer, server, _ = self.remote_stream("call RemoteStream 1 echo 01")
        self.network.wait(lambda: server.connections and
                          without_cookies(server.connections[0].messages), "request")
        server.connections[0].close()
        host.said("response 0x06 -")

    @covers("someip_647",
            "A connection that is lost is opened again by the client, and the subscription renewed over it")
    def test_reconnection(self):
        host, peer, server, options = self.remote_stream("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM)
        peer.tell(acknowledge(entry), to=host.address)
        host.said("state RemoteStream 1 value on")
        start = time.time()
        server.connections[0].close()
        host.said("state RemoteStream 1 value off")
        self.network.wait(lambda: len(server.connections) == 2, "second connection")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, after=start)
        self.assertTrue(entry.initial_data)
        self.assertEqual(entry.endpoints[0][:2], server.connections[1].source)
        peer.tell(acknowledge(entry), to=host.address)
        server.connections[1].send(someip(REMOTE_STREAM, VALUE, b"\x77", type=NOTIFICATION,
                                          interface=MAJOR))
        host.said("notification RemoteStream 1 value 77")

    @covers("someip_678", "The client closes a connection that nobody needs any more")
    def test_close_after_unsubscribe(self):
        host, peer, server, _ = self.remote_stream("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM)
        peer.tell(acknowledge(entry), to=host.address)
        host.said("state RemoteStream 1 value on")
        host.do("unsubscribe RemoteStream 1 value")
        peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
        self.network.wait(lambda: server.connections[0].ended, "end of the connection")

    @covers("someip_679",
            "The client closes the connection when the services at its other end are stopped")
    def test_close_after_stop(self):
        host, peer, server, options = self.remote_stream("subscribe RemoteStream 1 value")
        peer.entry(SUBSCRIBE, REMOTE_STREAM)
        peer.tell(offer(REMOTE_STREAM, 1, MAJOR, ttl=0), options)
        self.network.wait(lambda: server.connections and server.connections[0].ended,
                          "end of the connection")

    @covers("someip_679", "The same when their time to live is over")
    def test_close_after_expiry(self):
        host, peer, server, options = self.remote_stream("subscribe RemoteStream 1 value")
        peer.entry(SUBSCRIBE, REMOTE_STREAM)
        peer.tell(offer(REMOTE_STREAM, 1, MAJOR, ttl=1), options)
        self.network.wait(lambda: server.connections and server.connections[0].ended,
                          "end of the connection")

    @covers("someip_680",
            "The server leaves the connection open when it stops its services: the client closes it")
    def test_server_keeps_connection(self):
        host, peer, stream = self.stream_host()
        self.assertGreater(self.subscribe_stream(host, peer, stream, TICK_GROUP).ttl, 0)
        host.do("offer first")
        host.do("stop stream")
        peer.entry(OFFER, STREAM, ttl=0)
        self.offered(peer, VEHICLE)
        peer.barrier(host.address)
        self.network.quiet(0.1)
        self.assertFalse(stream.ended)

    @covers("someip_586 someip_593 someip_594 someip_607 someip_609",
            """A stream begins with a cookie of the sender's direction, as client and as server; further
            ones come at most every ten seconds""")
    def test_cookies(self):
        host, peer, stream = self.stream_host()
        for session in range(1, 4):
            peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=stream, session=session)
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_SERVER)
        self.assertEqual(len(stream.messages) - len(without_cookies(stream.messages)), 1)
        host.kill()
        host, _, server, _ = self.remote_stream("call RemoteStream 1 echo 01",
                                                "call RemoteStream 1 echo 02")
        self.network.wait(lambda: server.connections and
                          len(without_cookies(server.connections[0].messages)) == 2, "requests")
        stream = server.connections[0]
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_CLIENT)
        self.assertEqual(len(stream.messages), 3)

    @covers("someip_586",
            "Behind bytes that make no message the reader goes on at the next cookie; cookies are not "
            "answered")
    def test_resynchronisation(self):
        host, peer, stream = self.stream_host()
        stream.send(COOKIE_OF_CLIENT + someip(STREAM, ECHO, b"1", session=1, interface=MAJOR))
        stream.wait(lambda one: one.session == 1)
        stream.send(b"\x40\x02\x00\x01" + b"\xff" * 90)
        stream.send(someip(STREAM, ECHO, b"lost", session=2, interface=MAJOR))
        stream.send(COOKIE_OF_CLIENT[:7])
        stream.send(COOKIE_OF_CLIENT[7:] + someip(STREAM, ECHO, b"3", session=3, interface=MAJOR))
        stream.wait(lambda one: one.session == 3)
        self.assertEqual([one.session for one in without_cookies(stream.messages)], [1, 3])

    @covers("someip_326 someipsd_435",
            "A subscription over a connection that has broken is void: no event comes over the next one "
            "until it is subscribed again")
    def test_broken_subscription(self):
        host, peer, stream = self.stream_host()
        self.subscribe_stream(host, peer, stream, TICK_GROUP)
        host.do("event stream tick 01")
        stream.wait(lambda one: one.method == TICK)
        lost = host.count("tcpLost")
        stream.close()
        peer.parts.remove(stream)
        self.network.wait(lambda: host.count("tcpLost") > lost, "loss of the connection")
        again = peer.connect((host.address, STREAM_PORT))
        host.do("event stream tick 02")
        for _ in range(2):
            peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=again)
        self.assertEqual([one for one in again.messages if one.method == TICK], [])
        self.assertGreater(self.subscribe_stream(host, peer, again, TICK_GROUP).ttl, 0)
        host.do("event stream tick 03")
        self.assertEqual(again.wait(lambda one: one.method == TICK).payload, b"\x03")

    # Several instances

    @covers("someip_445 someip_648 someip_967 someip_636 someip_1079",
            """Instances of one service have ports of their own, and a request reaches the instance whose
            port it is sent to; different services may share a port""")
    def test_instances(self):
        peer = self.peer()
        host = self.host("update first value 01", "update second value 02", "offer first",
                         "offer second")
        ports = {}
        for instance in (1, 2):
            (address, ports[instance], _), = self.offered(peer, VEHICLE, instance=instance).endpoints
            answer = peer.call((address, ports[instance]), VEHICLE, VALUE_GETTER, interface=MAJOR)
            self.assertEqual(answer.payload, bytes([instance]))
        self.assertNotEqual(ports[1], ports[2])
        self.assertEqual(peer.entry(OFFER, INPUTS).endpoints[0][1],
                         peer.entry(OFFER, SYSTEM_STATUS).endpoints[0][1])

    @covers("someip_967 someip_1079",
            "The application's monitors, instances of one service, are offered at as many endpoints")
    def test_monitors(self):
        peer = self.peer()
        peer.tell(find(MONITOR), to=self.pos.address)
        monitors = self.pos.manifest["services"]["mw::dm::dem::DiagnosticMonitor"]["instances"]
        self.network.wait(lambda: len({one.instance for one in peer.entries(OFFER, MONITOR)})
                          == len(monitors), "all monitors")
        self.assertEqual(len({one.endpoints[0] for one in peer.entries(OFFER, MONITOR)}),
                         len(monitors))

    @covers("someip_45 someip_585",
            "Another program dissects everything that was sent in this group without complaint")
    def test_dissection(self):
        complaints, dissected, sent = self.dissect()
        self.assertEqual(complaints, [])
        self.assertGreater(dissected, 0)

    not_applicable = (
        ("someip_702 someip_741", "Several own messages in one datagram",
         "there is no cyclic sending task: each message leaves at once, so that none waits for another"),
        ("someip_591 someip_592", "A cookie at the beginning of each TCP segment",
         "the kernel cuts the stream into segments, so the rule by time is followed instead"),
    )


if __name__ == "__main__":
    suite.main(Wire)
