"""The tester's and the event manager's view of the diagnosis service, on the wire, by scapy."""

import json
import os
import pathlib
import socket
import subprocess
import tempfile
import time
import unittest

from scapy.contrib.automotive.someip import (
    SD,
    SOMEIP,
    SDEntry_EventGroup,
    SDEntry_Service,
    SDOption_IP4_EndPoint,
)

HOST = pathlib.Path(os.environ["POS_BUILD_DIR"]) / "tests/diagnosisService/diagnosis_host"
MANIFEST = pathlib.Path(os.environ["POS_SOURCE_DIR"]) / "config/manifest.json"
# A network apart from every other test's, and from this test's in another checkout.
PART = os.getpid() % 250 + 1
NODE = f"127.51.{PART}.10"
TESTER = f"127.51.{PART}.20"
MULTICAST = f"239.192.51.{PART}"
DISCOVERY = 30451

REQUEST, RESPONSE, ERROR, NOTIFICATION = 0x00, 0x80, 0x81, 0x02
E_OK, E_UNKNOWN_METHOD, E_MALFORMED_MESSAGE = 0x00, 0x03, 0x09
GNSS = "0x83D101"
EMPTY_MAP = bytes(4)
LIMIT = 10.0


def text(value):
    return len(value).to_bytes(4, "big") + value


def string_map(*pairs):
    return text(b"".join(text(key) + text(value) for key, value in pairs))


