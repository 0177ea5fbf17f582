"""Faults made for real on two machines, which are network namespaces joined by a cable. `posctl doctor` names
the cause of each in three seconds, and finds nothing where nothing is wrong. Needs the rights to make
namespaces and to mount; without them the test is skipped."""

import concurrent.futures
import contextlib
import itertools
import json
import os
import pathlib
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import time
import traceback

from desk import APPLICATION, BUILD, GATEWAY, POSCTL, SANITIZERS, Desk, until

SKIPPED = 77
LONGEST = 6.0 if SANITIZERS else 3.0  # seconds that doctor may take, by its own figure
AT_ONCE = 3
GNSS = "lumo::services::gnss::GNSS"
ENV = pathlib.Path("/usr/bin/env")
CLOCK = BUILD / "tests/tools/shifted_clock.so"
OTHER_USER = 54321
numbers = itertools.count()


def run(*words, check=True, **options):
    return subprocess.run([str(word) for word in words], check=check, capture_output=True, text=True, **options)


class Lab:
    """A vehicle computer with the application and posctl, and a bench with the source."""

    def __init__(self):
        self.tag = f"d{os.getpid()}-{next(numbers)}"
        self.vehicle, self.bench = f"{self.tag}v", f"{self.tag}b"
        self.mounts, self.files = [], contextlib.ExitStack()

    def __enter__(self):
        self.desk = self.files.enter_context(Desk())
        for space in (self.vehicle, self.bench):
            run("ip", "netns", "add", space)
            run("ip", "-n", space, "link", "set", "lo", "up")
        run("ip", "-n", self.vehicle, "link", "add", "cable", "type", "veth", "peer", "name", "cable", "netns", self.bench)
        for space, hosts in ((self.vehicle, ("77.0.1", "77.0.3", "77.0.30", "77.0.31")), (self.bench, ("77.0.2", "78.0.2"))):
            for host in hosts:
                run("ip", "-n", space, "addr", "add", f"10.{host}/8", "dev", "cable")
            run("ip", "-n", space, "link", "set", "cable", "up")
        for node, addresses in (("POS", ["10.77.0.1"]), ("gnss-gateway", ["10.77.0.2"]),
                                ("posctl", ["10.77.0.30", "10.77.0.31"])):
            told = self.desk.manifest["nodes"][node]
            told |= {"addresses": addresses, "prefixLength": 24}
            told.pop("address", None)
        (self.desk.path / "storage").mkdir()
        self.desk.write_manifest()
        return self

    def __exit__(self, *failure):
        for path in self.mounts:
            run("umount", "-l", path, check=False)
        self.files.__exit__(*failure)
        for space in (self.vehicle, self.bench):
            run("ip", "netns", "del", space, check=False)

    def start(self, space, *command, **environment):
        return self.desk.start(ENV, "ip", "netns", "exec", space, *command, environment=environment)

    def start_application(self, *before, **environment):
        self.application = self.start(self.vehicle, *before, APPLICATION, **environment)
        return self.application

    def start_source(self, *arguments, space=None, **environment):
        self.source = self.start(space or self.bench, GATEWAY, *arguments, **environment)

    def manifest(self, change):
        """The environment for a program with a manifest of its own."""
        other = json.loads(json.dumps(self.desk.manifest))
        change(other)
        path = self.desk.path / "other.json"
        path.write_text(json.dumps(other), encoding="utf-8")
        return {"POS_MANIFEST": str(path)}

    def healthy(self):
        self.start_application()
        self.start_source()
        self.until_positions()

    def until_positions(self):
        until(lambda: "input position as POS output DR position" in self.application.log.read_text(errors="replace"), "positions")

    def doctor(self, **environment):
        """Exit code, findings, and the seconds that it took by its own figure."""
        process = self.start(self.vehicle, POSCTL, "doctor", "--json", **environment)
        output, _ = process.communicate(timeout=60)
        errors = process.log.read_text(errors="replace")
        if not output:
            raise AssertionError(f"doctor ended with {process.returncode}: {errors}")
        told = json.loads(output)
        assert told["schema"] == 1, told
        return process.returncode, told["findings"], told["seconds"]

    def mount(self, options):
        path = self.desk.path / "storage"
        run("mount", "-t", "tmpfs", "-o", options, "tmpfs", path)
        self.mounts.append(path)
        return path

    def filter(self, rule):
        rules = "table inet faults {\nchain input {\ntype filter hook input priority 0;\n" + rule + "\n}\n}\n"
        run("ip", "netns", "exec", self.vehicle, "nft", "-f", "-", input=rules)


# Each fault, by the check that has to name it.


def then(break_it):
    """What happens to a healthy system."""
    def make(lab):
        lab.healthy()
        break_it(lab)
    return make


def other_manifest(change, space="bench"):
    """The source has another manifest than the application."""
    def make(lab):
        lab.start_application()
        lab.start_source(space=getattr(lab, space), **lab.manifest(change))
    return make


def of_positions(**values):
    return lambda manifest: manifest["services"][GNSS]["fields"]["positions"].update(values)


