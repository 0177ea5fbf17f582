"""Options of discovery: their formats, how entries refer to them, and which of them count."""

from scapy.contrib.automotive.someip import (
    SDOption_Config, SDOption_IP4_SD_EndPoint, SDOption_IP6_EndPoint, SDOption_LoadBalance)
from scapy.packet import Raw

from devices import *
from network import *
import suite


def raw_option(type, content, length=None):
    """An option from its bytes behind the type."""
    length = len(content) if length is None else length
    return Raw(length.to_bytes(2, "big") + bytes([type]) + content)


def configuration(*items, end=b"\0"):
    return SDOption_Config(cfg_str=b"".join(bytes([len(item)]) + item for item in items) + end)


class Options(suite.Group):
    title = "Options"
    streams = True
    base = 101

    def ask(self, host, peer, array, service=VEHICLE, group=TICK_GROUP, **runs):
        """Subscribes with these options; returns the time to live of the answer (0: refused)."""
        start = time.time()
        runs.setdefault("options", (0, len(array)))
        peer.tell(subscribe(service, 1, group, MAJOR, ttl=9, **runs), array, to=host.address)
        answer = peer.entry(ACKNOWLEDGE, service, after=start)
        peer.barrier(host.address)
        return answer.ttl

    def found(self, host, peer, entries_and_options):
        """Offers, in messages of their own, and a good one at the end; returns the instances that the
        host has found."""
        for number, (options, runs) in enumerate(entries_and_options, 1):
            runs = {"options": (0, len(options)), **runs}
            peer.tell(offer(REMOTE, number, MAJOR, ttl=ENDLESS, **runs), options)
        peer.tell(offer(REMOTE, 99, MAJOR, ttl=ENDLESS), [endpoint(peer.address, SERVER_PORT)])
        self.network.wait(lambda: any(line.startswith("found") and line.endswith(" 99")
                                      for line in host.lines), "last offer")
        return [int(word) for word in host.lines[-1].split()[2:-1]]

    # Formats

    def test_formats(self):
        host, peer = self.vehicle("offer stream", "offer group")
        address = bytes(map(int, host.address.split("."))).hex()
        (udp, ) = self.offered(peer, VEHICLE).options
        self.assertEqual(bytes(udp).hex(), f"00090400{address}0011{VEHICLE_PORT:04x}")
        self.assertEqual({bytes(one).hex() for one in self.offered(peer, STREAM).options},
                         {f"00090400{address}0011{STREAM_PORT:04x}",
                          f"00090400{address}0006{STREAM_PORT:04x}"})
        self.assertEqual(self.ask(host, peer, [endpoint(peer.caller(), res_hdr=0xFF, res_tail=0xFF)], GROUP), 9)
        (option, ) = peer.entry(ACKNOWLEDGE, GROUP).options
        self.assertEqual(bytes(option).hex(),
                         f"00091400efc3{self.network.number:02x}010011{MULTICAST_PORT:04x}")

    def test_invalid_endpoints(self):
        host, peer = self.vehicle("find Remote")
        good = bytes(endpoint(peer.address, 40000))[3:]
        bad = [raw_option(0x04, good[:-1]), raw_option(0x04, good + b"\0"), raw_option(0x04, b""),
               endpoint(peer.address, 40000, 0x01), endpoint(peer.address, 40000, 0x84),
               endpoint(peer.address, 0)]
        for option in bad:
            with self.subTest(option=bytes(option).hex()):
                self.assertEqual(self.ask(host, peer, [option]), 0)
        self.assertEqual(self.found(host, peer, [([option], {}) for option in bad]), [])

    def test_cut_option(self):
        host, peer = self.vehicle()
        cut = raw_option(0x04, b"\0" * 5, length=9)
        start = time.time()
        peer.tell([subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=9),
                   subscribe(VEHICLE, 1, VALUE_GROUP, MAJOR, ttl=9, options=(1, 1))],
                  [endpoint(peer.caller()), cut], to=host.address)
        answers = {group: peer.entry(ACKNOWLEDGE, VEHICLE, group=group, after=start).ttl
                   for group in (TICK_GROUP, VALUE_GROUP)}
        self.assertEqual(answers, {TICK_GROUP: 9, VALUE_GROUP: 0})

    def test_configuration(self):
        host, peer = self.vehicle("find Remote")
        own = endpoint(peer.caller())
        good = [[configuration(b"key=value")], [configuration(b"key")], [configuration(b"key=")],
                [configuration(b"key=a", b"key=b", b"other=" + b"x" * 240)], [configuration()],
                [configuration(b"key=value=more")], [configuration(b"a key with spaces=\xc3\xa4")],
                [configuration(b"key=a"), configuration(b"key=b")],
                [SDOption_LoadBalance(priority=1, weight=2)]]
        for options in good:
            with self.subTest(options=[bytes(one) for one in options]):
                self.assertEqual(self.ask(host, peer, [own, *options]), 9)
        self.assertEqual(self.found(host, peer, [([own, *options], {}) for options in good]),
                         list(range(1, len(good) + 1)))

    def test_wrong_configuration(self):
        host, peer = self.vehicle()
        own = endpoint(peer.caller())
        for option in (configuration(b"key=value", end=b""), configuration(b"=value"),
                       configuration(end=b"\x09abc\0"), configuration(b"k\x01y=value"),
                       configuration(b"key=value", end=b"\0more"), raw_option(0x01, b"")):
            with self.subTest(option=bytes(option)):
                start = time.time()
                peer.tell([subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=9, options=(0, 2)),
                           subscribe(VEHICLE, 1, VALUE_GROUP, MAJOR, ttl=9, options=(0, 1))],
                          [own, option], to=host.address)
                answers = {group: peer.entry(ACKNOWLEDGE, VEHICLE, group=group, after=start).ttl
                           for group in (TICK_GROUP, VALUE_GROUP)}
                self.assertEqual(answers, {TICK_GROUP: 0, VALUE_GROUP: 9})

    # References

    def test_both_runs(self):
        host, peer = self.vehicle()
        events = peer.socket()
        unused = endpoint(peer.address, 1)
        array = [unused, unused, endpoint(events), configuration(b"key")]
        for runs in ({"options": (2, 1)}, {"options": (2, 2)},
                     {"options": (0, 0), "index_2": 2, "n_opt_2": 1},
                     {"options": (3, 1), "index_2": 2, "n_opt_2": 1},
                     {"options": (2, 1), "index_2": 3, "n_opt_2": 1}):
            with self.subTest(runs):
                self.assertEqual(self.ask(host, peer, array, **runs), 9)
        host.do("event first tick 01")
        events.wait(lambda one: one.payload == b"\x01")

    def test_index_of_empty_run(self):
        host, peer = self.vehicle("find Remote")
        own = endpoint(peer.caller())
        for index in (1, 7, 255):
            self.assertEqual(self.ask(host, peer, [own], index_2=index), 9)
            self.assertEqual(self.ask(host, peer, [own], options=(index, 0), n_opt_2=1), 9)
        self.assertEqual(self.found(host, peer, [([own], {"index_2": 200}),
                                                 ([own], {"options": (9, 0), "n_opt_2": 1})]), [1, 2])

    def test_beyond_the_array(self):
        host, peer = self.vehicle("find Remote")
        own = endpoint(peer.caller())
        for runs in ({"options": (1, 1)}, {"options": (0, 2)}, {"options": (255, 15)},
                     {"options": (0, 1), "index_2": 1, "n_opt_2": 1}, {"options": (0, 15)}):
            with self.subTest(runs):
                self.assertEqual(self.ask(host, peer, [own], **runs), 0)
        self.assertEqual(self.ask(host, peer, []), 0)
        self.assertEqual(self.found(host, peer, [([own], {"options": (1, 1)}),
                                                 ([own], {"options": (0, 3)}),
                                                 ([own], {"options": (200, 15)})]), [])

    def test_missing_endpoint(self):
        host, peer = self.vehicle("offer stream", "find Remote")
        self.offered(peer, STREAM)
        tcp, udp = endpoint(peer.address, 40000, TCP_PROTOCOL), endpoint(peer.caller())
        for options in ([], [tcp], [configuration(b"key")]):
            self.assertEqual(self.ask(host, peer, options), 0)
        self.assertEqual(self.ask(host, peer, [udp], STREAM), 0)
        self.assertEqual(self.found(host, peer, [([], {}), ([configuration(b"key")], {})]), [])

    def test_unknown_options(self):
        host, peer = self.vehicle("find Remote")
        own = endpoint(peer.caller())
        unknown = [raw_option(0x77, b"\0anything"), raw_option(0xFF, b"\x80"), raw_option(0x30, b""),
                   raw_option(0x15, bytes(0x11))]
        for option in unknown:
            for array in ([own, option], [option, own]):
                with self.subTest(array=[bytes(one).hex() for one in array]):
                    self.assertEqual(self.ask(host, peer, array), 9)
        self.assertEqual(self.found(host, peer, [([option, own], {}) for option in unknown]),
                         list(range(1, len(unknown) + 1)))

    def test_redundant_options(self):
        host, peer = self.vehicle("find Remote")
        own, tcp = endpoint(peer.caller()), endpoint(peer.address, 40000, TCP_PROTOCOL)
        group = SDOption_IP4_Multicast(addr="239.1.2.3", port=40000)
        for options in ([own, tcp], [own, own], [own, group], [group, own]):
            with self.subTest(options=[bytes(one).hex() for one in options]):
                self.assertEqual(self.ask(host, peer, options), 9)
        self.assertEqual(self.found(host, peer, [([own, tcp], {}), ([own, own], {}),
                                                 ([own, group], {})]), [1, 2, 3])

    def test_conflicting_options(self):
        host, peer = self.vehicle("find Remote")
        own = endpoint(peer.caller())
        others = [endpoint(peer.address, 40000), endpoint(self.network.address(77, 99), 40000)]
        for other in others:
            self.assertEqual(self.ask(host, peer, [own, other]), 0)
            self.assertEqual(self.ask(host, peer, [own, other], options=(0, 1), index_2=1, n_opt_2=1),
                             0)
        self.assertEqual(self.found(host, peer, [([own, other], {}) for other in others]), [])

    def test_options_of_finds(self):
        host, peer = self.vehicle()
        for options in ([endpoint(peer.caller())], [endpoint("239.1.2.3", 0)],
                        [SDOption_IP4_Multicast(addr="239.1.2.3", port=40000)],
                        [configuration(b"key=value")], [SDOption_LoadBalance()],
                        [raw_option(0x77, b"\0x")]):
            start = time.time()
            peer.tell(find(VEHICLE, n_opt_1=1), options, to=host.address)
            peer.entry(OFFER, VEHICLE, after=start, multicast=False)

    def test_find_beyond_the_array(self):
        host, peer = self.vehicle()
        peer.tell(find(VEHICLE, n_opt_1=1), to=host.address)
        peer.tell(find(VEHICLE, index_1=3, n_opt_1=2), [endpoint(peer.caller())], to=host.address)
        peer.barrier(host.address)
        self.assertEqual(peer.unicast.entries, [])
        self.assertEqual(host.count("droppedEntries"), 2)

    # Endpoints of offers

    def test_source_of_events(self):
        host, peer = self.vehicle("offer second")
        for instance, specifier in ((1, "first"), (2, "second")):
            events = peer.socket()
            (address, port, _), = self.offered(peer, VEHICLE, instance=instance).endpoints
            peer.subscribed(host.address, VEHICLE, instance, TICK_GROUP, events, major=MAJOR)
            host.do(f"event {specifier} tick 01")
            self.assertEqual(events.wait(lambda one: True).source, (address, port))
            self.assertEqual(peer.call((address, port), VEHICLE, ECHO, interface=MAJOR).code, 0)

    def test_stream_of_events(self):
        host, peer = self.vehicle("offer stream")
        address, port, _ = next(one for one in self.offered(peer, STREAM).endpoints
                                if one[2] == TCP_PROTOCOL)
        stream = peer.connect((address, port))
        self.assertEqual(self.ask(host, peer, [endpoint(*stream.address, TCP_PROTOCOL)], STREAM), 9)
        host.do("event stream tick 01")
        self.assertEqual(stream.wait(lambda one: one.method == TICK).payload, b"\x01")

    def test_instances_by_endpoint(self):
        host, peer = self.vehicle("find Remote")
        servers = {instance: peer.socket(SERVER_PORT + instance) for instance in (1, 2)}
        for instance, server in servers.items():
            peer.tell(offer(REMOTE, instance, MAJOR, ttl=ENDLESS), [endpoint(server)])
        host.said("found Remote 1 2")
        for instance in servers:
            host.do(f"subscribe Remote {instance} tick")
            entry = peer.entry(SUBSCRIBE, REMOTE, instance=instance)
            peer.tell(acknowledge(entry), to=host.address)
            host.said(f"state Remote {instance} tick on")
        for instance, server in servers.items():
            self.notify(server, entry, bytes([instance]), TICK)
            host.said(f"notification Remote {instance} tick 0{instance}")
        self.notify(peer.socket(), entry, b"\x66", TICK)
        for wrong in ({"interface": MAJOR + 1}, {"interface": MAJOR, "code": 1}):
            servers[1].send(someip(REMOTE, TICK, b"\x66", type=NOTIFICATION, **wrong), entry.endpoints[0][:2])
        self.notify(servers[1], entry, b"\x77", TICK)
        host.said("notification Remote 1 tick 77")
        self.assertFalse([line for line in host.lines if line.endswith(" 66")])
        self.assertEqual(len([line for line in host.lines if line.startswith("notification")]), 3)

    def test_options_rule(self):
        host, peer = self.vehicle("find Remote")
        elsewhere = self.peer(listen=False)
        events = elsewhere.socket()
        self.assertEqual(self.ask(host, peer, [endpoint(events)]), 9)
        host.do("event first tick 01")
        events.wait(lambda one: one.payload == b"\x01")
        server = elsewhere.socket(SERVER_PORT)
        peer.tell(offer(REMOTE, 1, MAJOR, ttl=ENDLESS), [endpoint(server)])
        host.said("found Remote 1")
        host.do("call Remote 1 echo 01")
        server.wait(lambda one: one.service == REMOTE)

    def test_multicast_of_acknowledgement(self):
        host, peer, server = self.remote("subscribe RemoteGroup 1 tick", service="RemoteGroup")
        entry = peer.entry(SUBSCRIBE, REMOTE_GROUP)
        group = (f"239.195.{self.network.number}.9", MULTICAST_PORT)
        for number in (1, 2):
            peer.tell(acknowledge(entry, options=(0, 2)),
                      [endpoint(peer.caller()), SDOption_IP4_Multicast(addr=group[0], port=group[1])],
                      to=host.address)
            host.said("state RemoteGroup 1 tick on")
            peer.barrier(host.address)
            self.notify(server, group, bytes([number]), TICK, "RemoteGroup")
            host.said(f"notification RemoteGroup 1 tick 0{number}")
            self.offer(peer, server, service="RemoteGroup")
            entry = peer.entry(SUBSCRIBE, REMOTE_GROUP, count=number + 1)

    def test_wrong_multicast(self):
        host, peer, server = self.remote("subscribe RemoteGroup 1 tick", service="RemoteGroup")
        entry = peer.entry(SUBSCRIBE, REMOTE_GROUP)
        group = f"239.195.{self.network.number}.9"
        for options in ([SDOption_IP4_Multicast(addr=peer.address, port=40000)],
                        [SDOption_IP4_Multicast(addr=group, port=40000, l4_proto=TCP_PROTOCOL)],
                        [SDOption_IP4_Multicast(addr=group, port=0)],
                        [SDOption_IP4_Multicast(addr=group, port=40000),
                         SDOption_IP4_Multicast(addr=group, port=40001)]):
            peer.tell(acknowledge(entry, options=(0, len(options))), options, to=host.address)
        peer.barrier(host.address)
        self.assertNotIn("state RemoteGroup 1 tick on", host.lines)
        peer.tell(acknowledge(entry), to=host.address)
        host.said("state RemoteGroup 1 tick on")

    # Which addresses count

    WRONG = ("10.1.2.3", "0.0.0.0", "255.255.255.255", "239.1.2.3")

    def test_addresses(self):
        host, peer = self.vehicle("find Remote")
        number = self.network.number
        wrong = (*self.WRONG, f"127.{number + 100}.0.1", f"127.{number}.255.255", host.address)
        for address in wrong:
            with self.subTest(address):
                self.assertEqual(self.ask(host, peer, [endpoint(address, 40000)]), 0)
        self.assertEqual(self.found(host, peer, [([endpoint(address, 40000)], {})
                                                 for address in wrong]), [])

    def test_senders(self):
        host, peer = self.vehicle()
        # No address beside the network's own is touched by other tests.
        foreign = Socket(self.network, f"127.{self.network.number + 100}.0.1",
                         self.network.discovery_port)
        self.addCleanup(foreign.close)
        foreign.send(discovery([find(VEHICLE)]), (host.address, self.network.discovery_port))
        peer.barrier(host.address)
        self.assertEqual(foreign.messages, [])

    def test_no_check(self):
        manifest = host_manifest(self.network)
        manifest["nodes"]["host"]["prefixLength"] = 0
        host, peer = self.vehicle(manifest=manifest)
        foreign = Socket(self.network, f"127.{self.network.number + 100}.0.1")
        self.addCleanup(foreign.close)
        self.assertEqual(self.ask(host, peer, [endpoint(foreign)]), 9)
        host.do("event first tick 01")
        foreign.wait(lambda one: one.payload == b"\x01")
        for address in ("0.0.0.0", "239.1.2.3", host.address):
            self.assertEqual(self.ask(host, peer, [endpoint(address, 40000)]), 0)

    def test_ipv6(self):
        host, peer = self.vehicle("find Remote")
        six, own = SDOption_IP6_EndPoint(addr="fd00::1", port=40000), endpoint(peer.caller())
        self.assertEqual(self.ask(host, peer, [six]), 0)
        self.assertEqual(self.ask(host, peer, [six, own]), 9)
        self.assertEqual(self.found(host, peer, [([six], {}), ([six, own], {})]), [2])

    # The discovery endpoint

    def test_discovery_endpoint(self):
        host, peer = self.vehicle("find Remote")
        behind = self.peer(listen=False)
        port = behind.socket()
        option = SDOption_IP4_SD_EndPoint(addr=behind.address, port=port.port)
        peer.tell(find(VEHICLE), [option], to=host.address)
        def entry(type, service):
            return self.network.wait(lambda: next(
                (one for one in port.entries if (one.type, one.service) == (type, service)), None),
                f"entry {type} {service}")
        entry(OFFER, VEHICLE)
        peer.tell(subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, options=(1, 1)),
                  [option, endpoint(peer.caller())], to=host.address)
        entry(ACKNOWLEDGE, VEHICLE)
        peer.tell(offer(REMOTE, 1, MAJOR, ttl=ENDLESS, options=(1, 1)),
                  [option, endpoint(peer.address, SERVER_PORT)])
        host.said("found Remote 1")
        host.do("subscribe Remote 1 tick")
        entry(SUBSCRIBE, REMOTE)
        self.assertEqual(peer.unicast.entries, [])

    def test_restarts_of_discovery_endpoint(self):
        host, peer = self.vehicle()
        behind = self.peer(listen=False)
        option = SDOption_IP4_SD_EndPoint(addr=behind.address, port=self.network.discovery_port)
        events = {}
        for name, options, first in (("own", [], 10), ("behind", [option], 10)):
            events[name] = peer.socket()
            peer.tell(subscribe(VEHICLE, 1, TICK_GROUP, MAJOR, ttl=ENDLESS, options=(len(options), 1)),
                      [*options, endpoint(events[name])], to=host.address, session=first)
        self.network.wait(lambda: peer.unicast.entries and behind.unicast.entries, "acknowledgements")
        # The one behind restarts.
        peer.tell(find(VEHICLE), [option], to=host.address, session=1)
        self.network.wait(lambda: len(behind.unicast.entries) == 2, "answer")
        host.do("event first tick 01")
        events["own"].wait(lambda one: True)
        peer.call(host.udp(), VEHICLE, ECHO, interface=MAJOR)
        self.assertEqual(events["behind"].messages, [])

    def test_first_discovery_endpoint(self):
        host, peer = self.vehicle()
        first, second = self.peer(listen=False), self.peer(listen=False)
        options = [SDOption_IP4_SD_EndPoint(addr=one.address, port=self.network.discovery_port)
                   for one in (first, second)]
        peer.tell(find(VEHICLE), options, to=host.address)
        self.network.wait(lambda: first.unicast.entries, "answer")
        peer.barrier(host.address)
        self.assertEqual(second.unicast.entries, [])

    def test_wrong_discovery_endpoint(self):
        host, peer = self.vehicle()
        for address in ("10.1.2.3", "0.0.0.0", "255.255.255.255", host.address):
            option = SDOption_IP4_SD_EndPoint(addr=address, port=self.network.discovery_port)
            peer.tell(find(VEHICLE), [option], to=host.address)
        peer.barrier(host.address)
        self.assertEqual(peer.unicast.entries, [])

    def test_own_options(self):
        host, peer = self.vehicle("offer group", "offer stream", "find Remote")
        self.offered(peer, STREAM)
        self.offered(peer, POSITIONING)
        self.ask(host, peer, [endpoint(peer.caller())], GROUP)
        kinds = {}
        for channel in (peer.unicast, peer.multicast):
            for one in channel.entries:
                kinds.setdefault(one.type, set()).update(option.type for option in one.options)
        self.assertEqual(kinds, {FIND: set(), OFFER: {0x04}, ACKNOWLEDGE: {0x14}})


if __name__ == "__main__":
    suite.main(Options)
