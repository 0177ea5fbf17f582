"""The whole system through real processes and the real Linux component behind each interface: the
application and a GNSS source, a dlt-daemon that receives the log, a dbus-daemon whose caller is busctl, a
notify socket, a tester and an event manager made of scapy.

The GNSS source dies and comes back, monitors are initialised, state management changes the state."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "tools"), str(HERE.parent / "python")]
import someip_peer as peer  # noqa: E402
from desk import APPLICATION, GATEWAY, Desk, until  # noqa: E402

NETWORK = 169
NODE = f"127.{NETWORK}.0.10"
TESTER = f"127.{NETWORK}.0.40"
D_1190 = "lumo::services::diag::d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable"
D_14A0 = "lumo::services::diag::d_14a0::DataIdentifier_PositioningStatusInputs"
MONITOR = "mw::dm::dem::DiagnosticMonitor"
CHANGE = "Changing of state, ID = POS_Input_GNSS , prev status = {} , new status = {}"
PASSED, FAILED = b"\0", b"\1"
CLEAR, RESTART = b"\0", b"\1"
TRACE_LEVEL = 6


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


class Log(threading.Thread):
    """What dlt-receive prints of a daemon of the test's own: "… POS- GNSS log info V 2 [text]"."""

    def __init__(self, folder, port):
        super().__init__(daemon=True)
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.daemon_process = subprocess.Popen(["dlt-daemon", "-t", folder, "-p", str(port)], cwd=folder, **quiet)
        until(lambda: (folder / "dlt").exists(), "the pipe of dlt-daemon")
        self.receiver = subprocess.Popen(
            ["stdbuf", "-oL", "dlt-receive", "-a", "-p", str(port), "localhost"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, errors="replace",
        )
        self.lines = []
        self.start()

    def run(self):
        for line in self.receiver.stdout:
            found = re.search(r" (\S+) (\S+) log (\S+) V (\d+) \[(.*)\]$", line.rstrip())
            if found:
                self.lines.append((found[2].rstrip("-"), found[3], int(found[4]), found[5]))

    def texts(self, context):
        return [text for of, _, _, text in list(self.lines) if of == context]

    def end(self):
        for process in (self.receiver, self.daemon_process):
            process.terminate()
            process.wait()
        self.receiver.stdout.close()


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
    def __init__(self, desk, node):
        self.desk, self.node = desk, node
        self.port = node.port()
        self.session = 0
        services = desk.manifest["services"]
        monitor = services[MONITOR]
        self.monitor = next(i for i in monitor["instances"] if i["specifier"].endswith("_POS_Input_GNSS"))
        self.monitor_service = int(monitor["id"], 0)
        self.action = int(monitor["events"]["MonitorAction"]["id"], 0)
        self.action_group = int(monitor["events"]["MonitorAction"]["eventGroup"], 0)
        self.init = int(monitor["methods"]["InitMonitor"]["id"], 0)
        self.did = self.where(D_14A0)
        self.not_available = self.where(D_1190)

    def where(self, name):
        service = self.desk.manifest["services"][name]
        return int(service["id"], 0), service["instances"][0]["udpPort"]

    def call(self, service, method, port, payload):
        self.session += 1
        number = self.session
        self.port.sendto(peer.message(service, method, payload, session=number), (NODE, port))
        answer = self.node.wait_message(
            f"answer {number}", lambda one: one.service == service and one.session == number
            and one.type in (0x80, 0x81))
        assert answer.code == 0, answer
        return answer.payload

    def inputs(self):
        return self.call(self.did[0], 1, self.did[1], b"\0\0\0\0")

    def lost_services(self):
        return self.call(self.not_available[0], 1, self.not_available[1], b"\0\0\0\0")

    def init_monitor(self, reason):
        self.call(self.monitor_service, self.init, self.monitor["udpPort"], reason)

    def actions(self):
        return [one.payload for one in self.node.all_messages(
            lambda one: one.service == self.monitor_service and one.type == 2)]

    def keep_subscribed(self):
        """Each offer of the monitor is answered with a subscription."""
        seen = 0
        while not self.ending:
            found = self.node.entry(1, lambda e, _, __: e.srv_id == self.monitor_service
                                    and e.inst_id == int(self.monitor["id"], 0), after=seen)
            if found:
                seen = len(self.node.discovery)
                self.node.send_discovery(
                    [peer.subscribe_entry(self.monitor_service, int(self.monitor["id"], 0), self.action_group,
                                          ttl=30)],
                    [peer.endpoint_option(TESTER, self.port.getsockname()[1])], to=NODE)
            time.sleep(0.05)

    ending = False


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
        node = stack.enter_context(peer.Node(TESTER, desk.manifest["serviceDiscovery"]["multicastAddress"]))
        application = desk.start(APPLICATION)
        scenario = Scenario(desk, node)
        node.wait_entry(1, "an offer", lambda entry, _, __: entry.srv_id == scenario.did[0])
        subscriber = threading.Thread(target=scenario.keep_subscribed, daemon=True)
        subscriber.start()
        gateway = desk.start(GATEWAY)

        flowing = bytes([0, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3])
        late = bytes([1]) + flowing[1:]
        until(lambda: scenario.inputs() == flowing, "GNSS nominal")
        peer.wait_for(lambda: node.entry(7, lambda e, _, __: e.srv_id == scenario.monitor_service),
                      "acknowledged subscription")

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
        scenario.ending = True
        subscriber.join()
        until(lambda: "exiting main." in log.texts("POS"), "the last line in the log")

        ready, alive, stopping = (notify.times(f"{w}=1") for w in ("READY", "WATCHDOG", "STOPPING"))
        assert len(ready) == len(stopping) == 1 and ready[0] < alive[0] < alive[-1] < stopping[0]
        gaps = [b - a for a, b in zip(alive, alive[1:])]
        assert all(0.8 < gap < 1.8 for gap in gaps), gaps
        arguments = {(text, count) for context, _, count, text in log.lines if context == "DSRV"}
        assert (to_error, 6) in arguments, "six arguments: label and value apart"
        traces(log)
        print(f"{len(log.lines)} log lines, {len(scenario.actions())} monitor events, {len(alive)} checkpoints")
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
