"""The tables of docs/faults.md, cell by cell, against the real programs.

The faults are shared out to some applications with a gateway each. Their script moves north by STEP with each message, so
that the counter of a position tells where it should be, and when it should have come."""

import dataclasses
import json
import re
import subprocess
import threading
import time
import unittest

from desk import APPLICATION, GATEWAY, POSCTL, SOURCE, Desk, until

STEP = 1e-5  # degrees of latitude between two messages
INTERVAL = 0.1  # seconds between them
METRE = 1 / 111_195.08  # in degrees of latitude
IN_FORCE = 6.5  # seconds, longer than the time-out of inputs and outputs
AT_ONCE, TIMED_OUT = (0, 0.2), (5, 5.6)  # seconds until an identifier changes
SLACK = 2.0  # seconds, on a busy machine
LANES = 5  # applications at the same time
PAGE = SOURCE / "docs/faults.md"


@dataclasses.dataclass
class Row:
    """Of the page. What is empty is as without a fault."""
    fault: str
    leaves: str  # a key of LEAVES
    errors: str  # of GNSS (d_14a0) and DR (d_14a1), which the monitors report
    record: str  # d_14a2, a key of RECORDS
    bus: str  # "d_1191 positions"
    log: str  # a key of LOG
    counter: str  # of posctl stats
    detected: str
    stamps: bool  # with ignoreGNSSTimestamps off


def north(one):
    """Metres north of where the position should be; far away without a latitude."""
    return (one["LAT"] - 48 - one["messageCounter"] * STEP) / METRE if one.get("LAT") is not None else 1e9


def right(all, low=-0.1, high=0.1):
    return bool(all) and {low <= north(one) <= high for one in all} == {True}


def rate(all, low=8, high=12):
    return low <= len(all) / (IN_FORCE - 0.5) <= high


def steps(all):
    counters = [one["messageCounter"] for one in all]
    return {later - earlier for earlier, later in zip(counters, counters[1:])}


def flows(all):
    """Every message leaves once, in its order."""
    return rate(all) and steps(all) == {1}


def still(all):
    return rate(all) and len({one["LAT"] for one in all}) == 1


def lacks(all, *names):
    return flows(all) and not any(one.get(name) is not None for one in all for name in names)


def late(all, low, high):
    """Whether the latest one came between these seconds after its time."""
    return low < max(one["late"] for one in all) < high + SLACK


def aged(all, low, high):
    return flows(all) and right(all) and low < all[-1]["age"] / 1e6 < high + SLACK


