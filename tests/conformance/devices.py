"""The devices under test: the application, and a host of test services made of the same runtime."""

import json
import os
import signal
import subprocess

from desk import APPLICATION, BUILD, SOURCE
from network import learn_versions

HOST = BUILD / "tests/conformance/conformance_host"

TIMING = {
    "initialDelayMinMs": 10, "initialDelayMaxMs": 30,
    "repetitionsBaseDelayMs": 20, "repetitionsMax": 2,
    "cyclicOfferDelayMs": 400,
    "requestResponseDelayMinMs": 0, "requestResponseDelayMaxMs": 10,
    "offerTtlS": 2, "subscribeTtlS": 2,
}

# Services of the host. "Vehicle" and its kin are provided by it, "Remote" and its kin are used by it.
VEHICLE, STREAM, GROUP, CLOSED = 0x4001, 0x4002, 0x4003, 0x4004
REMOTE, REMOTE_STREAM, REMOTE_GROUP, REMOTE_CLOSED = 0x5001, 0x5002, 0x5003, 0x5004
UNKNOWN = 0x4FFF
MAJOR, MINOR = 2, 7
ECHO, POKE, SIZE, MAKE, FAIL = 0x0001, 0x0002, 0x0003, 0x0004, 0x0005
VALUE_GETTER, VALUE_SETTER, BIG_GETTER = 0x0010, 0x0011, 0x0012
TICK, TOCK, VALUE, BIG = 0x8001, 0x8002, 0x8010, 0x8011
TICK_GROUP, VALUE_GROUP, BIG_GROUP = 0x0001, 0x0010, 0x0011
VEHICLE_PORT, SECOND_PORT, STREAM_PORT, GROUP_PORT, CLOSED_PORT = 30701, 30702, 30703, 30704, 30705
MULTICAST_PORT = 30710
CLIENT_PORT = 49201
CLIENT_ID = 0x5A01
SERVER_PORT = 30720  # and above: where the tester provides services

# The application's services
POSITIONING, INPUTS, SYSTEM_STATUS, MONITOR, GNSS = 0x2A20, 0x34A0, 0x34A3, 0x3D00, 0x2A10
POSITIONING_PORT, IDENTIFIER_PORT, MONITOR_PORT = 30511, 30512, 30520
READ = 0x0001
NO_TEXTS = bytes(4)  # the parameter of Read: an empty map


def host_manifest(network, *, allowed=(), everywhere=(), limits=None, segments=None, requestTimeoutMs=1000, **timing):
    """`allowed` may talk to the service CLOSED and provide REMOTE_CLOSED, `everywhere` use and provide all services
    if it names addresses; `timing` may differ from TIMING."""
    def service(id, transport="udp", instances=(), **more):
        def elements(**of_name):
            return {name: {**element, "transport": transport} for name, element in of_name.items()}
        return {
            "id": id, "majorVersion": MAJOR, "minorVersion": MINOR, "instances": list(instances),
            "allowedPeers": list(everywhere), **more,
            "methods": elements(echo={"id": ECHO}, poke={"id": POKE, "fireAndForget": True}, size={"id": SIZE},
                                make={"id": MAKE}, fail={"id": FAIL}),
            "events": elements(tick={"id": TICK, "eventGroup": TICK_GROUP},
                               tock={"id": TOCK, "eventGroup": TICK_GROUP}),
            "fields": elements(value={"getter": VALUE_GETTER, "setter": VALUE_SETTER, "notifier": VALUE,
                                      "eventGroup": VALUE_GROUP},
                               big={"getter": BIG_GETTER, "notifier": BIG, "eventGroup": BIG_GROUP})}

    def instance(id, specifier, **ports):
        return {"id": id, "specifier": specifier, "node": "host", **ports}

    multicast = [
        {"eventGroup": group, "address": f"239.195.{network.number}.{last}",
         "port": MULTICAST_PORT, "threshold": wanted}
        for group, last, wanted in ((TICK_GROUP, 1, 1), (VALUE_GROUP, 2, 2), (BIG_GROUP, 3, 0))]
    allowed = list(allowed) or [network.address(250)]
    return {
        "nodes": {"host": {"address": network.address(1, 2), "prefixLength": 16, "clientId": CLIENT_ID,
                           "clientPort": CLIENT_PORT, "requestTimeoutMs": requestTimeoutMs}},
        "serviceDiscovery": {"multicastAddress": network.group, "port": network.discovery_port,
                             **TIMING, **timing},
        "limits": limits or {}, "segments": segments or {},
        "services": {
            "Vehicle": service(VEHICLE, instances=[instance(1, "first", udpPort=VEHICLE_PORT),
                                                   instance(2, "second", udpPort=SECOND_PORT)]),
            "Stream": service(STREAM, "tcp", [
                instance(1, "stream", tcpPort=STREAM_PORT, udpPort=STREAM_PORT)]),
            "Group": service(GROUP, instances=[
                instance(1, "group", udpPort=GROUP_PORT, multicast=multicast)]),
            "Closed": service(CLOSED, instances=[
                instance(1, "closed", udpPort=CLOSED_PORT)], allowedPeers=allowed),
            "Remote": service(REMOTE),
            "RemoteStream": service(REMOTE_STREAM, "tcp"),
            "RemoteGroup": service(REMOTE_GROUP),
            "RemoteClosed": service(REMOTE_CLOSED, allowedPeers=allowed),
        }}


