"""A capture of the running application in an analyser with the profile of posctl: every payload by name."""

import json
import pathlib
import re
import subprocess
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, SOURCE, Desk_test, until

TCPDUMP = pathlib.Path("/usr/bin/tcpdump")
PAGE = (SOURCE / "docs/capture/README.md").read_text(encoding="utf-8")
POSITION = "someip.payload.Positioning.positions."


class Capture(Desk_test):
    def posctl(self, *arguments):
        return self.output(POSCTL, *arguments, "--node", "posctl")

    def tshark(self, *arguments):
        done = subprocess.run([SOURCE / "docs/capture/tshark", *map(str, arguments)], capture_output=True, text=True,
                              env={**self.desk.environment, "POSCTL": str(POSCTL)}, timeout=60, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_the_filters_and_columns_of_the_page(self):
        filters = re.findall(r"^\| `(.+?)` \|", PAGE, re.MULTILINE)
        self.assertGreater(len(filters), 10)
        self.assertTrue(self.tshark("-Y", " or ".join(f"({one})" for one in filters)))
        command, output = re.search(r"^docs/capture/tshark (run.pcapng -Y.*?)^```\n.*?^```\n(.*?)^```", PAGE,
                                    re.MULTILINE | re.DOTALL).groups()
        arguments = command.replace("\\\n", " ").split()
        self.assertEqual(self.tshark(SOURCE / "docs/capture" / arguments[0], *arguments[1:]), output)

    def test_a_run_by_name_and_nothing_malformed(self):
        path = self.desk.path / "run.pcap"
        capture = self.desk.start(TCPDUMP, "-i", "lo", "--immediate-mode", "-U", "-w", path,
                                  f"net 127.{self.desk.network}.0.0/16")
        until(lambda: "listening on" in capture.log.read_text() or capture.poll() is not None, "tcpdump listens")
        if capture.poll() is not None:
            self.skipTest("the right to capture packets is needed")
        application = self.desk.start(APPLICATION)
        gateway = self.desk.start(GATEWAY, "--rate", 20)
        watched = [json.loads(line)["records"][0]
                   for line in self.posctl("watch", "--json", "--field", "positions", "--count", 8, "--timeout", 30).splitlines()]
        until(lambda: json.loads(self.posctl("read", "d_14a0", "--json"))["values"]["gnss"] == "Nominal", "Nominal")
        monitors = self.desk.start(POSCTL, "monitors", "--count", 1, "--timeout", 30, "--node", "posctl")
        until(lambda: (self.posctl("init-monitor", "POS_Input_GNSS", "kRestart"), monitors.poll() is not None)[1],
              "an action of the monitor")
        for identifier in ("d_14a0", "d_14a1", "d_14a2", "d_14a3", "d_1190", "d_1191", "d_1192"):
            self.posctl("read", identifier)
        for command in ("stats", "peers"):
            self.posctl(command)
        self.desk.stop(gateway)
        until(lambda: "GNSS" in self.posctl("read", "d_1190"), "the source is missed")
        for process in (application, capture):
            self.desk.stop(process)

        text = self.tshark(path, "-V")
        for member in (
            r"LAT \[deg\] \[float64\]: 4\d\.\d+", r"LON_valueType \[uint32\]: 4 \(PhysicalValue\)",
            r"struct posGnssSatInfos \[DT_posGnssSatInfos_struct\]", r"gnssSystem \[uint32\]: 2 \(Galileo\)",
            r"MonitorAction \[uint8\]: 0 \(kPassed\)", r"input \[uint8\]: 1 \(kRestart\)",
            r"Service ID: 0x34a0 \(d_14a0\)", r"gnss \[uint8\]: 0 \(Nominal\)", r"staticOutput \[uint8\]: \d",
            r"array timeOfDay", r"mapMatchingAnd13 \[uint16\]: \d", r"service \[uint8\]: \d \(GNSS\)",
            r"occurrences \[uint16\]: 1", r"name \[string\]: datagramsReceived", r"residentBytes \[B\] \[uint64\]: \d{6}",
            r"Client ID: 0x003\d \(posctl\)", r"Method ID: 0x8003 \(posGnssSatInfos\)",
            r"Eventgroup ID: 0x0001 \(MonitorAction\)",
        ):
            self.assertRegex(text, member)
        self.assertNotRegex(text, "Malformed Packet|[Ee]xpert [Ii]nfo.*(error|warn)|config error|unparsed")
        columns = ("messageCounter", "LAT", "LON", "speed2D", "statusPosition", "age")
        shown = self.tshark(path, "-Y", POSITION + "LAT", "-T", "fields",
                            *(argument for column in columns for argument in ("-e", POSITION + column)))
        rows = [[float(cell) for cell in line.split("\t")] for line in shown.splitlines()]
        for record in watched:
            if "LAT" in record:
                found, = [row for row in rows if row[0] == record["messageCounter"]][:1]
                for cell, column in zip(found, columns):
                    self.assertAlmostEqual(cell, record[column], delta=1e-5 * abs(cell), msg=column)


if __name__ == "__main__":
    unittest.main()
