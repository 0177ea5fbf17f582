"""The log of the application POS as a dlt-daemon of the test's own gets it."""

import re
import signal
import socket
import struct
import subprocess

from desk import until


class Message:
    LEVELS = ("", "fatal", "error", "warn", "info", "debug", "verbose")

    NUMBERS = {0x10: " b", 0x20: " bhiq", 0x40: " BHIQ", 0x80: "   fd"}  # by type, then by size

    def __init__(self, data):
        kind = data[0]
        at = 4 + (4 if kind & 4 else 0)
        self.process = struct.unpack_from("!I", data, at)[0] if kind & 8 else 0
        at += (4 if kind & 8 else 0) + (4 if kind & 16 else 0)
        info_byte, count, application, context = struct.unpack_from("!BB4s4s", data, at)
        self.is_log = kind & 1 and info_byte & 0xF == 1
        self.application, self.context = (name.rstrip(b"\0").decode() for name in (application, context))
        if not self.is_log:
            return
        self.level = self.LEVELS[info_byte >> 4]
        order = "!" if kind & 2 else "<"
        self.arguments = []
        at += 10
        for _ in range(count):
            type_info, = struct.unpack_from(order + "I", data, at)
            at += 4
            if type_info & 0x200:
                size, = struct.unpack_from(order + "H", data, at)
                self.arguments.append(data[at + 2:at + 2 + size].rstrip(b"\0").decode())
                at += 2 + size
            else:
                form = order + self.NUMBERS[type_info & 0xF0][type_info & 0xF]
                number, = struct.unpack_from(form, data, at)
                self.arguments.append(f"{number:g}" if isinstance(number, float) else str(number))
                at += struct.calcsize(form)

    def fits(self, row):
        context, level, *arguments = row
        return (self.context, self.level, len(self.arguments)) == (context, level, len(arguments)) and all(
            wanted == found if isinstance(wanted, str) else wanted.fullmatch(found)
            for wanted, found in zip(arguments, self.arguments))

    def __repr__(self):
        return f"{self.context} {self.level} {self.arguments}"


class Log:
    """A dlt-daemon of the test's own and what dlt-receive stores and prints of it."""

    def __init__(self, desk):
        folder, port = desk.path, desk.dlt_port
        self.file, self.printed = folder / "log.dlt", folder / "log.txt"
        self.processes, self.messages, self.read = [], [], 0
        self.file.unlink(missing_ok=True)
        quiet = {"stdin": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "cwd": folder}
        self.processes.append(subprocess.Popen(
            ["dlt-daemon", "-t", folder, "-p", str(port)], stdout=subprocess.DEVNULL, **quiet))
        until((folder / "dlt").exists, "the pipe of dlt-daemon")
        until(lambda: self.listens(port), "the port of dlt-daemon, which dlt-receive tries once")
        with open(self.printed, "wb") as printed:
            self.processes.append(subprocess.Popen(
                ["stdbuf", "-oL", "dlt-receive", "-a", "-o", self.file, "-p", str(port), "localhost"],
                stdout=printed, **quiet))
        until(lambda: "New client connection" in self.printed.read_text(errors="replace"), "the receiver")

    @staticmethod
    def listens(port):
        with socket.socket() as client:
            return client.connect_ex(("localhost", port)) == 0

    def of(self, process=None):
        data = self.file.read_bytes()
        while self.read + 20 <= len(data):
            size = struct.unpack_from("!H", data, self.read + 18)[0]
            if self.read + 16 + size > len(data):
                break
            message = Message(data[self.read + 16:self.read + 16 + size])
            if message.is_log and message.application == "POS":
                self.messages.append(message)
            self.read += 16 + size
        return [one for one in self.messages if process in (None, one.process)]

    def texts(self, context):
        return [" ".join(one.arguments) for one in self.of() if one.context == context]

    def wait(self, text):
        """Until the text, whoever logs it, has been printed."""
        until(lambda: text in self.printed.read_text(errors="replace"), f"{text!r} in the log")

    def check_printed(self):
        """What people read of it: whole lines, arguments apart by a blank."""
        lines = re.findall(r" POS- (\S+) log (\S+) V (\d+) \[(.*)\]$", self.printed.read_text(), re.MULTILINE)
        expected = [(one.context.ljust(4, "-"), one.level, str(len(one.arguments)),
                     " ".join(one.arguments).replace("\n", " ")) for one in self.messages]
        assert len(lines) == len(expected), (len(lines), len(expected))
        for line, wanted in zip(lines, expected):
            assert line == wanted, f"{line}\n{wanted}"

    def end(self):
        for process in reversed(self.processes):
            process.send_signal(signal.SIGCONT)  # a test may have stopped it
            process.terminate()
            process.wait()
