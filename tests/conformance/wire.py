"""On the wire: addresses and ports, datagrams and streams, unicast and multicast."""

import pathlib
import struct

from devices import *
from network import *
import suite

COOKIE_OF_CLIENT = bytes.fromhex("ffff0000" "00000008" "deadbeef" "01010100")
COOKIE_OF_SERVER = bytes.fromhex("ffff8000" "00000008" "deadbeef" "01010200")
COOKIES = (0xDEAD, 0xBEEF)


def without_cookies(stream):
    return [one for one in stream.messages if (one.client, one.session) != COOKIES]


def payloads(channel):
    return [one.payload for one in channel.messages]


class Wire(suite.Group):
    title = "On the wire"
    streams = True

    # Addresses and ports

    def test_client_port(self):
        peer = self.peer()
        low, high = map(int, pathlib.Path(
            "/proc/sys/net/ipv4/ip_local_port_range").read_text(encoding="ascii").split())
        server = peer.socket(SERVER_PORT + 1)
        peer.tell(offer(GNSS), [endpoint(server)])
        (address, port, _), = peer.entry(SUBSCRIBE, GNSS).endpoints
        self.assertEqual(address, self.pos.address)
        self.assertTrue(low <= port <= high, port)
        peer.tell(offer(GNSS, ttl=0), [endpoint(server)])

        host, peer, server = self.remote("call Remote 1 echo 01")
        self.assertEqual(server.wait().source, (host.address, CLIENT_PORT))

    def test_announced_port(self):
        peer = self.peer()
        host = self.host("find Remote")
        for port in (SERVER_PORT, SERVER_PORT + 1):
            server = peer.socket(port)
            since = len(host.lines)
            peer.tell(offer(REMOTE), [endpoint(server)])
            host.said("found Remote 1", since)
            host.do("call Remote 1 echo 01")
            server.wait(what=f"request to port {port}")

    # Datagrams

    def test_several_messages(self):
        host, peer = self.vehicle()
        sent = {number: bytes([number]) * number for number in range(1, 6)}
        requests = b"".join(someip(VEHICLE, ECHO, payload, session=number) for number, payload in sent.items())
        rests = [someip(VEHICLE, ECHO, b"long", session=10, length=length)
                 for length in (13, 2000, 0xFFFFFFFF, 0x80000008)] + [b"\x40\x01"]
        for rest in rests:
            peer.caller().send(requests + rest, host.at(VEHICLE))
        self.only_answered(host, peer, *[*sent] * len(rests))
        answers = {(one.session, one.payload) for one in peer.caller().messages}
        self.assertLessEqual(sent.items(), answers)
        self.assertEqual(host.count("droppedMalformed"), len(rests))

    def test_shared_subscription(self):
        host, peer, server = self.remote("subscribe Remote 1 tick a", "subscribe Remote 1 tick b")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        self.notify(server, entry, b"\x55", TICK)
        self.network.wait(lambda: host.lines.count("notification Remote 1 tick 55") == 2, "both at once")
        peer.acknowledge(entry)
        self.network.wait(lambda: host.lines.count("state Remote 1 tick on") == 2, "two states")
        self.assertEqual({one.endpoints[0] for one in peer.entries(SUBSCRIBE, REMOTE)}, {entry.endpoints[0]})

    # Unicast and multicast

    def group_host(self, last, *commands):
        """The host with its group service, two peers, and the group with that last number of its address."""
        host = self.host("offer group", *commands)
        peers = [self.peer() for _ in range(2)]
        peers[0].entry(OFFER, GROUP)
        return host, peers, peers[0].socket(group=(f"239.195.{self.network.number}.{last}", MULTICAST_PORT))

    def received(self, host, peer, *channels):
        """The payloads that have come, each when all of them are there."""
        for _ in range(2):
            peer.call(host, GROUP, ECHO)
        return [payloads(one) for one in channels]

    def test_multicast_only(self):
        host, (peer, _), group = self.group_host(1)
        events = peer.socket()
        answer = peer.subscribed(host, GROUP, TICK_GROUP, events)
        self.assertEqual(answer.endpoints, [(*group.address, UDP_PROTOCOL)])
        host.do("notify group tick 0a", "notify group tick 0b")
        self.assertEqual(group.wait(lambda one: one.payload == b"\x0b").source, host.at(GROUP))
        self.assertEqual(self.received(host, peer, group, events), [[b"\x0a", b"\x0b"], []])
        # Nobody needs to say where it listens.
        peer.ask(host, subscribe(GROUP, TICK_GROUP, ttl=0), [endpoint(events)])
        answer, = peer.ask(host, subscribe(GROUP, TICK_GROUP, options=(0, 0)))
        self.assertGreater(answer.ttl, 0)
        host.do("notify group tick 0c")
        group.wait(lambda one: one.payload == b"\x0c")

    def test_threshold(self):
        host, (first, second), group = self.group_host(2, "notify group value 01")
        one, two = first.socket(), second.socket()

        def update(value, channel, field="value"):
            host.do(f"notify group {field} {value:02x}")
            channel.wait(lambda message: message.payload == bytes([value]), f"value {value}")
        answer = first.subscribed(host, GROUP, VALUE_GROUP, one)
        self.assertEqual(answer.endpoints, [(*group.address, UDP_PROTOCOL)])
        update(2, one)
        second.subscribed(host, GROUP, VALUE_GROUP, two)
        update(3, group)
        second.ask(host, subscribe(GROUP, VALUE_GROUP, ttl=0), [endpoint(two)])
        update(4, one)
        self.assertEqual(self.received(host, first, one, two, group),
                         [[b"\x01", b"\x02", b"\x04"], [b"\x02"], [b"\x03"]])
        # A group without multicast stays with unicast.
        for peer, events in ((first, one), (second, two)):
            self.assertEqual(peer.subscribed(host, GROUP, BIG_GROUP, events).endpoints, [])
        for events in (one, two):
            update(5, events, "big")

    # Streams

    def stream_host(self, *commands, group=None):
        """The host with its stream service, and a stream that is connected and has subscribed the group."""
        host, peer = self.vehicle(*commands, offers="stream", service=STREAM)
        stream = peer.connect(host.at(STREAM))
        if group:
            self.assertGreater(peer.subscribed(host, STREAM, group, stream).ttl, 0)
        return host, peer, stream

    def remote_stream(self, *commands, **options):
        return self.remote(*commands, service="RemoteStream", **options)

    def requests(self, server, count):
        """The server's first stream when so many requests have come over it."""
        def complete():
            streams = server.connections
            return streams and len(without_cookies(streams[0])) == count and streams[0]
        return self.network.wait(complete, f"{count} requests")

    def test_stream(self):
        host, peer, stream = self.stream_host()
        sent = {number: bytes([number]) * 701 * number for number in range(1, 6)}
        whole = COOKIE_OF_CLIENT + b"".join(someip(STREAM, ECHO, payload, session=number)
                                            for number, payload in sent.items())
        for at in range(0, len(whole), 997):
            stream.send(whole[at:at + 997])
        self.network.wait(lambda: len(without_cookies(stream)) == 5, "five responses")
        self.assertEqual({one.session: one.payload for one in without_cookies(stream)}, sent)

    def test_no_delay(self):
        host, peer, stream = self.stream_host(group=TICK_GROUP)
        self.event(host, stream, value=0, of="stream")
        delays = []
        for number in range(1, 20, 2):
            # Acknowledgements of the kernel wait 40 ms when nothing is sent back.
            for value in (number, number + 1):
                stream.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
                start = time.time()
                host.do(f"notify stream tick {value:02x}")
                message = stream.wait(lambda one: one.payload == bytes([value]))
            delays.append(message.time - start)
        self.assertLess(sorted(delays)[len(delays) // 2], 0.025, delays)

    def test_one_connection(self):
        host, peer, stream = self.stream_host("notify stream value 11", "find RemoteStream", group=TICK_GROUP)
        self.assertGreater(peer.subscribed(host, STREAM, VALUE_GROUP, stream).ttl, 0)
        stream.wait(lambda one: one.method == VALUE)
        self.assertEqual(peer.call(stream, STREAM, ECHO, b"x").code, 0)
        self.event(host, stream, of="stream")
        host.do("offer first", "stop stream")
        peer.entry(OFFER, STREAM, ttl=0)
        peer.entry(OFFER, VEHICLE)
        peer.barrier(host)
        self.network.quiet(0.1)
        self.assertFalse(stream.ended, "to close it is up to the client")
        host.kill()

        host, peer, server = self.remote_stream()
        peer.barrier(host)
        self.network.quiet(0.05)
        self.assertEqual(server.connections, [], "it is not needed yet")
        host.do("subscribe RemoteStream 1 tick")
        entries = [peer.entry(SUBSCRIBE, REMOTE_STREAM)]
        self.network.pump(0)
        used, = server.connections
        host.do("call RemoteStream 1 echo 01", "subscribe RemoteStream 1 value", "call RemoteStream 1 echo 02")
        entries.append(peer.entry(SUBSCRIBE, REMOTE_STREAM, group=VALUE_GROUP))
        self.requests(server, 2)
        self.assertEqual(server.connections, [used])
        for entry in entries:
            self.assertEqual(entry.endpoints, [(*used.source, TCP_PROTOCOL)])

    def test_lost_connection(self):
        host, peer, server = self.remote_stream(requestTimeoutMs=600_000)
        self.active(host, peer, service="RemoteStream")
        host.do("call RemoteStream 1 echo 01")
        start = time.time()
        self.requests(server, 1).close()
        host.said("response 0x06 -")
        host.said("state RemoteStream 1 value off")
        self.network.wait(lambda: len(server.connections) == 2, "second connection")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, after=start)
        self.assertTrue(entry.initial_data)
        self.assertEqual(entry.endpoints[0][:2], server.connections[1].source)
        peer.acknowledge(entry)
        server.connections[1].send(someip(REMOTE_STREAM, VALUE, b"\x77", type=NOTIFICATION))
        host.said("notification RemoteStream 1 value 77")

    def test_close(self):
        for end in ("unsubscribe", "stop", "expiry"):
            host, peer, server = self.remote_stream()
            self.active(host, peer, service="RemoteStream")
            if end == "unsubscribe":
                host.do("unsubscribe RemoteStream 1 value")
                peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
            else:
                self.offer(peer, server, ttl=0 if end == "stop" else 1)
            self.network.wait(lambda: server.connections[0].ended, f"end of the connection by {end}")
            self.doCleanups()

    def test_cookies(self):
        host, peer, stream = self.stream_host()
        for _ in range(3):
            peer.call(stream, STREAM, ECHO, b"x")
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_SERVER)
        self.assertEqual(len(stream.messages), 4)
        host.kill()
        host, _, server = self.remote_stream("call RemoteStream 1 echo 01", "call RemoteStream 1 echo 02")
        stream = self.requests(server, 2)
        self.assertEqual(stream.pieces[0][1][:16], COOKIE_OF_CLIENT)
        self.assertEqual(len(stream.messages), 3)

    def test_broken_subscription(self):
        host, peer, stream = self.stream_host(group=TICK_GROUP)
        self.event(host, stream, of="stream")
        lost = host.count("tcpLost")
        stream.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # a reset frees its port
        _, port = stream.address
        stream.close()
        peer.parts.remove(stream)
        self.network.wait(lambda: host.count("tcpLost") > lost, "loss of the connection")
        again = peer.connect(host.at(STREAM), port)
        host.do("notify stream tick 02")
        for _ in range(2):
            peer.call(again, STREAM, ECHO, b"x")
        self.assertEqual([one for one in again.messages if one.method == TICK], [])
        self.assertGreater(peer.subscribed(host, STREAM, TICK_GROUP, again).ttl, 0)
        self.event(host, again, value=3, of="stream")

    def test_slow_reader(self):
        host, peer, stream = self.stream_host(group=TICK_GROUP)
        events = ["notify stream tick " + "00" * 50_000] * 20
        with stream.unwatched():
            self.network.wait(lambda: host.do(*events) or host.count("slowReaders") == 1, "end of the connection", 60)
            other = peer.connect(host.at(STREAM))
            self.assertEqual(peer.call(other, STREAM, ECHO, b"x").payload, b"x")


if __name__ == "__main__":
    suite.main(Wire)
