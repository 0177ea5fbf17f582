"""The whole system through real processes: the application and a GNSS source, a notify socket, a tester and an
event manager made of scapy. The GNSS source dies and comes back."""

import contextlib
import socket
import statistics
import threading
import time

from desk import APPLICATION, GATEWAY, Desk, until
from network import ACKNOWLEDGE, NOTIFICATION, OFFER, Network
from tester import D_14A0, MONITOR, NO_TEXTS, Tester

GNSS_MONITOR = "POS_Input_GNSS"
PASSED, FAILED = b"\0", b"\1"


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


class Event_manager(Tester):
    """Subscribes at the monitor of the GNSS input each time that it is offered."""

    def __init__(self, desk, network):
        super().__init__(desk, network)
        self.monitor = self.ids(MONITOR, GNSS_MONITOR)[:2]
        self.peer.multicast.on_entry = self.offered

    def offered(self, entry):
        if (entry.type, entry.service, entry.instance) == (OFFER, *self.monitor) and entry.ttl:
            self.subscribe(MONITOR, GNSS_MONITOR)

    def inputs(self):
        return self.call(D_14A0, NO_TEXTS)

    def actions(self):
        return [one.payload for one in self.peer.caller().messages if one.type == NOTIFICATION]


def main():
    with contextlib.ExitStack() as stack:
        desk = stack.enter_context(Desk())
        notify = Notify(desk.path / "notify")
        desk.environment["NOTIFY_SOCKET"] = str(desk.path / "notify")
        network = Network(desk=desk)
        stack.callback(network.close)
        manager = Event_manager(desk, network)
        application = desk.start(APPLICATION)
        manager.peer.entry(ACKNOWLEDGE, manager.monitor[0])
        gateway = desk.start(GATEWAY)

        flowing = bytes([0, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3])
        late = bytes([1]) + flowing[1:]
        until(lambda: manager.inputs() == flowing, "GNSS nominal")

        gateway.kill()
        gateway.wait()
        killed = time.monotonic()
        until(lambda: manager.inputs() == late, "GNSS in error")
        assert time.monotonic() - killed > 4.4, time.monotonic() - killed
        until(lambda: manager.actions()[-1:] == [FAILED], "kFailed")

        events = len(manager.actions())
        gateway = desk.start(GATEWAY)
        until(lambda: manager.inputs() == flowing, "GNSS back")
        until(lambda: manager.actions()[events:] == [PASSED], "kPassed")

        assert desk.stop(gateway)[0] == 0
        assert desk.stop(application)[0] == 0

        ready, alive, stopping = (notify.times(f"{w}=1") for w in ("READY", "WATCHDOG", "STOPPING"))
        assert len(ready) == len(stopping) == 1 and ready[0] < alive[0] < alive[-1] < stopping[0]
        gaps = [b - a for a, b in zip(alive, alive[1:])]
        assert 0.8 < statistics.median(gaps) < 1.8, gaps  # a busy machine delays single ones
        print(f"{len(manager.actions())} monitor events, {len(alive)} checkpoints")


if __name__ == "__main__":
    main()
