"""The SOME/IP runtime against packets made by scapy: as its client, as its provider, and as an attacker."""

import json
import os
import socket
import tempfile
import unittest

import someip_peer as peer
from someip_peer import ACK, FIND, OFFER, SOMEIP, SUBSCRIBE, TCP, wait_for

NET = "127.42.0."
APPLICATION, OWN, THIRD = NET + "1", NET + "9", NET + "10"
GROUP = "239.255.42.1"
SERVICE, INSTANCE, PORT = 0x1111, 1, 31001
STREAM, STREAM_PORT = 0x2222, 31003
VALUE, BIG, TICK = 0x8002, 0x8003, 0x8001
TICKS, VALUES, BIGS = 1, 2, 3  # event groups


def elements(transport):
    return {
        "methods": {"echo": {"id": 1, "transport": transport},
                    "poke": {"id": 2, "transport": transport, "fireAndForget": True}},
        "events": {"tick": {"id": TICK, "eventGroup": TICKS, "transport": transport}},
        "fields": {"value": {"getter": 3, "notifier": VALUE, "eventGroup": VALUES, "transport": transport},
                   "big": {"getter": 5, "notifier": BIG, "eventGroup": BIGS, "transport": transport}}}


def manifest(**limits):
    return {
        "nodes": {"application": {"address": APPLICATION, "clientId": 7, "requestTimeoutMs": 300}},
        "serviceDiscovery": {
            "multicastAddress": GROUP, "initialDelayMinMs": 1, "initialDelayMaxMs": 5,
            "repetitionsBaseDelayMs": 10, "repetitionsMax": 3, "cyclicOfferDelayMs": 200,
            "requestResponseDelayMinMs": 0, "requestResponseDelayMaxMs": 5, "offerTtlS": 1,
            "subscribeTtlS": 1},
        "limits": limits,
        "services": {
            "test::Service": {"id": SERVICE, "majorVersion": 1, "minorVersion": 2, **elements("udp"),
                              "instances": [{"id": INSTANCE, "specifier": "first", "node": "application",
                                             "udpPort": PORT}]},
            "test::Stream": {"id": STREAM, "majorVersion": 1, "minorVersion": 0, **elements("tcp"),
                             "instances": [{"id": 1, "specifier": "stream", "node": "application",
                                            "tcpPort": STREAM_PORT}]}}}


class Network(unittest.TestCase):
    limits = {}

    def setUp(self):
        file = tempfile.NamedTemporaryFile("w", suffix=".json", delete=False)
        with file:
            json.dump(manifest(**self.limits), file)
        self.addCleanup(os.unlink, file.name)
        self.environment = {"POS_MANIFEST": file.name}
        self.node = peer.Node(OWN, GROUP)
        self.addCleanup(self.node.close)

    def start(self):
        program = peer.Program(os.environ["POS_BUILD_DIR"] + "/tests/com/middleware_peer", "application",
                               self.environment)
        self.addCleanup(program.close)
        program.wait("ready")
        return program


