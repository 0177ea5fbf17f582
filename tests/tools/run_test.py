"""What scripts/run does after the build: everything at once, and a sum at the end."""

import json
import signal
import subprocess
import sys
import unittest

from desk import BUILD, SOURCE, Desk


class Run(unittest.TestCase):
    @staticmethod
    def start(desk, *arguments):
        return subprocess.Popen(
            [sys.executable, SOURCE / "scripts/run_on_loopback.py", "--build", BUILD, *arguments],
            cwd=desk.path,
            env=desk.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )

    def test_a_timed_run_loses_nothing_and_tells_the_age(self):
        with Desk(89) as desk:
            run = self.start(desk, "--seconds", "2", "--json", "--", "--rate", "50")
            output, errors = run.communicate(timeout=60)
            *_, status, summary = map(json.loads, output.splitlines())
            self.assertEqual((run.returncode, errors, summary["problems"]), (0, "", []))
            self.assertIn("LAT", status["status"]["position"]["record"])
            self.assertGreater(summary["positionsOut"], 50)
            self.assertEqual(
                summary["positionsOut"] + summary["beforeSubscription"], summary["gnssNotificationsIn"]
            )
            self.assertGreaterEqual(summary["posMapInfosOut"], 2)
            self.assertLess(summary["ageMedianUs"], 100_000)
            self.assertLessEqual(summary["ageMedianUs"], summary["age99thPercentileUs"])

    def test_ctrl_c_ends_it_well(self):
        with Desk(90) as desk:
            run = self.start(desk)
            self.assertRegex(run.stdout.readline(), r"46\.9\d+ +7\.4\d+ .* us old$")
            run.send_signal(signal.SIGINT)
            output, errors = run.communicate(timeout=60)
            self.assertEqual((run.returncode, errors), (0, ""))
            self.assertRegex(output, r"(^|\n)\nProcess\n  uptime +\d")
            self.assertRegex(output, r"\n  gnss +(Init|Nominal) ")
            self.assertRegex(output, r"GNSS notifications in .*\n.*positions and .* out, 0 lost;")

    def test_a_program_that_fails_is_named(self):
        with Desk(91) as desk:
            run = self.start(desk, "--", "--nmea", "/nothing/there")
            _, errors = run.communicate(timeout=60)
            self.assertEqual(run.returncode, 1)
            self.assertIn("run: gnss-gateway ended by itself", errors)


if __name__ == "__main__":
    unittest.main()
