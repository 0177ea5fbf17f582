"""posctl and gnss-gateway as their users see them."""

import json
import pathlib
import re
import signal
import subprocess
import time
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, SOURCE, Desk, until


class Alone(unittest.TestCase):
    """Without the application."""

    def test_describe_tells_ids_and_records_of_every_service(self):
        with Desk(82) as desk:
            code, output, _ = desk.run(POSCTL, "describe", "--json")
            self.assertEqual(code, 0)
            told = json.loads(output)
            self.assertEqual(told["manifest"], desk.environment["POS_MANIFEST"])
            records = {record["name"]: record["members"] for record in told["records"]}
            for service in told["services"]:
                configured = desk.manifest["services"][service["name"]]
                self.assertEqual(service["id"], configured["id"])
                for kind in ("methods", "events", "fields"):
                    self.assertEqual(
                        {one["name"] for one in service.get(kind, [])}, set(configured.get(kind, {}))
                    )
                    for element in service.get(kind, []):
                        self.assertIn("type", element, "an element that the code does not know")
                        record = element["type"].removeprefix("vector of ")
                        if "::" in record:
                            self.assertIn(record, records)
            positions = records["lumo::services::gnss::datatypes::DT_positions_struct"]
            self.assertEqual([member["dataId"] for member in positions], list(range(44)))
            self.assertEqual(positions[2]["wireType"], 3)

            code, text, _ = desk.run(POSCTL, "describe")
            self.assertEqual(code, 0)
            self.assertIn("notifier 0x8001", text)

    def test_what_cannot_be_done_is_said(self):
        with Desk(83) as desk:
            empty = desk.path / "empty.log"
            empty.write_text("# nothing\n$GPGGA,broken*00\n")
            missing = desk.path / "none.log"
            for program, arguments, text in (
                (POSCTL, ("watch", "--count", 1, "--timeout", 0.3),
                 "posctl: after 0.3 s: no Positioning service was offered"),
                (POSCTL, ("status", "--timeout", 0.3), "posctl: the application does not answer: no instance of "
                 "lumo::services::positioning::Positioning is offered\n"),
                (POSCTL, ("stats", "--timeout", 0.3),
                 "posctl: no instance of mw::com::runtime::Statistics is offered\n"),
                (POSCTL, ("read", "d_9999"), 'posctl: there is no data identifier "d_9999"'),
                (POSCTL, ("init-monitor", "POS_Nothing", "kClear"), 'posctl: there is no monitor "POS_Nothing"'),
                (GATEWAY, ("--nmea", missing), f'gnss-gateway: cannot read "{missing}": No such file'),
                (GATEWAY, ("--nmea", empty, "--loop"), "holds no NMEA 0183 sentence"),
            ):
                code, output, errors = desk.run(program, *arguments)
                self.assertEqual((code, output), (1, ""), arguments)
                self.assertIn(text, errors)
            self.assertNotEqual(desk.run(GATEWAY, "--speed-up", 2)[0], 0)
            self.assertNotEqual(desk.run(POSCTL)[0], 0)

    def test_the_gateway_ends_with_its_statistics(self):
        with Desk(86) as desk:
            code, output, _ = desk.run(GATEWAY, "--count", 3, "--rate", 100, "--json", "--time")
            self.assertEqual(code, 0)
            self.assertEqual(json.loads(output), {"notifications": 3, "fixes": 3, "withoutFix": 0})

            code, output, _ = desk.run(GATEWAY, "--seconds", 0.3, "--rate", 20)
            self.assertEqual(code, 0)
            self.assertRegex(output, r"^[567] notifications, [567] with a fix, 0 without\n$")

            for number in (signal.SIGINT, signal.SIGTERM):
                gateway = desk.start(GATEWAY, "--json")
                until(lambda: desk.is_bound("gnss-gateway"), "the gateway takes its address")
                code, _, errors = desk.run(GATEWAY, "--count", 1)
                self.assertEqual(code, 1)
                self.assertIn("nodes.gnss-gateway.address: 127.86.0.20 is taken", errors)
                code, output = desk.stop(gateway, number)
                self.assertEqual(code, 0)
                self.assertGreater(json.loads(output)["notifications"], 0)

    def test_a_live_receiver_is_sent_when_it_pauses(self):
        with Desk(87) as desk:
            gateway = desk.start(GATEWAY, "--nmea", "-", "--json", "--count", 1, stdin=subprocess.PIPE)
            gateway.stdin.write("$GPGGA,235958.0,4807.038,N,01131.000,E,1,08,0.9,,,,,,*6F\r\n$GPG")
            gateway.stdin.flush()
            # The stream stays open: only the silence can have ended the instant.
            self.assertEqual(gateway.wait(30), 0)
            told = json.loads(gateway.stdout.read())
            self.assertEqual((told["notifications"], told["fixes"]), (1, 1))