def of_gnss(**values):
    return lambda manifest: manifest["services"][GNSS].update(values)


def other_group(manifest):
    manifest["serviceDiscovery"]["multicastAddress"] = "239.192.99.99"


def over_tcp(manifest):
    service = manifest["services"][GNSS]
    for field in service["fields"].values():
        field["transport"] = "tcp"
    service["instances"][0] = {**service["instances"][0], "tcpPort": 30501}
    del service["instances"][0]["udpPort"]


def outside_the_subnet(manifest):
    manifest["nodes"]["gnss-gateway"]["addresses"] = ["10.78.0.2"]


def peer_not_allowed(lab):
    lab.start_source()
    lab.desk.manifest["services"][GNSS]["allowedPeers"] = ["10.77.0.1", "10.77.0.30", "10.77.0.31"]
    lab.desk.write_manifest()
    lab.start_application()


def clock_off(lab):
    lab.start_application()
    lab.start_source(LD_PRELOAD=str(CLOCK), POS_TEST_CLOCK_SHIFT="3600")
    lab.until_positions()


def manifest_invalid(lab):
    lab.healthy()
    lab.desk.manifest["services"][GNSS]["id"] = "0x1FFFF"
    lab.desk.write_manifest()


def address_taken(lab):
    script = "import socket, time; s = socket.socket(type=socket.SOCK_DGRAM); s.bind(('10.77.0.1', 30490)); time.sleep(99)"
    lab.start(lab.vehicle, sys.executable, "-c", script)
    until(lambda: "10.77.0.1:30490" in run("ip", "netns", "exec", lab.vehicle, "ss", "-lun").stdout, "the port is taken")
    assert lab.start_application().wait(30) != 0


def join_refused(lab):
    run("ip", "netns", "exec", lab.vehicle, "sysctl", "net.ipv4.igmp_max_memberships=0")
    lab.start_source()
    lab.start_application()


def storage_read_only(lab):
    path = lab.mount("size=1m")
    lab.healthy()
    run("mount", "-o", "remount,ro", path)


def storage_full(lab):
    path = lab.mount("size=128k")
    lab.healthy()
    with contextlib.suppress(OSError), open(path / "other", "wb", buffering=0) as file:
        while file.write(b"\0" * 4096):
            pass


def log_daemon_ended(lab):
    os.mkfifo(lab.desk.path / "dlt")
    lab.healthy()


def bus_ended(lab):
    bus = lab.desk.start_bus()
    lab.healthy()
    bus.kill()
    bus.wait()


def no_watchdog(lab):
    lab.start_application(NOTIFY_SOCKET=f"@{lab.tag}")
    lab.start_source()
    lab.until_positions()


def restarting(lab):
    lab.start_source()
    lab.start_application("sh", "-c", 'while :; do timeout 1 "$0"; done')


def no_right_to_the_log(lab):
    """The application has a user of its own, as its unit gives it; the pipe belongs to another one."""
    lab.desk.path.chmod(0o755)
    shutil.chown(lab.desk.path / "storage", OTHER_USER, OTHER_USER)
    os.mkfifo(lab.desk.path / "dlt", 0o600)
    lab.start_application("setpriv", f"--reuid={OTHER_USER}", f"--regid={OTHER_USER}", "--clear-groups")
    lab.start_source()
    lab.until_positions()


def client_refused(lab):
    """The second of two clients, which asks again with each offer."""
    lab.desk.manifest["limits"]["subscribersPerEventGroup"] = 1
    lab.desk.write_manifest()
    lab.healthy()
    for address in ("10.77.0.3", "10.77.0.31"):
        lab.start(lab.vehicle, POSCTL, "watch", "--field", "positions", POS_NODE_ADDRESS=address)


def buffer_full(lab):
    """A flood of datagrams, each time that the application gets no processor for a moment."""
    lab.healthy()
    port = lab.desk.manifest["services"]["lumo::services::positioning::Positioning"]["instances"][0]["udpPort"]
    lab.start(lab.bench, sys.executable, __file__, "flood", lab.application.pid, port)


def faulty_source(fault):
    def make(lab):
        lab.start_application()
        lab.start_source("--fault", fault)
    return make


def standing_stamps(lab):
    stamp = {"preciseLocalTimeSeconds": int(time.time()), "preciseLocalTimeNanoseconds": 0}
    script = lab.desk.path / "script"
    script.write_text("".join(json.dumps({"t": i / 10, "field": "positions", "records": [{"LAT": 48, "LON": i, **stamp}]}) + "\n"
                              for i in range(9)))
    lab.start_application()
    lab.start_source("--script", script, "--loop")


