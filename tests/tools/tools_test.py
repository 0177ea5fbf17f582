"""posctl and gnss-gateway as their users see them."""

import fcntl
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import termios
import time
import unittest

from desk import APPLICATION, DEADLINE, GATEWAY, POSCTL, Desk_test, fill, until

LATITUDE = 46.948  # around which the gateway drives
SENTENCE = "$GPGGA,235958.0,4807.038,N,01131.000,E,1,08,0.9,,,,,,*6F\r\n"


def errors_of(process):
    """What a program wrote to standard error, without the lines of the runtime."""
    return "".join(line for line in process.log.read_text().splitlines(True) if " SIPR " not in line)


class Tools(Desk_test):
    def bound_gateway(self, *arguments, **options):
        gateway = self.desk.start(GATEWAY, *arguments, **options)
        until(lambda: self.desk.is_bound("gnss-gateway"), "the gateway takes its address")
        return gateway

    def fails(self, program, *arguments, code=1):
        """What a program says that cannot do what it is told."""
        told, output, errors = self.desk.run(program, *arguments)
        self.assertEqual((told, output), (code, ""), arguments)
        return errors

    def status(self, *arguments):
        """What posctl status tells, and its exit code."""
        code, output, errors = self.desk.run(POSCTL, "status", "--timeout", 20, "--json", *arguments)
        self.assertIn(code, (0, 1), errors)
        return json.loads(output), code

    # Without the application

    def test_describe_tells_ids_and_records_of_every_service(self):
        service = self.desk.manifest["services"]["lumo::services::positioning::Positioning"]
        service["allowedPeers"] = ["10.0.0.1", self.desk.address(30)]
        service["instances"][0]["multicast"] = [
            {"eventGroup": "0x0002", "address": "239.192.0.78", "port": 30600, "threshold": 3}]
        self.desk.manifest["nodes"]["POS"] |= {"clientPort": 40000, "watchLink": False}
        self.desk.write_manifest()
        told = self.posctl("describe")
        self.assertEqual((told["schema"], told["manifest"]), (1, self.desk.environment["POS_MANIFEST"]))
        for section in ("serviceDiscovery", "limits", "segments"):
            self.assertEqual(told[section], self.desk.manifest[section])
        for node in told["nodes"]:
            configured = {**self.desk.manifest["nodes"][node["name"]]}
            configured.setdefault("addresses", [configured.pop("address", None)])
            self.assertLessEqual(configured.items(), node.items())
        records = {record["name"]: record["members"] for record in told["records"]}
        for service in told["services"]:
            configured = self.desk.manifest["services"][service["name"]]
            for key in ("id", "majorVersion", "minorVersion", "instances", "allowedPeers"):
                self.assertEqual(service.get(key), configured.get(key), key)
            for kind in ("methods", "events", "fields"):
                elements = service.get(kind, [])
                self.assertEqual({one["name"] for one in elements}, set(configured.get(kind, {})))
                for element in elements:
                    record = element["type"].removeprefix("vector of ")
                    self.assertTrue("::" not in record or record in records, record)
        self.assertIn("notifier 0x8001", self.output(POSCTL, "describe"))

    def test_what_cannot_be_done_is_said(self):
        empty = self.desk.path / "empty.log"
        empty.write_text("# nothing\n$GPGGA,broken*00\n")
        missing = self.desk.path / "none.log"
        for program, arguments, code, text in (
            (POSCTL, ("watch", "--count", 1, "--timeout", 0.3), 2,
             "posctl: after 0.3 s: no Positioning service was offered"),
            (POSCTL, ("status", "--timeout", 0.3), 2, "posctl: the application does not answer: no instance of "
             "lumo::services::positioning::Positioning is offered (over the network as node posctl)\n"),
            (POSCTL, ("stats", "--timeout", 0.3), 2,
             "posctl: no instance of mw::com::runtime::Statistics is offered (over the network as node posctl)\n"),
            (POSCTL, ("log", "--timeout", 0.3), 2, "no instance of mw::com::runtime::Statistics"),
            (POSCTL, ("fault", "--timeout", 0.3), 2, "no instance of gateway::FaultControl is offered; gnss-gateway --control "),
            (GATEWAY, ("--nmea", missing), 1, f'gnss-gateway: cannot read "{missing}": No such file'),
            (GATEWAY, ("--script", missing), 1, f'gnss-gateway: cannot read "{missing}": No such file'),
            (GATEWAY, ("--script", empty), 1, f'gnss-gateway: "{empty}", line 1: expected a JSON object'),
            (GATEWAY, ("--nmea", empty, "--loop"), 1, "holds no NMEA 0183 sentence"),
        ):
            self.assertIn(text, self.fails(program, *arguments, code=code))

    def test_a_command_line_that_makes_no_sense_is_refused_with_one_exit_code(self):
        for program, arguments, text in (
            (POSCTL, (), "A subcommand is required"),
            (POSCTL, ("watch", "--colour", "red"), "--colour"),
            (POSCTL, ("state", "kOff"), "kOn,kPrepSD"),
            (POSCTL, ("stauts",), 'posctl: there is no command "stauts"; did you mean "status"?'),
            (POSCTL, ("weather",), 'posctl: there is no command "weather"\n'),
            (POSCTL, ("read", "d_9999"), 'posctl: there is no data identifier "d_9999"'),
            (POSCTL, ("explain", "notificationLate"), 'did you mean "notificationsLate"?'),
            (POSCTL, ("set", "useGNSSDr", "true"), 'no setting "useGNSSDr"; did you mean "useGNSSDR"?'),
            (POSCTL, ("set", "useGNSSDR", "1"), 'useGNSSDR: expected true or false, found "1"'),
            (POSCTL, ("set", "mmNewPositionCalculationIntervalMS", "12x"), 'expected a number from 0 to 4294967295, found "12x"'),
            (POSCTL, ("log", "GNSS=loud"), 'there is no log level "loud"; expected off, fatal'),
            (POSCTL, ("log", "GNSS"), "expected CONTEXT=LEVEL"),
            (POSCTL, ("call", "Statistic.Clock"), 'did you mean "Statistics.Clock"?'),
            (POSCTL, ("call", "Statistics.Clock", "1"), "takes no argument"),
            (POSCTL, ("call", "DiagnosticMonitor.InitMonitor", '"kGone"'), "expected one of kClear, kRestart"),
            (POSCTL, ("validate", "/none"), 'cannot read "/none"'),
            (POSCTL, ("init-monitor", "POS_Nothing", "kClear"), 'posctl: there is no monitor "POS_Nothing"'),
            (POSCTL, ("export",), "FILE is expected"), (POSCTL, ("export", "--csv", "a", "--kml", "b"), "one format at a time"),
            (POSCTL, ("serve", "--token", "short"), "--token"), (POSCTL, ("serve", "--listen", "localhost:1"), "--listen"),
            (POSCTL, ("serve", "--marks"), "--marks"), (GATEWAY, ("--speed-up", 2), "--nmea"),
            (GATEWAY, ("--loop",), "--loop requires --nmea, --script or --route"),
            (GATEWAY, ("--fault", "jmup=5"), 'gnss-gateway: fault "jmup=5": there is no fault "jmup"; did you mean "jump"?'),
            (GATEWAY, ("--scenario", "/none"), 'gnss-gateway: cannot read "/none"'),
            (POSCTL, ("fault", "jump", "off"), 'a name follows "clear" only, found "off"'),
        ):
            self.assertIn(text, self.fails(program, *arguments, code=3))
        options = ((POSCTL, ("watch",), "--count"), (POSCTL, ("watch",), "--timeout"),
                   (POSCTL, ("monitors",), "--count"), (POSCTL, ("status",), "--timeout"),
                   (POSCTL, ("state", "kOn"), "--timeout"), (POSCTL, ("state", "kOn"), "--sequence"),
                   (GATEWAY, (), "--rate"), (GATEWAY, (), "--satellites"), (GATEWAY, (), "--start-at"),
                   (GATEWAY, ("--nmea", "-"), "--speed-up"), (GATEWAY, ("--nmea", "-"), "--max-gap"),
                   (GATEWAY, (), "--count"), (GATEWAY, (), "--seconds"))
        for program, arguments, option in options:
            for value in ("nan", "inf", "-inf", "-1", "-0", "+1", "1e999", "0x10", "1 ", ""):
                self.assertRegex(self.fails(program, *arguments, f"{option}={value}", code=3),
                                 rf"{option}: .*(expected a number|required)", value)
        self.assertIn("expected a number", self.fails(GATEWAY, "--plt-offset=nan", code=3))

    def test_output_that_cannot_be_written_is_an_error(self):
        self.start(APPLICATION)
        self.output(POSCTL, "stats", "--timeout", 20)  # it answers
        for program, arguments in (
            (POSCTL, ("--help",)), (POSCTL, ("--version",)), (POSCTL, ("watch", "--help")), (GATEWAY, ("--help",)),
            (GATEWAY, ("--version",)), (POSCTL, ("describe",)), (POSCTL, ("describe", "--json")),
            (POSCTL, ("watch", "--timeout", 20)), (POSCTL, ("read", "d_14a0")), (POSCTL, ("stats",)),
            (POSCTL, ("status",)), (POSCTL, ("status", "--json")), (GATEWAY, ("--count", 1)),
        ):
            with open("/dev/full", "wb") as full:
                process = self.desk.start(program, *arguments, stdout=full)
                self.assertEqual(process.wait(30), 1, arguments)
            self.assertEqual(errors_of(process),
                             f"{program.name}: cannot write to standard output: No space left on device\n")
        self.assertRegex(self.output(GATEWAY, "--version"), r"^gnss-gateway \d+\.\d+\.\d+\n$")

    def test_the_gateway_ends_with_its_statistics(self):
        output = self.output(GATEWAY, "--count", 3, "--rate", 100, "--json", "--time")
        self.assertEqual(json.loads(output), {"notifications": 3, "fixes": 3, "withoutFix": 0})
        self.assertRegex(self.output(GATEWAY, "--seconds", 0.3, "--rate", 20),
                         r"^[567] notifications, [567] with a fix, 0 without\n$")
        for number in (signal.SIGINT, signal.SIGTERM):
            gateway = self.bound_gateway("--json")
            self.assertIn(f"nodes.gnss-gateway.address: {self.desk.address(20)} is taken",
                          self.fails(GATEWAY, "--count", 1))
            code, output = self.desk.stop(gateway, number)
            self.assertEqual(code, 0)
            self.assertGreater(json.loads(output)["notifications"], 0)

    def test_a_pipe_may_be_opened_before_its_writer_and_left_without_one(self):
        pipe = self.desk.path / "receiver"
        os.mkfifo(pipe)
        self.assertEqual(self.desk.stop(self.bound_gateway("--nmea", pipe))[0], 0)
        gateway = self.bound_gateway("--nmea", pipe, "--json")
        with pipe.open("w", encoding="ascii") as receiver:
            receiver.write(SENTENCE)
        self.assertEqual(gateway.wait(30), 0)
        self.assertEqual(json.loads(gateway.stdout.read())["fixes"], 1)

    # With the application

    def test_the_application_takes_the_platform_offset_of_the_time_service(self):
        (self.desk.path / "initdata-POS_Key_Value_Port.json").write_text(
            json.dumps({"timeClientEnabled": {"type": "Boolean", "value": True}}))
        application = self.start(APPLICATION, environment={"POS_INITDATA_DIR": str(self.desk.path)})
        self.start(GATEWAY, "--time", "--plt-offset", 123456789)
        for line in ("Times struct received from Timemaster:  1 pltOffset missing",
                     "Times struct received from Timemaster:  2 123456789"):
            until(lambda: line in application.log.read_text(), line)

    def test_counters_and_resources_of_the_application_are_told(self):
        started = time.monotonic()
        application = self.start(APPLICATION)
        first, second = self.posctl("stats", "--timeout", 20), self.posctl("stats")
        age = 1000 * (time.monotonic() - started)
        self.assertEqual(second["counters"]["requestsReceived"], first["counters"]["requestsReceived"] + 5)
        self.assertLess(first["process"]["uptimeMs"], second["process"]["uptimeMs"])
        self.assertLessEqual(second["process"]["uptimeMs"], age + 20)  # the kernel counts in ticks
        kernel = pathlib.Path(f"/proc/{application.pid}/status").read_text(encoding="ascii")
        resident = 1024 * int(re.search(r"VmRSS:\s+(\d+) kB", kernel)[1])
        self.assertAlmostEqual(second["process"]["residentBytes"], resident, delta=0.1 * resident)
        self.assertEqual(second["process"]["threads"], int(re.search(r"Threads:\s+(\d+)", kernel)[1]))
        for part in ("clock", "stamps", "ages"):
            self.assertEqual(second[part].keys(), self.status()[0][part].keys(), part)
        self.assertRegex(self.output(POSCTL, "stats"), r"uptime +\d+\.\d s +resident memory +\d+\.\d MiB\n(.|\n)*tcpAccepted +0 ")

    def test_one_page_tells_the_whole_state(self):
        self.start(APPLICATION)
        quiet, code = self.status()
        self.assertEqual(code, 1)
        self.assertIn("no offer seen", quiet["reason"])
        self.assertNotIn("LAT", quiet["position"]["record"])
        self.assertEqual((quiet["mapMatched"]["latitude"], quiet["inputs"]["gnss"], quiet["position"].get("ageS")), (None, "Init", None))
        self.assertRegex(self.desk.run(POSCTL, "status")[1],
                         r"^(degraded|failed): .*no offer seen for .*\n\nPosition: none yet\n")
        watched = ("watch", "--field", "positions", "--count", 1, "--timeout", 20)
        self.assertEqual(self.output(POSCTL, *watched), "positions (no position yet)\n")
        self.assertTrue(self.posctl(*watched)["initial"])

        gateway = self.desk.start(GATEWAY, "--rate", 20)
        until(lambda: self.status()[1] == 0, "the application is healthy")
        moving, _ = self.status()
        self.assertEqual((moving["schema"], moving["verdict"], moving["findings"]), (1, "healthy", []))
        self.assertAlmostEqual(moving["ratePerS"], 20, delta=5)
        for latitude in (moving["position"]["record"]["LAT"], moving["mapMatched"]["latitude"]):
            self.assertAlmostEqual(latitude, LATITUDE, delta=0.1)
        for part in ("position", "mapInfo"):
            self.assertTrue(0 <= moving[part]["ageS"] < 10, moving[part])
        self.assertEqual(moving["mapInfo"]["record"]["positionSource"], "forwarded position")
        self.assertEqual([moving["inputs"]["odometry"], moving["outputs"]["deadReckoning"], moving["system"]["mapMatching"]],
                         ["NotAvailable", "Nominal", "NotAvailable"])
        self.assertEqual(list(moving["dataBus"]), ["notAvailable", "errorValueReceived", "implausible"])
        self.assertNotIn(0, moving["counters"].values())

        page = self.output(POSCTL, "status")
        since = r"since \d\d:\d\d:\d\d"
        for line in (r"\Ahealthy: \d+\.\d positions a second, \d+\.\d ms old on arrival$",
                     r"^Position, \d\.\d{3} s old( \(clock not synchronised\))?$", r"^  latitude +46\.\d{7} deg$",
                     r" time of day +\d\d:\d\d:\d\d\.\d\d$", rf"^  gnss +Nominal +{since}  data arrives in time$",
                     rf"^  mapMatched +Init +{since}  stays: no map matching here$",
                     rf"^  lbl +Init +{since}  stays: no LBL system here$",
                     r"^  no fault since the start$", r"^  datagramsReceived +\d+ "):
            self.assertRegex(page, re.compile(line, re.MULTILINE))
        self.assertLessEqual(max(map(len, page.splitlines())), 80)

        table = self.output(POSCTL, "watch", "-o", "table", "--count", 2, "--timeout", 20)
        self.assertRegex(table, r"^time +rate/s +age ms +latitude .*\n(no position yet\n)?(\d\d:[\d:.]+ .* 46\.9\d+ .*\n){2}$")
        watch = self.desk.start(POSCTL, "watch", "-o", "table", "--count", 20)
        while "46.9" not in watch.stdout.readline():
            pass
        self.assertEqual(self.desk.stop(gateway)[0], 0)
        silence = until(lambda: (line := watch.stdout.readline()) and "nothing" in line and line, "a line on the silence")
        self.assertRegex(silence, r"nothing for [23]\.\d s; still offered by 127\.\S+ udp \d+: posctl status says why$")
        until(lambda: self.status()[0]["verdict"] == "failed", "a verdict on the lost source")
        failed = self.desk.run(POSCTL, "status")[1]
        self.assertRegex(failed, rf"\Afailed: GNSS missing {since}, 1st time; last cause: it has withdrawn its offer\n")
        gateway = self.desk.start(GATEWAY, "--rate", 20)
        until(lambda: "back after" in watch.stdout.readline(), "the return")
        self.assertEqual(watch.wait(DEADLINE), 0)
        until(lambda: self.status()[1] == 0, "the application is healthy again")
        self.assertRegex(self.output(POSCTL, "status"), rf"\n  GNSS there {since}, before that missing once\n")

    def test_settings_log_levels_and_methods_are_reached_by_name(self):
        set_it = ("set", "mmNewPositionCalculationIntervalMS")
        self.assertIn(". No application answered", self.output(POSCTL, *set_it, "500", "--timeout", 0.3))
        self.start(APPLICATION)
        until(lambda: self.desk.run(POSCTL, "stats", "--timeout", 1)[0] == 0, "the application answers")
        rows = {row["key"]: row for row in self.posctl("settings")["settings"]}
        self.assertEqual((rows[set_it[1]]["value"], rows[set_it[1]]["from"]), (500, "store"))
        self.assertEqual([rows["useGNSSDR"][key] for key in ("value", "from", "needsRestart")], [True, "default", False])
        self.assertIn("the application is running", self.fails(POSCTL, *set_it, "600"))

        self.assertEqual(self.output(POSCTL, "log", "GNSS=warn", "DSRV=debug"), "GNSS=warn\nDSRV=debug\n")
        self.assertEqual(self.posctl("log")["levels"]["DSRV"], "debug")
        self.assertIn('no log context "DSRW"; did you mean "DSRV"?', self.fails(POSCTL, "log", "DSRW=debug"))

        counters = json.loads(self.output(POSCTL, "call", "Statistics.Counters"))["result"]
        explained = {term["name"] for term in self.posctl("explain")["terms"] if term["kind"] == "counter"}
        self.assertEqual({counter["name"] for counter in counters}, explained)
        monitor = ("call", "DiagnosticMonitor.InitMonitor", '"kRestart"', "--instance", 0xD101)
        self.assertEqual(json.loads(self.output(POSCTL, *monitor))["result"], None)
        self.assertIn("(counter): ", self.output(POSCTL, "explain", "notificationslate"))

    def test_manifests_are_validated_and_the_shells_complete_every_command(self):
        self.assertRegex(self.output(POSCTL, "validate", self.desk.path / "manifest.json"), f"is valid: 3 nodes, {len(self.desk.manifest['services'])} services")
        self.desk.manifest["nodes"]["POS"]["adress"] = 1
        self.desk.write_manifest()
        code, output, _ = self.desk.run(POSCTL, "validate", self.desk.path / "manifest.json")
        self.assertEqual(code, 1)
        self.assertRegex(output, r'^not valid: .*manifest\.json.*"adress"')
        names = re.findall(r"^  ([a-z-]+) ", self.output(POSCTL, "--help").split("Commands:")[1], re.MULTILINE)
        self.assertIn("status", names)
        self.output(POSCTL, "describe", "--man", self.desk.path / "man")
        pages = {page.name for page in (self.desk.path / "man").iterdir()}
        self.assertEqual(pages, {"posctl.1", *(f"posctl-{name}.1" for name in names)})
        script = self.output(POSCTL, "describe", "--completion", "bash")
        ask = f"{script}\nCOMP_WORDS=(posctl watch -o ''); COMP_CWORD=3; _posctl; echo ${{COMPREPLY[@]}}"
        told = subprocess.run(["bash", "-c", ask], capture_output=True, text=True, check=True).stdout
        self.assertEqual(told, "table wide json lines\n")
        fish = self.output(POSCTL, "describe", "--completion", "fish")
        for typed, words in (("watch -o ", ("table", "wide", "json", "lines")), ("", names), ("set useG", ("useGNSSDR",))):
            ask = f"{fish}\ncomplete -C 'posctl {typed}'"
            told = subprocess.run(["fish", "--no-config", "-c", ask], capture_output=True, text=True, check=True).stdout
            self.assertLessEqual(set(words), {line.split("\t")[0] for line in told.splitlines()})
            self.assertLessEqual(set(words), set(re.findall(r"[\w-]+", self.offered_by_zsh(typed))))
        for name in names:
            self.assertIn(f"Example: posctl {name}", self.output(POSCTL, name, "--help"))

    def offered_by_zsh(self, typed):
        """What a real zsh shows after a tab."""
        folder = self.desk.path / "zsh"
        folder.mkdir(exist_ok=True)
        (folder / "_posctl").write_text(self.output(POSCTL, "describe", "--completion", "zsh"))
        (folder / ".zshrc").write_text("fpath=($ZDOTDIR $fpath); autoload -U compinit; compinit -u -D; LISTMAX=0\n")
        return subprocess.run(["script", "--quiet", "--command", "zsh -i", "/dev/null"], input=f"posctl {typed}\t\nexit\n",
                              env={**os.environ, "ZDOTDIR": str(folder), "TERM": "dumb"}, capture_output=True, text=True,
                              check=True, timeout=DEADLINE).stdout

    def test_a_vehicle_may_leave_the_statistics_out(self):
        del self.desk.manifest["services"]["mw::com::runtime::Statistics"]
        self.desk.write_manifest()
        self.start(APPLICATION)
        self.output(POSCTL, "watch", "--count", 2, "--timeout", 20)
        for command, code in (("stats", 1), ("status", 2)):
            self.assertIn('services: "mw::com::runtime::Statistics" is not deployed',
                          self.fails(POSCTL, command, code=code))

    def test_a_program_whose_output_has_lost_its_reader_ends_quietly(self):
        self.desk.start(APPLICATION)
        gateway, watch = self.desk.start(GATEWAY), self.desk.start(POSCTL, "watch")
        watch.stdout.readline()
        watch.stdout.close()
        self.assertEqual((watch.wait(timeout=DEADLINE), errors_of(watch)), (0, ""))
        gateway.stdout.close()
        gateway.terminate()
        self.assertEqual((gateway.wait(timeout=DEADLINE), errors_of(gateway)), (0, ""))

    def test_a_program_whose_output_is_not_read_ends_when_told_to(self):
        self.desk.start(APPLICATION)
        gateway = self.desk.start(GATEWAY, "--rate", 1000)
        watch = self.desk.start(POSCTL, "watch", "--json")
        looks = []

        def is_full():  # no more bytes for 30 looks, while a line comes each millisecond
            looks.append(struct.unpack("i", fcntl.ioctl(watch.stdout, termios.FIONREAD, b"\0" * 4))[0])
            return looks[-1] > 0 and looks[-30:] == [looks[-1]] * 30
        until(is_full, "a full pipe")
        watch.terminate()
        self.assertEqual(watch.wait(timeout=DEADLINE), 0)
        self.desk.stop(gateway)

        for writer in os.pipe():
            self.addCleanup(os.close, writer)
        fill(writer)
        for options in ((), ("--json",), ("--count", 1)):
            gateway = self.bound_gateway(*options, stdout=writer)
            gateway.terminate()
            self.assertEqual(gateway.wait(timeout=DEADLINE), 0, options)

    def test_a_component_state_is_asked_for_over_the_bus(self):
        with socket.socket(socket.AF_UNIX) as silent:
            silent.bind(str(self.desk.path / "bus"))
            silent.listen()
            self.desk.environment |= {"POS_STATE_BUS": "session", "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.desk.path / 'bus'}"}
            self.assertIn("the bus gave no answer in time", self.fails(POSCTL, "state", "kOn", "--timeout", 0.2, code=2))
        self.desk.start_bus()
        application = self.desk.start(APPLICATION)
        until(lambda: self.desk.run(POSCTL, "state", "kPrepSD", "--sequence", 7)[0] == 0, "an answer")
        self.assertIn("componentStateChangeRequest newState =  kPrepSD  seqNum =  7", application.log.read_text())
        self.assertEqual(self.output(POSCTL, "state", "kOn"), "kOn confirmed with result 0\n")
        self.assertEqual(self.desk.stop(application)[0], 0)
        self.fails(POSCTL, "state", "kOn", code=2)  # it has left the bus

    def test_positions_data_identifiers_and_monitors_of_a_running_application(self):
        self.start(APPLICATION)
        self.output(POSCTL, "watch", "--count", 2, "--timeout", 20)
        self.assertIn("  raw: 02 03 03 03 03 03 03 03 03 03 03\n  gnss: Init\n", self.output(POSCTL, "read", "d_14a0"))
        self.assertEqual(self.output(POSCTL, "read", "all").count("  raw: "), 7)
        monitors = self.start(POSCTL, "monitors", "--json")
        states = [json.loads(monitors.stdout.readline()) for _ in range(23)]
        self.assertEqual([one["status"] for one in states[:3]], ["Nominal", "Init", "NotAvailable"])
        gateway = self.desk.start(GATEWAY, "--rate", 20, "--satellites", 60)
        lines = self.output(POSCTL, "watch", "--json", "--count", 30, "--timeout", 20, "--field", "positions")
        records = [json.loads(line)["records"][0] for line in lines.splitlines()]
        self.assertEqual(len(records), 30)
        self.assertAlmostEqual(records[-1]["LAT"], LATITUDE, delta=0.1)
        until(lambda: self.posctl("read", "14A0")["values"]["gnss"] == "Nominal", "the GNSS input is nominal")
        self.assertAlmostEqual(self.posctl("read", "0x14a2")["values"]["altitude"], 545, delta=60)

        told = json.loads(monitors.stdout.readline())
        self.assertEqual(told["action"], "kPassed")
        self.assertEqual(self.output(POSCTL, "init-monitor", "POS_Input_Map", "kRestart"),
                         "POS_Input_Map initialised with kRestart: it reports its result again\n")
        while told["name"] != "POS_Input_Map":
            told = json.loads(monitors.stdout.readline())
        self.assertEqual((told["monitor"], told["action"]), ("0x83D10A", "kPassed"))

        # The source is away, but the last value is still there.
        self.assertEqual(self.desk.stop(gateway)[0], 0)
        code, _, errors = self.desk.run(POSCTL, "watch", "--count", 5, "--timeout", 1.5, "--field", "positions")
        self.assertEqual((code, "1 of 5 notifications of positions came" in errors), (1, True), errors)


if __name__ == "__main__":
    unittest.main()
