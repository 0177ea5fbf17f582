"""Message format: the header, its fields and the payload, at the application."""

import struct

from devices import *
from network import *
from payload import block
import suite

class MessageFormat(suite.Group):
    title = "Message format"

    def read(self, peer, service=INPUTS, payload=NO_TEXTS, **fields):
        return peer.call(self.pos, service, READ, payload, **fields)

    def test_message_id(self):
        peer = self.peer()
        answers = [self.read(peer, service) for service in (INPUTS, SYSTEM_STATUS)]
        self.assertEqual([(one.service, one.method, one.code) for one in answers],
                         [(INPUTS, READ, 0), (SYSTEM_STATUS, READ, 0)])
        self.assertNotEqual(answers[0].payload, answers[1].payload)
        for service, method, code in ((0x34AF, READ, 2), (0, READ, 2), (0xFFFF, READ, 2), (INPUTS, 0x7001, 3),
                                      (POSITIONING, 3, 3), (POSITIONING, 0x7FFF, 3)):
            self.assertEqual(peer.call(self.pos, service, method).code, code, (service, method))

    def test_instance_id(self):
        peer = self.peer()
        deployed = {instance for service, instance in self.pos.provided if service == MONITOR}
        answers = peer.ask(self.pos, find(MONITOR))
        self.assertEqual({one.instance for one in answers}, deployed)
        self.assertEqual(len({one.endpoints[0] for one in answers}), len(deployed))
        server = peer.socket(SERVER_PORT)
        for instance in (0, 0xFFFF, 1):
            peer.tell(offer(GNSS, instance), [endpoint(server)])
        peer.entry(SUBSCRIBE, GNSS, instance=1)
        peer.tell(offer(GNSS, ttl=0), [endpoint(server)])
        peer.barrier(self.pos)
        self.assertEqual({one.instance for one in peer.entries(SUBSCRIBE, GNSS)}, {1})
        self.assertFalse({0, 0xFFFE, 0xFFFF} & {one.service for one in peer.entries()})

    def test_request_id(self):
        ids = ((0x1234, 0x5678), (0, 1), (1, 0xFFFF), (0xFFFF, 0x8000), (0xABCD, 0x0102), (1, 0))
        peers = [self.peer() for _ in range(4)]
        for client, session in ids:
            for peer in peers:
                peer.caller().send(someip(INPUTS, READ, NO_TEXTS, client=client, session=session),
                                   self.pos.at(INPUTS))
        for answers in (peer.caller().messages for peer in peers):
            self.network.wait(lambda: len(answers) == len(ids), "responses")
            self.assertEqual({one.raw[:16].hex() for one in answers},
                             {f"34a00001{len(answers[0].raw) - 8:08x}{client:04x}{session:04x}01018000"
                              for client, session in ids},
                             "service, method, length, client, session, versions, type, return code")

    def test_own_requests(self):
        host, peer, server = self.remote()
        wanted = 0xFFFF + 3
        ids = []
        with server.unwatched() as requests:
            host.do(f"call Remote 1 echo - {wanted}")
            for _ in range(wanted):
                request, source = requests.recvfrom(100)
                ids.append(struct.unpack_from("!HH", request, 8))
                requests.sendto(request[:14] + b"\x80\x00", source)
        host.said("response 0x00")
        self.assertEqual(ids, [(CLIENT_ID, number % 0xFFFF + 1) for number in range(wanted)])

    def test_dropped(self):
        peer = self.peer()
        for fields in (*({"type": type} for type in (0x40, 0x41, 0x42, 0xC0, 0xC1, 0x03, 0x10, 0x7F, 0xFF)),
                       *({"length": length} for length in range(8))):
            peer.caller().send(someip(INPUTS, READ, **fields), self.pos.at(INPUTS))
        self.only_answered(self.pos, peer)

    def test_strings(self):
        peer = self.peer()
        for payload, code in ((NO_TEXTS + b"later versions", 0), (block(block(b"key") + block(b"a value", 8)), 9),
                              (b"\0\0", 9)):
            answer = self.read(peer, payload=payload)
            self.assertEqual((answer.code, answer.type, answer.payload == b""), (code, RESPONSE, code != 0), payload)
        self.assertEqual(peer.call(self.pos, MONITOR, 1, b"\x01" + b"more").code, 0)


if __name__ == "__main__":
    suite.main(MessageFormat)