FAULTS = (
    ("source-missing", then(lambda lab: (lab.source.kill(), lab.source.wait()))), ("source-frozen", then(lambda lab: lab.source.send_signal(signal.SIGSTOP))),
    ("packet-filter", then(lambda lab: lab.filter("udp sport 30501 counter drop"))),
    ("packet-filter", then(lambda lab: lab.filter("udp dport 30490 drop"))),
    ("event-group", other_manifest(of_positions(eventGroup=9))), ("event-id", other_manifest(of_positions(notifier="0x8099"))),
    ("service-id", other_manifest(of_gnss(id="0x2A99"))), ("service-version", other_manifest(of_gnss(majorVersion=2))),
    ("multicast-group", other_manifest(other_group)), ("allowed-peers", peer_not_allowed),
    ("subnet", other_manifest(outside_the_subnet)), ("stamps", clock_off), ("transport", other_manifest(over_tcp)),
    ("manifest", manifest_invalid), ("same-manifest", other_manifest(of_gnss(id="0x2A99"), "vehicle")),
    ("address", then(lambda lab: run("ip", "-n", lab.vehicle, "addr", "del", "10.77.0.1/8", "dev", "cable"))),
    ("address-taken", address_taken), ("multicast-join", join_refused),
    ("interface", then(lambda lab: run("ip", "-n", lab.vehicle, "link", "set", "cable", "down"))),
    ("storage-folder", then(lambda lab: shutil.rmtree(lab.desk.path / "storage"))),
    ("storage-content", then(lambda lab: (lab.desk.path / "storage/POS_Key_Value_Port.json").write_text('{"useGNSSDR": {"type": "Bool'))),
    ("storage-shared", then(lambda lab: lab.start(lab.vehicle, APPLICATION, POS_NODE_ADDRESS="10.77.0.3"))),
    ("storage-writable", storage_read_only), ("storage-space", storage_full), ("log-daemon", log_daemon_ended),
    ("bus", bus_ended), ("watchdog", no_watchdog), ("restarting", restarting),
    ("application", then(lambda lab: lab.application.send_signal(signal.SIGSTOP))), ("application", Lab.start_source),
    ("limits", then(lambda lab: run("prlimit", "--pid", lab.application.pid, "--nofile=64:64"))),
    ("limits", then(lambda lab: run("prlimit", "--pid", lab.application.pid, "--nproc=32:32")), "too few threads"),
    ("physical-values", faulty_source("no-fix")), ("position-type", faulty_source("only-type=GNSS")),
    ("standing-values", faulty_source("stuck-with-counter")), ("standing-stamps", standing_stamps),
    ("source-silent", faulty_source("silence")), ("refused-clients", client_refused), ("receive-buffer", buffer_full),
    ("log-daemon", no_right_to_the_log, "no right to the pipe"),
)


def play(check, make, text=""):
    """The fault may need a moment until it shows, such as a time to live; then doctor names it first, in time
    unless the machine is busy just then."""
    with Lab() as lab:
        make(lab)
        end = time.monotonic() + 30
        while True:
            code, findings, seconds = lab.doctor()
            faults = [one for one in findings if one["severity"] == "fault"]
            if code == 1 and faults and faults[0]["check"] == check and seconds <= LONGEST:
                assert text in faults[0]["text"], faults
                assert all(faults[0][part] for part in ("text", "evidence", "cure")), faults
                return
            if time.monotonic() > end:
                raise AssertionError(f"{check}: doctor ended with {code} after {seconds} s and found {json.dumps(findings, indent=1)}")


def healthy(count):
    """What a developer's machine has: no DLT daemon, no bus, no synchronised clock."""
    with Lab() as lab:
        lab.healthy()
        taken = []
        for number in range(count):
            code, findings, seconds = lab.doctor()
            faults = [one for one in findings if one["severity"] == "fault"]
            assert code == 0 and not faults, (number, code, faults)
            taken.append(seconds)
        assert statistics.median(taken) <= LONGEST, taken
        print(f"{count} healthy runs, at most {max(taken):.1f} s")


def flood(pid, port):
    with socket.socket(type=socket.SOCK_DGRAM) as sender:
        while True:
            os.kill(pid, signal.SIGSTOP)
            for _ in range(10_000):
                sender.sendto(bytes(1000), ("10.77.0.1", port))
            os.kill(pid, signal.SIGCONT)
            time.sleep(0.5)


def main():
    if sys.argv[1:2] == ["flood"]:
        flood(*map(int, sys.argv[2:]))
    if sys.argv[1:2] == ["healthy"]:
        return healthy(int(sys.argv[2]))
    wanted = sys.argv[1:]
    try:
        with Lab() as lab:
            run("ip", "netns", "exec", lab.vehicle, "nft", "list", "ruleset")
    except (subprocess.CalledProcessError, OSError) as error:
        print(f"skipped: no network namespaces, veth or nft here ({error})")
        return SKIPPED
    failures = 0
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        parts = [] if wanted else [("healthy runs", pool.submit(healthy, 5))]
        parts += [(f"{number} {check}", pool.submit(play, check, make, *text)) for number, (check, make, *text) in enumerate(FAULTS)
                  if not wanted or check in wanted]
        for name, part in parts:
            try:
                part.result()
                print("ok", name, flush=True)
            except Exception:
                failures += 1
                print("FAILED", name, traceback.format_exc(), flush=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
