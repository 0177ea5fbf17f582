"""Starts the application and the tools on a loopback network of the test's own, and ends them."""

import contextlib
import json
import os
import pathlib
import queue
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BUILD = pathlib.Path(os.environ["POS_BUILD_DIR"])
SANITIZERS = re.search(r"^POS_SANITIZE:\w+=(.*)", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)[1]
SOURCE = pathlib.Path(os.environ["POS_SOURCE_DIR"])
APPLICATION = BUILD / "app/POS__ORVEL1_Sys_Adaptive_01_Exe"
GATEWAY = BUILD / "tools/gnss-gateway/gnss-gateway"
POSCTL = BUILD / "tools/posctl/posctl"

DEADLINE = 30.0
while_waiting = [time.sleep]  # the last one is what until() does between two looks, for so many seconds


def free_network():
    """The N of a loopback network 127.N.x.y, and the socket that claims it, from other tests in C++ too (support/network.h)."""
    for number in range(100, 150):
        claim = socket.socket()
        try:
            claim.bind((f"127.{number}.255.1", 30690))
            return number, claim
        except OSError:
            claim.close()
    raise RuntimeError("no network is free")


class Desk:
    """`network` is the second number of all its addresses (127.network.0.x), a free one unless it is given."""

    def __init__(self, network=None):
        self.claim = None
        if network is None:
            network, self.claim = free_network()
        self.network, self.dlt_port = network, 39000 + network
        self.folder = tempfile.TemporaryDirectory(prefix="pos-test-")
        self.path = pathlib.Path(self.folder.name)
        manifest = (SOURCE / "config/manifest.json").read_text(encoding="utf-8")
        manifest = manifest.replace('"127.0.0.', f'"127.{network}.0.')
        self.manifest = json.loads(manifest)
        self.manifest["serviceDiscovery"]["multicastAddress"] = f"239.192.{network}.77"
        self.manifest["nodes"]["POS"]["localSocket"] = False  # what is tested is the network
        for node in self.manifest["nodes"].values():
            node["requestTimeoutMs"] = 20_000  # on a busy machine
        self.write_manifest()
        self.environment = {
            **os.environ,
            "POS_MANIFEST": str(self.path / "manifest.json"),
            "POS_STORAGE_DIR": str(self.path / "storage"),
            "POS_RUNTIME_DIR": str(self.path),
            "POS_STATE_BUS": "none",
            "DLT_PIPE_DIR": str(self.path),  # no daemon there: the log goes to standard error
        }
        self.running = []

    def write_manifest(self):
        """For programs that start from now on."""
        (self.path / "manifest.json").write_text(json.dumps(self.manifest), encoding="utf-8")

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        for process, log in reversed(self.running):
            if process.poll() is None:
                process.kill()
                process.wait()
            for stream in (process.stdout, process.stdin):
                if stream is not None:
                    stream.close()
            if failure[0] is not None:
                print(f"--- {log}\n{log.read_text(errors='replace')[-4000:]}", file=sys.stderr)
        self.folder.cleanup()
        if self.claim:
            self.claim.close()

    def address(self, host):
        return f"127.{self.network}.0.{host}"

    def start(self, program, *arguments, **options):
        """Standard output is a pipe of text, standard error the file `log` of the process."""
        log = self.path / f"{len(self.running)}-{program.name}.log"
        with open(log, "wb") as errors:
            process = subprocess.Popen(
                [str(program), *map(str, arguments)],
                stdin=options.pop("stdin", subprocess.DEVNULL),
                stdout=options.pop("stdout", subprocess.PIPE),
                stderr=options.pop("stderr", errors),
                env={**self.environment, **options.pop("environment", {})},
                text=True,
                **options,
            )
        process.log = log
        self.running.append((process, log))
        return process

    def run(self, program, *arguments):
        """Returns exit code, standard output and standard error."""
        process = self.start(program, *arguments)
        output, _ = process.communicate(timeout=DEADLINE)
        return process.returncode, output, process.log.read_text(errors="replace")

    def start_bus(self):
        """A session bus of the test's own, with state management on it for what starts from now on."""
        bus = self.start(pathlib.Path("/usr/bin/dbus-daemon"), "--session", "--nofork", "--print-address")
        self.environment |= {"DBUS_SESSION_BUS_ADDRESS": bus.stdout.readline().strip(), "POS_STATE_BUS": "session"}
        return bus

    def udp_sockets(self, node):
        """Port and memory of the waiting datagrams of each UDP socket of the node's address."""
        address = socket.inet_aton(self.manifest["nodes"][node]["address"])[::-1].hex().upper()
        sockets = re.findall(rf" {address}:(\w+) [\w:]+ \w+ \w+:(\w+)",
                             pathlib.Path("/proc/net/udp").read_text(encoding="ascii"))
        return [(int(port, 16), int(waiting, 16)) for port, waiting in sockets]

    def is_bound(self, node):
        """Whether a process has the service discovery port of the node's address."""
        return self.manifest["serviceDiscovery"]["port"] in (port for port, _ in self.udp_sockets(node))

    def bytes_waiting(self, node):
        """Memory of the datagrams that wait in the fullest UDP socket of the node's address."""
        return max(waiting for _, waiting in self.udp_sockets(node))

    def client_port(self, node):
        """The port of the node's subscriptions: its one UDP port that is in no manifest."""
        return next(port for port, _ in self.udp_sockets(node) if port > 32767)

    @staticmethod
    def stop(process, number=signal.SIGTERM):
        process.send_signal(number)
        output, _ = process.communicate(timeout=DEADLINE)
        return process.returncode, output


