"""Every line that this system logs, as dlt-receive gets it from a dlt-daemon: level, context and each
argument by itself. log_texts.approved lists them for each run; a line that is missing there, or missing
in the run, fails the test. `--approve` rewrites the list from what the runs log.

The application runs with scapy peers, once for each state of its storage and clock; log_texts_host brings
about what no run of the application does."""

import contextlib
import difflib
import json
import re
import signal
import subprocess
import sys

from desk import APPLICATION, BUILD, SANITIZERS, SOURCE, Desk, until
from dlt import Log
from network import NOTIFICATION, SUBSCRIBE, Network, endpoint, offer, someip
from payload import block, f32, f64, records, u8, u32, u64
from tester import CLEAR, D_14A0, MONITOR, NO_TEXTS, REENABLED, RESTART, Tester

HOST = BUILD / "tests/system/log_texts_host"
APPROVED = SOURCE / "tests/system/log_texts.approved"
APPROVE = "--approve" in sys.argv
GNSS, TIME = "lumo::services::gnss::GNSS", "lumo::services::time::Time"
POSITIONING = "lumo::services::positioning::Positioning"
MANIFEST = json.loads((SOURCE / "config/manifest.json").read_text(encoding="utf-8"))
OFFERED = sum(one["node"] == "POS" for service in MANIFEST["services"].values() for one in service["instances"])
MONITORS = [one["specifier"].removeprefix("DiagnosticMonitor_") for one in MANIFEST["services"][MONITOR]["instances"]]

