"""A group of conformance tests: unittest cases, each named in a row of docs/conformance.md that says which
requirements it looks at."""

import re
import subprocess
import sys
import unittest

import devices
import network as net
from desk import SOURCE, Desk
from devices import ECHO, REMOTE, REMOTE_GROUP, REMOTE_STREAM, SERVER_PORT, TICK, VALUE, VALUE_GROUP, VEHICLE

PAGE = SOURCE / "docs/conformance.md"
# What tshark finds wrong with a message.
COMPLAINTS = ("_ws.malformed", "someip.incomplete_headers", "someip.unknown_protocol_version",
              "someip.tp.fragment.error", "someipsd.message_truncated",
              "someipsd.entry_array_malformed", "someipsd.entry_array_empty", "someipsd.entry_unknown",
              "someipsd.option_array_truncated", "someipsd.option_array_bytes_left",
              "someipsd.option_unknown", "someipsd.option_wrong_length",
              "someipsd.L4_protocol_unsupported", "someipsd.config_string_malformed")
# The options that an entry of a device may refer to.
OPTIONS = {net.FIND: set(), net.OFFER: {0x04}, net.SUBSCRIBE: {0x04}, net.ACKNOWLEDGE: {0x14}}
REMOTE_IDS = {"Remote": REMOTE, "RemoteGroup": REMOTE_GROUP, "RemoteStream": REMOTE_STREAM}


class Group(unittest.TestCase):
    """A group of rules. `title` heads its table in docs/conformance.md, `application` starts the application once for
    all tests, `streams` carry several messages a packet."""

    maxDiff = None
    title = None
    application = True
    streams = False

    @classmethod
    def setUpClass(cls):
        cls.network = net.Network()
        cls.addClassCleanup(cls.network.close)
        cls.desk = cls.enterClassContext(Desk(cls.network.number))
        if cls.application:
            peer = cls.network.peer()
            cls.pos = devices.Application(cls.network, cls.desk)
            cls.addClassCleanup(cls.pos.kill)
            cls.pos.running(peer)
            peer.close()

    def setUp(self):
        self.start = len(self.network.seen)

    def peer(self, **options):
        made = self.network.peer(**options)
        self.addCleanup(made.close)
        return made

    def host(self, *commands, **options):
        made = devices.Host(self.network, self.desk, **options)
        self.addCleanup(made.kill)
        made.do(*commands)
        return made

    # The host as server

    def vehicle(self, *commands, offers="first", service=VEHICLE, **options):
        """The host with this instance offered after the commands, and a peer that has seen the offer."""
        host = self.host(*commands, f"offer {offers}", **options)
        peer = self.peer()
        peer.entry(net.OFFER, service)
        return host, peer

    def subscription(self, host, peer, group=VALUE_GROUP, service=VEHICLE, **fields):
        """Subscribes at the host's first instance; returns where the events come."""
        events = peer.socket()
        self.assertGreater(peer.subscribed(host, service, group, events, **fields).ttl, 0)
        return events

    def event(self, host, *channels, value=1, of="first"):
        """An event of that instance of the host's reaches these channels."""
        host.do(f"notify {of} tick {value:02x}")
        for channel in channels:
            channel.wait(lambda one: (one.method, one.payload) == (TICK, bytes([value])), f"event {value}")

    def settled(self, device, peer, **fields):
        """What was told before has been dealt with, and what follows from it has been sent."""
        peer.barrier(device)
        peer.call(device, *device.ping, **fields)

    def only_answered(self, device, peer, *sessions):
        """Of all requests that the peer's caller has sent, only these have been answered, in whatever order."""
        self.settled(device, peer, session=0x7777)
        expected = sorted([*sessions, 0x7777])
        answered = peer.caller().messages
        self.network.wait(lambda: len(answered) >= len(expected), "responses")
        self.assertEqual(sorted(one.session for one in answered), expected)

    # The host as client

    def remote(self, *commands, service="Remote", **options):
        """The host knows a service of the peer's; returns also where its requests come."""
        peer = self.peer()
        host = self.host(f"find {service}", **options)
        server = (peer.listener if service == "RemoteStream" else peer.socket)(SERVER_PORT)
        server.service = service
        self.offer(peer, server)
        host.said(f"found {service} 1")
        host.do(*commands)
        return host, peer, server

    def offer(self, peer, server, to=None, **fields):
        """The peer offers, or stops to offer, what remote() has made."""
        peer.tell(net.offer(REMOTE_IDS[server.service], **fields), [net.endpoint(server)], to)

    def renewed(self, peer, server):
        """Offers again; returns the entries of the message that the host subscribes with."""
        known = len(peer.unicast.entries)
        self.offer(peer, server)
        self.network.wait(lambda: len(peer.unicast.entries) > known, "subscription")
        return peer.unicast.entries[known:]

    def active(self, host, peer, element="value", service="Remote"):
        """The host has subscribed and has been acknowledged; returns the entry."""
        host.do(f"subscribe {service} 1 {element}")
        entry = peer.entry(net.SUBSCRIBE, REMOTE_IDS[service])
        peer.acknowledge(entry)
        host.said(f"state {service} 1 {element} on")
        return entry

    def notify(self, server, to, payload, event=VALUE, **fields):
        """A notification of the peer's; `to` is where, or the entry that subscribed."""
        to = to.endpoints[0][:2] if isinstance(to, net.Entry) else to
        service = REMOTE_IDS[getattr(server, "service", "Remote")]
        server.send(net.someip(service, event, payload, type=net.NOTIFICATION, **fields), to)

    def reaches(self, host, server, to, value, event=VALUE):
        """A notification of the peer's is told to the host's user."""
        self.notify(server, to, bytes([value]), event)
        element = {VALUE: "value", TICK: "tick"}[event]
        host.said(f"notification {server.service} 1 {element} {value:02x}")

    def respond(self, server, request, payload=b"", **fields):
        """The response of the peer's to a request of the host's; `fields` are what is unusual about it."""
        right = {"service": REMOTE, "method": ECHO, "client": request.client, "session": request.session,
                 "type": net.RESPONSE}
        server.send(net.someip(payload=payload, **{**right, **fields}), request.source)

    def looks_right(self, message):
        """What holds for every message of a device."""
        self.assertEqual((message.protocol, message.length), (1, len(message.raw) - 8))
        if not message.code:
            self.assertEqual(message.method >= 0x8000, message.type & ~net.TP == net.NOTIFICATION)
            self.assertEqual(message.interface, net.versions.get(message.service, 1))
        self.assertEqual(message.is_discovery, message.source[1] == self.network.discovery_port)
        if not message.is_discovery:
            return
        self.assertEqual(message.raw[8:10] + message.raw[12:16], bytes.fromhex("0000" "01010200"))
        self.assertNotEqual(message.session, 0)
        self.assertEqual(message.payload[0] & ~net.REBOOT, net.UNICAST | net.EXPLICIT)
        self.assertEqual(message.payload[1:4], b"\0\0\0")
        discovery = net.SD(message.payload)
        self.assertEqual(len(message.payload), 12 + discovery.len_entry_array + discovery.len_option_array)
        options = [bytes(one) for one in discovery.option_array]
        self.assertEqual(len(options), len(set(options)), "an option twice")
        for one in discovery.entry_array:
            for index, count in ((one.index_1, one.n_opt_1), (one.index_2, one.n_opt_2)):
                self.assertLessEqual(index + count, len(options))
                self.assertTrue(count or not index)
                used = {option.type for option in discovery.option_array[index:index + count]}
                self.assertLessEqual(used, OPTIONS[one.type])

    def test_dissection(self):
        """Last: everything that a device sent in this group, looked at here and by another program."""
        for one in self.network.seen:
            with self.subTest(one):
                self.looks_right(one)
        capture = self.desk.path / "capture.pcap"
        self.network.write_capture(capture)
        ports = [str(self.network.discovery_port), "30501-30542", "30701-30799", "49201"]
        decode = [word for port in ports for layer in ("udp", "tcp")
                  for word in ("-d", f"{layer}.port=={port},someip")]

        def found(which):
            return subprocess.run(["tshark", "-r", str(capture), *decode, "-Y", which], check=True,
                                  capture_output=True, text=True).stdout.splitlines()
        self.assertEqual(found(" || ".join(COMPLAINTS)), [])
        self.assertGreaterEqual(len(found("someip")), 1 if self.streams else len(self.network.raw))


