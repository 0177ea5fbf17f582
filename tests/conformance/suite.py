"""A group of conformance tests: unittest cases, each named in a row of docs/conformance.md that says which
requirements it looks at."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import devices
from devices import ECHO, MAJOR, REMOTE, REMOTE_GROUP, REMOTE_STREAM, SERVER_PORT, VALUE, VALUE_GROUP, VEHICLE
import network as net

PAGE = devices.SOURCE / "docs/conformance.md"
# What tshark finds wrong with a message.
COMPLAINTS = ("_ws.malformed", "someip.incomplete_headers", "someip.unknown_protocol_version",
              "someip.tp.fragment.error", "someipsd.message_truncated",
              "someipsd.entry_array_malformed", "someipsd.entry_array_empty", "someipsd.entry_unknown",
              "someipsd.option_array_truncated", "someipsd.option_array_bytes_left",
              "someipsd.option_unknown", "someipsd.option_wrong_length",
              "someipsd.L4_protocol_unsupported", "someipsd.config_string_malformed")
REMOTE_IDS = {"Remote": REMOTE, "RemoteGroup": REMOTE_GROUP, "RemoteStream": REMOTE_STREAM}


def rows_of(title):
    """(what is checked, name of the test or nothing, verdict) of each row below a heading of the page."""
    section = PAGE.read_text(encoding="utf-8").partition(f"\n## {title}\n")[2].partition("\n## ")[0]
    rows = [[cell.strip() for cell in line.split("|")[2:5]]
            for line in section.splitlines() if line.startswith("| ")]
    return rows[1:]


class Group(unittest.TestCase):
    """A group of rules. `title` heads its table in docs/conformance.md, `base` chooses its addresses,
    `application` starts the application once for all tests, `streams` carry several messages a packet."""

    maxDiff = None
    title = None
    base = 0
    application = {}  # timing, None: the group needs none
    streams = False

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="pos-conformance-")
        cls.network = net.Network(cls.base)
        cls.pos = None
        if cls.application is not None:
            peer = cls.network.peer()
            cls.pos = devices.Application(cls.network, cls.folder.name, **cls.application)
            cls.pos.running(peer)
            peer.close()

    @classmethod
    def tearDownClass(cls):
        if cls.pos:
            cls.pos.kill()
        cls.network.close()
        cls.folder.cleanup()

    def setUp(self):
        self.start = len(self.network.seen)

    def peer(self, **options):
        made = self.network.peer(**options)
        self.addCleanup(made.close)
        return made

    def host(self, *commands, **options):
        made = devices.Host(self.network, self.folder.name, **options)
        self.addCleanup(made.kill)
        for command in commands:
            made.do(command)
        return made

    def offered(self, peer, service, **fields):
        """Waits for an offer of the device under test."""
        return peer.entry(net.OFFER, service, **fields)

    # The host as server

    def vehicle(self, *commands, offers="first", service=VEHICLE, **options):
        """The host with this instance offered after the commands, and a peer that has seen the offer."""
        host = self.host(*commands, f"offer {offers}", **options)
        peer = self.peer()
        self.offered(peer, service)
        return host, peer

    def subscription(self, host, peer, group=VALUE_GROUP, **fields):
        """Subscribes at the host's first instance; returns where the events come."""
        events = peer.socket()
        fields.setdefault("ttl", net.ENDLESS)
        answer = peer.subscribed(host.address, VEHICLE, 1, group, events, major=MAJOR, **fields)
        self.assertEqual(answer.ttl, fields["ttl"])
        return events

    def settled(self, host, peer):
        """What was told before has been dealt with, and what follows from it has been sent."""
        peer.barrier(host.address)
        peer.call(host.udp(), VEHICLE, ECHO, interface=MAJOR)

    # The host as client

    def remote(self, *commands, service="Remote", flags=net.REBOOT | net.UNICAST, ttl=net.ENDLESS, **options):
        """The host knows a service of the peer's; returns also where its requests come."""
        peer = self.peer(flags=flags)
        host = self.host(f"find {service}", **options)
        server = (peer.listener if service == "RemoteStream" else peer.socket)(SERVER_PORT)
        self.offer(peer, server, service=service, ttl=ttl)
        host.said(f"found {service} 1")
        for command in commands:
            host.do(command)
        return host, peer, server

    def offer(self, peer, server, to=None, service=None, **fields):
        fields.setdefault("ttl", net.ENDLESS)
        streams = isinstance(server, net.Listener)
        id = REMOTE_STREAM if streams else REMOTE_IDS[service or "Remote"]
        protocol = net.TCP_PROTOCOL if streams else net.UDP_PROTOCOL
        peer.tell(net.offer(id, 1, MAJOR, **fields), [net.endpoint(*server.address, protocol)], to=to)

    def active(self, host, peer, element="value", service="Remote"):
        """The host has subscribed and has been acknowledged; returns the entry."""
        host.do(f"subscribe {service} 1 {element}")
        entry = peer.entry(net.SUBSCRIBE, REMOTE_IDS[service])
        peer.tell(net.acknowledge(entry), to=host.address)
        host.said(f"state {service} 1 {element} on")
        return entry

    def notify(self, server, to, payload, event=VALUE, service="Remote"):
        """A notification of the peer's; `to` is where, or the entry that subscribed."""
        to = to.endpoints[0][:2] if isinstance(to, net.Entry) else to
        server.send(net.someip(REMOTE_IDS[service], event, payload, type=net.NOTIFICATION, interface=MAJOR), to)

    def in_time(self, measure, attempts=4):
        """Runs a measurement that a busy machine may spoil until it succeeds."""
        for attempt in range(attempts):
            try:
                return measure()
            except AssertionError:
                if attempt == attempts - 1:
                    raise

    def test_dissection(self):
        """Last: another program looks at everything that a device sent in this group."""
        complaints, dissected, sent = self.dissect()
        self.assertEqual(complaints, [])
        self.assertGreaterEqual(dissected, 1 if self.streams else sent)

    @classmethod
    def dissect(cls):
        capture = pathlib.Path(cls.folder.name) / "capture.pcap"
        cls.network.write_capture(capture)
        ports = [str(cls.network.discovery_port), "30501-30542", "30701-30799", "49201"]
        decode = [word for port in ports for layer in ("udp", "tcp")
                  for word in ("-d", f"{layer}.port=={port},someip")]

        def count(which):
            run = subprocess.run(["tshark", "-r", str(capture), *decode, "-Y", which], check=True,
                                 capture_output=True, text=True)
            return run.stdout.splitlines()
        return (count(" || ".join(COMPLAINTS)),
                len(count("someip")), len(cls.network.raw))


def main(group):
    """Runs the tests that the page names in its order, or those that the command line names. The page
    is right when each test of the group has a row, and fails exactly if that says "not met"."""
    rows = [row for row in rows_of(group.title) if row[1]]
    verdicts = {name: verdict for _, name, verdict in rows}
    names = {name for name in dir(group) if name.startswith("test_")}
    assert verdicts.keys() == names, f"tests without row, rows without test: {verdicts.keys() ^ names}"
    wanted = [name for name in verdicts if not sys.argv[1:] or any(part in name for part in sys.argv[1:])]
    for text, name, _ in rows:
        print(f"{name}: {text}")
    result = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(map(group, wanted)))
    failed = {getattr(test, "test_case", test).id().rpartition(".")[2]
              for test, _ in result.failures + result.errors}
    wrong = failed ^ {name for name in wanted if verdicts[name] != "pass"}
    for name in wrong:
        print(f"{PAGE.name} is not right about {name}: {verdicts.get(name)}")
    sys.exit(1 if wrong else 0)
