"""The log through the real DLT daemon and on standard error, seen from outside the process."""

import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import time
import unittest

from desk import BUILD, DEADLINE, Desk_test, inherited, until
from dlt import Log

PROBE = BUILD / "tests/ara/log/log_probe"


class Probe:
    def __init__(self, desk, options=None, **environment):
        self.process = desk.start(PROBE, stdin=subprocess.PIPE, environment=environment, **options or {})

    def tell(self, *commands):
        """Returns what the last command answers."""
        for command in commands:
            self.process.stdin.write(command + "\n")
            self.process.stdin.flush()
            answer = self.process.stdout.readline().split()
            assert answer and answer[-1] == "ok", f"{command}: {answer}"
        return answer[0]

    def exit(self):
        """Returns how many seconds it takes."""
        begin = time.monotonic()
        self.process.communicate("exit\n", timeout=15)
        assert self.process.returncode == 0, self.process.returncode
        return time.monotonic() - begin

    def errors(self):
        return self.process.log.read_text(errors="replace").splitlines()

    def wait(self, text):
        until(lambda: any(text in line for line in self.errors()), f"{text!r} on standard error")

    def texts(self):
        """What stands behind "time level application context"."""
        return [line.split(" ", 5)[5] for line in self.errors() if " POS " in line]


