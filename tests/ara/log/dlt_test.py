"""The log through the real DLT daemon and on standard error, seen from outside the process."""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROBE = sys.argv.pop(1)
DEADLINE = 15.0


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Reader:
    """Lines of a stream as they come."""

    def __init__(self, stream):
        self.lines = []
        self.changed = threading.Condition()
        threading.Thread(target=self._read, args=(stream,), daemon=True).start()

    def _read(self, stream):
        with stream:
            for line in stream:
                with self.changed:
                    self.lines.append(line.rstrip("\n"))
                    self.changed.notify_all()

    def wait_for(self, condition, what):
        with self.changed:
            if not self.changed.wait_for(lambda: condition(self.lines), DEADLINE):
                raise AssertionError(f"no {what} in:\n" + "\n".join(self.lines))

    def wait_for_text(self, text):
        self.wait_for(lambda lines: any(text in line for line in lines), repr(text))


class Daemon:
    def __init__(self, folder, port):
        self.folder, self.port = folder, port
        self.process = subprocess.Popen(["dlt-daemon", "-t", folder, "-p", str(port)], cwd=folder,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.receiver = None
        deadline = time.monotonic() + DEADLINE
        while True:
            try:
                socket.create_connection(("127.0.0.1", port), 0.2).close()
                break
            except OSError:
                if time.monotonic() > deadline:
                    raise
        self.receiver = subprocess.Popen(["stdbuf", "-oL", "dlt-receive", "-a", "-p", str(port), "localhost"],
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                         errors="replace")
        self.received = Reader(self.receiver.stdout)
        # Whatever comes first: the end of the connection above can swallow the greeting.
        self.received.wait_for(bool, "message of the daemon")

    def of(self, context):
        """(level, number of arguments, text) of each message of a context."""
        found = []
        with self.received.changed:
            for line in self.received.lines:
                match = re.search(r"POS- " + context.ljust(4, "-") + r" log (\w+) V (\d+) \[(.*)\]$", line)
                if match:
                    found.append((match[1], int(match[2]), match[3]))
        return found

    def stop(self):
        for process in (self.receiver, self.process):
            if process and process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.terminate()
                process.wait(DEADLINE)


class Probe:
    def __init__(self, folder, **environment):
        self.process = subprocess.Popen([PROBE], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, "DLT_PIPE_DIR": folder, **environment})
        self.stderr = Reader(self.process.stderr)

    def tell(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline().split()
        assert answer and answer[-1] == "ok", f"{command}: {answer}"
        return answer[0]

    def exit(self, limit=DEADLINE):
        begin = time.monotonic()
        self.process.stdin.write("exit\n")
        self.process.stdin.close()
        code = self.process.wait(limit)
        self.process.stdout.close()
        return code, time.monotonic() - begin

    def texts(self):
        """What stands behind "time level application context"."""
        return [line.split(" ", 5)[5] for line in self.stderr.lines if " POS " in line]


class DltTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="pos-dlt-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.port = free_port()

    def daemon(self):
        daemon = Daemon(self.folder, self.port)
        self.addCleanup(daemon.stop)
        return daemon

    def probe(self, **environment):
        probe = Probe(self.folder, **environment)

        def end():
            if probe.process.poll() is None:
                probe.process.kill()
                probe.process.wait()
            for stream in (probe.process.stdin, probe.process.stdout):
                stream.close()
        self.addCleanup(end)
        return probe

    def test_messages_arrive_with_typed_arguments_and_nothing_is_on_standard_error(self):
        daemon = self.daemon()
        probe = self.probe()
        probe.tell("init 1")
        probe.tell("log - 4 banner")
        probe.tell("log GNSS 3 hello world")
        probe.tell("types")
        self.assertEqual(probe.tell("signals"), "0")
        code, _ = probe.exit()
        self.assertEqual(code, 0)
        daemon.received.wait_for_text("last line")
        self.assertEqual(daemon.of("POS"), [("info", 1, "banner"), ("info", 1, "last line")])
        self.assertEqual(daemon.of("GNSS"), [("warn", 1, "hello world")])
        self.assertEqual(daemon.of("TYPE"), [
            ("info", 14, "text 1 c -8 -16 -32 -64 8 16 32 18446744073709551615 0.1 48.1235 83d101")])
        daemon.received.wait_for_text("'POS' registered for PID")
        # The object that logs after the library is gone still finds a place for its line.
        self.assertEqual(probe.texts(), ["logged after main"])

    def test_without_a_daemon_every_line_is_on_standard_error_and_exit_does_not_wait(self):
        probe = self.probe()
        probe.tell("log GNSS 4 before init")
        probe.tell("init 1")
        for i in range(20):
            probe.tell(f"log GNSS 4 line {i}")
        code, seconds = probe.exit()
        self.assertEqual(code, 0)
        self.assertLess(seconds, 3)
        probe.stderr.wait_for_text("logged after main")
        self.assertEqual(probe.texts(), [f"line {i}" for i in range(20)] + ["last line", "logged after main"])
        self.assertIn("info - GNSS before init", probe.stderr.lines[0])
        self.assertRegex(probe.stderr.lines[1], r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{6} info POS GNSS line 0$")
        self.assertEqual(len(probe.stderr.lines), 23)

    def test_a_daemon_that_comes_goes_and_comes_again_loses_and_doubles_nothing(self):
        probe = self.probe()
        probe.tell("init 1")
        sent = []

        def log():
            sent.append(f"line {len(sent)}")
            probe.tell("log GNSS 4 " + sent[-1])

        log()
        probe.stderr.wait_for_text("line 0")

        def log_until(daemon):
            deadline = time.monotonic() + DEADLINE
            while not daemon.of("GNSS"):
                log()
                self.assertLess(time.monotonic(), deadline)
                threading.Event().wait(0.01)
            log()
            daemon.received.wait_for_text(sent[-1])
            return [text for _, _, text in daemon.of("GNSS")]

        daemon = self.daemon()
        first = log_until(daemon)
        daemon.stop()
        log()
        probe.stderr.wait_for_text(sent[-1])
        probe.stderr.wait_for_text("The DLT daemon is gone, log messages follow here.")
        daemon = self.daemon()
        second = log_until(daemon)
        daemon.received.wait_for_text("The DLT daemon is back, log messages went to standard error meanwhile.")
        probe.exit()
        daemon.received.wait_for_text("last line")
        on_stderr = [text for text in probe.texts() if text.startswith("line ")]
        self.assertEqual(sorted(first + second + on_stderr, key=lambda text: int(text[5:])), sent)

    def test_a_daemon_that_does_not_read_delays_the_exit_by_little(self):
        daemon = self.daemon()
        probe = self.probe()
        probe.tell("init 1")
        probe.tell("log GNSS 4 hello")
        daemon.received.wait_for_text("hello")
        daemon.process.send_signal(signal.SIGSTOP)
        for _ in range(100):
            probe.tell("long 1200")
        code, seconds = probe.exit()
        self.assertEqual(code, 0)
        self.assertLess(seconds, 4)

    def test_a_short_life_loses_no_line(self):
        daemon = self.daemon()
        probe = self.probe()
        probe.tell("init 1")
        probe.tell("threads")
        probe.exit()
        daemon.received.wait_for_text("last line")
        for thread in range(4):
            self.assertEqual([text for _, _, text in daemon.of(f"THR{thread}")],
                             [f"number {i}" for i in range(50)])

    def test_a_message_too_long_for_dlt_is_split_with_marks(self):
        daemon = self.daemon()
        probe = self.probe()
        probe.tell("init 1")
        probe.tell("long 900")
        probe.tell("long 5000")
        probe.tell("arguments 400")
        probe.exit()
        daemon.received.wait_for_text("last line")

        def text(size):
            made, i = "", 0
            while len(made.encode()) < size:
                made += f"{i}ä,"
                i += 1
            return made

        parts = [text for _, _, text in daemon.of("LONG")]
        self.assertEqual(parts[0], f"begin {text(900)} end")
        self.assertGreater(len(parts), 4)
        for part in parts[1:-1]:
            self.assertTrue(part.endswith(" [continues]"), part)
            self.assertGreater(len(part.encode()), 1300)
        for part in parts[2:]:
            self.assertTrue(part.startswith("[continued] "), part)
        whole = "".join(part.removeprefix("[continued] ").removesuffix(" [continues]") for part in parts[1:])
        self.assertEqual(whole, f"begin {text(5000)} end")
        numbers = " ".join(text for _, _, text in daemon.of("MANY")).split(" ")
        self.assertEqual([n for n in numbers if not n.startswith("[")], [str(i) for i in range(400)])

    def test_levels_come_from_the_environment_and_change_at_run_time(self):
        daemon = self.daemon()
        probe = self.probe(POS_LOG_LEVEL="warn,GNSS=verbose,PSRV=loud")
        probe.tell("init 1")
        self.assertEqual([probe.tell("level " + c) for c in ("GNSS", "PSRV")], ["6", "3"])
        probe.tell("log PSRV 4 hidden")
        probe.tell("log GNSS 6 shown")
        daemon.received.wait_for_text("shown")
        self.assertEqual(daemon.of("PSRV"), [])
        self.assertEqual(len(daemon.of("POS")), 1)
        self.assertIn('POS_LOG_LEVEL: ignored "PSRV=loud"', daemon.of("POS")[0][2])

        subprocess.run(["dlt-control", "-p", str(self.port), "-a", "POS", "-c", "PSRV", "-l", "5", "-t", "1000",
                        "localhost"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=DEADLINE)
        deadline = time.monotonic() + DEADLINE
        while probe.tell("level PSRV") != "5":
            self.assertLess(time.monotonic(), deadline, "level did not change")
        probe.tell("log PSRV 5 now shown")
        daemon.received.wait_for_text("now shown")
        probe.exit()

    def test_file_and_console_are_modes_of_their_own(self):
        probe = self.probe()
        probe.tell(f"init 6 {self.folder}")
        probe.tell("log GNSS 4 to both")
        probe.exit()
        probe.stderr.wait_for_text("logged after main")
        with open(os.path.join(self.folder, "POS.log"), encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual([line.split(" ", 5)[5] for line in lines], ["to both", "last line", "logged after main"])
        self.assertEqual(lines, probe.stderr.lines)


if __name__ == "__main__":
    unittest.main(verbosity=2)
