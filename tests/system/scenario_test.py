"""The whole system through real processes and the real Linux component behind each interface: the
application and a GNSS source, a dlt-daemon that receives the log, a dbus-daemon whose caller is busctl, a
notify socket, a tester and an event manager made of scapy.

The GNSS source dies and comes back, monitors are initialised, state management changes the state."""

import contextlib
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time

from desk import APPLICATION, GATEWAY, Desk, until
from dlt import Log
from network import ACKNOWLEDGE, NOTIFICATION, OFFER, Network, endpoint, subscribe

NETWORK = 169
NODE = f"127.{NETWORK}.0.10"
TESTER = f"127.{NETWORK}.0.40"
D_1190 = "lumo::services::diag::d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable"
D_14A0 = "lumo::services::diag::d_14a0::DataIdentifier_PositioningStatusInputs"
MONITOR = "mw::dm::dem::DiagnosticMonitor"
CHANGE = "Changing of state, ID = POS_Input_GNSS , prev status = {} , new status = {}"
PASSED, FAILED = b"\0", b"\1"
CLEAR, RESTART = b"\0", b"\1"


class Notify(threading.Thread):
    """The service manager's end of the notify protocol."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(path))
        self.messages = []
        self.start()

    def run(self):
        while True:
            text = self.socket.recv(4096).decode()
            self.messages.append((time.monotonic(), text.splitlines()))

    def times(self, word):
        return [at for at, lines in self.messages if word in lines]


class Bus:
    """A session bus of the test's own."""

    def __init__(self):
        self.process = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--print-address=1"], stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, text=True,
        )
        self.address = self.process.stdout.readline().strip()

    def call(self, state, number):
        return subprocess.run(
            ["busctl", "--user", "call", "org.adaptive.pos",
             "/org/adaptive/pos/POS__ORVEL1_Sys_Adaptive_01_instance1", "org.adaptive.pos.ComponentState1",
             "RequestState", "su", state, str(number)],
            env={**os.environ, "DBUS_SESSION_BUS_ADDRESS": self.address}, capture_output=True, text=True,
            timeout=20,
        )

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Scenario:
    """The tester and the event manager."""

    def __init__(self, desk, network):
        self.services = desk.manifest["services"]
        monitor = self.services[MONITOR]
        instance = next(one for one in monitor["instances"] if one["specifier"].endswith("_POS_Input_GNSS"))
        self.monitor = int(monitor["id"], 0), instance["udpPort"]
        self.instance = int(instance["id"], 0)
        self.action_group = int(monitor["events"]["MonitorAction"]["eventGroup"], 0)
        self.init = int(monitor["methods"]["InitMonitor"]["id"], 0)
        self.peer = network.peer(TESTER)
        self.events = self.peer.caller()
        self.peer.multicast.on_entry = self.subscribe

    def subscribe(self, entry):
        """Each offer of the monitor is answered with a subscription."""
        if (entry.type, entry.service, entry.instance) == (OFFER, self.monitor[0], self.instance) and entry.ttl:
            self.peer.tell(subscribe(self.monitor[0], self.action_group, self.instance), [endpoint(self.events)], NODE)

    def call(self, where, method, payload):
        service, port = where
        answer = self.peer.call((NODE, port), service, method, payload)
        assert answer.code == 0, answer
        return answer.payload

    def read(self, name):
        service = self.services[name]
        return self.call((int(service["id"], 0), service["instances"][0]["udpPort"]), 1, bytes(4))

    def inputs(self):
        return self.read(D_14A0)

    def lost_services(self):
        return self.read(D_1190)

    def init_monitor(self, reason):
        self.call(self.monitor, self.init, reason)

    def actions(self):
        return [one.payload for one in self.events.messages if one.type == NOTIFICATION]