class DltTest(Desk_test):
    def daemon(self):
        daemon = Log(self.desk)
        self.addCleanup(daemon.end)
        return daemon

    def both(self, **environment):
        daemon, probe = self.daemon(), Probe(self.desk, **environment)
        probe.tell("init 1")
        return daemon, probe

    def test_messages_arrive_with_typed_arguments_and_nothing_is_on_standard_error(self):
        daemon, probe = self.both()
        probe.tell("log - 4 banner", "log GNSS 3 hello world", "types", "arguments 0")
        for thread in pathlib.Path(f"/proc/{probe.process.pid}/task").iterdir():
            blocked = int(re.search(r"SigBlk:\s*(\w+)", (thread / "status").read_text())[1], 16)
            handles = not blocked >> signal.SIGUSR1 - 1 & 1
            self.assertEqual(handles, thread.name == str(probe.process.pid), "signals are for the program's threads")
        probe.exit()
        daemon.wait("last line")
        daemon.wait("'POS' registered for PID")
        typed = "text 1 c -8 -16 -32 -64 8 16 32 18446744073709551615 0.1 48.1235 83d101".split()
        self.assertEqual([(one.context, one.level, *one.arguments) for one in daemon.of()], [
            ("POS", "info", "banner"), ("GNSS", "warn", "hello world"), ("TYPE", "info", *typed),
            ("MANY", "info"), ("POS", "info", "last line")])
        daemon.check_printed()
        # The object that logs after the library is gone still finds a place for its line.
        self.assertEqual(probe.texts(), ["logged after main"])

    def test_without_a_daemon_every_line_is_on_standard_error_and_exit_does_not_wait(self):
        probe = Probe(self.desk)
        lines = [f"line {number}" for number in range(20)]
        probe.tell("log GNSS 4 before init", "init 1", *(f"log GNSS 4 {line}" for line in lines))
        self.assertLess(probe.exit(), 3)
        self.assertEqual(probe.texts(), [*lines, "last line", "logged after main"])
        self.assertIn("info - GNSS before init", probe.errors()[0])
        self.assertRegex(probe.errors()[1], r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{6} info POS GNSS line 0$")
        self.assertEqual(len(probe.errors()), 23)

    @staticmethod
    def read(descriptor, pattern):
        """The texts on standard error until one matches the pattern, and the match."""
        data = ""
        while not (match := re.search(pattern + "\n", data)):
            assert select.select([descriptor], [], [], DEADLINE)[0], f"{pattern}: {data[-200:]}"
            data += os.read(descriptor, 65536).decode()
        return [line.split(" ", 5)[5] for line in data.splitlines()], match

    def test_a_reader_that_stops_delays_nothing_and_is_told_how_many_lines_are_missing(self):
        ends = {
            "a pipe": (os.pipe(), {}),
            "the journal's socket": ([one.detach() for one in socket.socketpair()], {}),
            # Only as root: a pipe that the program cannot open anew.
            "a pipe of another user": (os.pipe(), {} if os.geteuid() else {"user": 65534, "extra_groups": []}),
        }
        for name, ((reader, writer), options) in ends.items():
            with self.subTest(name):
                begin = time.monotonic()
                probe = Probe(self.desk, {"stderr": writer, **options})
                os.close(writer)
                self.addCleanup(os.close, reader)
                probe.tell("init 1")
                self.assertEqual(inherited(probe.process), [])
                for _ in range(2):  # what has been read leaves as much room as before
                    probe.tell("lines 20000")
                    self.assertLess(time.monotonic() - begin, 10)
                    texts, missing = self.read(reader, r"warn POS POS Standard error .*: (\d+)")
                    self.assertEqual(texts[:-1], [f"number {i}" for i in range(20000 - int(missing[1]))])
                    self.assertGreater(len(texts), 2000)
                    probe.tell("log GNSS 4 read again")
                    self.assertEqual(self.read(reader, "read again")[0], ["read again"])
                probe.tell("lines 20000")
                self.assertLess(probe.exit(), 3)

    def test_a_daemon_that_comes_goes_and_comes_again_loses_and_doubles_nothing(self):
        probe = Probe(self.desk)
        probe.tell("init 1")
        sent = []

        def log():
            sent.append(f"line {len(sent)}")
            probe.tell("log GNSS 4 " + sent[-1])

        def log_until(daemon):
            until(lambda: log() or daemon.texts("GNSS"), "a line at the daemon")
            log()
            daemon.wait(sent[-1])
            return daemon.texts("GNSS")

        log()
        probe.wait("line 0")
        daemon = self.daemon()
        first = log_until(daemon)
        daemon.end()
        log()
        probe.wait(sent[-1])
        probe.wait("The DLT daemon is gone, log messages follow here.")
        daemon = self.daemon()
        second = log_until(daemon)
        daemon.wait("The DLT daemon is back, log messages went to standard error meanwhile.")
        probe.exit()
        daemon.wait("last line")
        on_stderr = [text for text in probe.texts() if text.startswith("line ")]
        self.assertEqual(sorted(first + second + on_stderr, key=lambda text: int(text[5:])), sent)

    def test_a_daemon_that_does_not_read_delays_the_exit_by_little(self):
        daemon, probe = self.both()
        probe.tell("log GNSS 4 hello")
        daemon.wait("hello")
        daemon.processes[0].send_signal(signal.SIGSTOP)
        probe.tell(*["long 1200"] * 100)
        self.assertLess(probe.exit(), 4)

    def test_a_short_life_loses_no_line(self):
        daemon, probe = self.both()
        probe.tell("lines 200")
        probe.exit()
        daemon.wait("last line")
        self.assertEqual(daemon.texts("LINE"), [f"number {i}" for i in range(200)])

    @staticmethod
    def long(size):
        """What "long" logs."""
        made, i = "", 0
        while len(made.encode()) < size:
            made += f"{i}ä,"
            i += 1
        return f"begin {made} end"

    @staticmethod
    def joined(parts):
        return "".join(part.removeprefix("[continued] ").removesuffix(" [continues]") for part in parts)

    def test_a_message_too_long_for_dlt_is_split_with_marks(self):
        daemon, probe = self.both()
        probe.tell("long 900", "long 5000", "arguments 400")
        probe.exit()
        daemon.wait("last line")
        whole, *parts = daemon.texts("LONG")
        self.assertEqual(whole, self.long(900))
        self.assertGreater(len(parts), 3)
        for part in parts[:-1]:
            self.assertTrue(part.endswith(" [continues]"), part)
            self.assertGreater(len(part.encode()), 1300)
        for part in parts[1:]:
            self.assertTrue(part.startswith("[continued] "), part)
        self.assertEqual(self.joined(parts), self.long(5000))
        numbers = " ".join(daemon.texts("MANY")).split(" ")
        self.assertEqual([one for one in numbers if not one.startswith("[")], [str(i) for i in range(400)])

    def test_shorter_messages_of_the_library_make_more_parts_and_too_short_ones_go_to_standard_error(self):
        for length, in_dlt in ("500", True), ("64", True), ("63", False):
            with self.subTest(length):
                daemon, probe = self.both(DLT_LOG_MSG_BUF_LEN=length)
                probe.tell("long 700")
                probe.exit()
                daemon.wait("last line")
                self.assertEqual(self.joined(daemon.texts("LONG")), self.long(700) if in_dlt else "")
                self.assertEqual(probe.texts(), [*([] if in_dlt else [self.long(700)]), "logged after main"])
                daemon.end()

    def test_levels_come_from_the_environment_and_change_at_run_time(self):
        daemon, probe = self.both(POS_LOG_LEVEL="warn,GNSS=verbose,PSRV=loud")
        self.assertEqual([probe.tell("level " + context) for context in ("GNSS", "PSRV")], ["6", "3"])
        probe.tell("log PSRV 4 hidden", "log GNSS 6 shown")
        daemon.wait("shown")
        self.assertEqual(daemon.texts("PSRV"), [])
        complaint, = daemon.texts("POS")
        self.assertIn('POS_LOG_LEVEL: ignored "PSRV=loud"', complaint)

        subprocess.run(["dlt-control", "-p", str(self.desk.dlt_port), "-a", "POS", "-c", "PSRV", "-l", "6", "-t", "1000",
                        "localhost"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=15)
        until(lambda: probe.tell("level PSRV") == "6", "the new level")
        probe.tell("log PSRV 6 now shown")
        daemon.wait("now shown")

    def test_the_console_is_a_mode_of_its_own(self):
        daemon = self.daemon()
        for mode, text in ("4", "console only"), ("5", "to both"):
            probe = Probe(self.desk)
            probe.tell("init " + mode, "log GNSS 4 " + text)
            probe.exit()
            self.assertEqual(probe.texts(), [text, "last line", "logged after main"])
        daemon.wait("last line")
        self.assertEqual(daemon.texts("GNSS"), ["to both"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