def main(group):
    """Runs the tests that the page names in its order, or those that the command line names. Each test of
    the group has a row, and each row a test, here or "of" another group, or a reason why it does not apply."""
    section = PAGE.read_text(encoding="utf-8").partition(f"\n## {group.title}\n")[2].partition("\n## ")[0]
    rows = [[cell.strip() for cell in line.split("|")[2:5]] for line in section.splitlines() if line.startswith("| ")]
    tested = {}
    for text, name, verdict in rows[1:]:
        assert verdict == "pass" if name else verdict.startswith("does not apply: "), (text, verdict)
        test, _, elsewhere = name.partition(" of ")
        if elsewhere:
            files = (SOURCE / "tests").glob(f"*/{elsewhere}.*")
            defined = rf"def {test}\(|TEST\w*\(\s*\w+,\s*{test}\)"
            assert any(re.search(defined, file.read_text(encoding="utf-8")) for file in files), name
        elif test:
            tested.setdefault(test, []).append(text)
    names = {name for name in dir(group) if name.startswith("test_")}
    assert tested.keys() == names, f"tests without row, rows without test: {tested.keys() ^ names}"
    wanted = [name for name in tested if not sys.argv[1:] or any(part in name for part in sys.argv[1:])]
    wanted.sort(key="test_dissection".__eq__)
    for name in wanted:
        print(f"{name}: {'; '.join(tested[name])}")
    result = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(map(group, wanted)))
    sys.exit(not result.wasSuccessful())