class Desk_test(unittest.TestCase):
    """Each test has a desk of its own."""

    def setUp(self):
        self.desk = self.enterContext(Desk())

    def start(self, program, *arguments, **options):
        """Starts a program that has to end well when the test is over, unless the test kills it."""
        process = self.desk.start(program, *arguments, **options)
        self.addCleanup(lambda: self.assertIn(self.desk.stop(process)[0], (0, -signal.SIGKILL)))
        return process

    def output(self, program, *arguments):
        """What a program prints that ends well."""
        code, output, errors = self.desk.run(program, *arguments)
        self.assertEqual(code, 0, errors)
        return output

    def posctl(self, *arguments):
        """What it tells in JSON."""
        return json.loads(self.output(POSCTL, *arguments, "--json"))


def until(condition, what):
    """The first result of `condition` that counts as true."""
    end = time.monotonic() + DEADLINE
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {DEADLINE:g} s: {what}")
        while_waiting[-1](0.01)


def inherited(process):
    """The descriptors that a child of the process would have beside the standard ones."""
    told = {int(one.name): re.search(r"flags:\s+(\d+)", one.read_text())[1]
            for one in pathlib.Path(f"/proc/{process.pid}/fdinfo").iterdir()}
    return [number for number, flags in told.items() if number > 2 and not int(flags, 8) & os.O_CLOEXEC]


def fill(sender):
    """Writes until there is no room left."""
    os.set_blocking(sender, False)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(sender, b"-" * 4096)
    os.set_blocking(sender, True)


class Positions:
    """What a `posctl watch --json` prints of a source's positions."""

    def __init__(self, watch):
        self.lines = queue.Queue()
        self.count = 0
        threading.Thread(target=self._read, args=(watch.stdout,), daemon=True).start()

    def _read(self, stream):
        for line in stream:
            if "messageCounter" in line:  # in none that the application makes without a source
                self.count += 1
                self.lines.put(line)

    def flow(self, what, count=1, seconds=DEADLINE):
        """Waits for so many that come from now on, for at most so long for each."""
        while not self.lines.empty():
            self.lines.get()
        try:
            for _ in range(count):
                self.lines.get(timeout=seconds)
        except queue.Empty:
            raise AssertionError(f"no position within {seconds:g} s: {what}") from None
