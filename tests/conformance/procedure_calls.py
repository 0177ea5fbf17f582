"""Remote procedure calls: requests and responses, errors, events and fields."""

import struct

from devices import *
from network import *
import suite

NOT_OK, UNKNOWN_SERVICE, UNKNOWN_METHOD = 0x01, 0x02, 0x03
WRONG_PROTOCOL, WRONG_INTERFACE, WRONG_TYPE = 0x07, 0x08, 0x0A


class ProcedureCalls(suite.Group):
    title = "Remote procedure calls"

    def test_request(self):
        host, peer, server = self.remote("call Remote 1 echo 010203", "send Remote 1 poke 0a", "send Remote 1 poke 0b")
        self.network.wait(lambda: len(server.messages) == 3, "three requests")
        self.assertEqual([one.raw.hex() for one in server.messages],
                         [f"{REMOTE:04x}{ECHO:04x}0000000b{CLIENT_ID:04x}000101{MAJOR:02x}0000010203",
                          f"{REMOTE:04x}{POKE:04x}00000009{CLIENT_ID:04x}000101{MAJOR:02x}01000a",
                          f"{REMOTE:04x}{POKE:04x}00000009{CLIENT_ID:04x}000201{MAJOR:02x}01000b"])

    def test_matching(self):
        host, peer, server = self.remote("call Remote 1 echo 01")
        request = server.wait()
        for wrong in ({"session": request.session + 1}, {"client": request.client + 1}, {"interface": MAJOR + 1},
                      {"method": SIZE}, {"service": VEHICLE}, {"protocol": 2}, {"type": NOTIFICATION}):
            self.respond(server, request, b"\xee", **wrong)
        self.respond(peer.socket(), request, b"\xee")
        self.respond(server, request, b"\x99")
        self.assertEqual(host.said("response"), "response 0x00 99")

    def test_time_out(self):
        host, peer, server = self.remote("call Remote 1 echo 01")
        late = server.wait()
        host.said("response 0x06 -")
        self.assertGreater(time.time() - late.time, 0.95)
        self.respond(server, late, b"\xee")
        host.do("call Remote 1 echo 02")
        self.respond(server, server.wait(lambda one: one.payload == b"\x02"), b"\x03")
        host.said("response 0x00 03")
        self.assertEqual([one for one in host.lines if one.startswith("response")],
                         ["response 0x06 -", "response 0x00 03"])

    def test_unanswered(self):
        host, peer = self.vehicle()
        both = (VEHICLE, ECHO), (VEHICLE, 0x77)
        for type, targets, variants in (
                (REQUEST_NO_RETURN, ((VEHICLE, POKE), (VEHICLE, 0x77), (UNKNOWN, POKE)),
                 ({}, {"interface": MAJOR + 1}, {"protocol": 2})),
                (NOTIFICATION, (*both, (VEHICLE, TICK), (VEHICLE, 0x8FFF), (UNKNOWN, TICK)),
                 ({}, {"interface": MAJOR + 1}, {"protocol": 9}, {"code": 5})),
                (REQUEST, both, ({"code": 0x01}, {"code": 0x20}, {"code": 0xFF})),
                (RESPONSE, (*both, (UNKNOWN, ECHO)), ({}, {"code": 0x03})),
                (ERROR, (*both, (UNKNOWN, ECHO)), ({}, {"code": 0x03}))):
            for service, method in targets:
                for fields in variants:
                    peer.caller().send(someip(service, method, b"\xaa", type=type, **fields), host.at(VEHICLE))
        self.only_answered(host, peer)
        self.assertEqual([one for one in host.lines if one.startswith("request")], ["request poke aa"])

    def test_refusals(self):
        host, peer = self.vehicle()
        for method, payload, code in ((FAIL, b"\0\0\0\x01", NOT_OK), (FAIL, b"\0\0\0\x20", 0x20),
                                      (FAIL, b"\0\0\0\x3f", 0x3F), (VALUE_GETTER, b"", NOT_OK)):
            answer = peer.call(host, VEHICLE, method, payload)
            self.assertEqual((answer.code, answer.type, answer.payload), (code, RESPONSE, b""))
        for service, method, fields, code in (
                (UNKNOWN, 0x77, {"interface": 9, "protocol": 3}, WRONG_PROTOCOL),
                (VEHICLE, ECHO, {"protocol": 0}, WRONG_PROTOCOL), (VEHICLE, ECHO, {"protocol": 255}, WRONG_PROTOCOL),
                (UNKNOWN, 0x77, {"interface": 9}, UNKNOWN_SERVICE), (UNKNOWN, ECHO, {}, UNKNOWN_SERVICE),
                (VEHICLE, 0x77, {"interface": 9}, WRONG_INTERFACE), (VEHICLE, POKE, {"interface": 9}, WRONG_INTERFACE),
                (VEHICLE, ECHO, {"interface": 0}, WRONG_INTERFACE), (VEHICLE, ECHO, {"interface": 1}, WRONG_INTERFACE),
                (VEHICLE, ECHO, {"interface": 255}, WRONG_INTERFACE),
                (VEHICLE, 0x77, {}, UNKNOWN_METHOD), (VEHICLE, 0x7FFF, {}, UNKNOWN_METHOD),
                (VEHICLE, TICK, {}, UNKNOWN_METHOD), (VEHICLE, POKE, {}, WRONG_TYPE)):
            answer = peer.call(host, service, method, b"payload", **fields)
            self.assertEqual((answer.code, answer.type, answer.protocol, answer.payload), (code, RESPONSE, 1, b""),
                             (service, method, fields))
            self.assertEqual(answer.interface, fields.get("interface", versions.get(service, 1)))
        self.assertNotIn("request poke", str(host.lines))
        self.assertEqual({one.code for one in self.network.seen[self.start:] if one.type != RESPONSE}, {0})

    def test_received_errors(self):
        host, peer, server = self.remote()
        for type, code, payload in ((RESPONSE, 0x01, b""), (ERROR, 0x01, b""), (RESPONSE, 0x20, b"ab"),
                                    (ERROR, 0x3F, b"an exception in words"), (ERROR, 0x09, b"")):
            since, known = len(host.lines), len(server.messages)
            host.do("call Remote 1 echo 01")
            self.respond(server, server.wait(since=known), payload, type=type, code=code)
            self.assertEqual(host.said("response", since), f"response 0x{code:02x} -")

    def test_event(self):
        host, peer = self.vehicle()
        stranger = self.peer()
        stranger.call(host, VEHICLE, ECHO)
        events = self.subscription(host, peer, TICK_GROUP)
        other = self.subscription(host, peer, BIG_GROUP)
        host.do("notify first tick 0102", "notify first tock 02")
        events.wait(lambda one: one.method == TOCK)
        peer.barrier(host)
        self.assertEqual([one.raw.hex() for one in events.messages],
                         [f"{VEHICLE:04x}{TICK:04x}0000000a0000000101{MAJOR:02x}02000102",
                          f"{VEHICLE:04x}{TOCK:04x}000000090000000101{MAJOR:02x}020002"])
        self.assertEqual((other.messages, len(stranger.caller().messages)), ([], 1))

    def test_field(self):
        host, peer = self.vehicle("notify first value 0a0b")
        events = self.subscription(host, peer)
        for method, payload, expected in ((VALUE_GETTER, b"", b"\x0a\x0b"), (VALUE_SETTER, b"\x12", b"\x12"),
                                          (VALUE_SETTER, b"\x93", b"\x13"), (VALUE_GETTER, b"", b"\x13")):
            answer = peer.call(host, VEHICLE, method, payload)
            self.assertEqual((answer.code, answer.payload), (0, expected))
        host.do("notify first value 02")
        events.wait(lambda one: one.payload == b"\x02")
        self.assertEqual([one.payload for one in events.messages], [b"\x0a\x0b", b"\x12", b"\x13", b"\x02"])
        answer = peer.call(self.pos, POSITIONING, 1)
        self.assertEqual(answer.code, 0)
        self.assertGreater(len(answer.payload), 4)

    def test_wrap_of_events(self):
        host, peer = self.vehicle("notify first value 00")
        events = self.subscription(host, peer)
        events.wait()
        request = someip(VEHICLE, VALUE_SETTER, b"\x01")
        ids = [(0, 1)]
        window = 32
        with events.unwatched() as notifications, peer.caller().unwatched() as responses:
            while len(ids) <= 0x10000:
                for _ in range(window):
                    responses.sendto(request, host.at(VEHICLE))
                for _ in range(window):
                    ids.append(struct.unpack_from("!HH", notifications.recv(100), 8))
                    responses.recv(100)
        self.assertEqual(ids, [(0, number % 0xFFFF + 1) for number in range(len(ids))], "client and session ids")


if __name__ == "__main__":
    suite.main(ProcedureCalls)
