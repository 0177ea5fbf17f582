"""A group of conformance tests: unittest cases whose methods say which requirements they look at, and
the table that comes out of them."""

import functools
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import devices
import network as net

RESULTS = devices.BUILD / "tests/conformance"
# What tshark finds wrong with a message.
COMPLAINTS = ("_ws.malformed", "someip.incomplete_headers", "someip.unknown_protocol_version",
              "someip.tp.fragment.error", "someipsd.message_truncated",
              "someipsd.entry_array_malformed", "someipsd.entry_array_empty", "someipsd.entry_unknown",
              "someipsd.option_array_truncated", "someipsd.option_array_bytes_left",
              "someipsd.option_unknown", "someipsd.option_wrong_length",
              "someipsd.L4_protocol_unsupported", "someipsd.config_string_malformed")
_LINE = re.compile(r"\s+")


def covers(ids, text):
    """Marks a test: the requirements (ids, separated by spaces) and what is looked at."""
    def mark(function):
        function.covers = (ids.split(), _LINE.sub(" ", text).strip())
        return function
    return mark


def not_met(why):
    """Marks a test, below `covers`, of what the runtime does not do: the test has to fail, and the table
    says why."""
    def mark(function):
        @functools.wraps(function)
        def wrapped(self):
            try:
                function(self)
            except AssertionError:
                self.skipTest("not met: " + _LINE.sub(" ", why).strip())
            self.fail(f"met by now, against the mark: {why}")
        return wrapped
    return mark


class Group(unittest.TestCase):
    """A group of rules. `title` heads its table, `base` chooses its addresses; `not_applicable` has
    (ids, what, why) each; `application` starts the application once for all tests."""

    maxDiff = None
    title = None
    base = 0
    application = {}  # timing, None: the group needs none
    not_applicable = ()

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="pos-conformance-")
        cls.network = net.Network(cls.base)
        cls.pos = None
        if cls.application is not None:
            peer = cls.network.peer()
            cls.pos = devices.Application(cls.network, cls.folder.name, **cls.application)
            cls.pos.running(peer)
            peer.close()

    @classmethod
    def tearDownClass(cls):
        if cls.pos:
            cls.pos.kill()
        cls.network.close()
        cls.folder.cleanup()

    def setUp(self):
        self.start = len(self.network.seen)

    def peer(self, **options):
        made = self.network.peer(**options)
        self.addCleanup(made.close)
        return made

    def host(self, *commands, **options):
        made = devices.Host(self.network, self.folder.name, **options)
        self.addCleanup(made.kill)
        for command in commands:
            made.do(command)
        return made

    def offered(self, peer, service, **fields):
        """Waits for an offer of the device under test."""
        return peer.entry(net.OFFER, service, **fields)

    def in_time(self, measure, attempts=4):
        """Runs a measurement that a busy machine may spoil until it succeeds."""
        for attempt in range(attempts):
            try:
                return measure()
            except AssertionError:
                if attempt == attempts - 1:
                    raise

    # Everything a device sent in this group, dissected by another program.

    @classmethod
    def dissect(cls):
        capture = pathlib.Path(cls.folder.name) / "capture.pcap"
        cls.network.write_capture(capture)
        ports = [str(cls.network.discovery_port), "30501-30542", "30701-30799", "49201"]
        decode = [word for port in ports for layer in ("udp", "tcp")
                  for word in ("-d", f"{layer}.port=={port},someip")]

        def count(which):
            run = subprocess.run(["tshark", "-r", str(capture), *decode, "-Y", which], check=True,
                                 capture_output=True, text=True)
            return run.stdout.splitlines()
        return (count(" || ".join(COMPLAINTS)),
                len(count("someip")), len(cls.network.raw))


class _Result(unittest.TextTestResult):
    """Remembers the verdicts."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.verdicts = {}

    def startTest(self, test):
        super().startTest(test)
        self.verdicts[test._testMethodName] = "pass"

    def _fail(self, test):
        test = getattr(test, "test_case", test)
        if hasattr(test, "_testMethodName"):
            self.verdicts[test._testMethodName] = "FAIL"

    def addError(self, test, error):
        super().addError(test, error)
        self._fail(test)

    def addFailure(self, test, error):
        super().addFailure(test, error)
        self._fail(test)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        met = not reason.startswith("not met")
        self.verdicts[test._testMethodName] = f"not run ({reason})" if met else reason

    def addSubTest(self, test, subtest, error):
        super().addSubTest(test, subtest, error)
        if error is not None:
            self._fail(test)


def rows_of(group, verdicts):
    """(ids, text, verdict) each, in the order of the file."""
    rows = []
    for name, function in vars(group).items():
        if hasattr(function, "covers"):
            ids, text = function.covers
            rows.append((ids, text, verdicts.get(name, "not run")))
    for ids, text, why in group.not_applicable:
        rows.append((ids.split(), _LINE.sub(" ", text).strip(),
                     "does not apply: " + _LINE.sub(" ", why).strip()))
    return rows


def table(rows):
    lines = ["| Requirements | What is checked | Verdict |", "|---|---|---|"]
    lines += [f"| {', '.join(ids)} | {text} | {verdict} |" for ids, text, verdict in rows]
    return "\n".join(lines) + "\n"


def main(group):
    """Runs the group (or the tests that the command line names), prints its table, leaves it for
    table.py."""
    name = pathlib.Path(sys.argv[0]).stem
    result_file = RESULTS / f"{name}.json"
    names = sys.argv[1:]
    loader = unittest.TestLoader()
    loader.sortTestMethodsUsing = None
    order = [one for one, function in vars(group).items() if hasattr(function, "covers")]
    unmarked = set(loader.getTestCaseNames(group)) - set(order)
    assert not unmarked, f"tests without requirement: {unmarked}"
    if not names:
        result_file.unlink(missing_ok=True)
    tests = unittest.TestSuite(group(one) for one in order
                               if not names or any(wanted in one for wanted in names))
    runner = unittest.TextTestRunner(verbosity=2, resultclass=_Result)
    result = runner.run(tests)
    rows = rows_of(group, result.verdicts)
    print(f"{group.title}\n\n{table(rows)}")
    if not names:
        result_file.write_text(json.dumps({"title": group.title, "rows": rows}), encoding="utf-8")
    sys.exit(0 if result.wasSuccessful() else 1)