LEAVES = {
    "nothing": lambda all: not all,
    "every position": lambda all: flows(all) and right(all),
    "half of the positions": lambda all: rate(all, 2, 8) and right(all),
    "positions without coordinates": lambda all: lacks(all, "LAT", "LON", "speed2D"),
    "positions without `LAT`": lambda all: lacks(all, "LAT") and {one["LON"] for one in all} == {11},
    "positions with NaN": lambda all: lacks(all, "LAT", "LON", "speed2D") and "LAT" in all[0],
    "positions with infinities": lambda all: lacks(all, "LAT", "LON", "speed2D") and "LAT" in all[0],
    "the position of the beginning, with counters that go on": lambda all: still(all) and steps(all) == {1},
    "the position of the beginning, with its counter": lambda all: still(all) and steps(all) == {0},
    "positions that scatter, `accuracyHorizontal` 200": lambda all: flows(all) and
        {one["accuracyHorizontal"] for one in all} == {200} and 50 < max(map(north, all)) - min(map(north, all)) < 2000,
    "positions that move away by 5 m/s": lambda all: flows(all) and
        abs(north(all[-1]) - north(all[0]) - 5 * INTERVAL * (len(all) - 1)) < 5,
    "positions 1000 m north": lambda all: flows(all) and right(all, 999, 1001),
    "`LAT` 91, `LON` 181": lambda all: flows(all) and {(one["LAT"], one["LON"]) for one in all} == {(91, 181)},
    "every position, 2 s late": lambda all: steps(all) == {1} and right(all) and late(all, 1.9, 2),
    "every position, up to 0.5 s late": lambda all: steps(all) == {1} and right(all) and late(all, 0.3, 0.5),
    "every 3 s 30 positions at once": lambda all: steps(all) == {1} and right(all) and late(all, 2.7, 3),
    "every position twice": lambda all: rate(all, 16, 24) and steps(all) == {0, 1} and right(all),
    "every position, each pair in the wrong order": lambda all: rate(all) and steps(all) == {-1, 3} and right(all),
    "every position, `age` 2 s": lambda all: steps(all) == {1} and right(all) and 1.9 < all[-1]["age"] / 1e6 < 2 + SLACK,
    "every position, `age` 10 s": lambda all: aged(all, 10, 10),
    "every position, `age` 60 s": lambda all: aged(all, 60 - SLACK, 60),
    "every position, `age` grows by 0.1 s/s": lambda all: aged(all, 0.5, 0.7),
    "every position, `age` modulo 2^32 us": lambda all: aged(all, 1024 * 7 * 86400 % (2**32 / 1e6), 1024 * 7 * 86400 % (2**32 / 1e6)),
    "the position of the beginning, `age` grows": lambda all: still(all) and steps(all) == {0} and 5 < all[-1]["age"] / 1e6,
}
# The latitude of d_14a2, and the latest position.
RECORDS = {
    "follows": lambda latitude, one: abs(latitude - one["LAT"]) < 40 * STEP,
    "follows the source": lambda latitude, one: latitude - one["LAT"] > 20 * STEP,
    "stands still": lambda latitude, one: latitude is not None,
    "not valid": lambda latitude, one: latitude is None,
    "`LAT` 90 and more": lambda latitude, one: latitude == 91,
    "scatters": lambda latitude, one: abs(latitude - one["LAT"]) < 2000 * METRE,
}
# Other texts of a log cell stand for themselves; "…" is anything.
LOG = {
    "LAT=nan": "LAT=-?nan",
    "sample is … old, 0.1 s": r"sample is 1\d{5} us old",
    "sample is … old, up to 0.5 s": r"sample is [3-9]\d{5} us old",
    "sample is … old, up to 3 s": r"sample is (2[5-9]|3)\d{5,6} us old",
    "sample is … old, more and more": r"sample is [4-9]\d{5} us old",
    "sample is … old, 2 s": r"sample is 2\d{6} us old",
    "sample is … old, 5 s": r"sample is 5\d{6} us old",
    "sample is … old, 10 s": r"sample is 1[01]\d{6} us old",
    "sample is … old, 1024 weeks": r"sample is 61931520\d{7} us old",
    "sample is … into the future": r"sample is [56]\d{7} us into the future",
}
CHANGE = "Changing of state, ID = {} , prev status = Nominal , new status = Error"
MONITORS = {"GNSS": "POS_Input_GNSS", "DR": "POS_Output_DeadReckoning"}
# Also what ends the fault before, and a subscription that crosses a withdrawn offer.
ROUTINE = re.compile(r"Sending |REPLACING|is being sent as MM|sendEvent\(\)|###### position|has restarted| TRCE |"
                     r"prev status = Error , new status = Nominal|refuses the subscription")


def rows_of_the_page():
    """Those of the two tables; the second one is with ignoreGNSSTimestamps off."""
    lines = PAGE.read_text(encoding="utf-8").splitlines()
    heads = [number for number, line in enumerate(lines) if line.startswith("| fault | leaves the application |")]
    for number, line in enumerate(lines[heads[0]:], heads[0]):
        fault, *cells = [cell.strip() for cell in line.strip("|").split("|")] if line.startswith("| `") else [""]
        if fault:
            leaves, errors, record, bus, log, counter, detected = cells
            yield Row(fault.strip("`"), leaves, errors, record, bus, log.strip("`"), counter.replace("`", ""), detected,
                      number > heads[1])


def bounds(row):
    """Seconds until each identifier changes."""
    changes = {one.split()[0]: AT_ONCE for one in row.bus.split("; ") if one}
    return changes | {{"GNSS": "d_14a0", "DR": "d_14a1"}[one]: TIMED_OUT for one in row.errors.split(", ") if one}


def detected(row):
    first = min(bounds(row).values(), default=None)
    return f"{first[0]} to {first[1]} s" if first else "nothing; a counter of `posctl stats`" if row.counter else "nothing"