class AsClient(Network):
    """scapy finds, subscribes and calls; the runtime provides."""

    def setUp(self):
        super().setUp()
        self.program = self.start()
        self.program.tell("provide test::Service first")
        self.program.wait("provided")
        self.data = self.node.port()
        self.endpoint = peer.endpoint_option(OWN, self.node._ports[self.data])

    def subscribe(self, group, **fields):
        after = len(self.node.discovery)
        self.node.send_discovery([peer.subscribe_entry(SERVICE, INSTANCE, group, **fields)],
                                 [self.endpoint], APPLICATION)
        return self.node.wait_entry(ACK, "acknowledgement", after=after)

    def call(self, *arguments, **fields):
        known = len(self.node.messages)
        self.data.sendto(peer.message(*arguments, **fields), (APPLICATION, PORT))
        return wait_for(lambda: self.node.messages[known:], "response")[0]

    def test_a_subscription_is_acknowledged_before_the_initial_value_comes(self):
        self.program.tell("update value 0102", "offer")
        self.node.wait_entry(OFFER, "offer")
        ack, _, _ = self.subscribe(VALUES, counter=5, ttl=3)
        self.assertEqual((ack.srv_id, ack.inst_id, ack.eventgroup_id, ack.cnt, ack.ttl),
                         (SERVICE, INSTANCE, VALUES, 5, 3))
        first = self.node.wait_message("initial value", lambda m: m.method == VALUE)
        self.assertEqual((first.payload, first.type, first.interface, first.code, first.source),
                         (b"\x01\x02", 2, 1, 0, (APPLICATION, PORT)))
        self.program.tell("update value 0304")
        self.node.wait_message("change", lambda m: m.payload == b"\x03\x04")

    def test_a_renewal_brings_no_initial_value_but_stop_and_subscribe_does(self):
        self.program.tell("update value aa", "offer")
        self.node.wait_entry(OFFER, "offer")
        self.subscribe(VALUES)
        self.node.wait_message("initial value", lambda m: m.method == VALUE)
        self.subscribe(VALUES)
        self.subscribe(VALUES)
        after = len(self.node.discovery)
        self.node.send_discovery([peer.subscribe_entry(SERVICE, INSTANCE, VALUES, ttl=0),
                                  peer.subscribe_entry(SERVICE, INSTANCE, VALUES)], [self.endpoint],
                                 APPLICATION)
        self.node.wait_entry(ACK, "acknowledgement", after=after)
        values = lambda: self.node.all_messages(lambda m: m.method == VALUE)
        wait_for(lambda: len(values()) == 2, "second initial value")
        # Another one that may not come would be here before the answer to this call.
        self.call(SERVICE, 1, b"x")
        self.assertEqual(len(values()), 2)

    def test_subscriptions_that_cannot_be_served_are_refused(self):
        self.program.tell("offer")
        self.node.wait_entry(OFFER, "offer")
        port = self.node._ports[self.data]
        other = peer.endpoint_option(OWN, port + 1)
        tcp = peer.endpoint_option(OWN, port, TCP)
        cases = {
            "unknown group": ({"group": 77}, [self.endpoint]),
            "unknown instance": ({"group": TICKS, "instance": 9}, [self.endpoint]),
            "other major version": ({"group": TICKS, "major": 2}, [self.endpoint]),
            "no endpoint": ({"group": TICKS, "options": 0}, []),
            "no UDP endpoint": ({"group": TICKS}, [tcp]),
            "two UDP endpoints": ({"group": TICKS, "options": 2}, [self.endpoint, other]),
            "option beyond": ({"group": TICKS, "index": 1}, [self.endpoint]),
            "multicast endpoint": ({"group": TICKS}, [peer.endpoint_option("239.1.1.1", port)]),
            "unspecified endpoint": ({"group": TICKS}, [peer.endpoint_option("0.0.0.0", port)]),
            "broadcast endpoint": ({"group": TICKS}, [peer.endpoint_option("127.255.255.255", port)]),
            "endpoint off the link": ({"group": TICKS}, [peer.endpoint_option("10.1.1.1", port)]),
            "the provider's own address": ({"group": TICKS}, [peer.endpoint_option(APPLICATION, port)]),
            "port 0": ({"group": TICKS}, [peer.endpoint_option(OWN, 0)]),
        }
        for name, (fields, options) in cases.items():
            with self.subTest(name):
                after = len(self.node.discovery)
                fields = {"instance": INSTANCE, **fields}
                self.node.send_discovery([peer.subscribe_entry(SERVICE, **fields)], options, APPLICATION)
                entry, _, _ = self.node.wait_entry(ACK, "refusal", after=after)
                self.assertEqual((entry.ttl, entry.inst_id, entry.major_ver, entry.eventgroup_id),
                                 (0, fields["instance"], fields.get("major", 1), fields["group"]))

    def test_a_subscription_ends_when_its_time_is_over(self):
        self.program.tell("update value aa", "offer")
        self.node.wait_entry(OFFER, "offer")
        self.subscribe(VALUES, ttl=1)
        wait_for(lambda: self.program.counters()["subscriptionsExpired"] == 1, "end of the subscription")
        self.program.tell("update value bb")
        self.program.counters()  # commands are carried out in order: the update has been made
        self.subscribe(VALUES)
        values = wait_for(lambda: [m.payload for m in self.node.messages if m.method == VALUE][1:], "value")
        self.assertEqual(values, [b"\xbb"])

    def test_a_restart_of_the_client_ends_its_subscriptions(self):
        self.program.tell("update value aa", "offer")
        self.node.wait_entry(OFFER, "offer")
        self.subscribe(VALUES, ttl=peer.FOREVER)
        self.node.wait_message("initial value", lambda m: m.method == VALUE)
        self.node.restart()
        self.node.send_discovery([peer.find_entry(0x7777)], to=APPLICATION)
        wait_for(lambda: self.program.counters()["peerRestarts"] == 1, "restart")
        self.program.tell("update value bb")
        self.call(SERVICE, 1, b"x")
        self.assertFalse(self.node.all_messages(lambda m: m.payload == b"\xbb"))
        self.subscribe(VALUES)
        self.node.wait_message("value after the restart", lambda m: m.payload == b"\xbb")

    def test_malformed_discovery_is_counted_and_changes_nothing(self):
        self.program.tell("update value aa", "offer")
        self.node.wait_entry(OFFER, "offer")
        self.subscribe(VALUES, ttl=peer.FOREVER)
        good = bytes.fromhex("ffff8100 00000024 0000 0001 01 01 02 00 c0000000 00000010"
                             "00000000 1111ffff ff000003 ffffffff 00000000")
        broken = [good[:n] for n in range(16, len(good))]
        broken += [good[:at] + bytes([value]) + good[at + 1:]
                   for at, value in ((3, 1), (12, 2), (13, 2), (14, 0), (15, 1), (11, 0), (23, 0x11), (43, 0x7F))]
        for data in broken:
            self.node.send_raw_discovery(data, APPLICATION)
        wait_for(lambda: self.program.counters()["droppedDiscoveryMalformed"] == len(broken), "drops")
        self.program.tell("update value bb")
        self.node.wait_message("value", lambda m: m.payload == b"\xbb")


