"""Discovery behaviour: phases and delays, searching, subscribing, times to live, restarts, the end."""

import contextlib
import ctypes
import os
import subprocess

from scapy.layers.inet import ICMP

from devices import *
from network import *
import suite
from suite import in_time

# Upper bounds of delays allow for a machine that does other things as well.
EARLY, LATE = 8.0, 40.0  # milliseconds
CLONE_NEWNET = 0x40000000


class DiscoveryBehaviour(suite.Group):
    title = "Discovery behaviour"
    streams = True
    base = 100
    application = False

    def lasts(self, delays, *expected):
        """The delays, in milliseconds, are those expected: a number or (lowest, highest) each."""
        for number, (delay, wanted) in enumerate(zip(delays, expected, strict=True)):
            low, high = wanted if isinstance(wanted, tuple) else (wanted, wanted)
            self.assertTrue(low - EARLY <= delay <= high + LATE, f"{number}: {delays}, {expected}")

    # Phases

    @in_time
    def test_phases(self):
        for command, type, base, repetitions, cyclic, delays, ends in (
                ("offer first", OFFER, 50, 3, 250, (50, 100, 200, 250, 250), False),
                ("offer first", OFFER, 50, 0, 120, (120, 120), False),
                ("offer first", OFFER, 50, 1, 0, (50,), True),
                ("find Remote", FIND, 40, 3, 100, (40, 80, 160), True)):
            peer = self.peer()
            host = self.host(initialDelayMinMs=60, initialDelayMaxMs=90, repetitionsBaseDelayMs=base,
                             repetitionsMax=repetitions, cyclicOfferDelayMs=cyclic)
            start = time.time()
            host.do(command)
            peer.entry(type, count=len(delays) + 1)
            self.network.quiet(0.4 if ends else 0)
            entries = peer.entries(type)[:None if ends else len(delays) + 1]
            self.assertEqual({one.multicast for one in entries}, {True})
            self.lasts([(entries[0].time - start) * 1000, *milliseconds(entries)], (60, 90), *delays)
            self.doCleanups()

    @in_time
    def test_random_initial_delay(self):
        peer = self.peer()
        host = self.host(initialDelayMinMs=10, initialDelayMaxMs=110)
        delays = []
        for _ in range(8):
            start = time.time()
            host.do("offer first")
            delays.append((peer.entry(OFFER, VEHICLE, ttl=2, after=start).time - start) * 1000)
            host.do("stop first")
            peer.entry(OFFER, VEHICLE, ttl=0, after=start)
        self.lasts(delays, *[(10, 110)] * 8)
        self.assertGreater(max(delays) - min(delays), 15, delays)

    def test_packed(self):
        peer = self.peer()
        self.host("offer first", "offer second", "offer stream", "find Remote",
                  initialDelayMinMs=60, initialDelayMaxMs=90)
        peer.entry(FIND, REMOTE, count=2)
        for _, sd in peer.multicast.discovery[:2]:
            self.assertEqual(sorted((one.type, one.srv_id, one.inst_id) for one in sd.entry_array),
                             [(FIND, REMOTE, ANY_INSTANCE), (OFFER, VEHICLE, 1), (OFFER, VEHICLE, 2),
                              (OFFER, STREAM, 1)])

    def test_one_answer(self):
        host, peer = self.vehicle()
        groups = (TICK_GROUP, 0x66, VALUE_GROUP, BIG_GROUP)
        answers = peer.ask(host, [subscribe(VEHICLE, group) for group in groups], [endpoint(peer.caller())])
        self.assertEqual([(one.group, one.ttl) for one in answers],
                         [(group, 0 if group == 0x66 else ENDLESS) for group in groups])
        self.assertEqual(len({one.message for one in answers}), 1)

    def test_one_request(self):
        host, peer, server = self.remote("subscribe Remote 1 value", "subscribe Remote 1 tick")
        peer.entry(SUBSCRIBE, REMOTE, group=TICK_GROUP)
        self.assertEqual({one.group for one in self.renewed(peer, server)}, {TICK_GROUP, VALUE_GROUP})

    def test_end_of_search(self):
        peer = self.peer()
        host = self.host("find Remote", "find RemoteGroup", repetitionsBaseDelayMs=30, repetitionsMax=6)
        peer.entry(FIND, REMOTE)
        peer.tell(offer(REMOTE), [endpoint(peer.caller())])
        host.said("found Remote 1")
        peer.barrier(host)
        sent = len(peer.entries(FIND, REMOTE))
        # The other search, which began with it, goes on.
        peer.entry(FIND, REMOTE_GROUP, count=7)
        self.assertEqual(len(peer.entries(FIND, REMOTE)), sent)
        self.assertLess(sent, 7)

    def test_one_find_at_least(self):
        host, peer = self.vehicle()
        peer.tell(offer(REMOTE), [endpoint(peer.caller())])
        peer.barrier(host)
        host.do("find Remote")
        peer.entry(FIND, REMOTE)
        host.said("found Remote 1")

    # Delays of answers

    DELAYED = {"requestResponseDelayMinMs": 100, "requestResponseDelayMaxMs": 180}

    def delay(self, peer, type, service, tell, **fields):
        """Milliseconds until the entry comes that answers what is told."""
        start = time.time()
        tell()
        return (peer.entry(type, service, after=start, **fields).time - start) * 1000

    @in_time
    def test_delays_of_answers(self):
        host, peer = self.vehicle(**self.DELAYED, cyclicOfferDelayMs=0)
        peer.entry(OFFER, VEHICLE, count=3)
        delays = [self.delay(peer, OFFER, VEHICLE, lambda: peer.tell(find(VEHICLE), flags=flags), multicast=multicast)
                  for flags, multicast in ((REBOOT | UNICAST, False), (REBOOT, True)) for _ in range(4)]
        self.lasts(delays, *[(100, 180)] * 8)
        self.assertGreater(max(delays) - min(delays), 8, delays)
        self.assertEqual(len(peer.entries(OFFER, VEHICLE)), 3 + 8)
        for type, entry in ((OFFER, find(VEHICLE)), (ACKNOWLEDGE, subscribe(VEHICLE, TICK_GROUP))):
            options = [endpoint(peer.caller())]
            delay = self.delay(peer, type, VEHICLE, lambda: peer.tell(entry, options, host), multicast=False)
            self.assertLess(delay, 60)

    @in_time
    def test_delays_of_subscriptions(self):
        for lowest, highest in ((100, 180), (0, 0)):
            host, peer, server = self.remote("subscribe Remote 1 value", requestResponseDelayMinMs=lowest,
                                             requestResponseDelayMaxMs=highest)
            peer.entry(SUBSCRIBE, REMOTE)
            for to, expected in ((None, (lowest, highest)), (host, 0)):
                delay = self.delay(peer, SUBSCRIBE, REMOTE, lambda: self.offer(peer, server, to), ttl=2)
                self.lasts([delay], expected)
            self.doCleanups()

    def test_find_in_initial_wait(self):
        peer = self.peer()
        host = self.host("offer first", initialDelayMinMs=150, initialDelayMaxMs=150)
        peer.tell(find(VEHICLE), to=host)
        peer.tell(find(VEHICLE))
        self.assertTrue(peer.entry(OFFER, VEHICLE).multicast)

    # Subscribing, as client

    def test_renewals(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        self.assertTrue(entry.initial_data)
        self.reaches(host, server, entry, 1)
        for _ in range(3):
            renewal, = self.renewed(peer, server)
            self.assertFalse(renewal.initial_data)
            peer.acknowledge(renewal)
        self.network.quiet(0.3)
        self.assertEqual(len(peer.entries(SUBSCRIBE, REMOTE)), 4)
        host.do("unsubscribe Remote 1 value")
        peer.entry(SUBSCRIBE, REMOTE, ttl=0)
        self.offer(peer, server)
        self.network.quiet(0.05)
        self.assertEqual(len(peer.entries(SUBSCRIBE, REMOTE)), 5)

    def test_missing_acknowledgement(self):
        for flags, expected in ((REBOOT | UNICAST, [(0, True), (2, True)]),
                                (REBOOT | UNICAST | EXPLICIT, [(2, True)])):
            host, peer, server = self.remote("subscribe Remote 1 value", flags=flags)
            peer.entry(SUBSCRIBE, REMOTE)
            self.renewed(peer, server)
            self.assertEqual([(one.ttl, one.initial_data) for one in self.renewed(peer, server)], expected)
            self.doCleanups()

    def test_unwatched(self):
        host, peer, server = self.remote("subscribe Remote 1 value")
        peer.entry(SUBSCRIBE, REMOTE)
        for to in (host, host, host, None):
            self.assertEqual([one.ttl for one in self.renewed(peer, server, to)], [2])

    def test_connection_stays(self):
        host, peer, server = self.remote("subscribe RemoteStream 1 value", service="RemoteStream")
        for number in (1, 2):
            peer.entry(SUBSCRIBE, REMOTE_STREAM, count=number)
            self.offer(peer, server)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, ttl=0)
        peer.entry(SUBSCRIBE, REMOTE_STREAM, count=4)
        self.assertEqual([one.ended for one in server.connections], [False])

    def test_missing_initial_value(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer)
        stop, again = self.renewed(peer, server)
        self.assertEqual((stop.ttl, again.ttl, again.initial_data), (0, 2, True))
        peer.acknowledge(again)
        self.reaches(host, server, entry, 1)
        self.assertEqual([one.ttl for one in self.renewed(peer, server)], [2])

    def test_refused(self):
        host, peer, server = self.remote()
        self.reaches(host, server, self.active(host, peer), 1)
        renewal, = self.renewed(peer, server)
        peer.acknowledge(renewal, ttl=0)
        host.said("state Remote 1 value off")
        since = len(host.lines)
        again, = self.renewed(peer, server)
        self.assertTrue(again.initial_data)
        peer.acknowledge(again)
        host.said("state Remote 1 value on", since)

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

    def test_renewal_at_server(self):
        host, peer = self.vehicle("update first value 0a")
        events = peer.socket()
        for number in range(3):
            peer.subscribed(host, VEHICLE, VALUE_GROUP, events, initial=number == 0)
        self.settled(host, peer)
        self.assertEqual(len(events.messages), 1)
        peer.tell([subscribe(VEHICLE, VALUE_GROUP, ttl=ttl) for ttl in (0, ENDLESS)], [endpoint(events)], host)
        self.network.wait(lambda: len(events.messages) == 2, "second initial value")
        self.settled(host, peer)
        self.assertEqual(len(events.messages), 2)

    def test_counters(self):
        host, peer = self.vehicle("update first value 0a")
        events = peer.socket()
        for counter in (0, 1, 15):
            peer.subscribed(host, VEHICLE, VALUE_GROUP, events, counter=counter)
        self.network.wait(lambda: len(events.messages) == 3, "an initial value for each")
        host.do("update first value 0b")
        self.settled(host, peer)
        self.assertEqual([one.payload for one in events.messages], [b"\x0a"] * 3 + [b"\x0b"])

    def test_time_to_live_of_subscriptions(self):
        host, peer = self.vehicle(cyclicOfferDelayMs=0)
        renewed = self.subscription(host, peer, TICK_GROUP, ttl=2)
        peer.subscribed(host, VEHICLE, TICK_GROUP, renewed, ttl=60)
        ending, endless = (self.subscription(host, peer, TICK_GROUP, ttl=ttl) for ttl in (2, ENDLESS))
        self.network.wait(lambda: host.count("subscriptionsExpired"), "end of a subscription")
        self.event(host, renewed, endless)
        self.settled(host, peer)
        self.assertEqual(ending.messages, [])

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

        def closed(quote, port=events.port, says=peer.address):
            """How many subscriptions it has cost that `says` calls a port closed."""
            returned = IP(src=host.address, dst=peer.address) / UDP(sport=VEHICLE_PORT, dport=port) / quote
            with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as icmp:
                icmp.bind((says, 0))
                icmp.sendto(bytes(ICMP(type=3, code=3) / returned), (host.address, 0))
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
        self.assertEqual(len(events.messages), 5)
        self.assertEqual(closed(event.raw), 1)
        self.assertEqual(len(events.messages), 5)

    # Times to live of offers

    def test_time_to_live_of_offers(self):
        host, peer, server = self.remote(ttl=1)
        other = self.peer()
        other.tell(offer(REMOTE, 2), [endpoint(other.caller())])
        host.said("found Remote 1 2")
        self.network.quiet(0.6)
        self.offer(peer, server, ttl=1)
        renewed = time.time()
        self.assertEqual(host.said("found Remote", len(host.lines)), "found Remote 2")
        self.assertGreater(time.time() - renewed, 0.95)
        # Another instance satisfies the search for any.
        other.tell(offer(REMOTE, 2, ttl=1), [endpoint(other.caller())])
        start = time.time()
        self.assertEqual(host.said("found Remote", len(host.lines)), "found Remote")
        peer.entry(FIND, REMOTE, after=start)

    # Restarts of peers

    def contacts(self, host, steps):
        """Subscribes as a new peer in the first step and searches in the others; a step is (flags, session,
        channel). Returns what comes of an event then."""
        peer = self.peer()
        events = peer.socket()
        for number, (flags, session, channel) in enumerate(steps):
            start = time.time()
            peer.tell(find(VEHICLE) if number else subscribe(VEHICLE, TICK_GROUP), [endpoint(events)],
                      host if channel == "unicast" else None, session=session, flags=flags | UNICAST)
            peer.entry(OFFER if number else ACKNOWLEDGE, VEHICLE, after=start, multicast=False)
        peer.sessions[host.address] = session
        host.do("event first tick 01")
        peer.call(host, *host.ping)
        return [one.payload for one in events.messages]

    def test_restart_of_client(self):
        host, _ = self.vehicle()
        for events, *steps in (
                ([], (REBOOT, 5, "unicast"), (REBOOT, 1, "unicast")),
                ([], (REBOOT, 5, "unicast"), (REBOOT, 5, "unicast")),
                ([], (REBOOT, 0xFFFF, "unicast"), (REBOOT, 0xFFFE, "unicast")),
                ([], (0, 5, "unicast"), (REBOOT, 6, "unicast")),
                ([b"\x01"], (REBOOT, 1, "unicast"), (REBOOT, 2000, "unicast"), (REBOOT, 0xFFFF, "unicast")),
                ([b"\x01"], (REBOOT, 0xFFFF, "unicast"), (0, 1, "unicast"), (0, 2, "unicast"), (0, 1, "unicast")),
                ([b"\x01"], (REBOOT, 100, "unicast"), (REBOOT, 1, "multicast"), (REBOOT, 101, "unicast"),
                 (REBOOT, 2, "multicast"))):
            self.assertEqual(self.contacts(host, steps), events, steps)

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

    def test_restart_without_offer(self):
        host, peer, server = self.remote()
        self.offer(peer, server)
        since = len(host.lines)
        peer.restart()
        peer.tell(find(UNKNOWN))
        self.assertEqual(host.said("found Remote", since), "found Remote")

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
            self.__class__.network = Network(self.base)
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

    # What the standard leaves open

    def test_second_provider(self):
        host, peer, server = self.remote()
        self.active(host, peer)
        other = self.peer()
        other.tell(offer(REMOTE), [endpoint(other.caller())])
        self.network.wait(lambda: host.count("refusedInstances") == 1, "refusal")
        self.assertEqual(other.entries(SUBSCRIBE, REMOTE), [])
        self.offer(peer, server, ttl=0)
        host.said("state Remote 1 value off")
        other.tell(offer(REMOTE), [endpoint(other.caller())])
        other.entry(SUBSCRIBE, REMOTE)

    def test_bounds(self):
        host, peer, server = self.remote(limits={"remoteInstances": 2, "discoveryPeers": 3})
        peer.tell([offer(REMOTE, instance) for instance in range(2, 6)], [endpoint(server)])
        host.said("found Remote 1 2")
        self.network.wait(lambda: host.count("refusedInstances") == 3, "refusals")
        for _ in range(4):
            self.peer(listen=False).tell(find(VEHICLE), to=host)
        self.network.wait(lambda: host.count("refusedPeers") == 2, "refusals")
        self.active(host, peer)

    def test_never_acknowledged_again(self):
        host, peer, _ = self.remote(subscribeTtlS=1)
        self.active(host, peer)
        host.said("state Remote 1 value off")


if __name__ == "__main__":
    suite.main(DiscoveryBehaviour)
