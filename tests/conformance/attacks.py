"""Attacks of a stranger with an address of its own, against a node without lists of peers and against one whose
lists name a friend only. Each is a row of the table in docs/robustness.md."""

import functools
import re
import socket
import sys
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, SOURCE, Desk, Positions, until
from devices import *
from network import *
import payload
import suite

PAGE = SOURCE / "docs/robustness.md"
FOREIGN_LATITUDE = 66.625
# No offer or subscription ends by itself before a test does, however slow the machine is.
LASTING = {"offerTtlS": 60, "subscribeTtlS": 60}


def with_and_without_lists(test):
    @functools.wraps(test)
    def both(self):
        for listed in (False, True):
            with self.subTest(listed=listed):
                self.listed, self.friend, self.attacker = listed, self.peer(), self.peer(listen=False)
                self.claim = discovery_endpoint(self.friend.address)  # the attacker speaks in the friend's name
                self.settings = LASTING | ({"everywhere": [self.friend.address]} if listed else {})
                test(self)
            self.doCleanups()
    return both


class Attacks(suite.Group):
    application = False

    def consumer(self, *commands):
        """The host uses an instance of the friend's, which it has found; returns also where that is."""
        host = self.host("find Remote", *commands, **self.settings)
        server = self.friend.socket(SERVER_PORT)
        server.service = "Remote"
        self.offer(self.friend, server, host)
        host.said("found Remote 1")
        return host, server

    def provider(self):
        host = self.host("offer first", **self.settings)
        self.friend.entry(OFFER, VEHICLE, count=2)  # the first one has reached the host's own socket too
        return host

    def found(self, host):
        """The instances that the host's search told last."""
        return next((line for line in reversed(host.lines) if line.startswith("found")), "found Remote").split()[2:]

    def finds(self, host, *instances):
        self.network.wait(lambda: self.found(host) == list(instances), f"search result {instances}")

    @with_and_without_lists
    def test_offer_in_anothers_name(self):
        host, server = self.consumer()
        entry = self.active(host, self.friend)
        own = self.attacker.socket(SERVER_PORT)
        self.attacker.tell(offer(REMOTE, options=(1, 1)), [self.claim, endpoint(own)], host)
        self.friend.barrier(host)
        self.notify(own, entry, b"\x66")
        self.reaches(host, server, entry, 1)
        self.assertNotIn("notification Remote 1 value 66", host.lines)
        self.assertNotIn("state Remote 1 value off", host.lines)

    @with_and_without_lists
    def test_end_in_anothers_name(self):
        host, server = self.consumer("offer first")
        entry = self.active(host, self.friend)
        self.friend.entry(OFFER, VEHICLE)
        events = self.subscription(host, self.friend, TICK_GROUP)
        claim, attack = [self.claim], functools.partial(self.attacker.tell, to=host)
        attack(offer(REMOTE, ttl=0, options=(1, 1)), [*claim, endpoint(server)])
        attack(subscribe(VEHICLE, TICK_GROUP, ttl=0, options=(1, 1)), [*claim, endpoint(events)])
        attack(SDEntry_EventGroup(type=ACKNOWLEDGE, srv_id=REMOTE, inst_id=1, major_ver=MAJOR, ttl=0,
                                  eventgroup_id=VALUE_GROUP), claim)
        for session in (0xFFFF, 1):
            attack(find(UNKNOWN), claim, session=session)
        self.friend.barrier(host)
        self.reaches(host, server, entry, 1)
        self.event(host, events)
        self.assertNotIn("state Remote 1 value off", host.lines)

    @with_and_without_lists
    def test_place_of_a_provider_that_restarts(self):
        host, server = self.consumer()
        self.reaches(host, server, self.active(host, self.friend), 1)
        self.friend.restart()
        self.friend.tell(find(UNKNOWN), to=host)
        self.finds(host)
        self.attacker.tell([offer(REMOTE, instance) for instance in (1, 2)], [endpoint(self.attacker.caller())], host)
        self.friend.barrier(host)
        self.finds(host, *([] if self.listed else ["1", "2"]))
        start = time.time()
        self.offer(self.friend, server, host)
        self.friend.entry(SUBSCRIBE, REMOTE, after=start)
        self.friend.barrier(host)
        self.finds(host, *(["1"] if self.listed else ["1", "2"]))

    @with_and_without_lists
    def test_subscription_for_another(self):
        host = self.provider()
        victim = self.friend.socket()
        for options in ([endpoint(victim)], [self.claim, endpoint(victim)]):
            self.attacker.tell(subscribe(VEHICLE, TICK_GROUP, options=(len(options) - 1, 1)), options, host)
        self.friend.barrier(host)
        host.do("notify first tick 01")
        self.settled(host, self.friend)
        self.assertEqual((victim.messages, self.friend.entries(ACKNOWLEDGE)), ([], []))

    @with_and_without_lists
    def test_table_of_peers(self):
        host = self.provider()
        before = host.count("discoveryReceived")
        for number in range(300):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
                one.bind((self.attacker.address, 0))
                one.sendto(discovery([find(VEHICLE)]), (host.address, self.network.discovery_port))
            if number % 50 == 49:  # as many as the socket's buffer holds
                self.network.wait(lambda: host.count("discoveryReceived") > before + number, "the datagrams")
        self.event(host, self.subscription(host, self.friend, TICK_GROUP))

    @with_and_without_lists
    def test_endless_instances(self):
        host = self.host("find Remote", **self.settings, longestOfferTtlS=1)
        for first in range(2, 1200, 80):
            self.attacker.tell([offer(REMOTE, instance) for instance in range(first, first + 80)],
                               [endpoint(self.attacker.caller())], host)
            self.friend.barrier(host)
        server = self.friend.socket(SERVER_PORT)
        server.service = "Remote"
        self.offer(self.friend, server, host)
        self.network.wait(lambda: "1" in self.found(host), "the friend's instance")
        self.network.wait(lambda: self.offer(self.friend, server, host) or self.found(host) == ["1"],
                          "end of the attacker's instances")

    @with_and_without_lists
    def test_unfinished_messages(self):
        host = self.provider()
        strangers = [self.attacker, *(self.peer(listen=False) for _ in range(4 if self.listed else 0))]
        for stranger in strangers:
            for client in range(20):
                train = segments(someip(VEHICLE, SIZE, bytes(2000), client=client), 1392)
                stranger.caller().send(train[0], host.at(VEHICLE))
        for one in segments(someip(VEHICLE, SIZE, bytes(2000)), 1392):
            self.friend.caller().send(one, host.at(VEHICLE))
        answer = self.friend.caller().wait(lambda one: one.service == VEHICLE, "the answer to the friend")
        self.assertEqual((answer.code, answer.payload), (0, (2000).to_bytes(4, "big")))
        self.assertEqual(host.count("refusedReassemblies"), 0 if self.listed else 12)

    @with_and_without_lists
    def test_requests_of_a_stranger(self):
        host = self.provider()
        via = self.attacker.caller()
        for service, method, fields in ((UNKNOWN, ECHO, {}), (VEHICLE, 99, {}), (VEHICLE, ECHO, {"protocol": 9})):
            via.send(someip(service, method, b"x", **fields), host.at(VEHICLE))
        self.assertEqual(self.friend.call(host, VEHICLE, ECHO, b"x").payload, b"x")
        if self.listed:
            self.assertEqual(host.count("droppedForeignPeer"), 3)
        else:
            self.network.wait(lambda: len(via.messages) == 3, "the answers")
        self.assertEqual(sorted(one.code for one in via.messages), [] if self.listed else [2, 3, 7])

    @with_and_without_lists
    def test_places_of_subscribers(self):
        host = self.provider()
        for first in range(20_000, 20_200, 40):
            self.attacker.tell([subscribe(VEHICLE, TICK_GROUP, options=(number, 1)) for number in range(40)],
                               [endpoint(self.attacker.address, first + number) for number in range(40)], host)
        self.friend.barrier(host)
        self.event(host, self.subscription(host, self.friend, TICK_GROUP))

    @with_and_without_lists
    def test_connections(self):
        host = self.host("offer stream", limits={"tcpConnections": 17}, **self.settings)
        self.friend.entry(OFFER, STREAM)
        for _ in range(100):
            self.attacker.connect(host.at(STREAM))
        stream, *_ = (self.friend.connect(host.at(STREAM)) for _ in range(20))
        self.assertEqual(self.friend.call(stream, STREAM, ECHO, b"x").payload, b"x")
        self.network.wait(lambda: host.count("refusedConnections") == 120 - (16 if self.listed else 17), "refusals")

    def test_positions_of_the_application(self):
        for listed in (False, True):
            with self.subTest(listed=listed), Desk() as desk:
                self.attack_positions(desk, listed)

    def attack_positions(self, desk, listed):
        nodes = desk.manifest["nodes"]
        desk.manifest["serviceDiscovery"] |= LASTING
        if listed:
            page = (SOURCE / "docs/manifest.md").read_text(encoding="utf-8").replace("192.168.7.", desk.address(""))
            for name, keys in json.loads(re.findall(r"```json\n(.*?)```", page, re.DOTALL)[1])["services"].items():
                desk.manifest["services"][name] |= keys
        desk.write_manifest()
        desk.start(APPLICATION)
        desk.start(GATEWAY)
        positions = Positions(desk.start(POSCTL, "watch", "--json"))
        positions.flow("before the attack")
        pos, port = nodes["POS"]["address"], desk.manifest["serviceDiscovery"]["port"]
        client = desk.client_port("POS")
        claim = discovery_endpoint(nodes["gnss-gateway"]["address"], port)
        seen = []
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as attacker:
            attacker.bind((desk.address(66), 0))
            theirs = endpoint(*attacker.getsockname())
            position = payload.records([payload.u32(0, 2), payload.u32(1, 7), payload.f64(2, FOREIGN_LATITUDE),
                                        payload.u32(3, 4), payload.f64(4, 9.5), payload.u32(5, 4)])

            def attack():
                attack.session += 1
                attacker.sendto(discovery([offer(GNSS, major=3, options=(1, 1))], [claim, theirs],
                                          session=attack.session), (pos, port))
                attacker.sendto(someip(GNSS, 0x8001, position, type=NOTIFICATION, interface=3), (pos, client))
                while not positions.lines.empty():
                    seen.append(positions.lines.get())
                return len(seen) >= 30
            attack.session = 0
            until(attack, "positions during the attack")
        self.assertEqual([line for line in seen if str(FOREIGN_LATITUDE) in line], [])


def main():
    """Runs the attacks of the page in its order: each row has a test, and each test a row."""
    section = PAGE.read_text(encoding="utf-8").partition("\n## Attacks\n")[2].partition("\n## ")[0]
    rows = re.findall(r"\| (test_\w+) \|$", section, re.MULTILINE)
    tests = {name for name in dir(Attacks) if name.startswith("test_")} - {"test_dissection"}
    assert set(rows) == tests, f"tests without row, rows without test: {set(rows) ^ tests}"
    wanted = [name for name in dict.fromkeys(rows) if not sys.argv[1:] or any(part in name for part in sys.argv[1:])]
    result = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(map(Attacks, wanted)))
    sys.exit(not result.wasSuccessful())


if __name__ == "__main__":
    main()