class Bounds(Network):
    limits = {"subscribersPerEventGroup": 2, "discoveryPeers": 3, "tcpConnections": 2}

    def test_subscribers_past_the_bound_are_refused_and_the_others_stay(self):
        program = self.start()
        program.tell("provide test::Service first", "update value aa", "offer")
        self.node.wait_entry(OFFER, "offer")
        ports = [self.node.port() for _ in range(3)]
        results = []
        for one in ports:
            after = len(self.node.discovery)
            self.node.send_discovery([peer.subscribe_entry(SERVICE, INSTANCE, VALUES)],
                                     [peer.endpoint_option(OWN, self.node._ports[one])], APPLICATION)
            results.append(self.node.wait_entry(ACK, "answer", after=after)[0].ttl)
        self.assertEqual(results, [3, 3, 0])
        program.tell("update value bb")
        wait_for(lambda: len(self.node.all_messages(lambda m: m.payload == b"\xbb")) == 2, "two values")
        self.assertEqual(program.counters()["refusedSubscribers"], 1)

    def test_peers_past_the_bound_are_not_listened_to(self):
        program = self.start()
        program.tell("provide test::Service first", "offer")
        self.node.wait_entry(OFFER, "offer")
        for i in range(20, 30):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
                one.bind((NET + str(i), peer.SD_PORT))
                one.sendto(bytes.fromhex("ffff8100 00000014 0000 0001 01 01 02 00 c0000000 00000000 00000000"),
                           (APPLICATION, peer.SD_PORT))
        wait_for(lambda: program.counters()["refusedPeers"] == 7, "refusals")


