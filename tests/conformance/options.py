"""Options of discovery: their formats, how entries refer to them, and which of them count."""

import pathlib

from devices import *
from network import *
import suite


def multicast(address, port, protocol=UDP_PROTOCOL):
    return SDOption_IP4_Multicast(addr=address, port=port, l4_proto=protocol)


class Options(suite.Group):
    title = "Options"
    streams = True

    # Formats

    def test_formats(self):
        host, peer = self.vehicle("offer stream", "offer group")
        address = bytes(map(int, host.address.split("."))).hex()
        for service, expected in ((VEHICLE, [f"0011{VEHICLE_PORT:04x}"]), (GROUP, [f"0011{GROUP_PORT:04x}"]),
                                  (STREAM, [f"0006{STREAM_PORT:04x}", f"0011{STREAM_PORT:04x}"])):
            options = peer.entry(OFFER, service).options
            self.assertEqual(sorted(bytes(one).hex() for one in options),
                             [f"00090400{address}{one}" for one in expected])
        wish = subscribe(GROUP, TICK_GROUP)
        answer, = peer.ask(host, wish, [endpoint(peer.caller(), res_hdr=0xFF, res_tail=0xFF)])
        option, = answer.options
        self.assertEqual(bytes(option).hex(), f"00091400efc3{self.network.number:02x}010011{MULTICAST_PORT:04x}")
        self.assertEqual(peer.subscribed(host, VEHICLE, TICK_GROUP, peer.caller()).options, [])

    # Endpoints of offers

    def test_source_of_events(self):
        host, peer = self.vehicle("notify first value 01", "notify second value 02", "notify stream value 01",
                                  "offer second", "offer stream")
        for service, instance, specifier in ((VEHICLE, 1, "first"), (VEHICLE, 2, "second"), (STREAM, 1, "stream")):
            offered = peer.entry(OFFER, service, instance=instance).endpoints
            at = next((address, port) for address, port, protocol in offered
                      if protocol == TCP_PROTOCOL or service == VEHICLE)
            events = peer.connect(at) if service == STREAM else peer.socket()
            self.assertGreater(peer.subscribed(host, service, TICK_GROUP, events, instance=instance).ttl, 0)
            host.do(f"notify {specifier} tick 01")
            self.assertEqual(events.wait(lambda one: one.method == TICK).source, at)
            answer = peer.call(events if service == STREAM else at, service, VALUE_GETTER)
            self.assertEqual(answer.payload, bytes([instance]))

    def test_instances_by_endpoint(self):
        host, peer = self.vehicle("find Remote")
        servers = {instance: peer.socket(SERVER_PORT + instance) for instance in (1, 2)}
        for instance, server in servers.items():
            peer.tell(offer(REMOTE, instance), [endpoint(server)])
        host.said("found Remote 1 2")
        for instance in servers:
            host.do(f"subscribe Remote {instance} tick")
            entry = peer.entry(SUBSCRIBE, REMOTE, instance=instance)
            peer.acknowledge(entry)
            host.said(f"state Remote {instance} tick on")
        for instance, server in servers.items():
            self.notify(server, entry, bytes([instance]), TICK)
            host.said(f"notification Remote {instance} tick 0{instance}")
        self.notify(peer.socket(), entry, b"\x66", TICK)
        for wrong in ({"interface": MAJOR + 1}, {"code": 1}):
            self.notify(servers[1], entry, b"\x66", TICK, **wrong)
        self.notify(servers[1], entry, b"\x77", TICK)
        host.said("notification Remote 1 tick 77")
        self.assertEqual([line.split()[-1] for line in host.lines if line.startswith("notification")],
                         ["01", "02", "77"])

    def test_multicast_of_acknowledgement(self):
        host, peer, server = self.remote("subscribe RemoteGroup 1 tick", service="RemoteGroup")
        first, second = ((f"239.195.{self.network.number}.{last}", MULTICAST_PORT) for last in (8, 9))
        entry = peer.entry(SUBSCRIBE, REMOTE_GROUP)
        for wrong in ([multicast(peer.address, 40000)], [multicast(*second, TCP_PROTOCOL)],
                      [multicast(second[0], 0)], [multicast(*second), multicast(second[0], 40001)]):
            peer.acknowledge(entry, wrong)
        peer.barrier(host)
        self.assertNotIn("state RemoteGroup 1 tick on", host.lines)
        for number, group in enumerate((first, first, second), 1):
            entry = peer.entry(SUBSCRIBE, REMOTE_GROUP, count=number)
            peer.acknowledge(entry, [endpoint(peer.caller()), multicast(*group)])
            host.said("state RemoteGroup 1 tick on")
            peer.barrier(host)
            self.reaches(host, server, group, number, TICK)
            self.reaches(host, server, entry, number + 0x10, TICK)
            self.offer(peer, server)
        # What an earlier acknowledgement named is left again.
        joined = pathlib.Path("/proc/net/igmp").read_text(encoding="ascii")
        self.assertEqual([f"{last:02X}{self.network.number:02X}C3EF" in joined for last in (8, 9)], [False, True])

    # Which addresses count

    def test_senders(self):
        host, peer = self.vehicle()
        foreign = Socket(self.network, f"127.{self.network.number + 100}.0.1", self.network.discovery_port)
        self.addCleanup(foreign.close)
        foreign.send(discovery([find(VEHICLE)]), (host.address, self.network.discovery_port))
        peer.barrier(host)
        self.assertEqual(foreign.messages, [])

    # The discovery endpoint

    def test_discovery_endpoint(self):
        host, peer = self.vehicle("find Remote")
        behind = self.peer(listen=False)
        another = self.peer(listen=False)
        option = discovery_endpoint(behind.address)
        peer.tell(find(VEHICLE), [option, discovery_endpoint(another.address)], host)
        behind.entry(OFFER, VEHICLE)
        peer.tell(subscribe(VEHICLE, TICK_GROUP, options=(1, 1)), [option, endpoint(peer.caller())], host)
        behind.entry(ACKNOWLEDGE, VEHICLE)
        peer.tell(offer(REMOTE, options=(1, 1)), [option, endpoint(peer.address, SERVER_PORT)])
        host.said("found Remote 1")
        host.do("subscribe Remote 1 tick")
        behind.entry(SUBSCRIBE, REMOTE)
        self.assertEqual((peer.unicast.entries, another.unicast.entries), ([], []))

    def test_restarts_of_discovery_endpoint(self):
        host, peer = self.vehicle()
        behind = self.peer(listen=False)
        option = discovery_endpoint(behind.address)
        own, others, behinds = peer.socket(), peer.socket(), behind.socket()
        for events, options in ((own, []), (others, [option])):
            peer.tell(subscribe(VEHICLE, TICK_GROUP, options=(len(options), 1)), [*options, endpoint(events)], host,
                      session=10)
        for one in (peer, behind):
            one.entry(ACKNOWLEDGE, VEHICLE, multicast=False)
        self.assertGreater(behind.subscribed(host, VEHICLE, TICK_GROUP, behinds).ttl, 0)
        # The one behind restarts, says the peer: what the one behind has said itself stays.
        peer.tell(find(VEHICLE), [option], host, session=1)
        behind.entry(OFFER, VEHICLE)
        self.event(host, own, behinds)
        peer.call(host, *host.ping)
        self.assertEqual(others.messages, [])

    def test_discovery_endpoint_and_list(self):
        friend, other, stranger = (self.peer() for _ in range(3))
        host = self.host("offer closed", "find RemoteClosed", allowed=[friend.address, other.address],
                         requestResponseDelayMaxMs=0)
        friend.entry(OFFER, CLOSED)
        friend.entry(OFFER, CLOSED)

        def ask(sender, behind, at):
            """A find, a subscription and an offer: what they have led to."""
            events, known = at.socket(), len(behind.unicast.entries)
            wish = subscribe(CLOSED, TICK_GROUP, options=(1, 1))
            options = [discovery_endpoint(behind.address), endpoint(sender.caller() if at is sender else events)]
            sender.tell([find(CLOSED), wish, offer(REMOTE_CLOSED, options=(1, 1))], options, host)
            friend.tell(offer(REMOTE_CLOSED, 9), [endpoint(friend.caller())], host)
            found = self.network.wait(lambda: host.lines[-1].endswith(" 9") and host.lines[-1], "the last offer")
            sender.tell(offer(REMOTE_CLOSED, ttl=0, options=(1, 1)), options, host)
            friend.tell(offer(REMOTE_CLOSED, 9, ttl=0), [endpoint(friend.caller())], host)
            self.network.wait(lambda: host.lines[-1] == "found RemoteClosed", "the end of all offers")
            return sorted((one.type, one.ttl > 0) for one in behind.unicast.entries[known:]), "1" in found.split()
        offered, accepted, refused = (OFFER, True), (ACKNOWLEDGE, True), (ACKNOWLEDGE, False)
        self.assertEqual(ask(friend, other, friend), ([offered, accepted], True))
        self.assertEqual(ask(stranger, stranger, stranger), ([refused], False))
        self.assertEqual(ask(stranger, friend, stranger), ([], False))
        self.assertEqual(ask(stranger, friend, friend), ([], False))
        self.assertEqual(ask(friend, stranger, friend), ([], False))
        self.assertEqual(ask(friend, other, stranger), ([offered], False))


if __name__ == "__main__":
    suite.main(Options)
