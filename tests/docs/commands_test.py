"""The pages for users show commands and their output. This test runs them and compares.

Every block of the kind "console" is run: lines behind "$ " are commands, the lines that follow are their output.
"..." stands for any number of lines; decimal numbers and the width of columns do not count. The word behind
"console" names the machine, for pages with more than one. Needs the right to make network namespaces; without it the
test is skipped.
"""

import os
import pathlib
import re
import select
import signal
import subprocess
import tempfile
import time
import unittest

from desk import BUILD, DEADLINE, SANITIZERS, SOURCE

PATIENCE = 4 * DEADLINE  # of a command that prints nothing: a compiler on a busy machine
# Their output depends on what has arrived, so they are repeated until it is that of the page.
REPEATED = re.compile(r"(\w+=\S+ )?posctl (peers|doctor|discover)|grep ")
# For the compiler of a page.
TOOLCHAIN = {"CMAKE_TOOLCHAIN_FILE": found[1] for found in [
    re.search(r"^CMAKE_TOOLCHAIN_FILE:\w+=(.+)", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)] if found}


def ip(*words):
    return subprocess.run(["ip", *words], check=True, capture_output=True, text=True).stdout


def masked(line):
    return " ".join(re.sub(r"\b(?!0x)\d[\d.:]*", "N", line).split())


def files_of(page):
    """The files that a page shows, each in one or several blocks, by the name behind the language."""
    files = {}
    for name, block in re.findall(r"^```\w+ (\S+[./]\S+)\n(.*?)^```", page, re.DOTALL | re.MULTILINE):
        files[name] = files[name] + "\n" + block if name in files else block
    return files


def commands_of(page):
    """Machine, command and the shown lines of each command."""
    for machine, block in re.findall(r"^```console ?(\w*)\n(.*?)^```", page, re.DOTALL | re.MULTILINE):
        for step in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            command, shown = re.match(r"(?s)((?:[^\n]*\\\n)*[^\n]*)\n(.*)", step).groups()
            yield machine or "vehicle", command, shown.splitlines()


class Machine:
    """A network namespace with a shell that stands in a folder like a built clone."""

    def __init__(self, name, folder):
        self.name = f"docs{os.getpid()}{name[0]}"
        self.folder = folder
        ip("netns", "add", self.name)
        ip("-n", self.name, "link", "set", "lo", "up")
        self.shell = None

    def start(self):
        for link, target in (("build/release", BUILD), *((name, SOURCE / name) for name in ("config", "docs", "examples"))):
            (self.folder / link).parent.mkdir(parents=True, exist_ok=True)
            (self.folder / link).symlink_to(target)
        run = self.folder / "scripts/run"  # installs and builds nothing
        run.parent.mkdir()
        run.write_text(f'#!/bin/sh\nexec python3 {SOURCE}/scripts/run_on_loopback.py --build build/release "$@"\n')
        run.chmod(0o755)
        programs = [str(BUILD / part) for part in ("app", "tools/posctl", "tools/gnss-gateway")]
        self.shell = subprocess.Popen(
            ["ip", "netns", "exec", self.name, "bash"], cwd=self.folder, bufsize=0,
            env={**os.environ, "HOME": str(self.folder), "XDG_STATE_HOME": "", "XDG_CONFIG_HOME": "",
                 "POS_STATE_BUS": "none", "DLT_PIPE_DIR": str(self.folder), "POS_RUNTIME_DIR": str(self.folder),
                 "PATH": ":".join([*programs, os.environ["PATH"]]), **TOOLCHAIN},
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.run('sudo() { "$@"; }')

    def run(self, command):
        """Returns the exit code and the lines of output."""
        self.shell.stdin.write(f"{command}\necho end-of-command $?\n".encode())
        output = b""
        while not (end := re.search(rb"end-of-command (\d+)\n$", output)):
            ready = select.select([self.shell.stdout], [], [], PATIENCE)[0]
            read = os.read(self.shell.stdout.fileno(), 65536) if ready else b""
            if not read:  # too slow, or the shell has ended
                raise AssertionError(f"no end: {command}\n{output.decode(errors='replace')}")
            output += read
        return int(end[1]), output[: end.start()].decode().splitlines()

    def close(self):
        for pid in ip("netns", "pids", self.name).split():
            os.kill(int(pid), signal.SIGKILL)
        if self.shell:
            self.shell.communicate()
        ip("netns", "del", self.name)


class Commands(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="pos-docs-")))
        self.machines = {}
        try:
            for name in ("vehicle", "bench"):
                self.machines[name] = Machine(name, folder / name)
                self.addCleanup(self.machines[name].close)
            vehicle, bench = (machine.name for machine in self.machines.values())
            ip("link", "add", "eth0", "netns", vehicle, "type", "veth", "peer", "name", "eth0", "netns", bench)
        except (subprocess.CalledProcessError, OSError) as error:
            self.skipTest(f"no network namespaces here ({error})")
        for machine in self.machines.values():
            machine.start()

    def play(self, page):
        for machine, command, shown in commands_of((SOURCE / "docs" / page).read_text(encoding="utf-8")):
            lines = [r"(?:.*\n)*?" if line == "..." else re.escape(masked(line)) + "\n" for line in shown]
            end = time.monotonic() + DEADLINE
            while True:
                code, output = self.machines[machine].run(command)
                told = "".join(masked(line) + "\n" for line in output)
                if re.fullmatch("".join(lines), told) and (shown or code == 0):
                    break
                time.sleep(0.05)
                if not REPEATED.match(command) or time.monotonic() > end:
                    self.fail(f"{page}, {machine}: {command} (exit code {code})\n" + "\n".join(output)
                              + "\n--- the page shows\n" + "\n".join(shown))

    def test_tutorial(self):
        self.play("tutorial.md")

    def test_two_machines(self):
        self.play("network.md")

    def test_receivers(self):
        self.play("receivers.md")

    @unittest.skipIf(SANITIZERS, "the libraries of the SDK need the flags of the sanitizer")
    def test_second_application(self):
        files = files_of((SOURCE / "docs/second-application.md").read_text(encoding="utf-8"))
        example = {f"geofence/{file.name}": file.read_text(encoding="utf-8")
                   for file in (SOURCE / "examples/geofence").iterdir()}
        self.assertEqual(files, example)
        for name, text in files.items():
            file = self.machines["vehicle"].folder / name
            file.parent.mkdir(exist_ok=True)
            file.write_text(text, encoding="utf-8")
        self.play("second-application.md")


if __name__ == "__main__":
    unittest.main()