class AsProvider(Network):
    """scapy offers and notifies; the runtime searches, subscribes and calls."""

    def setUp(self):
        super().setUp()
        self.program = self.start()
        self.data = self.node.port(PORT)
        self.options = [peer.endpoint_option(OWN, PORT)]

    def offer(self, ttl=3, to=None, options=None, flags=None, **fields):
        self.node.send_discovery([peer.offer_entry(SERVICE, INSTANCE, ttl=ttl, **fields)],
                                 self.options if options is None else options, to, flags)

    def wait_subscribe(self, after=0, **match):
        return self.node.wait_entry(
            SUBSCRIBE, "subscribe",
            lambda e, o, m: e.ttl > 0 and all(getattr(e, k) == v for k, v in match.items()), after)

    def acknowledge(self, entry, **fields):
        self.node.send_discovery([peer.ack_entry(entry, **fields)], to=APPLICATION)

    def notify(self, endpoint, method, payload, session=1, port=None):
        (port or self.data).sendto(
            peer.message(SERVICE, method, payload, SOMEIP.TYPE_NOTIFICATION, 0, session),
            (endpoint.addr, endpoint.port))

    def connect(self, element="value", **fields):
        """Offer, found, subscribed and acknowledged: returns where notifications go."""
        self.program.tell("find test::Service")
        self.node.wait_entry(FIND, "find")
        self.offer(**fields)
        self.program.wait("found 1")
        self.program.tell("subscribe " + element)
        entry, options, _ = self.wait_subscribe()
        self.acknowledge(entry)
        self.program.wait(f"state {element} true")
        return options[0]

    def test_notifications_count_only_from_the_offered_endpoint(self):
        endpoint = self.connect()
        stranger = self.node.port()
        self.notify(endpoint, VALUE, b"\xee", port=stranger)
        with peer.Node(THIRD, GROUP) as third:
            self.notify(endpoint, VALUE, b"\xee", port=third.port(PORT))
        self.data.sendto(peer.message(SERVICE, VALUE, b"\xee", SOMEIP.TYPE_NOTIFICATION, major=2),
                         (endpoint.addr, endpoint.port))
        self.data.sendto(peer.message(SERVICE, VALUE, b"\xee", SOMEIP.TYPE_NOTIFICATION, code=1),
                         (endpoint.addr, endpoint.port))
        self.notify(endpoint, VALUE, b"\x01")
        self.program.wait("notification value 01")
        self.assertNotIn("notification value ee", self.program.lines)

    def test_segments_make_one_notification_and_broken_trains_none(self):
        endpoint = self.connect("big")
        to = (endpoint.addr, endpoint.port)
        long = bytes(i % 253 for i in range(4000))
        for lost in (0, 1):
            train = peer.segments(SERVICE, BIG, long, session=1 + lost)
            for part in train[:lost] + train[lost + 1:]:
                self.data.sendto(part, to)
        for part in peer.segments(SERVICE, BIG, long[::-1], session=5):
            self.data.sendto(part, to)
        self.program.wait("notification big " + long[::-1].hex())
        self.assertEqual(len([l for l in self.program.lines if l.startswith("notification")]), 1)
        self.assertGreaterEqual(self.program.counters()["droppedSegments"], 2)

    def test_an_offer_that_is_not_repeated_ends(self):
        self.connect(ttl=1)
        self.program.wait("found")
        self.program.wait("state value false")
        after = len(self.node.discovery)
        self.node.wait_entry(FIND, "a new search", after=after - 1)
        known = len(self.program.lines)
        self.offer()
        self.program.wait("found 1", known)
        self.wait_subscribe(after)

    def test_a_restart_of_the_provider_is_noticed_and_everything_rebuilt(self):
        endpoint = self.connect(ttl=peer.FOREVER)
        known, after = len(self.program.lines), len(self.node.discovery)
        self.node.restart()
        self.offer(ttl=peer.FOREVER)
        self.program.wait("found", known)
        self.program.wait("found 1", known)
        entry, _, _ = self.wait_subscribe(after)
        self.assertEqual(entry.res & 8, 8, "initial data wanted again")
        self.acknowledge(entry)
        self.program.wait("state value true", known)
        self.notify(endpoint, VALUE, b"\x05")
        self.program.wait("notification value 05")
        self.assertEqual(self.program.counters()["peerRestarts"], 1)

    def test_the_first_unicast_message_after_a_restart_is_no_second_restart(self):
        self.connect()
        self.node.restart()
        after = len(self.node.discovery)
        self.offer()
        entry, _, _ = self.wait_subscribe(after)
        known = len(self.program.lines)
        self.acknowledge(entry)
        self.program.wait("state value true", known - 2 if known > 2 else 0)
        self.assertEqual(self.program.counters()["peerRestarts"], 1)

    def test_a_missing_acknowledgement_brings_stop_and_subscribe_side_by_side(self):
        self.program.tell("find test::Service")
        self.offer()
        self.program.wait("found 1")
        self.program.tell("subscribe value")
        self.wait_subscribe()
        for _ in range(2):
            after = len(self.node.discovery)
            self.offer()
            _, _, message = self.wait_subscribe(after)
        self.assertEqual([e.ttl for e, _ in message.entries(SUBSCRIBE)], [0, 1], "someipsd_1178")
        after = len(self.node.discovery)
        self.offer(flags=0xE0)
        _, _, message = self.wait_subscribe(after)
        self.assertEqual([(e.ttl, e.res & 8) for e, _ in message.entries(SUBSCRIBE)], [(1, 8)])

    def test_offers_that_cannot_be_used_are_ignored(self):
        self.program.tell("find test::Service")
        other = peer.endpoint_option(OWN, PORT + 1)
        cases = {
            "no endpoint": ([], 0),
            "two UDP endpoints": (self.options + [other], 2),
            "option beyond": (self.options, 2),
            "multicast": ([peer.endpoint_option("239.0.0.1", PORT)], 1),
            "off the link": ([peer.endpoint_option("192.168.1.1", PORT)], 1),
            "our own address": ([peer.endpoint_option(APPLICATION, PORT)], 1),
            "port 0": ([peer.endpoint_option(OWN, 0)], 1),
        }
        for options, count in cases.values():
            self.node.send_discovery([peer.offer_entry(SERVICE, INSTANCE, options=count)], options)
        self.node.send_discovery([peer.offer_entry(SERVICE, INSTANCE, major=2)], self.options)
        self.node.send_discovery([peer.offer_entry(SERVICE, 0)], self.options)
        self.node.send_discovery([peer.offer_entry(SERVICE, 0xFFFF)], self.options)
        self.node.send_discovery([peer.offer_entry(SERVICE, 5)], self.options)
        self.program.wait("found 5")
        self.assertNotIn("found 1", self.program.lines)

    def test_another_provider_of_the_same_instance_is_refused_while_the_first_one_stands(self):
        self.connect()
        with peer.Node(THIRD, GROUP) as third:
            third.send_discovery([peer.offer_entry(SERVICE, INSTANCE)], [peer.endpoint_option(THIRD, PORT)])
            wait_for(lambda: self.program.counters()["refusedInstances"] == 1, "refusal")
            self.assertFalse(list(third.discovery and [e for m in third.discovery for e in m.entries(SUBSCRIBE)]))
            self.offer(ttl=0)
            third.send_discovery([peer.offer_entry(SERVICE, INSTANCE)], [peer.endpoint_option(THIRD, PORT)])
            third.wait_entry(SUBSCRIBE, "subscription at the new one")

    def test_calls_match_their_responses_and_time_out(self):
        self.connect()
        to = lambda m: (APPLICATION, self.node.all_messages(lambda x: x is m)[0].source[1])
        self.program.tell("call echo 0102")
        request = self.node.wait_message("request", lambda m: m.type == 0)
        self.assertEqual((request.service, request.method, request.client, request.payload, request.code),
                         (SERVICE, 1, 7, b"\x01\x02", 0))
        answer = dict(kind=SOMEIP.TYPE_RESPONSE, client=7, session=request.session)
        wrong = [dict(answer, session=request.session + 1), dict(answer, client=8), dict(answer, major=2)]
        for fields in wrong:
            self.data.sendto(peer.message(SERVICE, 1, b"\xee", **fields), to(request))
        self.node.port().sendto(peer.message(SERVICE, 1, b"\xee", **answer), to(request))
        self.data.sendto(peer.message(SERVICE, 1, b"\x03", **answer), to(request))
        self.program.wait("response 0 03")
        self.program.tell("call echo aa")
        request = self.node.wait_message("request", lambda m: m.payload == b"\xaa")
        self.data.sendto(peer.message(SERVICE, 1, b"why", SOMEIP.TYPE_ERROR, 7, request.session, code=0x21),
                         to(request))
        self.program.wait(f"response {0x21} -")
        self.program.tell("call echo bb")
        self.program.wait("response 6 -")
        self.assertNotIn("response 0 ee", self.program.lines)

    def test_the_group_named_in_the_acknowledgement_is_listened_to(self):
        self.program.tell("find test::Service")
        self.offer()
        self.program.wait("found 1")
        self.program.tell("subscribe tick")
        entry, _, _ = self.wait_subscribe()
        self.node.send_discovery([peer.ack_entry(entry, options=1)],
                                 [peer.multicast_option("239.255.42.77", 31055)], APPLICATION)
        self.program.wait("state tick true")
        self.data.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(OWN))

        def received():
            self.data.sendto(peer.message(SERVICE, TICK, b"\x42", SOMEIP.TYPE_NOTIFICATION),
                             ("239.255.42.77", 31055))
            return "notification tick 42" in self.program.lines
        wait_for(received, "multicast event")

    def test_a_killed_provider_process_is_missed_after_its_time_to_live(self):
        self.program.close()
        provider = self.start()
        provider.tell("provide test::Service first", "offer")
        self.node.wait_entry(OFFER, "offer")
        provider.kill()
        again = self.start()
        again.tell("provide test::Service first", "offer")
        self.node.wait_entry(OFFER, "offer of the new process", lambda e, o, m: m.header.session == 1 and
                             m is not self.node.discovery[0])