class Readings:
    """The JSON lines of a command that runs on."""

    def __init__(self, process):
        self.lines = []
        threading.Thread(target=self._read, args=(process.stdout,), daemon=True).start()

    def _read(self, stream):
        for line in stream:
            self.lines.append(json.loads(line))


class Lane:
    def __init__(self, desk, stamps):
        self.desk = desk
        if stamps:
            code, _, errors = desk.run(POSCTL, "set", "ignoreGNSSTimestamps", "false", "--timeout", 0.1, "--node", "posctl")
            assert code == 0, errors
        self.write_script(desk.path / "script")
        self.application = desk.start(APPLICATION)
        self.gateway = desk.start(GATEWAY, "--script", desk.path / "script", "--control")
        self.watch = Readings(desk.start(POSCTL, "watch", "--json", "--field", "positions", "--node", "posctl"))
        self.monitors = Readings(desk.start(POSCTL, "monitors", "--json", "--reports-only", "--node", "posctl"))
        until(lambda: len(self.positions()) > 20, "positions")
        until(self.is_right, "all is well")

    @staticmethod
    def write_script(path):
        with open(path, "w", encoding="utf-8") as file:
            for count in range(6000):
                fields = {"positions": {"LAT": 48 + count * STEP, "LON": 11, "speed2D": 11.1, "accuracyHorizontal": 2},
                          "positionsQuality": {"hDOP": 1, "statusFixType": 3}, "posGnssSatInfos": {"satelliteId": 5}}
                for field, record in fields.items():
                    print(json.dumps({"t": count * INTERVAL, "field": field, "records": [record]}), file=file)

    def positions(self, begin=0):
        """Those received since then. `late` is measured from the earliest of all."""
        all = [record | {"received": line["received"]} for line in list(self.watch.lines) for record in line["records"]
               if "messageCounter" in record or "age" in record and len(record) > 3]
        origin = min((one["received"] - one["messageCounter"] * INTERVAL for one in all), default=0)
        return [one | {"late": one["received"] - one["messageCounter"] * INTERVAL - origin} for one in all
                if one["received"] >= begin]

    def posctl(self, *arguments):
        code, output, errors = self.desk.run(POSCTL, *arguments, "--node", "posctl")
        assert code == 0, (arguments, code, errors)
        return output

    def call(self, method):
        return json.loads(self.posctl("call", method))["result"]

    def moments(self, method, changes):
        """When each of the changes came about, the last of its name. Every answer was made between
        two times; some of them together say it well."""
        first, last = {}, {}
        for _ in range(4):
            before = time.time()
            ages = sorted(changes(self.call(method)), key=lambda one: -one[1])
            after = time.time()
            for name, age in dict(ages).items():
                first[name] = max(first.get(name, 0), before - age / 1000)
                last[name] = min(last.get(name, after), after - age / 1000)
        return {name: (first[name] + last[name]) / 2 for name in first}

    def identifiers(self):
        return {one["did"]: one["values"] for one in map(json.loads, self.posctl("read", "all", "--json").splitlines())}

    def is_right(self):
        values = self.identifiers()
        latitude = values["d_14a2"]["latitude"]
        return errors_of(values) == bus_of(values) == "" and right(self.positions(time.time() - 0.5)) and \
            latitude is not None and RECORDS["follows"](latitude, self.positions()[-1])

    def counters(self):
        return self.call("Statistics.Stamps")

    def log(self):
        return self.application.log.read_text(errors="replace")

    def times(self, began):
        """Seconds from the beginning of the fault until an identifier changed."""
        def changes(state):
            return [(f"d_119{one['fault']}", one["sinceMs"]) for one in state["faults"]] + \
                [(f"d_14a{one['group']}", one["sinceMs"]) for one in state["statuses"] if one["group"] < 2]

        after = {name: moment - began for name, moment in self.moments("Statistics.Diagnosis", changes).items()}
        return {name: seconds for name, seconds in after.items() if seconds > -0.3}

    def play(self, test, row):
        counters, log, reports = self.counters(), len(self.log()), len(self.monitors.lines)
        self.posctl("fault", row.fault)
        began = self.moments("FaultControl.Faults", lambda all: [("fault", one["sinceMs"]) for one in all])["fault"]
        until(lambda: time.time() > began + IN_FORCE, "the time that the fault is in force")
        positions, latest = self.positions(began + 0.5), self.positions()[-1]
        values, times, grown = self.identifiers(), self.times(began), self.counters()
        reports = {one["name"] for one in self.monitors.lines[reports:] if one["action"] == "kFailed"}
        log = self.log()[log:]
        self.posctl("fault", "clear", row.fault.split("=")[0])

        failed = MONITORS if row.errors == "GNSS, DR" else {row.errors: MONITORS.get(row.errors)} if row.errors else {}
        text = LOG.get(row.log, re.escape(row.log).replace("…", ".*"))
        lines = [line for line in log.splitlines() if not ROUTINE.search(line)]
        told = f"{positions[:2]} {positions[-1:]} {times} {lines[:3]}"
        test.assertTrue(LEAVES[row.leaves](positions), told)
        test.assertEqual(errors_of(values), row.errors, told)
        test.assertEqual(bus_of(values), row.bus, told)
        test.assertTrue(RECORDS[row.record](values["d_14a2"]["latitude"], latest), (values["d_14a2"], latest))
        test.assertEqual(values["d_14a3"], test.system.setdefault("d_14a3", values["d_14a3"]), "never changes")
        test.assertEqual(reports, set(failed.values()))
        if row.log:
            test.assertRegex(log, text)
        changes = [CHANGE.format(name) for name in failed.values()]
        for line in changes:
            test.assertIn(line, log)
        for line in lines:
            test.assertTrue(any(one in line for one in changes) or row.log and re.search(text, line), line)
        grows = {name for name, count in grown.items() if count > counters[name]} - {"notifications"}
        test.assertEqual(grows, set(re.findall(r"\w+", row.counter)))
        test.assertEqual(times.keys(), bounds(row).keys(), times)
        for identifier, (low, high) in bounds(row).items():
            test.assertTrue(low - 0.3 < times[identifier] < high + SLACK, times)
        until(self.is_right, f"as before {row.fault}")


