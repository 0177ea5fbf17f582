"""Two machines joined by a cable: network namespaces, one with the application, one with a GNSS source and
a subscriber. Discovery by multicast, positions over the cable; the cable is cut where nobody sees it, loses,
doubles and reorders what it carries, and is pulled out of its sockets. Needs the right to make namespaces;
without it the test is skipped."""

import contextlib
import ctypes
import fcntl
import os
import pathlib
import random
import select
import struct
import subprocess
import sys
import threading
import time

from desk import APPLICATION, GATEWAY, POSCTL, Desk, Positions, until

SKIPPED = 77

TAG = f"p{os.getpid()}"
VEHICLE, BENCH = f"{TAG}a", f"{TAG}b"
# Cyclic offers come every second and are lost with probability 0.1 here; a find after the cable is back is
# not sent, so the worst case of a few lost offers and subscriptions must fit in.
FLOWS_AGAIN_WITHIN = 8.0


def ip(*words, check=True):
    return subprocess.run(["ip", *words], check=check, capture_output=True, text=True)


class Cable(threading.Thread):
    """Carries Ethernet frames between a tap device in each namespace, as well as it is told to. (The kernel's
    own netem is not in every kernel.)"""

    TUNSETIFF = 0x400454CA
    TUNSETCARRIER = 0x400454E2
    IFF_TAP_NO_PI = 0x0002 | 0x1000

    def __init__(self):
        super().__init__(daemon=True)
        self.plugged = True
        self.faults = 0.0  # share of the frames that are lost, doubled, reordered
        self.ends = []
        self.ending = False
        self.random = random.Random(1)

    def lay(self):
        for space in (VEHICLE, BENCH):
            ip("netns", "add", space)
        self.ends += [self.tap(VEHICLE, "10.66.0.1"), self.tap(BENCH, "10.66.0.2", "10.66.0.3")]
        self.start()

    def tap(self, space, *addresses):
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/self/ns/net") as home, open(f"/run/netns/{space}") as there:
            libc.setns(there.fileno(), 0)
            try:
                end = os.open("/dev/net/tun", os.O_RDWR)
                fcntl.ioctl(end, self.TUNSETIFF, struct.pack("16sH22x", b"cable", self.IFF_TAP_NO_PI))
            finally:
                libc.setns(home.fileno(), 0)
        for device in ("lo", "cable"):
            ip("-n", space, "link", "set", device, "up")
        for address in addresses:
            self.address("add", space, address)
        return end

    @staticmethod
    def address(action, space, address):
        ip("-n", space, "addr", action, f"{address}/24", "dev", "cable")

    def close(self):
        self.ending = True
        if self.is_alive():
            self.join()
        for end in self.ends:
            os.close(end)
        for space in (VEHICLE, BENCH):
            ip("netns", "del", space, check=False)

    def run(self):
        held = {end: None for end in self.ends}
        other = dict(zip(self.ends, reversed(self.ends)))
        while not self.ending:
            readable, _, _ = select.select(self.ends, [], [], 0.05)
            if not readable:
                # Nothing overtakes a held frame any more.
                for end in self.ends:
                    self.carry(other[end], held[end])
                    held[end] = None
            for end in readable:
                frame = os.read(end, 65536)
                chance = self.random.random
                if not self.plugged or chance() < self.faults:
                    continue
                if held[end] is None and chance() < self.faults:
                    held[end] = frame
                    continue
                for _ in range(2 if chance() < self.faults else 1):
                    self.carry(other[end], frame)
                self.carry(other[end], held[end])
                held[end] = None

    def carry(self, end, frame):
        if frame is not None:
            os.write(end, frame)

    def link(self, state, *spaces):
        """At the socket of these machines."""
        for space, end in zip((VEHICLE, BENCH), self.ends):
            if space in spaces:
                fcntl.ioctl(end, self.TUNSETCARRIER, struct.pack("i", state == "up"))


