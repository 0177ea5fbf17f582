"""Discovery behaviour on the wire: subscribing, restarts, the end, the loss of the link. What depends on time
alone is in tests/someip/discovery_test.cpp."""

import contextlib
import ctypes
import os
import subprocess

from scapy.layers.inet import ICMP

from devices import *
from network import *
import suite

CLONE_NEWNET = 0x40000000


class DiscoveryBehaviour(suite.Group):
    title = "Discovery behaviour"
    streams = True
    application = False

    # Subscribing, as client

    def test_connection_stays(self):
        host, peer, server = self.remote("subscribe RemoteStream 1 value", service="RemoteStream")
        for number in (1, 2):
            peer.entry(SUBSCRIBE, REMOTE_STREAM, count=number)
            self.offer(peer, server)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, count=4)
        self.assertEqual([one.ended for one in server.connections], [False])

    def test_refused_stream(self):
        host, peer, server = self.remote("subscribe RemoteStream 1 value", service="RemoteStream")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM)
        stream = self.network.wait(lambda: server.connections and server.connections[0], "connection")
        known = len(stream.messages)
        peer.acknowledge(entry, ttl=0)
        self.network.wait(lambda: len(stream.messages) > known or len(server.connections) > 1,
                          "check of the connection")

    def test_port_open(self):
        host, peer, server = self.remote("subscribe Remote 1 tick")
        entry = peer.entry(SUBSCRIBE, REMOTE)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind((peer.address, 0))
            probe.connect(entry.endpoints[0][:2])
            probe.send(someip(REMOTE, TICK, type=NOTIFICATION))
            probe.send(b"")  # fails when the first one was refused
        self.reaches(host, server, entry, 1, TICK)

    def test_stop_offer_at_client(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        self.reaches(host, server, entry, 1)
        peer.entry(FIND, REMOTE)
        start = time.time()
        self.offer(peer, server, ttl=0)
        host.said("state Remote 1 value off")
        self.network.quiet(0.25)
        self.assertEqual([one for one in peer.entries(service=REMOTE) if one.time > start], [])
        peer.barrier(host)
        host.do("call Remote 1 echo 01")
        self.assertEqual(host.said("response"), "response 0x05 -")
        unexpected = host.count("droppedUnexpected")
        self.notify(server, entry, b"\x02")
        self.network.wait(lambda: host.count("droppedUnexpected") > unexpected, "drop")
        again, = self.renewed(peer, server)
        self.assertTrue(again.initial_data)
        peer.acknowledge(again)
        self.reaches(host, server, entry, 3)
        self.assertNotIn("notification Remote 1 value 02", host.lines)

    # Subscribing, as server

    def test_initial_value(self):
        host, first = self.vehicle("update first value 0a")
        second = self.peer()
        known = self.subscription(host, first)
        known.wait(lambda one: one.payload == b"\x0a")
        events = self.subscription(host, second)
        value = events.wait(lambda one: one.payload == b"\x0a")
        self.assertLess(second.entries(ACKNOWLEDGE)[0].time, value.time)
        host.do("event first tick 01")
        ticks = self.subscription(host, second, TICK_GROUP)
        self.settled(host, second)
        self.assertEqual([len(channel.messages) for channel in (known, events, ticks)], [1, 1, 0])

    def test_in_force_at_once(self):
        host, peer = self.vehicle()
        kept, events = self.subscription(host, self.peer(), TICK_GROUP), peer.socket()
        for round in range(40):
            start, since = time.time(), len(events.messages)
            peer.tell(subscribe(VEHICLE, TICK_GROUP), [endpoint(events)], host)
            peer.entry(ACKNOWLEDGE, VEHICLE, after=start)
            host.do(f"event first tick {round:02x}")
            self.settled(host, peer)
            start = time.time()
            peer.tell([subscribe(VEHICLE, TICK_GROUP, ttl=0), find(VEHICLE)], [endpoint(events)], host)
            peer.entry(OFFER, VEHICLE, after=start, multicast=False)
            host.do("event first tick ff")
            self.settled(host, peer)
            self.assertEqual([one.payload for one in events.messages[since:]], [bytes([round])])
        self.assertEqual(len(kept.messages), 2 * 40)

    def test_counters(self):
        host, peer = self.vehicle("update first value 0a")
        events = peer.socket()
        for counter in (0, 1, 15):
            peer.subscribed(host, VEHICLE, VALUE_GROUP, events, counter=counter)
        self.network.wait(lambda: len(events.messages) == 3, "an initial value for each")
        host.do("update first value 0b")
        self.settled(host, peer)
        self.assertEqual([one.payload for one in events.messages], [b"\x0a"] * 3 + [b"\x0b"])

    def test_stop_offer_at_server(self):
        host, peer = self.vehicle("update first value 01")
        events = self.subscription(host, peer)
        events.wait()
        host.do("stop first")
        peer.entry(OFFER, VEHICLE, ttl=0)
        self.assertEqual(peer.call(host, VEHICLE, ECHO).code, 0x02)
        self.assertEqual(peer.subscribed(host, VEHICLE, TICK_GROUP, peer.caller()).ttl, 0)
        host.do("update first value 02")
        start = time.time()
        host.do("offer first")
        peer.entry(OFFER, VEHICLE, after=start, ttl=2)
        host.do("update first value 03")
        self.settled(host, peer)
        self.assertEqual([one.payload for one in events.messages], [b"\x01"])
        self.assertEqual(self.subscription(host, peer).wait().payload, b"\x03")

    def test_unreachable_subscriber(self):
        host, peer = self.vehicle()
        events = self.subscription(host, peer, TICK_GROUP)
        port = events.port
        events.close()
        peer.parts.remove(events)
        for value in range(3):
            host.do(f"event first tick {value:02x}")
            self.settled(host, peer)
        again = peer.socket(port)
        host.do("event first tick 09")
        self.settled(host, peer)
        self.assertEqual(again.messages, [])
        self.assertEqual(host.count("subscriptionsClosed"), 1)

    def test_forged_unreachability(self):
        host, peer = self.vehicle()
        events = self.subscription(host, peer, TICK_GROUP)
        host.do("event first tick 00")
        event = events.wait(lambda one: one.method == TICK)
        answer = peer.call(host, VEHICLE, ECHO)

        def closed(quote, port=events.port, says=peer.address, code=3):
            """How many subscriptions it has cost that `says` calls a port closed."""
            returned = IP(src=host.address, dst=peer.address) / UDP(sport=VEHICLE_PORT, dport=port) / quote
            with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as icmp:
                icmp.bind((says, 0))
                icmp.sendto(bytes(ICMP(type=3, code=code) / returned), (host.address, 0))
            self.settled(host, peer)
            host.do("event first tick 01")
            self.settled(host, peer)
            return host.count("subscriptionsClosed")
        try:
            self.assertEqual(closed(event.raw, says=self.network.address(9, 99)), 0)
        except PermissionError:
            self.skipTest("needs the right to make raw sockets")
        self.assertEqual(closed(event.raw, port=events.port + 1), 0)
        self.assertEqual(closed(answer.raw), 0)
        self.assertEqual(closed(b""), 0)
        self.assertEqual(closed(event.raw, code=1), 0)  # the host cannot be reached
        self.assertEqual(len(events.messages), 6)
        self.assertEqual(closed(event.raw), 1)
        self.assertEqual(len(events.messages), 6)

    # Restarts of peers

    def test_restart_of_server(self):
        for channel in ("multicast", "unicast"):
            host, peer, server = self.remote()
            self.reaches(host, server, self.active(host, peer), 1)
            renewal, = self.renewed(peer, server, host)
            peer.acknowledge(renewal)
            since = len(host.lines)
            peer.restart()
            again, = self.renewed(peer, server, host if channel == "unicast" else None)
            self.assertEqual((again.initial_data, again.ttl), (True, 2), channel)
            host.said("state Remote 1 value off", since)
            peer.acknowledge(again)
            host.said("state Remote 1 value on", since)
            self.doCleanups()

    def test_connections_of_restarted_peer(self):
        host, peer, server = self.remote("subscribe RemoteStream 1 value", "offer stream", service="RemoteStream")
        peer.entry(OFFER, STREAM)
        stream = peer.connect(host.at(STREAM))
        peer.call(stream, STREAM, ECHO, b"x")
        peer.ask(host, find(STREAM))
        peer.entry(SUBSCRIBE, REMOTE_STREAM)
        self.assertEqual(len(server.connections), 1)

        start = time.time()
        peer.restart()
        self.offer(peer, server)
        self.network.wait(lambda: stream.ended, "end of the old connection")
        self.network.wait(lambda: len(server.connections) == 2, "new connection")
        self.network.wait(lambda: server.connections[0].ended, "end of the old connection")
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, after=start)
        self.assertEqual(entry.endpoints[0][:2], server.connections[1].source)

    # The end

    def test_shutdown(self):
        peer = self.peer()
        application = Application(self.network, self.desk)
        self.addCleanup(application.kill)
        application.running(peer)
        peer.tell(offer(GNSS), [endpoint(peer.caller())])
        for group in (1, 2, 3):
            peer.acknowledge(peer.entry(SUBSCRIBE, GNSS, group=group))
        application.stop()
        stopped = {(one.service, one.instance) for one in peer.entries(OFFER, ttl=0)}
        self.assertEqual(stopped, application.provided)
        self.assertEqual({one.group for one in peer.entries(SUBSCRIBE, GNSS, ttl=0)}, {1, 2, 3})

    def test_shutdown_of_host(self):
        host, peer, server = self.remote("offer first", "offer stream")
        self.active(host, peer)
        peer.entry(OFFER, STREAM)
        host.stop()
        for type, service in ((OFFER, VEHICLE), (OFFER, STREAM), (SUBSCRIBE, REMOTE)):
            peer.entry(type, service, ttl=0)

    # Loss of the link

    @contextlib.contextmanager
    def machine(self):
        """A machine of its own (a network namespace) for everything that is opened meanwhile, whose
        only interface can be pulled out."""
        libc = ctypes.CDLL(None, use_errno=True)
        before = os.open("/proc/self/ns/net", os.O_RDONLY)
        if libc.unshare(CLONE_NEWNET) != 0:
            os.close(before)
            self.skipTest("needs the right to make network namespaces")
        outside = self.network

        def link(state):
            subprocess.run(["ip", "link", "set", "lo", state], check=True)
        try:
            link("up")
            self.__class__.network = Network()
            yield link
        finally:
            self.doCleanups()
            self.network.close()
            self.__class__.network = outside
            libc.setns(before, CLONE_NEWNET)
            os.close(before)

    def test_link(self):
        with self.machine() as link:
            host, peer, server = self.remote("offer first", "offer stream", cyclicOfferDelayMs=3000, offerTtlS=4, subscribeTtlS=4)
            self.active(host, peer)
            peer.entry(OFFER, STREAM)
            events = self.subscription(host, peer, TICK_GROUP)
            stream = peer.connect(host.at(STREAM))
            peer.call(stream, STREAM, ECHO)
            self.event(host, events)
            peer.entry(OFFER, VEHICLE, count=3)
            link("down")
            host.do("event first tick 02")
            start = time.time()
            link("up")
            for type, service in ((FIND, REMOTE), (OFFER, VEHICLE)):
                peer.entry(type, service, after=start, count=2, seconds=1.5)
            host.do("event first tick 03")
            self.settled(host, peer)
            self.assertEqual([one.payload for one in events.messages], [b"\x01"])
            self.network.wait(lambda: stream.ended, "end of the connection")
            entry, = self.renewed(peer, server)
            self.assertTrue(entry.initial_data)
            peer.acknowledge(entry)
            self.reaches(host, server, entry, 66)


if __name__ == "__main__":
    suite.main(DiscoveryBehaviour)