def errors_of(values):
    """Which of GNSS and DR are in Error; every other status never changes."""
    states = {"GNSS": values["d_14a0"]["gnss"], "DR": values["d_14a1"]["deadReckoning"]}
    others = {one for name, one in values["d_14a0"].items() if name != "gnss"}, values["d_14a1"]["mapMatched"]
    assert others == ({"NotAvailable"}, "Init") and values["d_14a1"]["staticOutput"] == "Nominal", values
    return ", ".join(name for name, status in states.items() if status == "Error")


def bus_of(values):
    """The data bus faults that are present."""
    texts = []
    for identifier in ("d_1190", "d_1191", "d_1192"):
        elements = [one.get("element", one["service"]) for one in values[identifier]["faults"] if one["present"]]
        if elements:
            texts.append(f"{identifier} {', '.join(elements)}")
    return "; ".join(texts)


class Faults(unittest.TestCase):
    maxDiff = None

    def test_every_cell(self):
        self.system = {}
        rows = list(rows_of_the_page())
        self.assertGreater(len(rows), 40)
        self.assertEqual([row.detected for row in rows], [detected(row) for row in rows])
        shared = [[row for row in rows if not row.stamps][lane::LANES - 1] for lane in range(LANES - 1)]
        shared.append([row for row in rows if row.stamps])
        wrong = []

        def play(rows):
            with Desk() as desk:
                lane = Lane(desk, rows[0].stamps)
                for row in rows:
                    try:
                        lane.play(self, row)
                    except AssertionError as error:
                        wrong.append(f"{row.fault}{' (stamps)' if row.stamps else ''}: {error}")

        threads = [threading.Thread(target=play, args=(rows,)) for rows in shared]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])

    def test_the_page_has_the_table_of_the_program(self):
        known = subprocess.run([GATEWAY, "--list-faults"], capture_output=True, text=True, check=True).stdout
        self.assertIn(known, PAGE.read_text(encoding="utf-8"))
        self.assertEqual(set(re.findall(r"^\| `([\w-]+)` \|", known, re.MULTILINE)),
                         {row.fault.split("=")[0] for row in rows_of_the_page()})


if __name__ == "__main__":
    unittest.main()