class Machines:
    """The programs in their namespaces; timing may differ from the manifest's."""

    def __init__(self, desk, **timing):
        self.desk = desk
        for node in desk.manifest["nodes"].values():
            node["prefixLength"] = 24
        desk.manifest["serviceDiscovery"] |= timing
        desk.write_manifest()
        self.application = self.start(VEHICLE, "10.66.0.1", APPLICATION)
        self.gateway = self.start(BENCH, "10.66.0.2", GATEWAY, "--satellites", 60)
        self.watch = self.start(BENCH, "10.66.0.3", POSCTL, "watch", "--json")
        self.positions = Positions(self.watch)

    def start(self, space, address, *command):
        return self.desk.start(pathlib.Path("/usr/bin/env"), "ip", "netns", "exec", space, *command,
                               environment={"POS_NODE_ADDRESS": address})

    def flow(self, what, count=1):
        self.positions.flow(what, count, FLOWS_AGAIN_WITHIN)

    def log(self):
        return self.application.log.read_text(errors="replace")

    def end(self):
        """Each program took the place of the one that started it, so the signal reaches it."""
        for program in (self.watch, self.gateway, self.application):
            code, _ = self.desk.stop(program)
            assert code == 0, (program.log, code)


def bad_cable(cable, desk):
    machines = Machines(desk)
    machines.positions.flow("after the start", 5)
    for seconds, what in ((5, "within the subscription"), (8, "for longer than every time to live")):
        cable.plugged = False  # somewhere in between: both machines keep their link
        time.sleep(seconds)
        cable.plugged = True
        machines.flow(f"cable cut {what}")

    cable.faults = 0.1
    before = machines.positions.count
    end = time.monotonic() + 12
    while time.monotonic() < end:
        machines.flow("with loss, duplication and reordering")
    count = machines.positions.count - before
    # 120 are sent; two crossings of the cable keep 0.9 * 0.9 of them and 1.1 * 1.1 as doubles. Discovery that
    # is overtaken looks like a restart: then some are missed until the next offer, once in a while twice.
    assert count > 30, f"only {count} positions came through the bad cable in 12 s"

    cable.faults = 0
    machines.flow("on the repaired cable", 20)
    machines.end()
    assert "Fatal error" not in machines.log()
    print(f"{machines.positions.count} positions; cable cut twice, {count} through 10 % loss in 12 s")


def lost_links(cable, desk):
    """Offers are not repeated for a minute: what flows soon after a loss of the link flows because the loss
    and the return were seen."""
    cable.address("del", VEHICLE, "10.66.0.1")
    machines = Machines(desk, cyclicOfferDelayMs=60_000, offerTtlS=300, subscribeTtlS=300)
    until(lambda: "10.66.0.1 has no link yet" in machines.log(), "the application without address")
    cable.address("add", VEHICLE, "10.66.0.1")
    machines.flow("after an address that came late")

    def lost(*programs, times):
        for program in programs:
            until(lambda: program.log.read_text().count(" is down") == times, f"{times} in {program.log}")
    cable.link("down", VEHICLE, BENCH)
    lost(machines.application, machines.gateway, machines.watch, times=1)
    cable.link("up", VEHICLE, BENCH)
    machines.flow("link lost on both sides")

    cable.address("del", VEHICLE, "10.66.0.1")
    lost(machines.application, times=2)
    cable.address("add", VEHICLE, "10.66.0.1")
    machines.flow("address taken away")

    cable.link("down", BENCH)
    lost(machines.gateway, machines.watch, times=2)
    cable.link("up", BENCH)
    machines.flow("link lost on the side of the source and of the subscriber")
    machines.end()


def main():
    with contextlib.closing(Cable()) as cable:
        try:
            cable.lay()
        except (subprocess.CalledProcessError, OSError) as error:
            print(f"skipped: no network namespaces here ({error})")
            return SKIPPED
        for part in (bad_cable, lost_links):
            with Desk() as desk:
                part(cable, desk)
    return 0


if __name__ == "__main__":
    sys.exit(main())
