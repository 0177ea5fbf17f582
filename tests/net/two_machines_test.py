"""Two machines joined by a cable: network namespaces, one with the application, one with a GNSS source and
a subscriber. Discovery by multicast, positions over the cable; the cable is cut where nobody sees it, loses,
doubles and reorders what it carries, and is pulled out of its sockets. Needs the right to make namespaces; without it the test is skipped."""

import ctypes
import fcntl
import json
import os
import pathlib
import queue
import random
import select
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

BUILD = pathlib.Path(os.environ["POS_BUILD_DIR"])
SOURCE = pathlib.Path(os.environ["POS_SOURCE_DIR"])
APPLICATION = BUILD / "app/POS__ORVEL1_Sys_Adaptive_01_Exe"
GATEWAY = BUILD / "tools/gnss-gateway/gnss-gateway"
POSCTL = BUILD / "tools/posctl/posctl"
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
        self.loss = self.doubling = self.reordering = 0.0
        self.carried = 0
        self.ending = False
        self.random = random.Random(1)

    def __enter__(self):
        for space in (VEHICLE, BENCH):
            ip("netns", "add", space)
        self.ends = [self.tap(VEHICLE, "10.66.0.1"), self.tap(BENCH, "10.66.0.2", "10.66.0.3")]
        self.start()
        return self

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

    def __exit__(self, *_):
        self.ending = True
        if self.is_alive():
            self.join()
        for end in getattr(self, "ends", []):
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
                if not self.plugged or chance() < self.loss:
                    continue
                if held[end] is None and chance() < self.reordering:
                    held[end] = frame
                    continue
                for _ in range(2 if chance() < self.doubling else 1):
                    self.carry(other[end], frame)
                self.carry(other[end], held[end])
                held[end] = None

    def carry(self, end, frame):
        if frame is not None:
            os.write(end, frame)
            self.carried += 1

    def plug(self, state):
        """Somewhere in between: both machines keep their link."""
        self.plugged = state == "up"

    def link(self, state, *spaces):
        """At the socket of these machines."""
        for space, end in zip((VEHICLE, BENCH), self.ends):
            if space in spaces:
                fcntl.ioctl(end, self.TUNSETCARRIER, struct.pack("i", state == "up"))

    def disturb(self, share):
        self.loss = self.doubling = self.reordering = share