class Device:
    """A process under test. `ports` are those of its services, `ping` is a request that changes nothing."""

    ports = {}
    ping = ()

    def __init__(self, network, desk, address, manifest, program, **environment):
        self.network, self.address = network, address
        network.under_test.add(address)
        learn_versions(manifest)
        number = len(desk.running)
        manifest_path = desk.path / f"manifest-{number}.json"
        manifest_path.write_text(json.dumps(manifest), encoding="utf-8")
        self.process = desk.start(program, stdin=subprocess.PIPE, environment={
            "POS_MANIFEST": str(manifest_path), "POS_STORAGE_DIR": str(desk.path / f"storage-{number}"), **environment})
        self.lines = []
        self.done = 0
        self._rest = b""
        os.set_blocking(self.process.stdout.fileno(), False)
        network.watch(self.process.stdout, self._readable)
        self._watched = True

    def at(self, service):
        return (self.address, self.ports.get(service, self.ports[self.ping[0]]))

    def _readable(self):
        data = os.read(self.process.stdout.fileno(), 1 << 20)
        if not data:
            self._unwatch()
            return
        *lines, self._rest = (self._rest + data).split(b"\n")
        self.done += lines.count(b"done")
        self.lines += [line.decode() for line in lines if line != b"done"]

    def _unwatch(self):
        if self._watched:
            self.network.unwatch(self.process.stdout)
        self._watched = False

    def tell_to_end(self):
        self.process.send_signal(signal.SIGTERM)

    def stop(self):
        """In good order; receives meanwhile what it says."""
        self.tell_to_end()
        self.network.wait(lambda: self.process.poll() is not None, "end of the process")
        self.network.pump(0)

    def kill(self):
        self.process.kill()
        self.process.wait()
        self._unwatch()
        self.process.stdout.close()
        self.process.stdin.close()

    def __str__(self):
        return self.process.log.read_text(errors="replace")[-3000:]


class Host(Device):
    ports = {VEHICLE: VEHICLE_PORT, STREAM: STREAM_PORT, GROUP: GROUP_PORT, CLOSED: CLOSED_PORT}
    ping = (VEHICLE, ECHO)

    def __init__(self, network, desk, **options):
        super().__init__(network, desk, network.address(1, 2), host_manifest(network, **options), HOST)
        self.said("ready")

    def do(self, *commands):
        """Returns when the host has done it: what it sends by itself has been sent."""
        wanted = self.done + len(commands)
        self.process.stdin.write("".join(f"{command}\n" for command in commands))
        self.process.stdin.flush()
        self.network.wait(lambda: self.done >= wanted, f"end of {commands!r}")

    def said(self, start, since=0):
        """The first line from number `since` on that begins so."""
        def look():
            return next((line for line in self.lines[since:] if line.startswith(start)), None)
        return self.network.wait(look, lambda: f"line {start!r}; the host said {self.lines[-8:]} {self}")

    def count(self, counter):
        since = len(self.lines)
        self.do(f"count {counter}")
        return int(self.said(f"count {counter}", since).split()[-1])

    def tell_to_end(self):
        self.process.stdin.close()


class Application(Device):
    ports = {POSITIONING: POSITIONING_PORT, INPUTS: IDENTIFIER_PORT, MONITOR: MONITOR_PORT}
    ping = (INPUTS, READ, NO_TEXTS)

    def __init__(self, network, desk):
        manifest = json.loads((SOURCE / "config/manifest.json").read_text(encoding="utf-8"))
        manifest["nodes"]["POS"] |= {"prefixLength": 16}
        manifest["serviceDiscovery"] = {
            "multicastAddress": network.group, "port": network.discovery_port, **TIMING}
        address = network.address(1, 1)
        super().__init__(network, desk, address, manifest, APPLICATION, POS_NODE_ADDRESS=address,
                         POS_LOG_LEVEL="info", POS_INITDATA_DIR=str(SOURCE / "config"))
        self.provided = {(int(service["id"], 16), int(instance["id"], 16))
                         for service in manifest["services"].values()
                         for instance in service["instances"] if instance["node"] == "POS"}

    def running(self, peer):
        """Waits until everything has been offered, as a peer that listened from the start sees it."""
        self.network.wait(lambda: self.provided <= {(one.service, one.instance)
                                                    for one in peer.multicast.entries},
                          "start of the application")
