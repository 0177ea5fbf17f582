"""What an integrator learns without looking into the network: who talks to whom, why data does not flow, how
old positions are. Other nodes are made of scapy."""

import contextlib
import json
import math
import pathlib
import re
import struct
import time
import unittest

from desk import APPLICATION, BUILD, GATEWAY, POSCTL, Desk_test, until
from network import NOTIFICATION, SUBSCRIBE, TCP_PROTOCOL, Network, endpoint, offer, someip
from scapy.utils import RawPcapReader

GNSS = "lumo::services::gnss::GNSS"
POSITIONING = "lumo::services::positioning::Positioning"
TCPDUMP = pathlib.Path("/usr/bin/tcpdump")


def percentile(values, share):
    return sorted(values)[max(math.ceil(share * len(values)), 1) - 1]


def stamp_of(payload, ids):
    """Of the first record of a list: nanoseconds since the epoch."""
    length = struct.unpack_from("!I", payload, 4)[0]
    record, values = payload[8:8 + length], {}
    while record:
        tag = struct.unpack_from("!H", record)[0]
        size = 1 << (tag >> 12)
        values[tag & 0xFFF] = int.from_bytes(record[2:2 + size], "big")
        record = record[2 + size:]
    return values[ids["preciseLocalTimeSeconds"]] * 10**9 + values[ids["preciseLocalTimeNanoseconds"]]