class Program:
    running = []

    def __init__(self, space, folder, manifest, *command, address):
        self.log = folder / f"{len(Program.running)}-{pathlib.Path(command[0]).name}.log"
        self.process = subprocess.Popen(
            ["ip", "netns", "exec", space, *map(str, command)],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=open(self.log, "wb"),
            text=True,
            env={
                **os.environ,
                "POS_MANIFEST": str(manifest),
                "POS_NODE_ADDRESS": address,
                "POS_STORAGE_DIR": str(folder / "storage"),
                "POS_STATE_BUS": "none",
                "DLT_PIPE_DIR": str(folder),
            },
        )
        Program.running.append(self)

    def logs(self, text, times=1):
        """Waits until it has logged the text so often."""
        deadline = time.monotonic() + 10
        while self.log.read_text(errors="replace").count(text) < times:
            assert time.monotonic() < deadline, f"{self.log.name}: no {text!r}"
            time.sleep(0.01)

    def end(self):
        """`ip netns exec` became the program itself, so the signal reaches it."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(timeout=20)


class Positions:
    """What posctl watch prints, with the time of arrival."""

    def __init__(self, process):
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self.read, args=(process.stdout,), daemon=True).start()

    def read(self, stream):
        for line in stream:
            self.lines.put(json.loads(line))

    def next(self, seconds, what):
        """The next `positions` notification with a message counter: one that was forwarded."""
        deadline = time.monotonic() + seconds
        while True:
            try:
                note = self.lines.get(timeout=max(0.01, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"no position within {seconds} s: {what}") from None
            text = json.dumps(note)
            if "messageCounter" in text:
                self.seen.append(text)
                return note

    def drain(self):
        while not self.lines.empty():
            self.lines.get()


def main():
    try:
        cable = Cable()
        cable.__enter__()
    except (subprocess.CalledProcessError, OSError) as error:
        print(f"skipped: no network namespaces here ({getattr(error, 'stderr', error)})")
        cable.__exit__()
        return SKIPPED
    with tempfile.TemporaryDirectory(prefix="pos-net-") as name:
        folder = pathlib.Path(name)
        try:
            run(cable, folder)
            run_without_cycle(cable, folder)
            return 0
        except BaseException:
            for program in Program.running:
                print(f"--- {program.log}\n{program.log.read_text(errors='replace')[-3000:]}", file=sys.stderr)
            raise
        finally:
            for program in Program.running:
                if program.process.poll() is None:
                    program.process.kill()
                    program.process.wait()
            cable.__exit__()


def start(folder, **timing):
    manifest = json.loads((SOURCE / "config/manifest.json").read_text())
    for node in manifest["nodes"].values():
        node["prefixLength"] = 24
    manifest["serviceDiscovery"] |= timing
    path = folder / f"manifest-{len(Program.running)}.json"
    path.write_text(json.dumps(manifest))
    application = Program(VEHICLE, folder, path, APPLICATION, address="10.66.0.1")
    gateway = Program(BENCH, folder, path, GATEWAY, "--satellites", "60", address="10.66.0.2")
    watch = Program(BENCH, folder, path, POSCTL, "watch", "--json", address="10.66.0.3")
    return application, gateway, watch, Positions(watch.process)


def run(cable, folder):
    application, gateway, watch, positions = start(folder)
    for _ in range(5):
        positions.next(10, "after the start")

    for seconds, what in ((5, "within the subscription"), (8, "for longer than every time to live")):
        cable.plug("down")
        time.sleep(seconds)
        positions.drain()
        cable.plug("up")
        positions.next(FLOWS_AGAIN_WITHIN, f"cable cut {what}")

    cable.disturb(0.1)
    count = 0
    end = time.monotonic() + 12
    while time.monotonic() < end:
        positions.next(FLOWS_AGAIN_WITHIN, "with loss, duplication and reordering")
        count += 1
    # 120 are sent; two crossings of the cable keep 0.9 * 0.9 of them and 1.1 * 1.1 as doubles.
    assert count > 60, f"only {count} positions came through the bad cable in 12 s"

    cable.disturb(0)
    positions.drain()
    for _ in range(20):
        positions.next(FLOWS_AGAIN_WITHIN, "on the repaired cable")

    assert application.end() == 0
    log = application.log.read_text(errors="replace")
    assert "Fatal error" not in log
    assert gateway.end() == 0
    assert watch.end() == 0
    print(f"{len(positions.seen)} positions; cable cut twice, {count} through 10 % loss in 12 s")


def run_without_cycle(cable, folder):
    """Offers are not repeated for a minute: what flows soon after a loss of the link flows because the loss
    and the return were seen."""
    cable.address("del", VEHICLE, "10.66.0.1")
    application, gateway, watch, positions = start(
        folder, cyclicOfferDelayMs=60_000, offerTtlS=300, subscribeTtlS=300)
    application.logs("10.66.0.1 has no link yet")
    times = []

    def flows(what):
        begin = time.monotonic()
        positions.next(FLOWS_AGAIN_WITHIN, what)
        times.append(time.monotonic() - begin)
    cable.address("add", VEHICLE, "10.66.0.1")
    flows("after an address that came late")

    def pulled(*programs):
        for program, address, times in programs:
            program.logs(f"the link of {address} is down", times)
        positions.drain()
    cable.link("down", VEHICLE, BENCH)
    pulled((application, "10.66.0.1", 1), (gateway, "10.66.0.2", 1), (watch, "10.66.0.3", 1))
    cable.link("up", VEHICLE, BENCH)
    flows("link lost on both sides")

    cable.address("del", VEHICLE, "10.66.0.1")
    pulled((application, "10.66.0.1", 2))
    cable.address("add", VEHICLE, "10.66.0.1")
    flows("address taken away")

    cable.link("down", BENCH)
    pulled((gateway, "10.66.0.2", 2), (watch, "10.66.0.3", 2))
    cable.link("up", BENCH)
    flows("link lost on the side of the source and of the subscriber")

    assert [program.end() for program in (application, gateway, watch)] == [0, 0, 0]
    print("links lost and found: positions after " + ", ".join(f"{one:.2f}" for one in times) + " s")


if __name__ == "__main__":
    sys.exit(main())
