"""Runs the application between a GNSS source and a consumer, shows what comes out and sums up.

scripts/run calls it. Exit code 0: positions came, none was lost, and every program ended well.
"""

import argparse
import contextlib
import json
import math
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import time

FIRST_POSITION_TIMEOUT = 20.0
STATUS_TIMEOUT = 5.0
END_TIMEOUT = 15.0


class Program:
    """One child process, out of the terminal's reach: Ctrl-C is for us, the order of the end too."""

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
        """Returns what went wrong, or None."""
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
    """Reads what posctl prints, on a thread of its own."""

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
    """The application's own account of its state, and what went wrong, or None."""
    answer = subprocess.run(
        [posctl, "status", "--timeout", f"{STATUS_TIMEOUT:g}", *(["--json"] if as_json else [])],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=STATUS_TIMEOUT + END_TIMEOUT,
        check=False,
        start_new_session=True,
    )
    return answer.stdout, answer.stderr.strip() if answer.returncode != 0 else None


def percentile(values, part):
    """Nearest rank."""
    if not values:
        return None
    ordered = sorted(values)
    return ordered[max(0, math.ceil(part * len(ordered)) - 1)]


def main():
    parser = argparse.ArgumentParser(prog="scripts/run", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, help="end after so many seconds of positions")
    parser.add_argument("--json", action="store_true", help="print notifications and summary as JSON lines")
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("gateway", nargs="*", help="arguments for gnss-gateway, after --")
    options = parser.parse_args()

    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())

    logs = pathlib.Path("out/run")
    logs.mkdir(parents=True, exist_ok=True)
    problems = []
    started = []

    def start(name, command, **arguments):
        program = Program(name, [str(part) for part in command], logs / f"{name}.log", **arguments)
        started.append(program)
        return program

    def first_to_end():
        return next((program for program in started if program.ended()), None)

    with contextlib.ExitStack() as cleanup:
        storage = cleanup.enter_context(tempfile.TemporaryDirectory(prefix="pos-run-"))
        # Whatever happens here, nothing is left running.
        cleanup.callback(lambda: [program.kill() for program in started])
        application = start(
            "application",
            [options.build / "app" / "POS__ORVEL1_Sys_Adaptive_01_Exe"],
            environment={
                "POS_STORAGE_DIR": os.environ.get("POS_STORAGE_DIR", storage),
                "POS_INITDATA_DIR": os.environ.get("POS_INITDATA_DIR", str(pathlib.Path("config").resolve())),
            },
        )
        posctl = options.build / "tools/posctl/posctl"
        watch = start("posctl", [posctl, "watch", "--json"], stdout=subprocess.PIPE)
        consumer = Consumer(watch.process.stdout, options.json)
        statistics_path = logs / "gnss-gateway.json"
        with open(statistics_path, "wb") as statistics_file:
            gateway = start(
                "gnss-gateway",
                [options.build / "tools/gnss-gateway/gnss-gateway", "--json", *options.gateway],
                stdout=statistics_file,
            )

        end = None
        first_deadline = time.monotonic() + FIRST_POSITION_TIMEOUT
        while not stop.is_set():
            now = time.monotonic()
            if end is None and consumer.counters:
                end = now + options.seconds if options.seconds is not None else math.inf
            if (end is not None and now >= end) or first_to_end() is not None:
                break
            if end is None and now >= first_deadline:
                problems.append(f"no position within {FIRST_POSITION_TIMEOUT:g} s, see {logs}")
                break
            stop.wait(0.05)

        ended = first_to_end()
        if ended is not None and (ended is not gateway or ended.process.returncode != 0):
            problems.append(f"{ended.name} ended by itself")
        status = ""
        if not application.ended():
            status, problem = read_status(posctl, options.json)
            problems.append(problem)
        problems.append(gateway.stop())
        try:
            sent = json.loads(statistics_path.read_text(encoding="utf-8"))["notifications"]
        except (ValueError, KeyError):
            sent = 0
        # What is still on its way.
        consumer.wait_for(lambda: sent and consumer.counters[-1:] == [sent - 1], time.monotonic() + 1)
        for program in reversed(started):
            if program is not gateway:
                problems.append(program.stop())
        consumer.thread.join(END_TIMEOUT)

    # The source counts its notifications; the application hands the number on.
    counters = consumer.counters
    lost = counters[-1] - counters[0] + 1 - len(counters) if counters else 0
    if not counters:
        problems.append("no position came out")
    if lost != 0:
        problems.append(f"{lost} positions were lost between the first and the last")
    problems = [problem for problem in problems if problem]
    summary = {
        "gnssNotificationsIn": sent,
        "positionsOut": len(counters),
        "posMapInfosOut": consumer.map_infos,
        "beforeSubscription": counters[0] if counters else None,
        "lost": lost,
        "ageMedianUs": percentile(consumer.ages, 0.5),
        "age99thPercentileUs": percentile(consumer.ages, 0.99),
        "problems": problems,
    }
    if options.json:
        if status:
            print(json.dumps({"status": json.loads(status)}))
        print(json.dumps(summary), flush=True)
    else:
        print(
            f"\n{status}"
            f"\n{summary['gnssNotificationsIn']} GNSS notifications in"
            f" ({summary['beforeSubscription'] or 0} of them before the application had subscribed),"
            f"\n{summary['positionsOut']} positions and {summary['posMapInfosOut']} map-matched records out,"
            f" {lost} lost;"
            f"\nage of a position when sent: median {summary['ageMedianUs']} us,"
            f" 99th percentile {summary['age99thPercentileUs']} us."
        )
        for problem in problems:
            print(f"run: {problem}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
