"""Runs the application between a GNSS source and a consumer, shows the published positions and a summary.

scripts/run calls it. Exit code 0: positions arrived, none was lost, and every program ended normally.
"""

import argparse
import contextlib
import json
import math
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

FIRST_POSITION_TIMEOUT = 20.0
STATUS_TIMEOUT = 5.0
END_TIMEOUT = 15.0
PAGE_PORT = 8030


class Program:
    """One child process, detached from the terminal: this program handles Ctrl-C and the order of the ends."""

    def __init__(self, name, command, log, stdout=subprocess.DEVNULL, environment=None):
        self.name = name
        self.log_path = log
        with open(log, "wb") as errors:
            self.process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=stdout,
                stderr=errors,
                env={**os.environ, **(environment or {})},
                start_new_session=True,
            )

    def ended(self):
        return self.process.poll() is not None

    def stop(self):
        """Returns the problem, or None."""
        if not self.ended():
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(END_TIMEOUT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return f"{self.name} did not end within {END_TIMEOUT:g} s"
        return None if code == 0 else f"{self.name} ended with {code}, see {self.log_path}"

    def kill(self):
        if not self.ended():
            self.process.kill()
            self.process.wait()


class Consumer:
    """Reads the output of posctl, on a thread of its own."""

    def __init__(self, stream, as_json):
        self.as_json = as_json
        self.changed = threading.Condition()  # guards the members below
        self.ages = []
        self.counters = []
        self.map_infos = 0
        self.thread = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self.thread.start()

    def _read(self, stream):
        for line in stream:
            notification = json.loads(line)
            if self.as_json:
                print(line.decode(), end="", flush=True)
            for record in notification["records"]:
                self._take(notification["field"], record)

    def _take(self, field, record):
        with self.changed:
            if field == "posMapInfo":
                self.map_infos += 1
            elif "messageCounter" in record:
                self.counters.append(record["messageCounter"])
                if "age" in record:
                    self.ages.append(record["age"])
            self.changed.notify_all()
        if field == "positions" and "LAT" in record and not self.as_json:
            print(self._text(record), flush=True)

    @staticmethod
    def _text(record):
        def number(name, pattern, unit):
            return format(record[name], pattern) + unit if name in record else "-"

        return "  ".join(
            [
                f"{record['LAT']:11.7f} {record['LON']:12.7f}",
                number("altitudeMeanSeaLevel", "7.1f", " m"),
                number("yawAngle", "5.1f", "°"),
                number("speed2D", "5.2f", " m/s"),
                number("age", "5d", " us old"),
            ]
        )

    def wait_for(self, condition, deadline):
        with self.changed:
            return self.changed.wait_for(condition, max(0.0, deadline - time.monotonic()))


def read_status(posctl, as_json):
    """The application's own report of its state, and the problem, or None."""
    answer = subprocess.run(
        [posctl, "status", "--timeout", f"{STATUS_TIMEOUT:g}", *(["--json"] if as_json else [])],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=STATUS_TIMEOUT + END_TIMEOUT,
        check=False,
        start_new_session=True,
    )
    healthy_or_not = answer.returncode in (0, 1)  # its first line says which
    return answer.stdout, None if healthy_or_not else answer.stderr.strip()


def is_free(port):
    with socket.socket() as trial:
        trial.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            trial.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


def percentile(values, part):
    """Nearest rank."""
    if not values:
        return None
    ordered = sorted(values)
    return ordered[max(0, math.ceil(part * len(ordered)) - 1)]


class Run:
    """The three programs and the page, from their start to the summary."""

    def __init__(self, options, stop):
        self.options = options
        self.stop = stop  # set when the user wants the end
        self.logs = pathlib.Path("out/run")
        self.statistics = self.logs / "gnss-gateway.json"
        self.programs = []
        self.application = self.gateway = self.consumer = None
        self.page = None  # not among the programs: a run does not need it
        self.status = ""
        self.sent = 0
        self.problems = []  # with a None for each success

    def start(self, storage):
        self.logs.mkdir(parents=True, exist_ok=True)
        self.application = self._start(
            "application",
            ["app/POS__ORVEL1_Sys_Adaptive_01_Exe"],
            environment={
                "POS_STORAGE_DIR": os.environ.get("POS_STORAGE_DIR", storage),
                "POS_INITDATA_DIR": os.environ.get("POS_INITDATA_DIR", str(pathlib.Path("config").resolve())),
            },
        )
        if not self.options.no_page:
            self._start_page()
        watch = self._start("posctl", ["tools/posctl/posctl", "watch", "--json"], stdout=subprocess.PIPE)
        self.consumer = Consumer(watch.process.stdout, self.options.json)
        with open(self.statistics, "wb") as file:
            command = ["tools/gnss-gateway/gnss-gateway", "--json", *self.options.gateway]
            self.gateway = self._start("gnss-gateway", command, stdout=file)

    def _start_page(self):
        listen = f"127.0.0.1:{PAGE_PORT if is_free(PAGE_PORT) else 0}"  # 0: another one that is free
        command = [self.options.build / "tools/posctl/posctl", "serve", "--listen", listen]
        if self.options.open:
            command.append("--open")
        self.page = Program("page", command, self.logs / "page.log", stdout=subprocess.PIPE)
        address = self.page.process.stdout.readline().decode().strip()
        if not address:
            print(f"run: there is no page, see {self.page.log_path}", file=sys.stderr)
        elif self.options.json:
            print(json.dumps({"page": address}), flush=True)
        else:
            print(f"page: {address}", flush=True)

    def _start(self, name, command, **arguments):
        program = Program(name, [self.options.build / command[0], *command[1:]], self.logs / f"{name}.log", **arguments)
        self.programs.append(program)
        return program

    def _first_to_end(self):
        return next((program for program in self.programs if program.ended()), None)

    def kill(self):
        for program in [*self.programs, *([self.page] if self.page else [])]:
            program.kill()

    def watch(self):
        """Until the user, the time or a program ends it, or no position has arrived for too long."""
        end = None
        first_deadline = time.monotonic() + FIRST_POSITION_TIMEOUT
        while not self.stop.is_set() and self._first_to_end() is None:
            now = time.monotonic()
            if end is None and self.consumer.counters:
                end = now + self.options.seconds if self.options.seconds is not None else math.inf
            if end is None and now >= first_deadline:
                self.problems.append(f"no position within {FIRST_POSITION_TIMEOUT:g} s, see {self.logs}")
                return
            if end is not None and now >= end:
                return
            self.stop.wait(0.05)

    def end(self):
        """Ends the source first, so that nothing is lost on the way."""
        ended = self._first_to_end()
        if ended is not None and (ended is not self.gateway or ended.process.returncode != 0):
            self.problems.append(f"{ended.name} ended by itself")
        if not self.application.ended():
            self.status, problem = read_status(self.options.build / "tools/posctl/posctl", self.options.json)
            self.problems.append(problem)
        self.problems.append(self.gateway.stop())
        with contextlib.suppress(ValueError, KeyError):  # not written by a gateway that failed
            self.sent = json.loads(self.statistics.read_text(encoding="utf-8"))["notifications"]
        # Notifications still under way.
        arrived = lambda: self.sent and self.consumer.counters[-1:] == [self.sent - 1]
        self.consumer.wait_for(arrived, time.monotonic() + 1)
        for program in reversed(self.programs):
            if program is not self.gateway:
                self.problems.append(program.stop())
        if self.page and not self.page.ended():
            self.problems.append(self.page.stop())
        self.consumer.thread.join(END_TIMEOUT)

    def summary(self):
        # The source counts its notifications; the application forwards the number.
        # One may arrive twice: as initial value of the subscription and as notification.
        counters = list(dict.fromkeys(self.consumer.counters))
        lost = counters[-1] - counters[0] + 1 - len(counters) if counters else 0
        if not counters:
            self.problems.append("no position came out")
        if lost != 0:
            self.problems.append(f"{lost} positions were lost between the first and the last")
        return {
            "gnssNotificationsIn": self.sent,
            "positionsOut": len(counters),
            "posMapInfosOut": self.consumer.map_infos,
            "beforeSubscription": counters[0] if counters else None,
            "lost": lost,
            "ageMedianUs": percentile(self.consumer.ages, 0.5),
            "age99thPercentileUs": percentile(self.consumer.ages, 0.99),
            "problems": [problem for problem in self.problems if problem],
        }


def print_json(status, summary):
    if status:
        print(json.dumps({"status": json.loads(status)}))
    print(json.dumps(summary), flush=True)


def print_text(status, summary):
    print(
        f"\n{status}"
        f"\n{summary['gnssNotificationsIn']} GNSS notifications in"
        f" ({summary['beforeSubscription'] or 0} of them before the application had subscribed),"
        f"\n{summary['positionsOut']} positions and {summary['posMapInfosOut']} map-matched records out,"
        f" {summary['lost']} lost;"
        f"\nage of a position when sent: median {summary['ageMedianUs']} us,"
        f" 99th percentile {summary['age99thPercentileUs']} us."
    )
    for problem in summary["problems"]:
        print(f"run: {problem}", file=sys.stderr)


def main():
    parser = argparse.ArgumentParser(prog="scripts/run", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, help="end N seconds after the first position")
    parser.add_argument("--json", action="store_true", help="print notifications and summary as JSON lines")
    parser.add_argument("--no-page", action="store_true", help="do not serve the page")
    parser.add_argument("--open", action="store_true", help="show the page in the browser of this desktop")
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("gateway", nargs="*", help="arguments for gnss-gateway, after --")
    options = parser.parse_args()

    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())

    with tempfile.TemporaryDirectory(prefix="pos-run-") as storage:
        run = Run(options, stop)
        try:
            run.start(storage)
            run.watch()
            run.end()
        finally:
            run.kill()  # in any case no child keeps running
    summary = run.summary()
    (print_json if options.json else print_text)(run.status, summary)
    return 1 if summary["problems"] else 0


if __name__ == "__main__":
    sys.exit(main())
