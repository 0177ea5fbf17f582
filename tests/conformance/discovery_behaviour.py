"""Discovery behaviour on the wire: subscribing, restarts, the end, the loss of the link. What depends on time
alone is in tests/someip/discovery_*_test.cpp."""

import ctypes
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

    @classmethod
    def setUpClass(cls):
        """On a machine of its own (a network namespace), whose only interface can be pulled out."""
        cls.alone = ctypes.CDLL(None).unshare(CLONE_NEWNET) == 0
        if cls.alone:
            cls.link("up")
        super().setUpClass()

    # Subscribing, as client

    def test_connection_stays(self):
        host, peer, server = self.remote("call RemoteStream 1 echo 01", "subscribe RemoteStream 1 value",
                                         service="RemoteStream")
        for number in (1, 2):
            peer.entry(SUBSCRIBE, REMOTE_STREAM, count=number)
            self.offer(peer, server)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
        entry = peer.entry(SUBSCRIBE, REMOTE_STREAM, count=4)
        self.assertEqual([one.ended for one in server.connections], [False])
        stream, = server.connections
        self.network.wait(lambda: len(stream.messages) == 2, "a cookie and the call")
        peer.acknowledge(entry, ttl=0)
        self.network.wait(lambda: len(stream.messages) > 2, "check of the connection")

    def test_stop_offer_at_client(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        self.offer(peer, server, ttl=0)
        host.said("state Remote 1 value off")
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

    def test_in_force_at_once(self):
        host, peer = self.vehicle()
        kept, events = self.subscription(host, self.peer(), TICK_GROUP), peer.socket()
        for round in range(40):
            start, since = time.time(), len(events.messages)
            peer.tell(subscribe(VEHICLE, TICK_GROUP), [endpoint(events)], host)
            peer.entry(ACKNOWLEDGE, VEHICLE, after=start)
            host.do(f"notify first tick {round:02x}")
            self.settled(host, peer)
            start = time.time()
            peer.tell([subscribe(VEHICLE, TICK_GROUP, ttl=0), find(VEHICLE)], [endpoint(events)], host)
            peer.entry(OFFER, VEHICLE, after=start, multicast=False)
            host.do("notify first tick ff")
            self.settled(host, peer)
            self.assertEqual([one.payload for one in events.messages[since:]], [bytes([round])])
        self.assertEqual(len(kept.messages), 2 * 40)

    def test_closed_port(self):
        host, peer = self.vehicle()
        events = self.subscription(host, peer, TICK_GROUP)
        self.event(host, events)
        event, answer = events.messages[0].raw, peer.call(host, VEHICLE, ECHO).raw

        def closed():
            """How many subscriptions the next event costs."""
            for _ in range(2):
                host.do("notify first tick 02")
                self.settled(host, peer)
            return host.count("subscriptionsClosed")
        may_forge = True
        for says, code, port, quote in (
                (self.network.address(9, 99), 3, events.port, event), (peer.address, 3, events.port + 1, event),
                (peer.address, 3, events.port, answer), (peer.address, 3, events.port, b""),
                (peer.address, 1, events.port, event)):  # the host cannot be reached
            returned = IP(src=host.address, dst=peer.address) / UDP(sport=VEHICLE_PORT, dport=port) / quote
            try:
                with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as icmp:
                    icmp.bind((says, 0))
                    icmp.sendto(bytes(ICMP(type=3, code=code) / returned), (host.address, 0))
            except PermissionError:
                may_forge = False
            self.assertEqual(closed(), 0)
        self.assertEqual(len(events.messages), 1 + 5 * 2)
        events.close()
        peer.parts.remove(events)
        self.assertEqual(closed(), 1)
        again = peer.socket(events.port)
        self.assertEqual((closed(), again.messages), (1, []))
        if not may_forge:
            self.skipTest("forged reports need raw sockets; true ones were believed")

    # Restarts of peers

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

    # Loss of the link

    @staticmethod
    def link(state):
        subprocess.run(["ip", "link", "set", "lo", state], check=True)

    def test_link(self):
        if not self.alone:
            self.skipTest("needs the right to make network namespaces")
        host, peer, server = self.remote("offer first", "offer stream", cyclicOfferDelayMs=3000, offerTtlS=4,
                                         subscribeTtlS=4)
        self.active(host, peer)
        peer.entry(OFFER, STREAM)
        events = self.subscription(host, peer, TICK_GROUP)
        stream = peer.connect(host.at(STREAM))
        peer.call(stream, STREAM, ECHO)
        self.event(host, events)
        peer.entry(OFFER, VEHICLE, count=3)
        self.link("down")
        start = time.time()
        self.link("up")
        for type, service in ((FIND, REMOTE), (OFFER, VEHICLE)):
            peer.entry(type, service, after=start, count=2, seconds=1.5)
        host.do("notify first tick 03")
        self.settled(host, peer)
        self.assertEqual([one.payload for one in events.messages], [b"\x01"])
        self.network.wait(lambda: stream.ended, "end of the connection")
        entry, = self.renewed(peer, server)
        self.assertTrue(entry.initial_data)
        peer.acknowledge(entry)
        self.reaches(host, server, entry, 66)


if __name__ == "__main__":
    suite.main(DiscoveryBehaviour)
