"""The program as its service manager sees it: start, states, signals, exit codes."""

import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

EXECUTABLE = os.path.join(os.environ["POS_BUILD_DIR"], "app", "POS__ORVEL1_Sys_Adaptive_01_Exe")
MANIFEST = os.path.join(os.environ["POS_SOURCE_DIR"], "config", "manifest.json")
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2)
# The poll of the shutdown flag, the stop of the alive timer and the delay before the runtime goes.
SHUTDOWN_LIMIT_S = 0.5 + 1.0 + 1.0
SLACK_S = 8.0  # a loaded machine, sanitizers
STARTED = ("posApplication startup finished, waiting for shutdown signal, data will be processed in "
           "receiver threads.")


class Application:
    """The running program, with a service manager's notify socket and its log on standard error."""

    next_address = 1

    def __init__(self, preexec=None, **environment):
        self.folder = tempfile.TemporaryDirectory(prefix="pos_process_test_")
        path = self.folder.name
        with open(MANIFEST, encoding="utf-8") as file:
            manifest = json.load(file)
        # Nobody else's test may answer the search for services.
        manifest["serviceDiscovery"]["multicastAddress"] = "239.192.71.1"
        manifest["serviceDiscovery"]["port"] = 30771
        with open(f"{path}/manifest.json", "w", encoding="utf-8") as file:
            json.dump(manifest, file)
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notify.bind(f"{path}/notify")
        self.notify.settimeout(10 + SLACK_S)
        self.storage = f"{path}/store"
        self.log = open(f"{path}/log", "w+", encoding="utf-8")
        self.process = subprocess.Popen(
            [EXECUTABLE], stderr=self.log, stdout=subprocess.DEVNULL, preexec_fn=preexec,
            env=os.environ | {
                "POS_STORAGE_DIR": self.storage,
                "POS_MANIFEST": f"{path}/manifest.json",
                "POS_NODE_ADDRESS": f"127.71.1.{Application.next_address}",
                "POS_STATE_BUS": "none",
                "DLT_PIPE_DIR": f"{path}",
                "NOTIFY_SOCKET": f"{path}/notify",
            } | environment)
        Application.next_address += 1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.notify.close()
        self.log.close()
        self.folder.cleanup()

    def lines(self):
        """What was logged so far: (level, context, text) each."""
        with open(self.log.name, encoding="utf-8") as file:
            found = re.findall(r"^\S+ \S+ (\w+) POS (\S+) (.*)$", file.read(), re.MULTILINE)
        return found

    def count(self, text):
        return sum(text in line for _, _, line in self.lines())

    def await_true(self, condition, what):
        deadline = time.monotonic() + 10 + SLACK_S
        while not condition():
            if time.monotonic() > deadline:
                raise AssertionError(f"{what} did not come about; log: {self.lines()}")
            time.sleep(0.01)

    def await_text(self, text, count=1):
        self.await_true(lambda: self.count(text) >= count, repr(text))

    def started(self):
        self.await_text(STARTED)
        return self

    def send(self, *signals):
        for number in signals:
            self.process.send_signal(number)

    def exit_code(self):
        """Of a program that has been told to end; it may not take longer than that needs."""
        return self.process.wait(timeout=SHUTDOWN_LIMIT_S + SLACK_S)


class ProcessTest(unittest.TestCase):
    def test_execution_and_health_management_are_told(self):
        with Application() as application:
            messages = [application.notify.recv(256).decode()]
            self.assertIn("READY=1", messages[0])
            self.assertIn("WATCHDOG=1", application.notify.recv(256).decode())
            application.started().send(signal.SIGINT)
            self.assertEqual(application.exit_code(), 0)
            while "STOPPING=1" not in messages[-1]:
                messages.append(application.notify.recv(256).decode())

    def test_shutdown_is_prompt_and_further_signals_change_nothing(self):
        with Application() as application:
            application.started()
            start = time.monotonic()
            application.send(signal.SIGTERM, signal.SIGINT)
            application.await_text("delay before destroying runtime.")
            handled = application.count("posApplication::signalHandler")
            application.send(*SIGNALS)
            self.assertEqual(application.exit_code(), 0)
            self.assertLess(time.monotonic() - start, SHUTDOWN_LIMIT_S + 3.0)
            self.assertEqual(application.count("posApplication::signalHandler"), handled)

    def test_signals_before_the_application_exists_are_ignored(self):
        def send_to_myself():
            signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)  # they wait for the program
            for number in SIGNALS:
                os.kill(os.getpid(), number)

        with Application(preexec=send_to_myself) as application:
            application.started()
            self.assertEqual(application.count("signalHandler"), 0)
            application.send(signal.SIGTERM)
            self.assertEqual(application.exit_code(), 0)

    def test_a_storm_of_signals_neither_blocks_nor_loses_the_shutdown(self):
        with Application(POS_LOG_LEVEL="error,DBAC=info") as application:
            application.await_true(
                lambda: "WATCHDOG=1" in application.notify.recv(256).decode(), "the start")
            for _ in range(3000):
                application.send(signal.SIGUSR1, signal.SIGUSR2)
            self.assertIsNone(application.process.poll())
            for _ in range(3000):
                application.send(*SIGNALS)
            self.assertEqual(application.exit_code(), 0)

    def test_a_bad_manifest_ends_with_104_and_names_the_file(self):
        with Application(POS_MANIFEST="/nonexistent/manifest.json") as application:
            self.assertEqual(application.exit_code(), 104)
            self.assertIn("/nonexistent/manifest.json", application.lines()[-1][2])


if __name__ == "__main__":
    unittest.main()
