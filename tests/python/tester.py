"""The tester of a vehicle: calls what the application offers, and subscribes there."""

from network import endpoint, subscribe

MONITOR = "mw::dm::dem::DiagnosticMonitor"
D_14A0 = "lumo::services::diag::d_14a0::DataIdentifier_PositioningStatusInputs"
NO_TEXTS = bytes(4)  # the parameter of Read of a data identifier: an empty map
CLEAR, RESTART, REENABLED = b"\0", b"\1", b"\2"


class Tester:
    def __init__(self, desk, network):
        self.node = desk.manifest["nodes"]["POS"]["address"]
        self.services = desk.manifest["services"]
        self.peer = network.peer(desk.address(40))

    def ids(self, service, specifier=""):
        """Service, instance and port of the first instance whose specifier ends so."""
        deployed = self.services[service]
        instance = next(one for one in deployed["instances"] if one["specifier"].endswith(specifier))
        return int(deployed["id"], 0), int(instance["id"], 0), instance["udpPort"]

    def call(self, service, payload, code=0, specifier=""):
        """The first method of the service; returns the payload of its answer, which has that code."""
        id, _, port = self.ids(service, specifier)
        answer = self.peer.call((self.node, port), id, 1, payload)
        assert answer.code == code, answer
        return answer.payload

    def init_monitor(self, name, reason, code=0):
        self.call(MONITOR, reason, code, f"_{name}")

    def subscribe(self, service, specifier=""):
        """The first event group of the service."""
        id, instance, _ = self.ids(service, specifier)
        self.peer.tell(subscribe(id, 1, instance), [endpoint(self.peer.caller())], self.node)
