"""Remote procedure calls: requests and responses, errors, events and fields."""

from devices import *
from network import *
import suite

(NOT_OK, UNKNOWN_SERVICE, UNKNOWN_METHOD, WRONG_PROTOCOL, WRONG_INTERFACE, MALFORMED,
 WRONG_TYPE) = 0x01, 0x02, 0x03, 0x07, 0x08, 0x09, 0x0A


class ProcedureCalls(suite.Group):
    title = "Remote procedure calls"
    base = 98

    def call(self, peer, host, method, payload=b"", **fields):
        fields.setdefault("interface", MAJOR)
        return peer.call(host.udp(), VEHICLE, method, payload, **fields)

    def test_request(self):
        host, peer, server = self.remote("call Remote 1 echo 010203")
        request = server.wait(lambda one: one.service == REMOTE)
        self.assertEqual(request.raw.hex(),
                         f"{REMOTE:04x}{ECHO:04x}0000000b{CLIENT_ID:04x}000101{MAJOR:02x}0000010203")

    def test_response(self):
        host, peer = self.vehicle()
        answer = self.call(peer, host, ECHO, b"hello", client=0x1111, session=0x2222)
        self.assertEqual(answer.raw.hex(), f"{VEHICLE:04x}{ECHO:04x}0000000d1111222201{MAJOR:02x}8000"
                         + b"hello".hex())
        answer = self.call(peer, host, FAIL, b"\0\0\0\x2f", client=0x1111, session=0x2223)
        self.assertEqual(answer.raw.hex(),
                         f"{VEHICLE:04x}{FAIL:04x}000000081111222301{MAJOR:02x}802f")

    def test_matching(self):
        host, peer, server = self.remote("call Remote 1 echo 01")
        request = server.wait(lambda one: one.service == REMOTE)
        right = dict(session=request.session, client=request.client, interface=MAJOR, type=RESPONSE)
        def answer(via, service=REMOTE, method=ECHO, **change):
            via.send(someip(service, method, b"\xee", **{**right, **change}), request.source)
        answer(server, session=request.session + 1)
        answer(server, client=request.client + 1)
        answer(server, interface=MAJOR + 1)
        answer(server, method=SIZE)
        answer(server, service=VEHICLE)
        answer(server, protocol=2)
        answer(server, type=NOTIFICATION)
        answer(peer.socket())
        server.send(someip(REMOTE, ECHO, b"\x99", **right), request.source)
        self.assertEqual(host.said("response"), "response 0x00 99")

    def test_time_out(self):
        host, peer, server = self.remote("call Remote 1 echo 01")
        request = server.wait(lambda one: one.service == REMOTE)
        host.said("response 0x06 -")
        self.assertGreater(time.time() - request.time, 0.95)
        late = dict(session=request.session, client=request.client, interface=MAJOR, type=RESPONSE)
        server.send(someip(REMOTE, ECHO, b"\xee", **late), request.source)
        host.do("call Remote 1 echo 02")
        request = server.wait(lambda one: one.payload == b"\x02")
        server.send(someip(REMOTE, ECHO, b"\x03", **{**late, "session": request.session}),
                    request.source)
        host.said("response 0x00 03")
        self.assertEqual([one for one in host.lines if one.startswith("response")],
                         ["response 0x06 -", "response 0x00 03"])

    def test_fire_and_forget(self):
        host, peer = self.vehicle()
        def forget(service, method, payload=b"", **fields):
            fields.setdefault("interface", MAJOR)
            peer.caller().send(someip(service, method, payload, type=REQUEST_NO_RETURN, **fields),
                               host.udp())
        forget(VEHICLE, POKE, b"\xaa")
        forget(VEHICLE, 0x77)
        forget(0x4FFF, POKE)
        forget(VEHICLE, POKE, interface=MAJOR + 1)
        forget(VEHICLE, POKE, protocol=2)
        host.said("request poke aa")
        self.call(peer, host, ECHO, session=0x500)
        peer.barrier(host.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x500])
        self.assertEqual([one for one in host.lines if one.startswith("request")],
                         ["request poke aa"])

    def test_own_fire_and_forget(self):
        host, peer, server = self.remote("send Remote 1 poke 0a", "send Remote 1 poke 0b")
        self.network.wait(lambda: len(server.messages) == 2, "two requests")
        self.assertEqual([(one.type, one.code, one.session, one.payload) for one in server.messages],
                         [(REQUEST_NO_RETURN, 0, 1, b"\x0a"), (REQUEST_NO_RETURN, 0, 2, b"\x0b")])

    def test_no_error_for_events(self):
        host, peer = self.vehicle()
        for service, method in ((VEHICLE, TICK), (VEHICLE, 0x8FFF), (0x4FFF, TICK), (VEHICLE, ECHO)):
            for fields in ({}, {"interface": MAJOR + 1}, {"protocol": 9}, {"code": 5}):
                peer.caller().send(someip(service, method, type=NOTIFICATION,
                                          **{"interface": MAJOR, **fields}), host.udp())
        self.call(peer, host, ECHO, session=0x501)
        peer.barrier(host.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x501])

    def test_no_error_for_errors(self):
        host, peer = self.vehicle()
        for type in (REQUEST, RESPONSE, ERROR):
            for method in (ECHO, 0x77):
                for code in (0x01, 0x03, 0x20, 0xFF):
                    peer.caller().send(someip(VEHICLE, method, type=type, code=code,
                                              interface=MAJOR), host.udp())
        for type in (RESPONSE, ERROR):
            peer.caller().send(someip(0x4FFF, ECHO, type=type), host.udp())
        self.call(peer, host, ECHO, session=0x502)
        peer.barrier(host.address)
        self.assertEqual([one.session for one in peer.caller().messages], [0x502])

    def test_refusals(self):
        host, peer = self.vehicle()
        for service, method, fields, code in (
                (0x4FFF, 0x77, {"interface": 9, "protocol": 3}, WRONG_PROTOCOL),
                (0x4FFF, 0x77, {"interface": 9}, UNKNOWN_SERVICE), (0x4FFF, ECHO, {}, UNKNOWN_SERVICE),
                (VEHICLE, 0x77, {"interface": 9}, WRONG_INTERFACE),
                (VEHICLE, POKE, {"interface": 9}, WRONG_INTERFACE), (VEHICLE, 0x77, {}, UNKNOWN_METHOD),
                (VEHICLE, 0x7FFF, {}, UNKNOWN_METHOD), (VEHICLE, TICK, {}, UNKNOWN_METHOD),
                (VEHICLE, POKE, {}, WRONG_TYPE)):
            answer = peer.call(host.udp(), service, method, **{"interface": MAJOR, **fields})
            self.assertEqual(answer.code, code, (service, method, fields))
        self.assertNotIn("request poke -", host.lines)

    def test_interface_version(self):
        host, peer = self.vehicle()
        for version in (0, 1, MAJOR + 1, 0xFF):
            answer = self.call(peer, host, ECHO, b"x", interface=version)
            self.assertEqual((answer.code, answer.interface, answer.payload),
                             (WRONG_INTERFACE, version, b""))

    def test_protocol_version(self):
        host, peer = self.vehicle()
        for version in (0, 2, 0xFF):
            answer = self.call(peer, host, ECHO, protocol=version)
            self.assertEqual((answer.protocol, answer.code), (1, WRONG_PROTOCOL))

    def test_malformed(self):
        peer = self.peer()
        monitor = (self.pos.address, MONITOR_PORT)
        answer = peer.call(monitor, MONITOR, 1, b"")
        self.assertEqual((answer.code, answer.type, answer.payload), (MALFORMED, RESPONSE, b""))
        self.assertEqual(peer.call(monitor, MONITOR, 1, b"\x01").code, 0)

    def test_error_responses(self):
        host, peer = self.vehicle()
        answers = [self.call(peer, host, 0x77, b"payload"), self.call(peer, host, FAIL, b"\0\0\0\x01"),
                   self.call(peer, host, ECHO, interface=9), self.call(peer, host, VALUE_GETTER)]
        self.assertEqual({one.type for one in answers}, {RESPONSE})
        self.assertEqual({one.payload for one in answers}, {b""})
        self.assertEqual([one.code for one in answers],
                         [UNKNOWN_METHOD, NOT_OK, WRONG_INTERFACE, NOT_OK])
        self.assertTrue(all(one.code == 0 for one in self.network.seen[self.start:]
                            if one.type != RESPONSE))

    def test_received_errors(self):
        host, peer, server = self.remote()
        for type, code, payload in ((RESPONSE, 0x01, b""), (ERROR, 0x01, b""), (RESPONSE, 0x20, b"ab"),
                                    (ERROR, 0x3F, b"an exception in words"), (ERROR, 0x09, b"")):
            since, known = len(host.lines), len(server.messages)
            host.do("call Remote 1 echo 01")
            request = server.wait(lambda one: True, "request", known)
            server.send(someip(REMOTE, ECHO, payload, session=request.session, client=request.client,
                               interface=MAJOR, type=type, code=code), request.source)
            self.assertEqual(host.said("response", since), f"response 0x{code:02x} -")

    def test_own_codes(self):
        host, peer = self.vehicle()
        for code in (0x20, 0x2A, 0x3F):
            self.assertEqual(self.call(peer, host, FAIL, code.to_bytes(4, "big")).code, code)

    def test_event(self):
        host, peer = self.vehicle()
        stranger = self.peer().socket()
        stranger.send(someip(VEHICLE, ECHO, interface=MAJOR), host.udp())
        stranger.wait(lambda one: True)
        events = self.subscription(host, peer, TICK_GROUP)
        other = self.subscription(host, peer, BIG_GROUP)
        host.do("event first tick 0102")
        host.do("event first tock 02")
        events.wait(lambda one: one.method == TOCK)
        peer.barrier(host.address)
        self.assertEqual([one.raw.hex() for one in events.messages],
                         [f"{VEHICLE:04x}{TICK:04x}0000000a0000000101{MAJOR:02x}02000102",
                          f"{VEHICLE:04x}{TOCK:04x}000000090000000101{MAJOR:02x}020002"])
        self.assertEqual((other.messages, len(stranger.messages)), ([], 1))

    def test_field(self):
        host, peer = self.vehicle("update first value 0a0b")
        answer = self.call(peer, host, VALUE_GETTER)
        self.assertEqual((answer.code, answer.payload), (0, b"\x0a\x0b"))
        events = self.subscription(host, peer, VALUE_GROUP)
        self.assertEqual(self.call(peer, host, VALUE_SETTER, b"\x12").payload, b"\x12")
        answer = self.call(peer, host, VALUE_SETTER, b"\x93")
        self.assertEqual((answer.code, answer.payload), (0, b"\x13"))
        self.assertEqual(self.call(peer, host, VALUE_GETTER).payload, b"\x13")
        host.do("update first value 02")
        events.wait(lambda one: one.payload == b"\x02")
        self.assertEqual([one.payload for one in events.messages],
                         [b"\x0a\x0b", b"\x12", b"\x13", b"\x02"])
        answer = peer.call(self.pos.positioning, POSITIONING, 1, interface=POSITIONING_MAJOR)
        self.assertEqual(answer.code, 0)
        self.assertGreater(len(answer.payload), 4)

    def test_field_without_setter(self):
        peer = self.peer()
        for method in (3, 0x7FFF):
            self.assertEqual(peer.call(self.pos.positioning, POSITIONING, method,
                                       interface=POSITIONING_MAJOR).code, UNKNOWN_METHOD)

    def test_wrap_of_events(self):
        host, peer = self.vehicle("update first value 00")
        events = self.subscription(host, peer, VALUE_GROUP)
        events.wait(lambda one: one.method == VALUE)
        caller = peer.caller()
        for one in (events, caller):
            self.network.unwatch(one.socket)
            one.socket.settimeout(PATIENCE)
        request = someip(VEHICLE, VALUE_SETTER, b"\x01", interface=MAJOR)
        sessions = [1]
        window = 32
        for sent in range(0, 0x10000 + window, window):
            for _ in range(window):
                caller.socket.sendto(request, host.udp())
            for _ in range(window):
                sessions.append(int.from_bytes(events.socket.recv(100)[10:12], "big"))
                caller.socket.recv(100)
        for one in (events, caller):
            one.socket.setblocking(False)
            self.network.watch(one.socket, one._readable)
        expected = [number % 0xFFFF + 1 for number in range(len(sessions))]
        self.assertEqual(sessions, expected)

    def test_allowed_peers(self):
        friend, stranger = self.peer(), self.peer()
        manifest = host_manifest(self.network, allowed=[friend.address])
        host = self.host("offer closed", "offer first", manifest=manifest)
        self.offered(friend, CLOSED)
        closed = host.udp(CLOSED_PORT)
        self.assertEqual(friend.call(closed, CLOSED, ECHO, b"x", interface=MAJOR).payload, b"x")
        stranger.caller().send(someip(CLOSED, ECHO, b"x", interface=MAJOR), closed)
        stranger.tell(find(CLOSED), to=host.address)
        stranger.tell(subscribe(CLOSED, 1, TICK_GROUP, MAJOR), [endpoint(stranger.caller())],
                      to=host.address)
        self.assertEqual(stranger.entry(ACKNOWLEDGE, CLOSED).ttl, 0)
        stranger.barrier(host.address)
        self.assertEqual(stranger.caller().messages, [])
        self.assertEqual([one for one in stranger.unicast.entries if one.service == CLOSED
                          and one.type == OFFER], [])


if __name__ == "__main__":
    suite.main(ProcedureCalls)
