"""Segmentation: long messages over UDP, in both directions."""

from devices import *
from network import *
import suite

LARGEST = 1392  # bytes in a segment


def pattern(size):
    return bytes(number % 251 for number in range(size))


def parts(messages):
    """(offset, reserved bits, more, bytes) of each segment."""
    words = [(int.from_bytes(one.payload[:4], "big"), one.payload[4:]) for one in messages]
    return [(word & ~15, word & 14, word & 1, part) for word, part in words]


def joined(messages):
    return b"".join(part for _, _, _, part in parts(messages))


class Segmentation(suite.Group):
    title = "Segmentation"
    application = False

    def train(self, channel, since=0):
        """Waits for all segments of one message."""
        def complete():
            found = [one for one in channel.messages[since:] if one.type & TP]
            return found if found and not parts(found[-1:])[0][2] else None
        return self.network.wait(complete, "last segment")

    def make(self, host, peer, size, **fields):
        """A response of that size, as segments."""
        via = peer.caller()
        since = len(via.messages)
        via.send(someip(VEHICLE, MAKE, size.to_bytes(4, "big"), **fields), host.at(VEHICLE))
        return self.train(via, since)

    def pieces(self, size, session=1, client=1, part=LARGEST, method=SIZE):
        return segments(someip(VEHICLE, method, pattern(size), session=session, client=client), part)

    def send(self, host, via, pieces):
        for piece in pieces:
            via.send(piece, host.at(VEHICLE))

    def sized(self, via, size, session=1, client=1):
        """The request has been put together: the response tells its size."""
        message = via.wait(lambda one: (one.session, one.client) == (session, client), "response")
        self.assertEqual((message.type, message.code), (RESPONSE, 0))
        self.assertEqual(int.from_bytes(message.payload, "big"), size)

    def nothing_but(self, host, peer, *sessions):
        """Of everything that the caller has sent, only these requests have been answered; the next is again."""
        self.send(host, peer.caller(), self.pieces(2000, session=0x7776))
        self.sized(peer.caller(), 2000, session=0x7776)
        self.only_answered(host, peer, *sessions, 0x7776)

    # Sending

    def test_cut(self):
        host, peer = self.vehicle()
        answer = peer.call(host, VEHICLE, MAKE, (1400).to_bytes(4, "big"))
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
        host, peer = self.vehicle(f"notify first big {long.hex()}")
        channels = [self.subscription(host, one, BIG_GROUP) for one in (peer, self.peer())]
        for events in channels:
            self.assertEqual(joined(self.train(events)), long)
        host.do(f"notify first big {long[::-1].hex()}")
        for events in channels:
            self.assertEqual(joined(self.train(events, since=3)), long[::-1])
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

    def test_order_behind_shaping(self):
        host, peer = self.vehicle()
        events = self.subscription(host, peer, TICK_GROUP)
        long = pattern(60_000)
        host.do(f"notify first tick {long.hex()}", "notify first tick 01", "notify first tock 02",
                f"notify first tick {long[::-1].hex()}")
        self.network.wait(lambda: len(events.messages) == 2 * 44 + 2, "all of it")
        ticks = [one for one in events.messages if one.method == TICK]
        self.assertEqual((joined(ticks[:44]), ticks[44].payload, joined(ticks[45:])),
                         (long, b"\x01", long[::-1]))
        self.assertEqual([one.session for one in ticks], [1] * 44 + [2] + [3] * 44)
        self.assertLess(next(at for at, one in enumerate(events.messages) if one.method == TOCK), 44)

    def test_shared_shaping(self):
        host, peer = self.vehicle(segments={"burst": 4, "pauseUs": 20_000}, limits={"queuedSegmentBytes": 50_000})
        peers = [peer, self.peer()]
        request = someip(VEHICLE, MAKE, (20_000).to_bytes(4, "big"))
        for one in peers:
            one.caller().send(request, host.at(VEHICLE))
        trains = [self.train(one.caller()) for one in peers]
        self.assertEqual([joined(train) for train in trains], [pattern(20_000)] * 2)
        times = sorted(one.time for train in trains for one in train)
        # Thirty segments in bursts of four: seven pauses.
        self.assertGreater(times[-1] - times[0], 7 * 0.020 * 0.9)
        peer.caller().send(someip(VEHICLE, MAKE, (60_000).to_bytes(4, "big")), host.at(VEHICLE))
        self.network.wait(lambda: host.count("refusedSegmented") == 1, "refusal")
        self.assertEqual(joined(self.make(host, peer, 30_000)), pattern(30_000))

    # Receiving

    def test_reassembly(self):
        host, peer = self.vehicle()
        via = peer.caller()
        for session, (size, part) in enumerate(((2000, LARGEST), (1401, 16), (5000, 64), (100, 32),
                                                (2 * LARGEST, LARGEST), (32, 16), (7, 16)), 1):
            self.send(host, via, self.pieces(size, session, part=part))
            self.sized(via, size, session)
        first, second, third = self.pieces(3000, session=49)
        reserved_set = second[:19] + bytes([second[19] | 0x0E]) + second[20:]
        self.send(host, via, [first, reserved_set, third])
        self.sized(via, 3000, session=49)
        self.send(host, via, self.pieces(3000, session=50, method=ECHO))
        self.assertEqual(joined(self.train(via)), pattern(3000))

    def test_parallel(self):
        host, first = self.vehicle()
        second = self.peer()
        trains = [(via, client, 3000 + number) for number, (via, client) in enumerate((
            (first.caller(), 1), (first.caller(), 2), (first.socket(), 1), (second.caller(), 1)))]
        for number in range(3):
            for via, client, size in trains:
                self.send(host, via, [self.pieces(size, client=client)[number]])
            answer = first.call(host, VEHICLE, ECHO, b"between", client=1, session=9 + number)
            self.assertEqual(answer.payload, b"between")
        for via, client, size in trains:
            self.sized(via, size, client=client)

    def test_new_session(self):
        host, peer = self.vehicle()
        *old, rest = self.pieces(3000)
        self.send(host, peer.caller(), [*old, *self.pieces(2900, session=2)])
        self.sized(peer.caller(), 2900, session=2)
        self.send(host, peer.caller(), [rest])
        self.nothing_but(host, peer, 2)
        self.assertEqual(host.count("droppedSegments"), 2)  # the old train, and its rest

    def test_broken_trains(self):
        host, peer = self.vehicle()

        def bytes_at(at, value):
            return lambda piece: piece[:at] + value + piece[at + len(value):]

        def of_length(size):
            return lambda piece: piece[:4] + (size - 8).to_bytes(4, "big") + piece[8:size]
        orders = ([0, 2, 3], [0, 1, 3], [1, 2, 3], [0, 0, 1, 2, 3], [0, 1, 1, 2, 3], [0, 2, 1, 3], [3, 2, 1, 0], [3])
        overlap = bytes_at(16, (2 * LARGEST - 16 | 1).to_bytes(4, "big"))
        other_header = (bytes_at(12, b"\2"), bytes_at(13, bytes([MAJOR + 1])),
                        bytes_at(14, bytes([REQUEST_NO_RETURN | TP])), bytes_at(15, b"\1"))
        lengths = [of_length(20 + size) for size in (1391, 15, 0, -1, -4)]
        trains = [(order, None, None) for order in orders]
        trains += [(range(4), 2, overlap), *((range(4), 1, change) for change in other_header)]
        trains += [(range(4), number, change) for change in lengths for number in (0, 1)]
        for session, (order, number, change) in enumerate(trains, 1):
            pieces = self.pieces(5000, session)
            if change:
                pieces[number] = change(pieces[number])
            self.send(host, peer.caller(), [pieces[one] for one in order])
        self.nothing_but(host, peer)

    def test_old_train(self):
        host, peer = self.vehicle(limits={"reassemblyTimeoutMs": 150})
        *old, rest = self.pieces(4000)
        self.send(host, peer.caller(), old)
        self.network.quiet(0.3)
        self.send(host, peer.caller(), [rest])
        self.nothing_but(host, peer)

    def test_bound_of_trains(self):
        host, peer = self.vehicle(limits={"reassembliesPerPeer": 3, "reassemblies": 4})
        via, other = peer.caller(), self.peer().caller()
        begun = [(via, client) for client in range(1, 6)] + [(other, 1), (other, 2)]
        for channel, client in begun:
            self.send(host, channel, self.pieces(3000, client=client)[:1])
        for channel, client in reversed(begun):
            self.send(host, channel, self.pieces(3000, client=client)[1:])
        for channel, client in ((other, 1), (via, 1), (via, 2), (via, 3)):
            self.sized(channel, 3000, client=client)
        peer.barrier(host)
        self.assertEqual((len(via.messages), len(other.messages)), (3, 1))
        self.assertGreaterEqual(host.count("refusedReassemblies"), 3)

    def test_largest_message(self):
        host, peer = self.vehicle(limits={"messageBytes": 20_000})
        self.send(host, peer.caller(), self.pieces(20_000 - 16))
        self.sized(peer.caller(), 20_000 - 16)
        self.send(host, peer.caller(), self.pieces(20_000 - 15, session=2))
        self.nothing_but(host, peer, 1)

    def test_client_receives(self):
        host, peer, server = self.remote()
        entry = self.active(host, peer, "big")
        for session, size in ((1, 3000), (2, 60_000)):
            whole = someip(REMOTE, BIG, pattern(size), type=NOTIFICATION, client=0, session=session)
            for piece in segments(whole, LARGEST):
                server.send(piece, entry.endpoints[0][:2])
            host.said(f"notification Remote 1 big {pattern(size).hex()}")
        host.do("call Remote 1 echo 01")
        request = server.wait(lambda one: one.type == REQUEST)
        whole = someip(REMOTE, ECHO, pattern(2500), type=RESPONSE, client=request.client, session=request.session)
        for piece in segments(whole, LARGEST):
            server.send(piece, request.source)
        self.assertEqual(host.said("response"), f"response 0x00 {pattern(2500).hex()}")

    def test_errors(self):
        host, peer = self.vehicle()
        via = peer.caller()
        for service, fields, code in ((VEHICLE, {}, 0x03), (UNKNOWN, {}, 0x02), (VEHICLE, {"interface": 9}, 0x08)):
            since = len(via.messages)
            self.send(host, via, segments(someip(service, 0x77, pattern(3000), **fields), LARGEST))
            self.assertEqual(via.wait(since=since).code, code)


if __name__ == "__main__":
    suite.main(Segmentation)
