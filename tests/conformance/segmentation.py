"""Segmentation: long messages over UDP, in both directions."""

from devices import *
from network import *
import suite

LARGEST = 1392  # bytes in a segment


def pattern(size):
    return bytes(number % 251 for number in range(size))


def parts(messages):
    """(offset, reserved bits, more, bytes) of each segment."""
    result = []
    for one in messages:
        packet = one.scapy()
        result.append((packet.offset * 16, packet.res, packet.more_seg, bytes(packet.payload)))
    return result


def joined(messages):
    return b"".join(part for _, _, _, part in parts(messages))


class Segmentation(suite.Group):
    title = "Segmentation"
    base = 102
    application = None

    def train(self, channel, since=0, condition=lambda one: True):
        """Waits for all segments of one message."""
        def complete():
            found = [one for one in channel.messages[since:] if one.type & TP and condition(one)]
            return found if found and not parts(found[-1:])[0][2] else None
        return self.network.wait(complete, "last segment")

    def make(self, host, peer, size, **fields):
        """A response of that size, as segments."""
        via = peer.caller()
        since = len(via.messages)
        via.send(someip(VEHICLE, MAKE, size.to_bytes(4, "big"), interface=MAJOR, **fields),
                 host.udp())
        return self.train(via, since)

    def measure(self, host, via, payload=b"", size=LARGEST, *, order=None, session=1, client=1,
                method=SIZE, changed=None, seconds=PATIENCE):
        """Sends a request in segments; `order` picks them, `changed` alters one (number, function)."""
        whole = someip(VEHICLE, method, payload, interface=MAJOR, session=session, client=client)
        pieces = segments(whole, size)
        if changed:
            number, change = changed
            pieces[number] = change(pieces[number])
        for number in order or range(len(pieces)):
            via.send(pieces[number], host.udp())

    def answer(self, via, session=1, client=1):
        message = via.wait(lambda one: (one.session, one.client) == (session, client), "response")
        self.assertEqual((message.type, message.code), (RESPONSE, 0))
        return int.from_bytes(message.payload, "big")

    def nothing_but(self, host, peer, via, sessions):
        """Of everything sent before, only these requests have been answered."""
        self.measure(host, via, b"x" * 2000, session=0x7777)
        self.answer(via, 0x7777)
        peer.barrier(host.address)
        self.assertEqual([one.session for one in via.messages], [*sessions, 0x7777])

    # Sending

    def test_cut(self):
        host, peer = self.vehicle()
        answer = peer.call(host.udp(), VEHICLE, MAKE, (1400).to_bytes(4, "big"), interface=MAJOR)
        self.assertEqual((answer.type, answer.payload), (RESPONSE, pattern(1400)))
        train = self.make(host, peer, 1500)
        self.assertEqual([one.raw[16:20].hex() for one in train], ["00000001", "00000570"])
        self.assertEqual([one.length for one in train], [8 + 4 + 1392, 8 + 4 + 108])
        for session, size in enumerate((1401, 2 * LARGEST, 2 * LARGEST + 1, 10_000, 100_000), 5):
            train = self.make(host, peer, size, client=0x4242, session=session)
            self.assertEqual(joined(train), pattern(size))
            self.assertEqual({(one.service, one.method, one.client, one.session, one.protocol,
                               one.interface, one.type, one.code) for one in train},
                             {(VEHICLE, MAKE, 0x4242, session, 1, MAJOR, RESPONSE | TP, 0)})
            offsets, reserved, more, pieces = zip(*parts(train))
            self.assertEqual(list(offsets), list(range(0, size, LARGEST)))
            self.assertEqual({len(part) for part in pieces[:-1]}, {LARGEST})
            self.assertEqual((set(reserved), list(more)), ({0}, [1] * (len(more) - 1) + [0]))

    def test_notifications(self):
        long = pattern(3000)
        host, peer = self.vehicle(f"update first big {long.hex()}")
        sockets = [peer.socket(), self.peer().socket()]
        for number, events in enumerate(sockets):
            peer.subscribed(host.address, VEHICLE, 1, BIG_GROUP, events, major=MAJOR, counter=number)
            self.assertEqual(joined(self.train(events)), long)
        host.do(f"update first big {long[::-1].hex()}")
        for events in sockets:
            since = len(events.messages) if len(events.messages) == 3 else 3
            train = self.train(events, since)
            self.assertEqual(joined(train), long[::-1])
            self.assertEqual({one.type for one in events.messages}, {NOTIFICATION | TP})
            self.assertEqual(len({one.session for one in events.messages}), 2)

    def test_request(self):
        host, peer, server = self.remote()
        for session in (1, 2):
            since = len(server.messages)
            host.do(f"call Remote 1 echo {pattern(4000).hex()}")
            train = self.train(server, since)
            self.assertEqual(joined(train), pattern(4000))
            self.assertEqual({(one.client, one.session, one.type) for one in train},
                             {(CLIENT_ID, session, REQUEST | TP)})

    def test_shaping(self):
        host, peer = self.vehicle()
        train = self.make(host, peer, 131_072)
        self.assertEqual(len(train), 95)
        busiest = max(sum(begin.time <= one.time < begin.time + 0.005 for one in train)
                      for begin in train)
        self.assertLess(busiest, 48, "segments within five milliseconds")

    def test_order_behind_shaping(self):
        host, peer = self.vehicle()
        events = peer.socket()
        peer.subscribed(host.address, VEHICLE, 1, TICK_GROUP, events, major=MAJOR)
        long = pattern(60_000)
        host.do(f"event first tick {long.hex()}\nevent first tick 01\nevent first tock 02\n"
                f"event first tick {long[::-1].hex()}")
        self.network.wait(lambda: len(events.messages) == 2 * 44 + 2, "all of it")
        ticks = [one for one in events.messages if one.method == TICK]
        self.assertEqual((joined(ticks[:44]), ticks[44].payload, joined(ticks[45:])),
                         (long, b"\x01", long[::-1]))
        self.assertEqual([one.session for one in ticks], [1] * 44 + [2] + [3] * 44)
        self.assertLess(next(at for at, one in enumerate(events.messages) if one.method == TOCK), 44)

    def test_shared_shaping(self):
        manifest = host_manifest(self.network)
        manifest["segments"] = {"burst": 4, "pauseUs": 20_000}
        manifest["limits"] = {"queuedSegmentBytes": 50_000}
        host, peer = self.vehicle(manifest=manifest)
        peers = [peer, self.peer()]
        for one in peers:
            one.caller().send(someip(VEHICLE, MAKE, (20_000).to_bytes(4, "big"), session=7,
                                     interface=MAJOR), host.udp())
        trains = [self.train(one.caller()) for one in peers]
        self.assertEqual([joined(train) for train in trains], [pattern(20_000)] * 2)
        times = sorted(one.time for train in trains for one in train)
        # Thirty segments in bursts of four: seven pauses.
        self.assertGreater(times[-1] - times[0], 7 * 0.020 * 0.9)
        peer.caller().send(someip(VEHICLE, MAKE, (60_000).to_bytes(4, "big"), session=8, interface=MAJOR),
                           host.udp())
        self.network.wait(lambda: host.count("refusedSegmented") == 1, "refusal")
        self.assertEqual(joined(self.make(host, peer, 30_000)), pattern(30_000))

    # Receiving

    def test_reassembly(self):
        host, peer = self.vehicle()
        via = peer.caller()
        for session, (length, size) in enumerate(((2000, LARGEST), (1401, 16), (5000, 64), (100, 32),
                                                  (2 * LARGEST, LARGEST), (32, 16), (7, 16)), 1):
            self.measure(host, via, pattern(length), size, session=session)
            self.assertEqual(self.answer(via, session), length)
        set_bits = lambda piece: piece[:19] + bytes([piece[19] | 0x0E]) + piece[20:]
        self.measure(host, via, pattern(3000), session=49, changed=(1, set_bits))
        self.assertEqual(self.answer(via, 49), 3000)
        self.measure(host, via, pattern(3000), session=50, method=ECHO)
        self.assertEqual(joined(self.train(via)), pattern(3000))

    def test_parallel(self):
        host, first = self.vehicle()
        second = self.peer()
        trains = []
        for number, (via, client) in enumerate(((first.caller(), 1), (first.caller(), 2),
                                                (first.socket(), 1), (second.caller(), 1))):
            size = 3000 + number
            whole = someip(VEHICLE, SIZE, pattern(size), interface=MAJOR, client=client)
            trains.append((via, client, size, segments(whole, LARGEST)))
        for number in range(3):
            for via, _, _, pieces in trains:
                via.send(pieces[number], host.udp())
        for via, client, size, _ in trains:
            self.assertEqual(self.answer(via, 1, client), size)

    def test_between(self):
        host, peer = self.vehicle()
        via = peer.caller()
        pieces = segments(someip(VEHICLE, SIZE, pattern(3000), interface=MAJOR, client=1), LARGEST)
        via.send(pieces[0], host.udp())
        self.assertEqual(peer.call(host.udp(), VEHICLE, ECHO, b"between", interface=MAJOR, client=1,
                                   session=9).payload, b"between")
        for piece in pieces[1:]:
            via.send(piece, host.udp())
        self.assertEqual(self.answer(via), 3000)

    def test_new_session(self):
        host, peer = self.vehicle()
        via = peer.caller()
        old = segments(someip(VEHICLE, SIZE, pattern(3000), interface=MAJOR, session=1, client=1),
                       LARGEST)
        via.send(old[0], host.udp())
        via.send(old[1], host.udp())
        self.measure(host, via, pattern(2900), session=2)
        self.assertEqual(self.answer(via, 2), 2900)
        via.send(old[2], host.udp())
        self.nothing_but(host, peer, via, [2])

    def test_broken_trains(self):
        host, peer = self.vehicle()
        via = peer.caller()
        for session, order in enumerate(([0, 2, 3], [0, 1, 3], [1, 2, 3], [0, 0, 1, 2, 3],
                                         [0, 1, 1, 2, 3], [0, 2, 1, 3], [3, 2, 1, 0], [3]), 1):
            self.measure(host, via, pattern(5000), order=order, session=session)
        def shifted(piece):
            return piece[:16] + (int.from_bytes(piece[16:20], "big") - 0x10).to_bytes(4, "big") + piece[20:]
        self.measure(host, via, pattern(5000), session=20, changed=(2, shifted))
        self.nothing_but(host, peer, via, [])

    def test_wrong_segments(self):
        host, peer = self.vehicle()
        via = peer.caller()
        def with_length(piece, size):
            return piece[:4] + (size - 8).to_bytes(4, "big") + piece[8:size]
        for session, size in enumerate((20 + 1391, 20 + 15, 20, 19, 16), 1):
            for number in (0, 1):
                self.measure(host, via, pattern(4000), session=session * 2 + number,
                             changed=(number, lambda piece: with_length(piece, size)))
        self.nothing_but(host, peer, via, [])

    def test_mixed_trains(self):
        host, peer = self.vehicle()
        via = peer.caller()
        for session, (at, value) in enumerate(((13, MAJOR + 1), (14, REQUEST_NO_RETURN | TP), (15, 1),
                                               (12, 2)), 1):
            self.measure(host, via, pattern(4000), session=session, changed=(
                1, lambda piece: piece[:at] + bytes([value]) + piece[at + 1:]))
        self.nothing_but(host, peer, via, [])

    def test_old_train(self):
        manifest = host_manifest(self.network)
        manifest["limits"] = {"reassemblyTimeoutMs": 150}
        host, peer = self.vehicle(manifest=manifest)
        via = peer.caller()
        self.measure(host, via, pattern(4000), session=1, order=[0, 1])
        self.network.quiet(0.3)
        self.measure(host, via, pattern(4000), session=1, order=[2])
        self.nothing_but(host, peer, via, [])

    def test_bound_of_trains(self):
        manifest = host_manifest(self.network)
        manifest["limits"] = {"reassembliesPerPeer": 3, "reassemblies": 4}
        host, peer = self.vehicle(manifest=manifest)
        via, other = peer.caller(), self.peer().caller()
        for client in range(1, 6):
            self.measure(host, via, pattern(3000), order=[0], client=client)
        for client in (1, 2):  # the second one is beyond the bound for all peers
            self.measure(host, other, pattern(3000), order=[0], client=client)
        for client in (2, 1):
            self.measure(host, other, pattern(3000), order=[1, 2], client=client)
        self.assertEqual(self.answer(other), 3000)
        self.assertEqual(len(other.messages), 1)
        for client in range(1, 6):
            self.measure(host, via, pattern(3000), order=[1, 2], client=client)
        for client in (1, 2, 3):
            self.assertEqual(self.answer(via, 1, client), 3000)
        peer.barrier(host.address)
        self.assertEqual(len(via.messages), 3)
        self.assertGreaterEqual(host.count("refusedReassemblies"), 3)

    def test_largest_message(self):
        manifest = host_manifest(self.network)
        manifest["limits"] = {"messageBytes": 20_000}
        host, peer = self.vehicle(manifest=manifest)
        via = peer.caller()
        self.measure(host, via, pattern(20_000 - 16), session=1)
        self.assertEqual(self.answer(via), 20_000 - 16)
        self.measure(host, via, pattern(20_000 - 15), session=2)
        self.nothing_but(host, peer, via, [1])

    def test_client_receives(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer, "big")
        for session, size in ((1, 3000), (2, 60_000)):
            whole = someip(REMOTE, BIG, pattern(size), type=NOTIFICATION, client=0, session=session,
                           interface=MAJOR)
            for piece in segments(whole, LARGEST):
                server.send(piece, entry.endpoints[0][:2])
            host.said(f"notification Remote 1 big {pattern(size).hex()}")
        host.do("call Remote 1 echo 01")
        request = server.wait(lambda one: one.type == REQUEST)
        whole = someip(REMOTE, ECHO, pattern(2500), type=RESPONSE, client=request.client,
                       session=request.session, interface=MAJOR)
        for piece in segments(whole, LARGEST):
            server.send(piece, request.source)
        self.assertEqual(host.said("response"), f"response 0x00 {pattern(2500).hex()}")

    def test_errors(self):
        host, peer = self.vehicle()
        via = peer.caller()
        def answer(service=VEHICLE, method=0x77, interface=MAJOR):
            since = len(via.messages)
            whole = someip(service, method, pattern(3000), interface=interface)
            for piece in segments(whole, LARGEST):
                via.send(piece, host.udp())
            return via.wait(lambda one: True, "response", since).code
        self.assertEqual([answer(), answer(0x4FFF), answer(interface=9)], [0x03, 0x02, 0x08])


if __name__ == "__main__":
    suite.main(Segmentation)
