"""A machine with one address only, which the application has: posctl reaches it through the Unix socket.
Needs the right to make a network; without it the test is skipped."""

import ctypes
import json
import signal
import stat
import subprocess
import sys
import unittest

from desk import APPLICATION, POSCTL, Desk, until

SKIPPED = 77
ADDRESS = "10.9.8.7"
CLONE_NEWNET = 0x40000000


class One_address(unittest.TestCase):
    def setUp(self):
        self.desk = self.enterContext(Desk(network=100))  # none other is here
        self.desk.manifest["nodes"]["POS"] |= {"address": ADDRESS, "prefixLength": 24, "localSocket": True}
        # They must be somewhere; this machine does not have them.
        self.desk.manifest["nodes"]["gnss-gateway"]["address"] = "10.9.8.20"
        self.desk.manifest["nodes"]["posctl"] = {"address": "10.9.8.30", "prefixLength": 24}
        self.desk.write_manifest()
        self.socket = self.desk.path / "POS.sock"

    def start(self):
        application = self.desk.start(APPLICATION)
        until(self.socket.exists, "the application listens")
        return application

    def output(self, *arguments, ends=0):
        code, output, errors = self.desk.run(POSCTL, *arguments)
        self.assertEqual(code, ends, (arguments, errors))
        return output

    def test_every_command_reaches_the_application(self):
        self.desk.start_bus()
        application = self.start()
        self.assertEqual(stat.S_IMODE(self.socket.stat().st_mode), 0o660)
        for text, ends, *arguments in (
            ('"gnss"', 1, "status", "--json", "--timeout", 20), ("\nInputs", 1, "status"),  # degraded: no source
            (r"localAccepted +[1-9]", 0, "stats"), ("(?s)d_14a0.*d_14a1.*d_14a2.*d_14a3.*d_1190.*d_1191.*d_1192", 0, "read", "all"),
            (r"positions \(no position yet\)\n", 0, "watch", "--count", 2, "--timeout", 20),
            ('(?s)"source-frozen".*"tool"', 1, "doctor", "--json"), ("kOn confirmed", 0, "state", "kOn"),
            ("useGNSSDR", 0, "settings"), ("DSRV", 0, "log"), ("datagramsSent", 0, "call", "Statistics.Counters"),
            ("localSocket", 0, "describe", "--json"),
        ):
            self.assertRegex(self.output(*arguments, ends=ends), text)
        watch = self.desk.start(POSCTL, "monitors", "--json", "--reports-only", "--connect", self.socket)
        until(lambda: json.loads(self.output("stats", "--json"))["counters"]["subscriptionsAccepted"] >= 23,
              "the monitors' events are subscribed")
        self.assertIn("Unix socket", self.output("peers"))
        self.output("init-monitor", "POS_Input_GNSS", "kClear")
        self.assertIn("POS_Input_GNSS", watch.stdout.readline())
        discover = self.desk.start(POSCTL, "discover", "--follow")
        self.assertIn(f" {ADDRESS}:", discover.stdout.readline())
        for process in (watch, discover):
            self.assertEqual(self.desk.stop(process, signal.SIGINT)[0], 0)
        self.assertEqual(self.desk.stop(application)[0], 0)
        self.assertFalse(self.socket.exists())

    def test_a_watch_goes_on_after_a_restart_and_messages_say_which_way_was_taken(self):
        application = self.start()
        watch = self.desk.start(POSCTL, "watch", "--field", "positions")
        self.assertEqual(watch.stdout.readline(), "positions (no position yet)\n")
        application.kill()
        application.wait()
        self.assertTrue(self.socket.exists(), "left by a process that could not remove it")
        code, _, errors = self.desk.run(POSCTL, "status", "--timeout", 0.3)
        self.assertEqual(code, 2)
        self.assertIn(f"no application listens at {self.socket}, and this machine has no address of the node posctl", errors)
        self.assertIn("No application answers.", self.output("settings", "--timeout", 0.3))
        self.output("set", "useGNSSDR", "true", "--timeout", 0.3)
        code, _, errors = self.desk.run(POSCTL, "status", "--connect", self.socket)
        self.assertEqual((code, errors), (2, f"posctl: the application does not answer: {self.socket}: Connection refused\n"))

        self.start()
        self.assertEqual(watch.stdout.readline(), "positions (no position yet)\n")
        other = self.desk.start(APPLICATION, environment={"POS_NODE_ADDRESS": "10.9.8.8"})
        until(lambda: "another process listens there" in other.log.read_text(), "the other one says so")
        self.output("stats", "--connect", self.socket)
        code, _, errors = self.desk.run(POSCTL, "stats", "--timeout", 0.3, "--node", "posctl")
        self.assertIn("(over the network as node posctl)\n", errors)
        self.assertEqual(self.desk.run(POSCTL, "stats", "--connect", "nowhere")[0], 3)
        self.assertEqual(self.desk.run(POSCTL, "stats", "--connect", self.socket, "--node", "posctl")[0], 3)


if __name__ == "__main__":
    if ctypes.CDLL(None).unshare(CLONE_NEWNET) != 0:
        print("the right to make a network is missing")
        sys.exit(SKIPPED)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["ip", "addr", "flush", "dev", "lo"], check=True)
    subprocess.run(["ip", "addr", "add", f"{ADDRESS}/32", "dev", "lo"], check=True)
    unittest.main()
