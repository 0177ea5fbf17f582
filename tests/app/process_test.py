"""The program as its service manager sees it: signals, exit codes, and what it writes to."""

import contextlib
import datetime
import os
import re
import signal
import socket
import subprocess
import time
import unittest

from desk import APPLICATION, BUILD, GATEWAY, POSCTL, SOURCE, Desk_test, Positions, fill, until

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2)
# The poll of the shutdown flag, the stop of the alive timer and the delay before the runtime goes.
SHUTDOWN_LIMIT_S = 0.5 + 1.0 + 1.0
SLACK_S = 8.0  # a loaded machine, sanitizers


class ProcessTest(Desk_test):
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

    def test_shutdown_is_prompt_and_a_storm_of_signals_changes_nothing(self):
        application = self.started()
        for number in (signal.SIGUSR1, signal.SIGUSR2) * 3000:
            application.send_signal(number)
        self.assertIsNone(application.poll())
        start = time.monotonic()
        for number in SIGNALS * 3000:
            application.send_signal(number)
        until(lambda: self.count(application, "delay before destroying runtime."), "the end of the application")
        handled = self.count(application, "posApplication::signalHandler")
        for number in SIGNALS:
            application.send_signal(number)
        delay = time.monotonic()
        self.assertEqual(self.ends(application), 0)
        self.assertGreater(time.monotonic() - delay, 0.5, "messages under way leave first")
        self.assertLess(time.monotonic() - start, SHUTDOWN_LIMIT_S + 3.0)
        self.assertEqual(self.count(application, "posApplication::signalHandler"), handled)

    def test_arguments_are_answered_or_refused_before_anything_starts(self):
        for arguments, code, output, errors in (
            (("--version",), 0, r"POS application \d+\.\d+\.\d+\n", ""),
            (("--help",), 0, r"Usage: POS__ORVEL1_Sys_Adaptive_01_Exe (.|\n)*", ""),
            (("--verbose",), 2, "", r".*: the argument \"--verbose\" is not known, --help and --version are\n"),
            (("--help", "me"), 2, "", r".*: the argument \"me\" is not known, .*\n"),
        ):
            told = self.desk.run(APPLICATION, *arguments)
            self.assertEqual(told[0], code, arguments)
            self.assertRegex(told[1], rf"\A{output}\Z")
            self.assertRegex(told[2], rf"\A{errors}\Z")

    def test_signals_before_the_application_exists_are_ignored(self):
        def send_to_myself():
            signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)  # they wait for the program
            for number in SIGNALS:
                os.kill(os.getpid(), number)

        application = self.started(preexec_fn=send_to_myself)
        self.assertEqual(self.count(application, "signalHandler"), 0)
        application.send_signal(signal.SIGTERM)
        self.assertEqual(self.ends(application), 0)

    def test_a_manifest_that_is_missing_or_lacks_an_element_of_an_interface_ends_with_104_and_says_so(self):
        application = self.desk.start(APPLICATION, environment={"POS_MANIFEST": "/nonexistent/manifest.json"})
        self.assertEqual(self.ends(application), 104)
        self.assertTrue(self.count(application, "/nonexistent/manifest.json"))
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


    # What the program writes to stops reading, goes away, or was never there

    def unread(self, reader, writer):
        self.addCleanup(os.close, reader)
        self.addCleanup(os.close, writer)
        fill(writer)
        return {"stderr": writer}

    def without_reader(self, reader, writer):
        os.close(reader)
        self.addCleanup(os.close, writer)
        return {"stderr": writer}

    def notify_socket(self):
        manager, sender = (self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)) for _ in range(2))
        manager.bind(f"\0pos-manager-{os.getpid()}")
        sender.connect(manager.getsockname())
        fill(sender.fileno())
        return {"environment": {"NOTIFY_SOCKET": f"@pos-manager-{os.getpid()}"}}

    def bus(self):
        self.desk.start_bus().send_signal(signal.SIGSTOP)
        return {}

    def test_positions_flow_and_the_end_is_prompt_whatever_does_not_read(self):
        self.desk.start(GATEWAY)
        positions = Positions(self.desk.start(POSCTL, "watch", "--json"))
        rows = {
            "a pipe that is not read": lambda: self.unread(*os.pipe()),
            "the journal's socket, not read": lambda: self.unread(*(one.detach() for one in socket.socketpair())),
            "a pipe without a reader": lambda: self.without_reader(*os.pipe()),
            "a notify socket with a full queue": self.notify_socket,
            "a bus daemon that does not answer": self.bus,
            "no descriptors 0 to 2": lambda: {"preexec_fn": lambda: os.closerange(0, 3)},
        }
        for what, options in rows.items():
            with self.subTest(what), contextlib.ExitStack() as row:
                application = self.desk.start(APPLICATION, **options())
                row.callback(application.kill)  # has no effect unless the row has failed
                positions.flow(what, count=5)
                if what == "no descriptors 0 to 2":
                    opened = {os.readlink(f"/proc/{application.pid}/fd/{number}") for number in range(3)}
                    self.assertEqual(opened, {"/dev/null"})
                start = time.monotonic()
                application.send_signal(signal.SIGTERM)
                self.assertEqual(self.ends(application), 0)
                self.assertLess(time.monotonic() - start, SHUTDOWN_LIMIT_S + 3.0)


if __name__ == "__main__":
    unittest.main()
