"""The program as its service manager sees it: signals and exit codes."""

import datetime
import os
import re
import signal
import subprocess
import time
import unittest

from desk import APPLICATION, BUILD, SOURCE, Desk, until

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2)
# The poll of the shutdown flag, the stop of the alive timer and the delay before the runtime goes.
SHUTDOWN_LIMIT_S = 0.5 + 1.0 + 1.0
SLACK_S = 8.0  # a loaded machine, sanitizers


class ProcessTest(unittest.TestCase):
    def setUp(self):
        self.desk = self.enterContext(Desk(71))

    def started(self, **options):
        application = self.desk.start(APPLICATION, **options)
        until(lambda: self.count(application, "posApplication startup finished, waiting"), "the start")
        return application

    @staticmethod
    def count(application, text):
        return application.log.read_text(encoding="utf-8").count(text)

    def ends(self, application):
        """The exit code of a program that has been told to end; it may not take longer than that needs."""
        return application.wait(timeout=SHUTDOWN_LIMIT_S + SLACK_S)

    def test_shutdown_is_prompt_and_further_signals_change_nothing(self):
        application = self.started()
        start = time.monotonic()
        for number in (signal.SIGTERM, signal.SIGINT):
            application.send_signal(number)
        until(lambda: self.count(application, "delay before destroying runtime."), "the end of the application")
        handled = self.count(application, "posApplication::signalHandler")
        for number in SIGNALS:
            application.send_signal(number)
        self.assertEqual(self.ends(application), 0)
        self.assertLess(time.monotonic() - start, SHUTDOWN_LIMIT_S + 3.0)
        self.assertEqual(self.count(application, "posApplication::signalHandler"), handled)

    def test_signals_before_the_application_exists_are_ignored(self):
        def send_to_myself():
            signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)  # they wait for the program
            for number in SIGNALS:
                os.kill(os.getpid(), number)

        application = self.started(preexec_fn=send_to_myself)
        self.assertEqual(self.count(application, "signalHandler"), 0)
        application.send_signal(signal.SIGTERM)
        self.assertEqual(self.ends(application), 0)

    def test_a_storm_of_signals_neither_blocks_nor_loses_the_shutdown(self):
        application = self.started()
        for _ in range(3000):
            application.send_signal(signal.SIGUSR1)
            application.send_signal(signal.SIGUSR2)
        self.assertIsNone(application.poll())
        for number in SIGNALS * 3000:
            application.send_signal(number)
        self.assertEqual(self.ends(application), 0)

    def test_a_bad_manifest_ends_with_104_and_names_the_file(self):
        application = self.desk.start(APPLICATION, environment={"POS_MANIFEST": "/nonexistent/manifest.json"})
        self.assertEqual(self.ends(application), 104)
        self.assertTrue(self.count(application, "/nonexistent/manifest.json"))

    def test_a_manifest_without_an_element_of_an_interface_ends_with_104_and_names_it(self):
        services = self.desk.manifest["services"]
        for service, kind in (("lumo::services::gnss::GNSS", "fields"), ("mw::dm::dem::DiagnosticMonitor", "events")):
            elements = services[service][kind]
            name = next(reversed(elements))
            element = elements.pop(name)
            self.desk.write_manifest()
            application = self.desk.start(APPLICATION)
            self.assertEqual(self.ends(application), 104)
            self.assertTrue(self.count(application, f'manifest.json: services.{service}.{kind}: expected "{name}"'))
            elements[name] = element

    @unittest.skipIf("SOURCE_DATE_EPOCH" in os.environ, "the build took its time from there")
    def test_the_banner_tells_the_time_of_the_build(self):
        text = self.started().log.read_text(encoding="utf-8")
        told = datetime.datetime.fromisoformat(re.search(r"build time (\S+ \S+) UTC", text)[1] + "+00:00").timestamp()
        changed = (BUILD / "app/libpos_app.a").stat().st_mtime
        self.assertTrue(changed - 1 <= told <= APPLICATION.stat().st_mtime, (changed, told))

    def test_a_reproducible_build_has_the_time_of_its_sources(self):
        output = self.desk.path / "build_time.cpp"
        subprocess.run(["cmake", "-D", f"OUTPUT={output}", "-P", SOURCE / "app/build_time.cmake"],
                       env={**os.environ, "SOURCE_DATE_EPOCH": "86399"}, check=True)
        self.assertIn('build_time = "1970-01-01 23:59:59 UTC"', output.read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main()