def main():
    with contextlib.ExitStack() as stack:
        desk = stack.enter_context(Desk(NETWORK))
        notify = Notify(desk.path / "notify")
        log = Log(desk.path, 39169)
        stack.callback(log.end)
        bus = Bus()
        stack.callback(bus.end)
        desk.environment.update(
            NOTIFY_SOCKET=str(desk.path / "notify"), DLT_PIPE_DIR=str(desk.path),
            DBUS_SESSION_BUS_ADDRESS=bus.address, POS_STATE_BUS="session",
            POS_LOG_LEVEL="info,TRCE=verbose",
        )
        network = Network(desk=desk)
        stack.callback(network.close)
        scenario = Scenario(desk, network)
        application = desk.start(APPLICATION)
        scenario.peer.entry(ACKNOWLEDGE, scenario.monitor[0])
        gateway = desk.start(GATEWAY)

        flowing = bytes([0, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3])
        late = bytes([1]) + flowing[1:]
        until(lambda: scenario.inputs() == flowing, "GNSS nominal")

        gateway.kill()
        gateway.wait()
        killed = time.monotonic()
        until(lambda: scenario.inputs() == late, "GNSS in error")
        assert scenario.lost_services() == bytes([0, 0, 0, 5, 1, 0, 1, 0, 1]), "GNSS lost once and away"
        assert 4.4 < time.monotonic() - killed < 8, time.monotonic() - killed
        until(lambda: scenario.actions()[-1:] == [FAILED], "kFailed")
        to_error = CHANGE.format("Nominal", "Error")
        until(lambda: log.texts("DSRV").count(to_error) == 1, "one line about the change")

        events = len(scenario.actions())
        scenario.init_monitor(RESTART)
        until(lambda: scenario.actions()[events:] == [FAILED], "kFailed after kRestart")
        assert scenario.inputs() == late
        scenario.init_monitor(CLEAR)
        until(lambda: scenario.actions()[events:][1:2] == [PASSED], "kPassed after kClear")
        assert scenario.inputs() == flowing
        until(lambda: scenario.inputs() == late, "in error again, as nothing came")

        events = len(scenario.actions())
        gateway = desk.start(GATEWAY)
        until(lambda: scenario.inputs() == flowing, "GNSS back")
        assert scenario.lost_services() == bytes([0, 0, 0, 5, 1, 0, 0, 0, 1]), "GNSS lost once and back"
        until(lambda: scenario.actions()[events:] == [PASSED], "kPassed")
        assert log.texts("DSRV").count(CHANGE.format("Error", "Nominal")) >= 1

        for number, state, words in ((7, "kPrepSD", "forbidden"), (8, "kPrepSD", None), (9, "kOn", "allowed")):
            lines = log.texts("DBAC").count(f"Database: storing {words}")
            answer = bus.call(state, number)
            assert (answer.returncode, answer.stdout.strip()) == (0, "u 0"), answer
            if words:
                until(lambda: log.texts("DBAC").count(f"Database: storing {words}") == lines + 1, words)
            until(lambda: f"componentStateChangeRequest newState =  {state}  seqNum =  {number}" in log.texts("CCSW"),
                  f"the request {number} in the log")

        assert desk.stop(gateway)[0] == 0
        assert desk.stop(application)[0] == 0
        until(lambda: "exiting main." in log.texts("POS"), "the last line in the log")

        ready, alive, stopping = (notify.times(f"{w}=1") for w in ("READY", "WATCHDOG", "STOPPING"))
        assert len(ready) == len(stopping) == 1 and ready[0] < alive[0] < alive[-1] < stopping[0]
        gaps = [b - a for a, b in zip(alive, alive[1:])]
        assert all(0.8 < gap < 1.8 for gap in gaps), gaps
        traces(log)
        print(f"{len(log.messages)} log lines, {len(scenario.actions())} monitor events, {len(alive)} checkpoints")
    return 0


def traces(log):
    """Every line in the trace context is one JSON object with its keys in order."""
    def ordered(pairs):
        keys = [key for key, _ in pairs]
        numbered = [int(key.split("_")[0]) for key in keys if key[0].isdigit()]
        assert numbered == sorted(numbered), keys
        return dict(pairs)

    seen = set()
    for text in log.texts("TRCE"):
        seen.add(json.loads(text, object_pairs_hook=ordered)["1_incident"]["1_id"])
    expected = {
        "Offer_service", "Stop_offer_service", "Service_skeleton_constructed", "Method_call_request_process",
        "Method_call_response_tx", "Event_update_tx", "Service_proxy_constructed", "Find_service_start",
        "Find_service_stop", "Find_service_result", "Service_handle", "Find_service_handler_performance",
        "Field_subscribe", "Field_unsubscribe", "Event_receive_handler", "Event_receive_handler_performance",
        "Event_update_rx", "Event_cache_update",
    }
    assert expected <= seen, expected - seen


if __name__ == "__main__":
    sys.exit(main())