class Insight(Desk_test):
    def network(self):
        network = Network(desk=self.desk)
        self.addCleanup(network.close)
        return network

    def id_of(self, service):
        return int(self.desk.manifest["services"][service]["id"], 0)

    def peers(self):
        return self.posctl("peers", "--timeout", 20)

    def test_ages_are_those_of_a_packet_capture(self):
        records = self.posctl("describe")["records"]
        members = next(one["members"] for one in records if one["name"].endswith("gnss::datatypes::DT_positions_struct"))
        ids = {member["name"]: member["dataId"] for member in members}
        self.start(APPLICATION)
        path = self.desk.path / "run.pcap"
        notifications_only = f"udp and dst host {self.desk.address(10)} and src host {self.desk.address(20)}"
        # Short frames and a large buffer: none may be lost.
        capture = self.desk.start(TCPDUMP, "-i", "lo", "--time-stamp-precision", "nano", "--immediate-mode", "-U",
                                  "-s", 2048, "-B", 8192, "-w", path, notifications_only)
        until(lambda: "listening on" in capture.log.read_text() or capture.poll() is not None, "tcpdump listens")
        if capture.poll() is not None:
            self.skipTest("the right to capture packets is needed")
        gateway = self.desk.start(GATEWAY, "--rate", 200, "--count", 1200)
        self.assertEqual(gateway.wait(60), 0)
        told = self.posctl("stats", "--timeout", 20)

        def captured():
            """Arrival and stamp of each notification that the capture holds by now."""
            with contextlib.closing(RawPcapReader(str(path))) as frames:
                return [(meta.sec * 10**9 + meta.usec, stamp_of(frame[58:], ids)) for frame, meta in frames
                        if frame[42:46] == struct.pack("!HH", self.id_of(GNSS), 0x8001)]

        notifications = told["stamps"]["notifications"]
        self.assertGreater(notifications, 1000)
        until(lambda: len(captured()) >= notifications, "tcpdump has written all")
        self.desk.stop(capture)
        # The end of the offer may overtake the last notifications inside the application.
        self.assertLess(len(captured()), notifications + 5)
        arrivals, ages = zip(*((arrival, arrival - stamp) for arrival, stamp in captured()[:notifications]))
        self.assertEqual(told["stamps"]["inFuture"], sum(age < 0 for age in ages))
        for name, values in (("stampToArrival", [age for age in ages if age >= 0]),
                             ("betweenArrivals", [b - a for a, b in zip(arrivals, arrivals[1:])])):
            of_program = told["ages"][name]["sinceStart"]
            self.assertEqual(of_program["count"], len(values), name)
            members = {"minNs": 0, "p50Ns": 0.5, "p99Ns": 0.99, "p999Ns": 0.999, "maxNs": 1}
            for member, share in members.items():
                right = percentile(values, share)
                self.assertAlmostEqual(of_program[member], right, delta=0.02 * right, msg=f"{name} {member}")
        self.assertLess(told["ages"]["handlerToSent"]["sinceStart"]["p50Ns"], 10**8)
        _, shown = re.findall(r"between arrivals +\d+ +(.*)", self.output(POSCTL, "stats"))
        self.assertEqual(shown.split(), [f"{of_program[member] / 1e6:.3f}" for member in members])

    def test_ages_follow_the_time_base_and_end_with_a_position_that_is_sent(self):
        script = self.desk.path / "script"
        script.write_text("".join(json.dumps({"t": i / 10, "field": "positions", "records": [{"LAT": 48, "LON": 11}]}) + "\n"
                                  for i in range(9)))
        (self.desk.path / "initdata-POS_Key_Value_Port.json").write_text(
            json.dumps({"alwaysSendAllValidPositions": {"type": "Boolean", "value": False}}))
        self.desk.start(APPLICATION, environment={
            "LD_PRELOAD": str(BUILD / "tests/tools/shifted_clock.so"), "POS_TEST_CLOCK_SHIFT": "-10",
            "POS_TIME_BASE": "CLOCK_TAI", "POS_INITDATA_DIR": str(self.desk.path)})
        self.start(GATEWAY, "--script", script, "--loop")

        def counts():
            self.ages = self.posctl("stats", "--timeout", 20)["ages"]
            return {name: age["sinceStart"]["count"] for name, age in self.ages.items()}

        until(lambda: counts()["stampToArrival"] > 3, "positions")
        self.assertGreaterEqual(self.ages["stampToArrival"]["sinceStart"]["minNs"], 9e9)
        self.assertEqual(counts()["handlerToSent"], 1, "a repeated position is not sent")

    def test_subscribers_are_named_and_a_refused_one_is_told_why(self):
        self.desk.manifest["limits"]["subscribersPerEventGroup"] = 3
        self.desk.write_manifest()
        application = self.start(APPLICATION)
        for _ in range(2):
            self.start(POSCTL, "watch", "--field", "positions")
        node, service = self.desk.address(10), self.id_of(POSITIONING)

        def subscribers():
            instance = next(one for one in self.peers()["offered"] if one["service"] == POSITIONING)
            return [one for one in instance["subscribers"] if one["eventGroup"] == "0x0001"]

        until(lambda: len(subscribers()) == 2, "two subscribers")
        watchers = {one["address"] for one in subscribers()}
        network = self.network()
        third, fourth = network.peer(self.desk.address(40)), network.peer(self.desk.address(41))
        self.assertGreater(third.subscribed(node, service, 1, third.caller()).ttl, 0)
        self.assertEqual(fourth.subscribed(node, service, 1, fourth.caller()).ttl, 0)

        told = subscribers()
        named = {one["address"]: one for one in told if one["subscribed"]}
        self.assertEqual(set(named), {*watchers, third.address})
        self.assertTrue(all(one["sent"] >= 1 and one["sinceMs"] < 60_000 for one in told if one["subscribed"]), told)
        self.assertEqual(named[third.address]["udpPort"], third.caller().port)
        self.assertIsNone(named[third.address]["ttlLeftMs"])
        self.assertTrue(all(0 < named[one]["ttlLeftMs"] <= 3000 for one in watchers), told)
        refused, = (one for one in told if not one["subscribed"])
        self.assertEqual((refused["address"], refused["refused"], refused["cause"]),
                         (fourth.address, 1, "there are too many subscribers"))
        self.assertRegex(self.output(POSCTL, "peers"),
                         rf"group 0x0001  {fourth.address} udp \d+  REFUSED since .*, refused 1: there are too many")
        self.assertIn(f"event group 0x0001 of {POSITIONING} instance 1 refused: there are too many subscribers",
                      application.log.read_text())

    def test_each_fault_of_a_source_has_its_cause_in_words(self):
        application = self.start(APPLICATION)
        network = self.network()
        provider = network.peer(self.desk.address(42))
        source, service = provider.socket(), self.id_of(GNSS)

        def used():
            return next(one for one in self.peers()["consumed"] if one["service"] == GNSS)

        def tell(**fields):
            provider.tell(offer(service, **fields), [endpoint(source)])

        def causes():
            told = used()
            return told["cause"], {one["cause"] for one in told["eventGroups"]}

        def logged(text):
            return application.log.read_text().count(text)

        until(lambda: causes()[0].startswith("no offer seen for "), "no offer")
        tell(major=2, ttl=3)
        in_another_version = f"is offered by {provider.address}:{network.discovery_port} in version 2, version 3 is needed"
        until(lambda: causes()[0] == "it " + in_another_version, "another version")
        tell(major=2, ttl=3)
        without_udp = f"is offered by {provider.address}:{network.discovery_port} without the UDP endpoint"
        provider.tell(offer(service), [endpoint(provider.address, 30501, TCP_PROTOCOL)])
        until(lambda: causes()[0].startswith("it " + without_udp), "another transport")

        answers = [0]  # the time to live of the acknowledgements; 0 refuses
        provider.unicast.on_entry = lambda entry: entry.type == SUBSCRIBE and entry.ttl and provider.acknowledge(
            entry, ttl=answers[0])
        tell()
        refused = {f"refused by {provider.address}:{network.discovery_port}"}
        until(lambda: causes() == ("", refused), "refused")
        answers[0] = 0xFFFFFF
        tell()
        until(lambda: causes()[1] == {""}, "acknowledged")
        # An offer renews the subscriptions.
        until(lambda: tell() or all(one.startswith("acknowledged, no data for ") for one in causes()[1]), "no data")
        tell(ttl=0)
        until(lambda: causes()[0] == "lost: it has withdrawn its offer", "withdrawn")
        tell()
        until(lambda: used()["found"], "back")

        self.assertEqual((logged(in_another_version), logged(without_udp)), (1, 1))
        self.assertEqual(logged(f"{network.discovery_port} refuses the subscription to event group"), 3)
        self.assertEqual(logged("is lost: it has withdrawn its offer"), 1)
        self.assertEqual(logged("is lost: it has moved to another endpoint"), 1)
        self.assertEqual(logged(f"{GNSS} instance 1 is back after "), 2)

    def test_what_a_peer_sends_again_and_again_for_nothing_is_logged_once(self):
        application = self.start(APPLICATION)
        network = self.network()
        peer = network.peer(self.desk.address(44))
        source, service = peer.socket(), self.id_of(GNSS)
        until(lambda: self.desk.is_bound("POS"), "the application takes its address")
        peer.tell(offer(service), [endpoint(source)])
        client = peer.entry(SUBSCRIBE, service).endpoints[0][:2]
        port = self.desk.manifest["services"][POSITIONING]["instances"][0]["udpPort"]
        texts = (f"notifications of {peer.address}:{source.port} are dropped: {GNSS} has no event 0x8099",
                 f"requests of {peer.address} are refused: {POSITIONING} has no method 0x0666")

        def logged():
            source.send(someip(service, 0x8099, type=NOTIFICATION, client=0), client)
            source.send(someip(self.id_of(POSITIONING), 0x0666), (self.desk.address(10), port))
            return [application.log.read_text().count(text) for text in texts]

        until(lambda: logged() == [1, 1], "both lines")
        for _ in range(50):
            self.assertEqual(logged(), [1, 1])

    def test_discover_lists_what_the_manifest_does_not_know(self):
        self.start(APPLICATION)
        peer = self.network().peer(self.desk.address(43))
        source = peer.socket()
        until(lambda: self.desk.is_bound("POS"), "the application takes its address")
        listener = self.start(POSCTL, "discover", "--follow", "--json")
        events = {}
        while len(events) < 3:
            # Until the listener has joined the group, nobody hears them.
            peer.tell([offer(0x7777, major=9, ttl=3), offer(self.id_of(GNSS), major=2, ttl=3)], [endpoint(source)])
            line = json.loads(listener.stdout.readline())
            if line["serviceId"] in ("0x7777", "0x2A10", "0x2A20"):
                events[line["serviceId"]] = line
        unknown = events["0x7777"]
        self.assertEqual((unknown["event"], unknown["service"], unknown["majorVersion"], unknown["ttlS"], unknown["udp"]),
                         ("offered", None, 9, 3, f"{peer.address}:{source.port}"))
        self.assertEqual(events["0x2A10"]["manifestMajorVersion"], 3)
        self.assertEqual(events["0x2A20"]["service"], POSITIONING)


if __name__ == "__main__":
    unittest.main()
