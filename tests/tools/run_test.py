"""What scripts/run does after the build: everything at once, and a sum at the end."""

import json
import pathlib
import signal
import socket
import sys
import unittest
import urllib.parse

from desk import BUILD, SOURCE, Desk_test
from web import request


class Run(Desk_test):
    def start(self, *arguments):
        return self.desk.start(pathlib.Path(sys.executable), SOURCE / "scripts/run_on_loopback.py", "--build", BUILD,
                               *arguments, cwd=self.desk.path)

    def end(self, run, code=0, errors=""):
        """Returns what it has printed."""
        output, _ = run.communicate(timeout=60)
        told = run.log.read_text()
        self.assertEqual(run.returncode, code, output + told)
        self.assertTrue(errors in told if errors else not told, told)
        return output

    def test_a_timed_run_loses_nothing_and_tells_the_age(self):
        output = self.end(self.start("--seconds", "2", "--json", "--", "--rate", "50"))
        page, *_, status, summary = map(json.loads, output.splitlines())
        self.assertRegex(page["page"], r"^http://127\.0\.0\.1:\d+/$")
        self.assertEqual(summary["problems"], [])
        self.assertIn("LAT", status["status"]["position"]["record"])
        self.assertGreater(summary["positionsOut"], 50)
        self.assertEqual(summary["positionsOut"] + summary["beforeSubscription"], summary["gnssNotificationsIn"])
        self.assertGreaterEqual(summary["posMapInfosOut"], 2)
        self.assertLess(summary["ageMedianUs"], 100_000)
        self.assertLessEqual(summary["ageMedianUs"], summary["age99thPercentileUs"])

    def test_ctrl_c_ends_it_well(self):
        with socket.socket() as taken:  # then the page has another port
            taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            taken.bind(("127.0.0.1", 8030))
            taken.listen()
            run = self.start()
            page = urllib.parse.urlsplit(run.stdout.readline().removeprefix("page: "))
        self.assertNotEqual(page.port, 8030)
        self.assertEqual(request((page.hostname, page.port))[0], 200)
        self.assertRegex(run.stdout.readline(), r"46\.9\d+ +7\.4\d+ .* us old$")
        run.send_signal(signal.SIGINT)
        output = self.end(run)
        self.assertRegex(output, r"(^|\n)\nProcess\n  uptime +\d")
        self.assertNotIn("error values", output)
        self.assertRegex(output, r"\n  gnss +(Init|Nominal) ")
        self.assertRegex(output, r"GNSS notifications in .*\n.*positions and .* out, 0 lost;")

    def test_a_program_that_fails_is_named(self):
        run = self.start("--no-page", "--", "--nmea", "/nothing/there")
        self.end(run, 1, "run: gnss-gateway ended by itself")


if __name__ == "__main__":
    unittest.main()