class Streams(Network):
    def test_a_tcp_subscription_needs_its_connection_and_gets_its_events_there(self):
        program = self.start()
        program.tell("provide test::Stream stream", "update value 0a0b", "offer")
        _, options, _ = self.node.wait_entry(OFFER, "offer")
        self.assertEqual([(o.addr, o.l4_proto, o.port) for o in options], [(APPLICATION, TCP, STREAM_PORT)])
        with socket.create_connection((APPLICATION, STREAM_PORT), source_address=(OWN, 0)) as stream:
            endpoint = lambda port: [peer.endpoint_option(OWN, port, TCP)]
            for port, ttl in ((stream.getsockname()[1] + 1, 0), (stream.getsockname()[1], 3)):
                after = len(self.node.discovery)
                self.node.send_discovery([peer.subscribe_entry(STREAM, 1, VALUES)], endpoint(port), APPLICATION)
                self.assertEqual(self.node.wait_entry(ACK, "answer", after=after)[0].ttl, ttl)
            stream.settimeout(10)
            data = b""
            while len(data) < 16 + 18:
                data += stream.recv(1000)
            self.assertEqual(data[:16], bytes.fromhex("ffff8000 00000008 deadbeef 01010200"))
            value = peer.Received(data[16:], None, None)
            self.assertEqual((value.method, value.payload, value.type), (VALUE, b"\x0a\x0b", 2))
            # Garbage, then a cookie: the request behind it is understood.
            request = peer.message(STREAM, 1, b"after garbage")
            cookie = bytes.fromhex("ffff0000 00000008 deadbeef 01010100")
            stream.sendall(b"\xff" * 100 + cookie + request[:5])
            stream.sendall(request[5:])
            program.wait("request " + b"after garbage".hex())
        self.assertEqual(program.counters()["tcpResynchronised"], 1)

    def test_a_reader_that_never_reads_loses_its_connection_and_nobody_else_notices(self):
        program = self.start()
        program.tell("provide test::Stream stream", "offer")
        self.node.wait_entry(OFFER, "offer")
        with socket.socket() as lazy:
            lazy.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            lazy.bind((OWN, 0))
            lazy.connect((APPLICATION, STREAM_PORT))
            after = len(self.node.discovery)
            self.node.send_discovery([peer.subscribe_entry(STREAM, 1, TICKS)],
                                     [peer.endpoint_option(OWN, lazy.getsockname()[1], TCP)], APPLICATION)
            self.assertEqual(self.node.wait_entry(ACK, "answer", after=after)[0].ttl, 3)
            event = "send tick " + "00" * 50000
            wait_for(lambda: (program.tell(*[event] * 20), program.counters()["slowReaders"])[1] == 1,
                     "disconnection")


class LateNetwork(Network):
    def test_two_processes_on_one_address_get_a_clear_error(self):
        self.start()
        second = peer.Program(os.environ["POS_BUILD_DIR"] + "/tests/com/middleware_peer", "application",
                              self.environment)
        self.addCleanup(second.close)
        line = wait_for(lambda: second.lines[:1], "error line")[0]
        for part in (self.environment["POS_MANIFEST"], "nodes.application.address", APPLICATION, "taken"):
            self.assertIn(part, line)

    def test_the_node_address_can_be_replaced_from_outside(self):
        self.environment["POS_NODE_ADDRESS"] = NET + "77"
        program = self.start()
        program.tell("provide test::Service first", "offer")
        _, options, _ = self.node.wait_entry(OFFER, "offer")
        self.assertEqual(options[0].addr, NET + "77")


if __name__ == "__main__":
    unittest.main(verbosity=2)