class Host:
    """The service under test in a process of its own."""

    def __init__(self, timeout_ms):
        self.folder = tempfile.TemporaryDirectory()
        manifest = json.loads(MANIFEST.read_text())
        manifest["serviceDiscovery"].update(port=DISCOVERY, multicastAddress=MULTICAST)
        path = pathlib.Path(self.folder.name) / "manifest.json"
        path.write_text(json.dumps(manifest))
        self.log = open(pathlib.Path(self.folder.name) / "log", "w+")
        environment = {**os.environ, "POS_MANIFEST": str(path), "POS_NODE_ADDRESS": NODE}
        self.process = subprocess.Popen(
            [HOST, str(timeout_ms)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=self.log, text=True, env=environment)
        self.expect("ready")

    def expect(self, line):
        answer = self.process.stdout.readline().strip()
        if answer != line:
            raise AssertionError(f"host answered {answer!r}\n{self.lines()}")

    def tell(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        self.expect("ok")

    def lines(self):
        self.log.seek(0)
        return self.log.read()

    def close(self):
        self.process.stdin.close()
        code = self.process.wait(LIMIT)
        self.process.stdout.close()
        self.log.close()
        self.folder.cleanup()
        return code


class Udp:
    def __init__(self, port=0):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((TESTER, port))
        self.port = self.socket.getsockname()[1]

    def send(self, packet, port):
        self.socket.sendto(bytes(packet), (NODE, port))

    def receive(self, wanted, limit=LIMIT):
        """The first packet that `wanted` accepts, None when none came in time."""
        end = time.monotonic() + limit
        while (rest := end - time.monotonic()) > 0:
            self.socket.settimeout(rest)
            try:
                data, self.sender = self.socket.recvfrom(65536)
            except socket.timeout:
                break
            packet = SOMEIP(data)
            if wanted(packet):
                return packet
        return None

    def close(self):
        self.socket.close()


class Deployment:
    """Ids and ports, by the names that the manifest gives them."""

    def __init__(self):
        self.services = json.loads(MANIFEST.read_text())["services"]

    def method(self, name, method, specifier=None):
        service = self.services[name]
        instance = next(one for one in service["instances"]
                        if specifier in (None, one["specifier"]))
        return (int(service["id"], 0), int(service["methods"][method]["id"], 0),
                instance["udpPort"])

    def identifier(self, did):
        return next(name for name in self.services if f"::{did}::" in name)


class Case(unittest.TestCase):
    timeout_ms = 3_600_000

    def setUp(self):
        self.deployment = Deployment()
        self.host = Host(self.timeout_ms)
        self.addCleanup(self.close_host)
        self.udp = Udp()
        self.addCleanup(self.udp.close)
        self.session = 0

    def close_host(self):
        self.assertEqual(self.host.close(), 0)

    def call(self, ids, payload):
        service, method, port = ids
        self.session += 1
        request = SOMEIP(srv_id=service, method_id=method, client_id=0x77, session_id=self.session,
                         iface_ver=1, msg_type=REQUEST) / payload
        self.udp.send(request, port)
        answer = self.udp.receive(
            lambda packet: (packet.srv_id, packet.client_id, packet.session_id)
            == (service, 0x77, self.session))
        self.assertIsNotNone(answer, "no answer")
        return answer

    def read(self, did, payload=EMPTY_MAP):
        answer = self.call(self.deployment.method(self.deployment.identifier(did), "Read"), payload)
        self.assertEqual((answer.msg_type, answer.retcode), (RESPONSE, E_OK))
        return bytes(answer.payload)

    def init_monitor(self, monitor, reason):
        answer = self.call(
            self.deployment.method("mw::dm::dem::DiagnosticMonitor", "InitMonitor",
                                   "DiagnosticMonitor_" + monitor), bytes([reason]))
        self.assertEqual((answer.msg_type, answer.retcode, bytes(answer.payload)),
                         (RESPONSE, E_OK, b""))


class Data_identifiers(Case):
    def test_start_values_after_the_sensor_setup(self):
        self.assertEqual(self.read("d_14a0").hex(" "), "02 03 03 03 03 03 03 03 02 03 03")
        self.assertEqual(self.read("d_14a1").hex(" "), "02 02 00")
        self.assertEqual(self.read("d_14a2").hex(" "),
                         "00 00 00 05 00 00 00 00 00 00 00 00 05 00 00 00 00 00 "
                         "00 00 00 03 00 00 00 00 00 00 03 00 00 00 00 00 00 02 00 00")
        self.assertEqual(self.read("d_14a3").hex(" "), "00 03 00 02 00 00 00 00 00 00 00 00 03 03")
        for did in ("d_1190", "d_1191", "d_1192"):
            self.assertEqual(self.read(did), EMPTY_MAP)

    def test_values_of_the_moment(self):
        for command in ("position", "fault", "system 9 1", "system 10 2"):
            self.host.tell(command)
        self.assertEqual(self.read("d_14a2").hex(" "),
                         "00 00 00 05 0b 35 32 ad d0 00 00 00 05 fd 4e 02 5d a0 "
                         "00 00 00 03 00 ca d5 00 00 00 03 7a 12 19 00 00 00 02 3f 42")
        self.assertEqual(self.read("d_14a3").hex(" "), "00 03 00 02 00 00 00 00 00 01 02 00 03 03")
        self.assertEqual(self.read("d_1190").hex(" "), "00 00 00 05 01 00 01 00 01")
        self.assertEqual(self.read("d_1191").hex(" "), "00 00 00 05 01 01 01 00 01")
        self.assertEqual(self.read("d_1192").hex(" "), "00 00 00 05 02 01 00 00 01")

    def test_meta_information_of_any_content_is_taken(self):
        two = string_map((b"source", b"0x0E80"), (b"", b"\x00\xff"))
        for payload in (EMPTY_MAP, two, two + b"behind the map"):
            self.assertEqual(self.read("d_14a1", payload).hex(" "), "02 02 00", payload.hex(" "))
            answer = self.call(
                self.deployment.method(self.deployment.identifier("d_14a1"), "Cancel"), payload)
            self.assertEqual((answer.msg_type, answer.retcode, bytes(answer.payload)),
                             (RESPONSE, E_OK, b""))

    def test_lengths_that_do_not_hold_are_malformed(self):
        entries = string_map((b"source", b"tester"), (b"bus", b"doip"))[4:]
        cases = {
            "nothing": b"",
            "cut length": bytes(3),
            "outer length beyond the message": (len(entries) + 1).to_bytes(4, "big") + entries,
            "outer length of all bits": b"\xff\xff\xff\xff" + entries,
            "outer length short of the first entry": (9).to_bytes(4, "big") + entries,
            "outer length between the entries' strings": (len(entries) - 1).to_bytes(4, "big")
            + entries,
            "inner length beyond the message": text(b"\x00\x00\xff\xff" + entries[4:]),
        }
        for did in ("d_14a0", "d_1190"):
            ids = self.deployment.method(self.deployment.identifier(did), "Read")
            for name, payload in cases.items():
                with self.subTest(did=did, case=name):
                    answer = self.call(ids, payload)
                    self.assertIn(answer.msg_type, (RESPONSE, ERROR))
                    self.assertEqual((answer.retcode, bytes(answer.payload)),
                                     (E_MALFORMED_MESSAGE, b""))
        self.assertEqual(self.read("d_14a1").hex(" "), "02 02 00", "still served")

    def test_a_method_that_is_not_there(self):
        service, _, port = self.deployment.method(self.deployment.identifier("d_14a0"), "Read")
        answer = self.call((service, 0x0033, port), EMPTY_MAP)
        self.assertEqual(answer.retcode, E_UNKNOWN_METHOD)


class Monitors(Case):
    timeout_ms = 100  # evaluated every 10 ms

    def subscribe(self, monitor):
        """Subscribes a socket of its own to MonitorAction of one monitor and returns it."""
        service = self.deployment.services["mw::dm::dem::DiagnosticMonitor"]
        instance = next(one for one in service["instances"]
                        if one["specifier"] == "DiagnosticMonitor_" + monitor)
        event = service["events"]["MonitorAction"]
        events = Udp()
        events.identity = (int(service["id"], 0), int(event["id"], 0))
        events.provider_port = instance["udpPort"]
        self.addCleanup(events.close)
        discovery = Udp(DISCOVERY)
        self.addCleanup(discovery.close)
        sd = SD(flags=0xC0)
        sd.set_entryArray([SDEntry_EventGroup(
            type=6, n_opt_1=1, srv_id=int(service["id"], 0), inst_id=int(instance["id"], 0),
            major_ver=1, ttl=60, eventgroup_id=int(event["eventGroup"], 0))])
        sd.set_optionArray([SDOption_IP4_EndPoint(addr=TESTER, l4_proto=0x11, port=events.port)])
        header = SOMEIP(srv_id=0xFFFF, sub_id=1, event_id=0x100, client_id=0, session_id=1,
                        iface_ver=1, msg_type=NOTIFICATION)
        discovery.send(header / sd, DISCOVERY)

        def acknowledged(packet):
            return SD in packet and any(
                entry.type == 7 and entry.ttl > 0 and entry.inst_id == int(instance["id"], 0)
                for entry in packet[SD].entry_array)

        self.assertIsNotNone(discovery.receive(acknowledged), "no acknowledgement")
        return events

    def expect_action(self, events, action):
        packet = events.receive(lambda each: True)
        self.assertIsNotNone(packet, f"action {action} did not come\n{self.host.lines()}")
        self.assertEqual(events.sender, (NODE, events.provider_port))
        # The wire's event id is the field of 16 bits that scapy takes apart.
        self.assertEqual((packet.srv_id, packet.sub_id << 15 | packet.event_id), events.identity)
        self.assertEqual((packet.msg_type, packet.retcode), (NOTIFICATION, E_OK))
        self.assertEqual(bytes(packet.payload), bytes([action]))

    def test_data_and_the_lack_of_it_are_reported(self):
        events = self.subscribe("POS_Input_GNSS")
        self.host.tell("data " + GNSS)
        self.expect_action(events, 0)
        self.expect_action(events, 1)
        self.assertEqual(self.read("d_14a0").hex(" "), "01 03 03 03 03 03 03 03 02 03 03")

        self.init_monitor("POS_Input_GNSS", 1)
        self.expect_action(events, 1)
        self.init_monitor("POS_Input_GNSS", 3)
        self.init_monitor("POS_Input_GNSS", 0)
        self.expect_action(events, 0)
        self.expect_action(events, 1)  # nothing came within the time-out after the clearing

        log = self.host.lines()
        for line in (
            "Changing of state, ID = POS_Input_GNSS , prev status = Init , new status = Nominal",
            "Changing of state, ID = POS_Input_GNSS , prev status = Nominal , new status = Error",
            "DiagnosticMonitor::InitMonitor for service  8638721 POS_Input_GNSS ) reason is "
            "kRestart OR kReenabled",
            "DiagnosticMonitor::InitMonitor for service  8638721 POS_Input_GNSS ) reason is kClear",
            "diagnosticMonitorServiceImpl::sendEvent(),  id  8638721  (0x 83d101 )  =  "
            "POS_Input_GNSS , action  1  =  kFailed",
        ):
            self.assertIn(line, log)
        self.assertEqual(log.count("DiagnosticMonitor::InitMonitor"), 2)

    def test_each_monitor_speaks_for_itself(self):
        gnss = self.subscribe("POS_Input_GNSS")
        self.init_monitor("POS_Output_DeadReckoning", 2)
        self.init_monitor("POS_Input_GNSS", 2)
        self.expect_action(gnss, 0)  # told apart from the other's by the port it comes from

    def test_everything_is_offered_until_the_stop(self):
        listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(listener.close)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((MULTICAST, DISCOVERY))
        listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(MULTICAST) + socket.inet_aton("127.0.0.1"))

        def collect(count, wanted):
            """Instances of the offer entries that `wanted` accepts, until there are enough."""
            seen = set()
            end = time.monotonic() + LIMIT
            while len(seen) < count and (rest := end - time.monotonic()) > 0:
                listener.settimeout(rest)
                try:
                    packet = SOMEIP(listener.recv(65536))
                except socket.timeout:
                    break
                seen.update((entry.srv_id, entry.inst_id) for entry in packet[SD].entry_array
                            if isinstance(entry, SDEntry_Service) and entry.type == 1
                            and wanted(entry))
            return seen

        offered = collect(30, lambda entry: entry.ttl > 0)
        self.assertEqual(len(offered), 30, "seven data identifiers and 23 monitors")
        self.host.tell("stop")
        self.host.tell("stop")
        self.assertEqual(collect(30, lambda entry: entry.ttl == 0), offered)


if __name__ == "__main__":
    unittest.main()
