"""On the wire: addresses and ports, datagrams and streams, unicast and multicast."""

import pathlib

from devices import *
from network import *
import suite

COOKIE_OF_CLIENT = bytes.fromhex("ffff0000" "00000008" "deadbeef" "01010100")
COOKIE_OF_SERVER = bytes.fromhex("ffff8000" "00000008" "deadbeef" "01010200")
COOKIES = (0xDEAD, 0xBEEF)


def without_cookies(messages):
    return [one for one in messages if (one.client, one.session) != COOKIES]


class Wire(suite.Group):
    title = "On the wire"
    streams = True
    base = 97

    # Addresses and ports

    def test_ports(self):
        peer = self.peer()
        for specifier, instance in (("POSITIONING", POSITIONING), ("INPUTS", INPUTS)):
            offered = self.offered(peer, instance)
            port = POSITIONING_PORT if instance == POSITIONING else IDENTIFIER_PORT
            self.assertEqual(offered.endpoints, [(self.pos.address, port, UDP_PROTOCOL)], specifier)
        self.assertEqual(peer.call((self.pos.address, IDENTIFIER_PORT), INPUTS, READ, NO_TEXTS).code, 0)

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

    def test_mirrored_addresses(self):
        host, peer = self.vehicle("offer first", offers="stream", service=STREAM)
        for method, code in ((ECHO, 0), (0x77, 3)):
            answer = peer.call(host.udp(), VEHICLE, method, b"x", interface=MAJOR)
            self.assertEqual((answer.code, answer.source, answer.at.address),
                             (code, host.udp(), peer.caller().address))
            stream = peer.connect((host.address, STREAM_PORT))
            answer = peer.call(None, STREAM, method, b"x", interface=MAJOR, via=stream)
            self.assertEqual((answer.code, answer.source), (code, (host.address, STREAM_PORT)))

    # Datagrams

    def test_several_messages(self):
        host, peer = self.vehicle()
        parts = [someip(VEHICLE, ECHO, bytes([number]) * number, session=number, interface=MAJOR)
                 for number in range(1, 6)]
        peer.caller().send(b"".join(parts), host.udp())
        self.network.wait(lambda: len(peer.caller().messages) == 5, "five responses")
        self.assertEqual({one.session: one.payload for one in peer.caller().messages},
                         {number: bytes([number]) * number for number in range(1, 6)})

    def test_beyond_the_datagram(self):
        host, peer = self.vehicle()
        good = someip(VEHICLE, ECHO, b"good", session=1, interface=MAJOR)
        for session, length in ((10, 13), (11, 2000), (12, 0xFFFFFFFF), (13, 0x80000008)):
            cut = someip(VEHICLE, ECHO, b"long", session=session, interface=MAJOR, length=length)
            peer.caller().send(good + cut, host.udp())
        peer.caller().send(good + b"\x40\x01", host.udp())
        self.network.wait(lambda: len(peer.caller().messages) >= 5, "responses")
        peer.barrier(host.address)
        self.assertEqual([one.session for one in peer.caller().messages], [1] * 5)
        self.assertEqual(host.count("droppedMalformed"), 5)

    def test_unaligned(self):
        host, peer = self.vehicle("offer first", offers="stream", service=STREAM)
        stream = peer.connect((host.address, STREAM_PORT))
        for odd in (1, 3, 5, 7):
            for via, service, to in ((peer.caller(), VEHICLE, [host.udp()]), (stream, STREAM, [])):
                via.send(someip(service, ECHO, b"o" * odd, session=1, interface=MAJOR)
                         + someip(service, ECHO, b"second", session=odd + 10, interface=MAJOR), *to)
                answer = via.wait(lambda one: one.session == odd + 10)
                self.assertEqual(answer.payload, b"second")

    def test_largest_datagram(self):
        host, peer = self.vehicle()
        since = len(self.network.raw)
        answer = peer.call(host.udp(), VEHICLE, MAKE, (1400).to_bytes(4, "big"), interface=MAJOR)
        self.assertEqual((answer.type, len(answer.payload)), (RESPONSE, 1400))
        answer = peer.call(host.udp(), VEHICLE, MAKE, (1401).to_bytes(4, "big"), interface=MAJOR)
        self.assertEqual(answer.type, RESPONSE | TP)
        self.assertTrue(all(len(raw) <= 1416 for _, _, _, raw in self.network.raw[since:]))

    def test_shared_subscription(self):
        host, peer, server = self.remote("subscribe Remote 1 tick a", "subscribe Remote 1 tick b")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        peer.tell(acknowledge(entry), to=host.address)
        self.network.wait(lambda: host.lines.count("state Remote 1 tick on") == 2, "two states")
        self.notify(server, entry, b"\x55", TICK)
        self.network.wait(lambda: host.lines.count("notification Remote 1 tick 55") == 2, "both")
        self.assertEqual({one.endpoints[0] for one in peer.entries(SUBSCRIBE, REMOTE)},
                         {entry.endpoints[0]})

    def test_one_notification(self):
        host, peer = self.vehicle()
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

    def test_client_receives_both(self):
        host, peer, server = self.remote("subscribe RemoteGroup 1 tick", service="RemoteGroup")
        entry = peer.entry(SUBSCRIBE, REMOTE_GROUP)
        group = (f"239.195.{self.network.number}.9", MULTICAST_PORT)
        peer.tell(acknowledge(entry, options=(0, 1)),
                  [SDOption_IP4_Multicast(addr=group[0], port=group[1])], to=host.address)
        host.said("state RemoteGroup 1 tick on")
        self.notify(server, entry, b"\x01", TICK, "RemoteGroup")
        host.said("notification RemoteGroup 1 tick 01")
        self.notify(server, group, b"\x02", TICK, "RemoteGroup")
        host.said("notification RemoteGroup 1 tick 02")

    # Streams

    def stream_host(self, *commands, **options):
        host, peer = self.vehicle(*commands, offers="stream", service=STREAM, **options)
        return host, peer, peer.connect((host.address, STREAM_PORT))

    def subscribe_stream(self, host, peer, stream, group, ttl=ENDLESS):
        start = time.time()
        peer.tell(subscribe(STREAM, 1, group, MAJOR, ttl=ttl),
                  [endpoint(*stream.address, TCP_PROTOCOL)], to=host.address)
        return peer.entry(ACKNOWLEDGE, STREAM, group=group, after=start)

    def test_stream(self):
        host, peer, stream = self.stream_host()
        whole = b"".join(someip(STREAM, ECHO, bytes([number]) * 700 * number, session=number,
                                interface=MAJOR) for number in range(1, 6))
        for at in range(0, len(whole), 997):
            stream.send(whole[at:at + 997])
        self.network.wait(lambda: len(without_cookies(stream.messages)) == 5, "five responses")
        self.assertEqual({one.session: one.payload for one in without_cookies(stream.messages)},
                         {number: bytes([number]) * 700 * number for number in range(1, 6)})
        stream.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in someip(STREAM, ECHO, b"bytes", session=9, interface=MAJOR):
            stream.send(bytes([byte]))
            self.network.pump(0)
        self.assertEqual(stream.wait(lambda one: one.session == 9).payload, b"bytes")

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

    def test_one_connection(self):
        host, peer, stream = self.stream_host("update stream value 11", "find RemoteStream")
        for group in (TICK_GROUP, VALUE_GROUP):
            self.assertGreater(self.subscribe_stream(host, peer, stream, group).ttl, 0)
        stream.wait(lambda one: one.method == VALUE)
        self.assertEqual(peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=stream).code, 0)
        host.do("event stream tick 01")
        stream.wait(lambda one: one.method == TICK)

        server = peer.listener(SERVER_PORT)
        self.offer(peer, server)
        host.said("found RemoteStream 1")
        host.do("call RemoteStream 1 echo 01")
        host.do("subscribe RemoteStream 1 tick")
        host.do("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, group=VALUE_GROUP)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, group=TICK_GROUP)
        host.do("call RemoteStream 1 echo 02")
        self.network.wait(lambda: len(without_cookies(server.connections[0].messages)) == 2, "two requests")
        self.assertEqual(len(server.connections), 1)
        self.assertEqual(entry.endpoints, [(*server.connections[0].source, TCP_PROTOCOL)])

    def remote_stream(self, *commands):
        """The host as client of a stream service of the peer's."""
        return self.remote(*commands, service="RemoteStream")

    def test_connection_when_needed(self):
        host, peer, server = self.remote_stream()
        peer.tell(find(VEHICLE), to=host.address)
        self.network.quiet(0.05)
        self.assertEqual(server.connections, [])
        host.do("call RemoteStream 1 echo 01")
        self.network.wait(lambda: server.connections, "connection")
        host.kill()
        host, peer, server = self.remote_stream("subscribe RemoteStream 1 value")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM)
        self.network.pump(0)
        self.assertEqual([(*one.source, TCP_PROTOCOL) for one in server.connections], entry.endpoints)

    def test_lost_connection(self):
        host, peer, server = self.remote_stream("call RemoteStream 1 echo 01")
        self.network.wait(lambda: server.connections and
                          without_cookies(server.connections[0].messages), "request")
        server.connections[0].close()
        host.said("response 0x06 -")

    def test_reconnection(self):
        host, peer, server = self.remote_stream()
        self.active(host, peer, service="RemoteStream")
        start = time.time()
        server.connections[0].close()
        host.said("state RemoteStream 1 value off")
        self.network.wait(lambda: len(server.connections) == 2, "second connection")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, after=start)
        self.assertTrue(entry.initial_data)
        self.assertEqual(entry.endpoints[0][:2], server.connections[1].source)
        peer.tell(acknowledge(entry), to=host.address)
        server.connections[1].send(someip(REMOTE_STREAM, VALUE, b"\x77", type=NOTIFICATION, interface=MAJOR))
        host.said("notification RemoteStream 1 value 77")

    def test_close(self):
        for end in ("unsubscribe", "stop", "expiry"):
            with self.subTest(end):
                host, peer, server = self.remote_stream()
                self.active(host, peer, service="RemoteStream")
                if end == "unsubscribe":
                    host.do("unsubscribe RemoteStream 1 value")
                    peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
                else:
                    self.offer(peer, server, ttl=0 if end == "stop" else 1)
                self.network.wait(lambda: server.connections[0].ended, "end of the connection")
                host.kill()

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

    def test_cookies(self):
        host, peer, stream = self.stream_host()
        for session in range(1, 4):
            peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=stream, session=session)
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_SERVER)
        self.assertEqual(len(stream.messages) - len(without_cookies(stream.messages)), 1)
        host.kill()
        host, _, server = self.remote_stream("call RemoteStream 1 echo 01",
                                                "call RemoteStream 1 echo 02")
        self.network.wait(lambda: server.connections and
                          len(without_cookies(server.connections[0].messages)) == 2, "requests")
        stream = server.connections[0]
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_CLIENT)
        self.assertEqual(len(stream.messages), 3)

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

    def test_slow_reader(self):
        host, peer, stream = self.stream_host()
        self.assertGreater(self.subscribe_stream(host, peer, stream, TICK_GROUP).ttl, 0)
        self.network.unwatch(stream.socket)
        stream.ended = True  # as far as this test looks
        event = "event stream tick " + "00" * 50_000
        self.network.wait(lambda: host.do(event) or host.count("slowReaders") == 1, "end of the connection")
        other = peer.connect((host.address, STREAM_PORT))
        self.assertEqual(peer.call(None, STREAM, ECHO, b"x", interface=MAJOR, via=other).payload, b"x")

    # Several instances

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

    def test_monitors(self):
        peer = self.peer()
        peer.tell(find(MONITOR), to=self.pos.address)
        monitors = self.pos.manifest["services"]["mw::dm::dem::DiagnosticMonitor"]["instances"]
        self.network.wait(lambda: len({one.instance for one in peer.entries(OFFER, MONITOR)})
                          == len(monitors), "all monitors")
        self.assertEqual(len({one.endpoints[0] for one in peer.entries(OFFER, MONITOR)}),
                         len(monitors))


if __name__ == "__main__":
    suite.main(Wire)