# What the build, the machine or the run decides.
DECIDED = [(re.compile(pattern), text) for pattern, text in (
    (r"[^\s\"|]*/pos-test-\w+", "{folder}"),
    (r"(?<=[|-])\d+\.\d+\.\d+(?=\|)", "{version}"),
    (r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC", "{time}"),
    (r"(?<=sample is )\d+(?= us )|(?<=arrivalTime = )\d+|(?<=sent pos: \|)\d+", "{number}"),
    (r"(?<=sample: seconds \|)\d+(\|, nanoseconds \|)\d+", r"{number}\1{number}"),
    (r'(?<=_time":)\d+', "{number}"))]
# Groups of messages that one thread logs come in order, each time; of the others each text counts once.
EACH_TIME = {"POS", "POS of data", "DBAC", "CCSW", "DSRV", "PHMT"}
WITHOUT_ORDER = {"SIPR", "TRCE", "MWCB"}
# Of the trace records those of one service of each kind, one event and two monitors; of the others the form only.
TRACED = re.compile(r"(?!.*:3277).*(gnss::GNSS|positioning::Positioning|d_14a0|5350[45]|Unknown|Event_update_tx)")


def line_of(message):
    line = "|".join(["", *message.arguments, ""]).replace("\n", "\\n").replace("\t", "\\t")
    for pattern, text in DECIDED:
        line = pattern.sub(text, line)
    return f"{message.context} {message.level} {line}"


def group_of(message, line):
    """The messages whose order the run decides stand in groups of their own."""
    if message.context == "POS" and re.match(r"###|Sending|REPL|Times", message.arguments[0]):
        return "POS of data"
    subject = {"DSRV": r"POS_\w+", "TRCE": r"(lumo|mw)::[\w:]+"}.get(message.context)
    found = subject and re.search(subject, line)
    return f"{message.context} of {found[0]}" if found else message.context


def transcript(messages):
    groups = {}
    for one in messages:
        line = line_of(one)
        if one.context == "TRCE" and not TRACED.match(line):
            continue
        group = groups.setdefault(group_of(one, line), [])
        if group_of(one, line) in EACH_TIME or line not in group:
            group.append(line)
    return [row for name in sorted(groups) for row in
            (f"-- {name}", *(sorted(groups[name]) if name in WITHOUT_ORDER else groups[name]))]


def approved(name):
    rows = APPROVED.read_text(encoding="utf-8").partition(f"== {name}\n")[2].partition("\n== ")[0].splitlines()
    # A join that fails counts as a join for the thread sanitizer, so the host leaves it out.
    return [one for one in rows if not ("thread" in SANITIZERS and "joining the timer thread" in one)]


DESCRIPTIONS = {
    "GNSS": "gnssClientImpl class own context", "TMCL": "TimemasterClientImpl class own context",
    "CCSW": "ComponentClietWrapper class own context", "DBAC": "Persistency access",
    "PSRV": "posServiceImpl class own context", "DSRV": "diagnosisServiceImpl class own context",
    "PHMC": "phmClientImpl class own logger", "PHMT": "PHM Timer Logger", "TRCE": "Binding trace",
}

# --- the peers and the processes


class Run:
    all = []

    def __init__(self, desk, log, name, program, *arguments, **options):
        self.name, self.log = name, log
        self.process = desk.start(program, *arguments, **options)
        self.all.append(self)

    def messages(self):
        return self.log.of(self.process.pid)

    def count(self, text):
        """The number of lines with this text."""
        return sum(text in line_of(one) for one in self.messages())

    def wait(self, *texts, more_than=0):
        for text in texts:
            until(lambda: self.count(text) > more_than, f"{self.name}: {text}")

    def end(self, number=None, code=0):
        if number:
            self.process.send_signal(number)
        assert self.process.wait(30) == code, (self.name, self.process.returncode)
        for one in self.messages():
            if one.context == "TRCE":
                check_record(*one.arguments)
        if APPROVE:
            return
        with contextlib.suppress(AssertionError):  # check() says what is missing
            until(lambda: transcript(self.messages()) == approved(self.name), self.name)
        self.check()

    def check(self):
        difference = list(difflib.unified_diff(approved(self.name), transcript(self.messages()), "approved", self.name,
                                               lineterm=""))
        assert not difference, "\n".join(difference)


def check_record(trace):
    """One JSON object with its keys in order."""
    def ordered(pairs):
        numbers = [int(key.split("_")[0]) for key, _ in pairs if key[0].isdigit()]
        assert numbers == sorted(numbers), trace
    json.loads(trace, object_pairs_hook=ordered)


INIT, ERROR, LOGICAL, PHYSICAL = 1, 2, 3, 4
FULL_POSITION = [
    u32(0, 2), u32(1, 4294967295), f64(2, 48.137154), u32(3, PHYSICAL), f64(4, -1e-5), u32(5, LOGICAL),
    f32(6, 519.5), u32(7, ERROR), f32(8, 566.1), u32(9, INIT), f32(10, 359.9), u32(11, 5), f32(14, 0.0),
    u32(40, 1700000000), u32(41, PHYSICAL), u32(42, 500000999), u32(43, PHYSICAL)]
FUTURE_POSITION = [u32(0, 1), u32(40, 4294967295), u32(42, 1999)]
FULL_QUALITY = [
    u32(0, 1), f32(1, 2.5), u32(2, PHYSICAL), f32(3, 0.9), u32(4, INIT), f32(5, 1e20), u32(6, ERROR), f32(7, 3.0),
    u8(9, 1), u32(10, 2), u32(11, 3), u32(12, 10), u32(13, PHYSICAL), u32(14, 17), u32(17, 12),
    u32(18, PHYSICAL), u32(20, 14), u32(33, 1)]
MALFORMED = [
    records([u32(2, 0)]),                             # a latitude of 32 bits
    block(block(u32(1, 7), 4)),                       # a record announced shorter than its member
    b"\0\0\0",
    block(b"", 1),
]


class Source:
    """Offers GNSS and Time, acknowledges subscriptions once told to, and notifies."""

    def __init__(self, desk, network):
        self.peer = network.peer(desk.address(20))
        self.services = {name: desk.manifest["services"][name] for name in (GNSS, TIME)}
        self.ids = {name: int(service["id"], 0) for name, service in self.services.items()}
        self.sockets = {name: self.peer.socket(service["instances"][0]["udpPort"])
                        for name, service in self.services.items()}
        self.waiting = []  # for their acknowledgement; None: nobody does
        self.peer.unicast.on_entry = self.answer

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.peer.close()

    def offer(self, name):
        self.peer.tell(offer(self.ids[name]), [endpoint(self.sockets[name])])

    def answer(self, entry):
        if entry.type == SUBSCRIBE and entry.ttl:
            if self.waiting is None:
                self.peer.acknowledge(entry)
            else:
                self.waiting.append(entry)

    def acknowledge(self):
        """Those that wait, and from now on each that comes."""
        waiting, self.waiting = self.waiting, None
        for entry in waiting:
            self.answer(entry)

    def subscriber(self, name, field):
        """Where the application wants a field; waits for its subscription."""
        group = int(self.services[name]["fields"][field]["eventGroup"], 0)
        return self.peer.entry(SUBSCRIBE, self.ids[name], group=group, seconds=30).endpoints[0][:2]

    def notify(self, name, field, payload):
        event = int(self.services[name]["fields"][field]["notifier"], 0)
        self.sockets[name].send(someip(self.ids[name], event, payload, type=NOTIFICATION, client=0),
                                self.subscriber(name, field))


# --- the runs


def empty_storage(desk, log, network, tester):
    run = Run(desk, log, "an empty storage", APPLICATION,
              environment={"POS_LOG_LEVEL": "info,PHMC=verbose,TRCE=verbose"})
    with Source(desk, network) as source:
        run.wait("startup finished")
        descriptions(desk)
        first, *others = MONITORS
        tester.init_monitor(first, REENABLED)
        for name in others:
            tester.init_monitor(name, RESTART)
        tester.call(D_14A0, NO_TEXTS)
        tester.init_monitor(first, b"", code=9)
        source.offer(GNSS)
        source.subscriber(GNSS, "positions")
        run.wait("Find_service_handler_performance")  # subscribing is a part of the search's handler
        source.notify(GNSS, "positions", records(FULL_POSITION))
        run.wait("Sending |GNSS-DR|")
        source.acknowledge()
        source.notify(GNSS, "positions", records([], FUTURE_POSITION, [u32(0, 2)]))
        run.wait("original seconds |missing|")
        source.notify(GNSS, "positionsQuality", records(FULL_QUALITY, []))
        run.wait("positionType value is not set")
        for number, payload in enumerate(MALFORMED):
            source.notify(GNSS, "positions", payload)
            run.wait(f"malformed payload of|{GNSS}", more_than=number)
        run.wait(*(f"ID =|{name}|, prev status =|Nominal|, new status =|Error"  # nothing has come for the time-out
                   for name in ("POS_Output_DeadReckoning", "POS_Input_GNSS")))
        source.notify(GNSS, "posGnssSatInfos", records())
        run.wait("ID =|POS_Input_GNSS|, prev status =|Error|, new status =|Nominal")
        tester.init_monitor("POS_Input_GNSS", CLEAR)
    run.process.send_signal(signal.SIGUSR1)
    run.wait("storing|forbidden")
    run.process.send_signal(signal.SIGUSR2)
    run.wait("storing|allowed")
    run.end(signal.SIGTERM)
    offers, stops = (run.count(f'"1_id":"{name}"') for name in ("Offer_service", "Stop_offer_service"))
    assert offers == stops == OFFERED, (offers, stops)


def descriptions(desk):
    """What the daemon knows of the application and its contexts."""
    told = subprocess.run(["dlt-control", "-j", "-p", str(desk.dlt_port), "localhost"], capture_output=True, text=True,
                          timeout=20).stdout
    assert f"APID:POS- POS application\n" in told, told
    contexts = dict(re.findall(r"^CTID:(\w{4})  \d  0 (.*)$", told, re.MULTILINE))
    contexts.pop("SIPR", None)  # there when the runtime had something to say
    assert contexts == DESCRIPTIONS, contexts


# As they are stored; the last one is a number.
STORED = {"recievedGNSSDataLogging": False, "ignoreGNSSTimestamps": True, "alwaysSendAllValidPositions": False,
          "useGNSSDR": False, "timeClientEnabled": True, "mmNewPositionCalculationIntervalMS": 4294967295}


def full_storage(desk, log, network):
    storage = desk.path / "full"
    storage.mkdir()
    values = {key: {"type": "Boolean" if isinstance(value, bool) else "UInt32", "value": value}
              for key, value in STORED.items()}
    (storage / "POS_Key_Value_Port.json").write_text(json.dumps(values), encoding="utf-8")
    run = Run(desk, log, "a full storage", APPLICATION, environment={"POS_STORAGE_DIR": str(storage)})
    with Source(desk, network) as source:
        source.acknowledge()
        run.wait("startup finished")
        source.offer(GNSS)
        run.wait("GNSS info |generalClientImpl: connected to instance ")
        source.offer(TIME)
        source.notify(TIME, "times", records([u32(0, 2), u64(5, 1234999)], [u64(5, 18446744073709551615)], [u32(0, 3)],
                                             []))
        run.wait("type missing, |pltOffset missing")  # the two services have threads of their own
        source.notify(GNSS, "positions", records(FULL_POSITION, FUTURE_POSITION))
        run.wait("Sending |GNSS| input", *(
            f"ID =|{name}|, prev status =|Init|, new status =|Nominal"
            for name in ("POS_Input_Time", "POS_Input_GNSS", "POS_Output_DeadReckoning")))
    run.end(signal.SIGINT)


def other_storages(desk, log):
    storage = desk.path / "broken"
    storage.mkdir()
    (storage / "POS_Key_Value_Port.json").write_text("{", encoding="utf-8")
    run = Run(desk, log, "a broken storage", APPLICATION, environment={"POS_STORAGE_DIR": str(storage)})
    run.wait("startup finished")
    run.end(signal.SIGTERM)
    below = {"POS_STORAGE_DIR": str(storage / "POS_Key_Value_Port.json" / "store")}
    Run(desk, log, "no storage", APPLICATION, environment=below).end(code=104)


def failures(desk, log, network, tester):
    elsewhere = {"POS_STORAGE_DIR": str(desk.path / "no clock"), "POS_TIME_BASE": "/dev/null/no-clock"}
    Run(desk, log, "no clock", APPLICATION, environment=elsewhere).end(code=104)
    elsewhere = {"POS_STORAGE_DIR": str(desk.path / "exit code")}
    Run(desk, log, "an exit code", HOST, "exit-code", environment=elsewhere).end(code=3)

    run = Run(desk, log, "classes", HOST, "classes", stdin=subprocess.PIPE,
              environment={"POS_STORAGE_DIR": str(desk.path / "full")})
    assert run.process.stdout.readline() == "ready\n"
    with Source(desk, network) as source:
        source.offer(GNSS)
        source.subscriber(GNSS, "positions")
        source.acknowledge()
        run.wait("Event_state_handler_exception")
        source.notify(GNSS, "positions", records())
        run.wait("Event_receive_handler_exception")
        tester.subscribe(POSITIONING)
        run.wait("Notify enabled but Update not called")
        tester.call(POSITIONING, b"", code=1)
        tester.init_monitor("POS_Input_GNSS", CLEAR, code=1)
    run.process.stdin.close()
    run.end()


def main():
    with contextlib.ExitStack() as stack:
        desk = stack.enter_context(Desk())
        log = Log(desk)
        stack.callback(log.end)
        network = Network(desk=desk)
        stack.callback(network.close)
        tester = Tester(desk, network)
        empty_storage(desk, log, network, tester)
        full_storage(desk, log, network)
        other_storages(desk, log)
        failures(desk, log, network, tester)
        log.check_printed()
        if APPROVE:
            APPROVED.write_text("\n".join("\n".join([f"== {run.name}", *transcript(run.messages())])
                                          for run in Run.all) + "\n", encoding="utf-8")
        for run in Run.all:
            run.check()
        print(f"{len(log.messages)} messages")


if __name__ == "__main__":
    main()
