"""Every packet of a run, as tshark sees it: SOME/IP or service discovery, nothing malformed."""

import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tools"))
from desk import APPLICATION, GATEWAY, POSCTL, Desk, until  # noqa: E402

NETWORK = 168


def main():
    with Desk(NETWORK) as desk:
        capture = desk.path / "run.pcapng"
        recorder = subprocess.Popen(
            ["tcpdump", "-i", "lo", "-U", "-w", capture, f"net 127.{NETWORK}.0.0/16 and (udp or tcp)"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        )
        try:
            assert any("listening" in line for line in recorder.stderr), "tcpdump does not run"
            application = desk.start(APPLICATION)
            gateway = desk.start(GATEWAY, "--satellites", "60", "--time")
            code, _, errors = desk.run(POSCTL, "watch", "--count", "30", "--timeout", "20")
            assert code == 0, errors
            code, _, errors = desk.run(POSCTL, "read", "d_14a0")
            assert code == 0, errors
            assert desk.stop(gateway)[0] == 0
            assert desk.stop(application)[0] == 0
            until(lambda: capture.stat().st_size > 10_000, "a capture")
        finally:
            recorder.terminate()
            recorder.wait()
            recorder.stderr.close()

        ports = {desk.manifest["serviceDiscovery"]["port"]}
        for service in desk.manifest["services"].values():
            for instance in service["instances"]:
                ports.add(instance["udpPort"])
        dissect = [word for port in ports for word in ("-d", f"udp.port=={port},someip")]

        def fields(*names, only=None):
            command = ["tshark", "-r", capture, *dissect, "-T", "fields"]
            for name in names:
                command += ["-e", name]
            if only:
                command += ["-Y", only]
            return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()

        packets = len(fields("frame.number"))
        malformed = fields("frame.number", "frame.protocols", only="_ws.malformed || _ws.expert.severity == error")
        assert not malformed, malformed[:10]
        strangers = fields("frame.number", "frame.protocols", only="!someip")
        assert not strangers, strangers[:10]
        discovery = len(fields("frame.number", only="someipsd"))
        assert discovery > 10, discovery
        for service, message in ((0x2A10, "GNSS positions"), (0x2A20, "Positioning positions")):
            messages = fields("frame.number", only=f"someip.serviceid == {service} && someip.methodid == 0x8001")
            assert len(messages) >= 20, f"{len(messages)} messages of {message}"
        segments = fields("frame.number", only="someip.tp")
        assert segments, "the vector of 60 satellites travels in segments"
        print(f"{packets} packets, {discovery} of discovery, {len(segments)} segments; none malformed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