class Together(unittest.TestCase):
    def test_the_application_takes_the_platform_offset_of_the_time_service(self):
        with Desk(92) as desk:
            (desk.path / "initdata-POS_Key_Value_Port.json").write_text(
                json.dumps({"timeClientEnabled": {"type": "Boolean", "value": True}})
            )
            application = desk.start(APPLICATION, environment={"POS_INITDATA_DIR": str(desk.path)})
            gateway = desk.start(GATEWAY, "--time", "--plt-offset", 123456789)
            for line in (
                "Times struct received from Timemaster:  1 pltOffset missing",
                "Times struct received from Timemaster:  2 123456789",
            ):
                until(lambda: line in application.log.read_text(), line)
            self.assertEqual(desk.stop(gateway)[0], 0)
            self.assertEqual(desk.stop(application)[0], 0)

    def test_every_counter_of_the_application_is_told(self):
        with Desk(95) as desk:
            started = time.monotonic()
            application = desk.start(APPLICATION)
            code, output, _ = desk.run(POSCTL, "stats", "--json", "--timeout", 20)
            self.assertEqual(code, 0)
            first = json.loads(output)
            table = (SOURCE / "platform/someip/counters.h").read_text(encoding="utf-8")
            self.assertEqual(list(first["counters"]), re.findall(r'Counter_name\{"(\w+)"', table))
            self.assertGreater(first["counters"]["discoverySent"], 0)

            second = json.loads(desk.run(POSCTL, "stats", "--json")[1])
            age = 1000 * (time.monotonic() - started)
            self.assertEqual(second["counters"]["requestsReceived"], first["counters"]["requestsReceived"] + 2)
            self.assertGreater(second["counters"]["responsesSent"], first["counters"]["responsesSent"])
            self.assertGreater(second["process"]["uptimeMs"], first["process"]["uptimeMs"])
            self.assertLessEqual(second["process"]["uptimeMs"], age + 20)  # the kernel counts in ticks

            kernel = pathlib.Path(f"/proc/{application.pid}/status").read_text(encoding="ascii")
            resident = 1024 * int(re.search(r"VmRSS:\s+(\d+) kB", kernel)[1])
            self.assertAlmostEqual(second["process"]["residentBytes"], resident, delta=0.1 * resident)
            self.assertEqual(second["process"]["threads"], int(re.search(r"Threads:\s+(\d+)", kernel)[1]))

            code, text, _ = desk.run(POSCTL, "stats")
            self.assertEqual(code, 0)
            self.assertRegex(text, r"uptime +\d+\.\d s +resident memory +\d+\.\d MiB\n")
            self.assertRegex(text, r"tcpAccepted +0 +tcpConnected +0\n")
            self.assertEqual(desk.stop(application)[0], 0)

    def test_one_page_tells_the_whole_state(self):
        with Desk(96) as desk:
            application = desk.start(APPLICATION)
            code, output, _ = desk.run(POSCTL, "status", "--json", "--timeout", 20)
            self.assertEqual(code, 0)
            quiet = json.loads(output)
            self.assertNotIn("LAT", quiet["position"]["record"])
            self.assertIsNone(quiet["mapMatched"]["latitude"])
            self.assertEqual(quiet["inputs"]["gnss"], "Init")

            gateway = desk.start(GATEWAY, "--rate", 20)
            moving = until(
                lambda: (told := json.loads(desk.run(POSCTL, "status", "--json")[1]))["inputs"]["gnss"]
                == "Nominal"
                and told,
                "the GNSS input is nominal",
            )
            self.assertAlmostEqual(moving["position"]["record"]["LAT"], 46.948, delta=0.1)
            self.assertTrue(0 <= moving["position"]["ageS"] < 5, moving["position"]["ageS"])
            self.assertTrue(0 <= moving["mapInfo"]["ageS"] < 10, moving["mapInfo"]["ageS"])
            self.assertEqual(moving["mapInfo"]["record"]["positionSource"], 4)
            self.assertAlmostEqual(moving["mapMatched"]["latitude"], 46.948, delta=0.1)
            self.assertEqual(moving["mapMatched"]["positionSource"], 4)
            self.assertEqual(moving["inputs"]["odometry"], "NotAvailable")
            self.assertEqual(moving["outputs"]["deadReckoning"], "Nominal")
            self.assertEqual(moving["system"]["mapMatching"], "NotAvailable")
            self.assertEqual(list(moving["dataBus"]), ["notAvailable", "errorValueReceived", "implausible"])
            self.assertGreater(moving["counters"]["notificationsReceived"], 0)
            self.assertNotIn(0, moving["counters"].values())

            code, page, _ = desk.run(POSCTL, "status")
            self.assertEqual(code, 0)
            for line in (
                r"^Position, \d\.\d{3} s old$",
                r"^  latitude +46\.\d{7} deg$",
                r" time of day +\d\d:\d\d:\d\d\.\d\d$",
                r"^  gnss +Nominal +odometry +NotAvailable$",
                r"^  lbl +Init +mapMatching +NotAvailable$",
                r"^  datagramsReceived +\d+ ",
            ):
                self.assertRegex(page, re.compile(line, re.MULTILINE))
            self.assertLessEqual(max(map(len, page.splitlines())), 80)
            self.assertEqual(desk.stop(gateway)[0], 0)
            self.assertEqual(desk.stop(application)[0], 0)

    def test_a_vehicle_may_leave_the_statistics_out(self):
        with Desk(97) as desk:
            del desk.manifest["services"]["mw::com::runtime::Statistics"]
            pathlib.Path(desk.environment["POS_MANIFEST"]).write_text(json.dumps(desk.manifest))
            application = desk.start(APPLICATION)
            self.assertEqual(desk.run(POSCTL, "watch", "--count", 2, "--timeout", 20)[0], 0)
            for command in ("stats", "status"):
                code, _, errors = desk.run(POSCTL, command)
                self.assertEqual(code, 1)
                self.assertIn('services: "mw::com::runtime::Statistics" is not deployed', errors)
            self.assertEqual(desk.stop(application)[0], 0)

    def test_a_component_state_is_asked_for_over_the_bus(self):
        with Desk(93) as desk:
            bus = desk.start(pathlib.Path("/usr/bin/dbus-daemon"), "--session", "--nofork", "--print-address")
            desk.environment["DBUS_SESSION_BUS_ADDRESS"] = bus.stdout.readline().strip()
            desk.environment["POS_STATE_BUS"] = "session"
            application = desk.start(APPLICATION)
            request = "componentStateChangeRequest newState =  kPrepSD  seqNum =  7"
            until(lambda: desk.run(POSCTL, "state", "kPrepSD", "--sequence", 7)[0] == 0, "an answer")
            self.assertIn(request, application.log.read_text())
            code, output, _ = desk.run(POSCTL, "state", "kOn")
            self.assertEqual((code, output), (0, "kOn confirmed with result 0\n"))
            self.assertEqual(desk.stop(application)[0], 0)
            self.assertEqual(desk.run(POSCTL, "state", "kOn")[0], 1)

    def test_positions_data_identifiers_and_monitors_of_a_running_application(self):
        with Desk(88) as desk:
            application = desk.start(APPLICATION)
            self.assertEqual(desk.run(POSCTL, "watch", "--count", 2, "--timeout", 20)[0], 0)
            code, output, _ = desk.run(POSCTL, "read", "d_14a0")
            self.assertEqual(code, 0)
            self.assertIn("gnss: 2 Init\n", output)

            monitors = desk.start(POSCTL, "monitors", "--json")
            gateway = desk.start(GATEWAY, "--rate", 20, "--satellites", 60)
            code, output, _ = desk.run(
                POSCTL, "watch", "--json", "--count", 30, "--timeout", 20, "--field", "positions"
            )
            self.assertEqual(code, 0)
            records = [json.loads(line)["records"][0] for line in output.splitlines()]
            self.assertEqual(len(records), 30)
            moving = records[-1]
            self.assertAlmostEqual(moving["LAT"], 46.948, delta=0.1)
            for name in ("yawAngle", "yawRate", "altitudeWGS84", "speed2D", "age", "accuracyHorizontal"):
                self.assertIn(name, moving)

            # The evaluation runs twice a second.
            until(
                lambda: '"gnss":0' in desk.run(POSCTL, "read", "14A0", "--json")[1],
                "the GNSS input is nominal",
            )
            position = json.loads(desk.run(POSCTL, "read", "0x14a2", "--json")[1])
            self.assertAlmostEqual(position["latitude"], 46.948, delta=0.1)
            self.assertAlmostEqual(position["altitude"], 545, delta=60)

            told = json.loads(monitors.stdout.readline())
            self.assertEqual(told["actionName"], "kPassed")
            code, output, _ = desk.run(POSCTL, "init-monitor", "POS_Input_Map", "kRestart")
            self.assertEqual((code, output), (0, ""))
            while told["name"] != "POS_Input_Map":
                told = json.loads(monitors.stdout.readline())
            self.assertEqual((told["monitor"], told["action"]), ("0x83D10A", 0))

            self.assertEqual(desk.stop(monitors)[0], 0)
            self.assertEqual(desk.stop(gateway)[0], 0)

            # Nobody moves any more, but the last value is still there.
            code, output, errors = desk.run(
                POSCTL, "watch", "--count", 5, "--timeout", 1.5, "--field", "positions"
            )
            self.assertEqual(code, 1)
            self.assertIn("1 of 5 notifications of positions came", errors)
            self.assertEqual(desk.stop(application)[0], 0)


if __name__ == "__main__":
    unittest.main()
