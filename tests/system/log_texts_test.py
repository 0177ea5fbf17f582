"""Every line that this system logs, as dlt-receive gets it from a dlt-daemon: level, context and each
argument by itself. TEXTS is the list of them; what is logged beyond it fails the test too.

The application runs with scapy peers, once for each state of its storage and clock; log_texts_host brings
about what no run of the application does."""

import contextlib
import json
import re
import signal
import subprocess

from desk import APPLICATION, BUILD, SOURCE, Desk, until
from dlt import Log
from network import NOTIFICATION, SUBSCRIBE, Network, endpoint, offer, someip
from payload import block, f32, f64, records, u8, u32, u64
from tester import CLEAR, D_14A0, MONITOR, NO_TEXTS, REENABLED, RESTART, Tester

HOST = BUILD / "tests/system/log_texts_host"
NETWORK = 173
RECEIVER, TESTER = f"127.{NETWORK}.0.20", f"127.{NETWORK}.0.40"
DAEMON_PORT = 39173
THREAD_SANITIZER = re.search(r"^POS_SANITIZE:.*thread", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)

# --- what is expected: (context, level, argument, …); a pattern where the run decides the argument

NUMBER = re.compile(r"\d+")
VERSION = re.compile(r"\d+\.\d+\.\d+")
TIME = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC")
RELEASE = re.compile(r"linux-\d+\.\d+\.\d+")
ANY = re.compile(r".+")


def text(exact):
    """One argument with numbers that the run decides, written as {}."""
    return re.compile(r"\d+".join(map(re.escape, exact.split("{}"))))


def info(context, *arguments):
    return (context, "info", *arguments)


def error(context, *arguments):
    return (context, "error", *arguments)


BANNER = [
    info("POS", "POS application started. Version", VERSION, "build time", TIME, "talvik version used:", RELEASE),
    info("POS", "Used DFL version", VERSION),
    info("POS", "Used DM-Extensions version", VERSION),
    info("POS", "Required interface: GNSS. Version", "v3.0"),
    info("POS", "Required interface: Time. Version", "v4.1"),
    info("POS", "Provided interface: Positioning. Version", "v3.0"),
    info("POS", "Provided interface diagnosis: d_1190 (DataIdentifier_BDPSomeipDataBusServiceNotAvailable)."),
    info("POS", "Provided interface diagnosis: d_1191 (DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived)."),
    info("POS", "Provided interface diagnosis: d_1192 (DataIdentifier_BDPSomeipDataBusServiceImplausible)."),
    info("POS", "Provided interface diagnosis: d_14a0 (DataIdentifier_PositioningStatusInputs)."),
    info("POS", "Provided interface diagnosis: d_14a1 (DataIdentifier_PositioningStatusOutputs)."),
    info("POS", "Provided interface diagnosis: d_14a2 (DataIdentifier_PositioningMMPos)."),
    info("POS", "Provided interface diagnosis: d_14a3 (DataIdentifier_PositioningStatusSystem)."),
    info("POS", "Provided interface DiagnosticMonitor. Version from talvik", RELEASE),
]
# Of each process here that provides services: the manifest of the test has no lists.
OPEN_TO_ALL = ("SIPR", "warn", re.compile(
    r'.*: no service has "allowedPeers": every address of the network may use and provide every service'))
STARTED = info("POS", "posApplication startup finished, waiting for shutdown signal, data will be processed in "
               "receiver threads.")
LEFT = [
    info("POS", "destroying app."),
    info("POS", "delay before destroying runtime."),
    info("POS", "destroying runtime."),
    info("POS", "exiting main."),
]


def received(number, then):
    return info("POS", "posApplication::signalHandler, received sigId =", number, then)


TERMINATED = received("15", ", starting gracefull shutdown procedure")
INTERRUPTED = received("2", ", starting gracefull shutdown procedure")
FATAL = error("POS", "Fatal error in application, not handled exception caught: ", ANY,
              " Exiting application with return value ", "104", ".")

INTERVAL = "mmNewPositionCalculationIntervalMS"
SETTINGS = ["recievedGNSSDataLogging", "ignoreGNSSTimestamps", "alwaysSendAllValidPositions", "useGNSSDR", INTERVAL,
            "timeClientEnabled"]
STORED = dict(zip(SETTINGS, ("0", "1", "0", "0", "4294967295", "1")))
NO_SETTINGS = [info("DBAC", "No such entry for ", key) for key in SETTINGS]
LOCATION_NOT_FOUND = info(
    "DBAC", "exception: ExceptionStorageLocationNotFound calling KeyValueStorage constructor again.")
WARNING = info(
    "DBAC", "##### Warning: KeyValueStorage constructor threw an exception - file syntax could be "
    "incorrect.initdata-Key_Value_Port.json file should be fixed, default values set in app logic will be used. "
    "#####")
FORBIDDEN, ALLOWED = (info("DBAC", "Database: storing", word) for word in ("forbidden", "allowed"))

ENTERED = [
    info("PHMC", "enter phmClientImpl::init()"),
    info("DSRV", "enter diagnosisServiceImpl::init(), set default values, start offering services"),
    info("PSRV", "enter posServiceImpl::init(), setting dummy values for all fields"),
    info("PSRV", "Invalid latitude, longitude values."),
    info("PSRV", "POS Service update map info"),
    info("GNSS", "enter gnssClientImpl::init()"),
]


def sensors(time_master):
    labels = ["GNSS               ", "BD_Odometrie       ", "Kamera_Position    ", "Kamera_Landmarken  ",
              "TopView_Landmarken ", "Lidar_Landmarken   ", "Radar_Landmarken   ", "BD_Karte_PSD       ",
              "Zeitmaster         ", "Kamera_BV_Linien   ", "Kamera_Odometrie   "]
    on = {0, 8} if time_master else {0}
    return [info("DSRV", "diagnosisServiceImpl got new sensor setup"),
            *(info("DSRV", "sensor " + label, "ON" if i in on else "OFF") for i, label in enumerate(labels))]


def found(context):
    return [info(context, "generalClientImpl: Instance ", "1", " is available"),
            info(context, "generalClientImpl: connected to instance ", "1")]


MANIFEST = json.loads((SOURCE / "config/manifest.json").read_text(encoding="utf-8"))
MONITORS = {0x830000 | int(one["id"], 0): one["specifier"].removeprefix("DiagnosticMonitor_")
            for one in MANIFEST["services"][MONITOR]["instances"]}
CLEARED, RESTARTED = ") reason is kClear", ") reason is kRestart OR kReenabled"


def initialised(identifier, reason):
    return info("DSRV", "DiagnosticMonitor::InitMonitor for service ", str(identifier),
                MONITORS.get(identifier, "unknown"), reason)


def event(identifier, action, name):
    return info("DSRV", "diagnosticMonitorServiceImpl::sendEvent(), ", "id ", str(identifier), " (0x",
                f"{identifier:x}", ")", " = ", MONITORS[identifier], ", action ", str(action), " = ", name)


def changed(name, before, after):
    """A change of state and the event that it sends."""
    identifier = next(one for one, its in MONITORS.items() if its == name)
    return [info("DSRV", "Changing of state, ID =", name, ", prev status =", before, ", new status =", after),
            event(identifier, 1, "kFailed") if after == "Error" else event(identifier, 0, "kPassed")]


def sending(kind):
    return info("POS", "Sending ", kind, " input position as POS output DR position.")


def replacing(kind, seconds, nanoseconds):
    return info("POS", "REPLACING", kind, "POSITION TIMESTAMP, original seconds ", seconds, ", nanoseconds ",
                nanoseconds, "new timestamp for this sample: seconds ", NUMBER, ", nanoseconds ", NUMBER)


def position_without_values(type, seconds=" value is not set", nanoseconds=" value is not set", age=""):
    quantities = ", ".join(f"{name} value is not set (valueType is not set)" for name in (
        "LAT", "LON", "altitudeWGS84", "altitudeMeanSeaLevel", "yawAngle", "speed2D"))
    return info("POS", text(
        f"###### position from gnss: position type{type}, messageCounter value is not set, {quantities}, "
        f"preciseLocalTimeSeconds{seconds} (valueType is not set), "
        f"preciseLocalTimeNanoseconds{nanoseconds} (valueType is not set){age}"))


AS_MM = info("PSRV", "DR position is being sent as MM, time from last MM sent pos: ", NUMBER, "ms")


def times(kind, offset):
    return info("POS", "Times struct received from Timemaster: ", kind, offset)


def malformed(service, element, why):
    return error("MWCB", "Dropped a malformed payload of", service, element, why)


def left(handler, service, element, why):
    return error("MWCB", f"An exception left the {handler} handler of", service, element, why)


GNSS, TIME = "lumo::services::gnss::GNSS", "lumo::services::time::Time"
POSITIONING = "lumo::services::positioning::Positioning"
BEYOND = "Read beyond the end of the data buffer"


def trace(level, name, service=None, instance=None, further="", searched=False, payload=""):
    """A trace record; {} in `further` is a number that the run decides."""
    line = '{"1_incident":{"1_id":"' + name + '"'
    if service:
        key = "2_char const*" if searched else "string"
        line += ',"2_service_id":{"1_id":"Service_id","' + key + '":"' + service + '"}'
    if instance:
        line += ',"3_instance_id":{"1_id":"Instance_id","2_string":"' + instance + '"}'
    return ("TRCE", level, text(line + further + "}" + payload + "}"))


def of_positions(level, name, further=""):
    return trace(level, name, GNSS, "1", ',"4_event_id":32769' + further)


# What each run has to log. The rows of a group come in their order.
TEXTS = {
    "an empty storage": {
        "lifecycle": [*BANNER, STARTED, received("10", ", switching to state 'kPrepSD'"),
                      received("12", ", switching to state 'kOn'"), TERMINATED, *LEFT],
        "start of the parts": ENTERED,
        "runtime": [OPEN_TO_ALL],
        "settings": [LOCATION_NOT_FOUND, *NO_SETTINGS],
        "component state": [
            info("CCSW", "componentStateChangeRequest newState = ", "kPrepSD", " seqNum = ", "0"), FORBIDDEN,
            info("CCSW", "componentStateChangeRequest newState = ", "kOn", " seqNum = ", "0"), ALLOWED],
        "PHM": [("PHMC", "verbose", "Alive checkpoint reached")],
        "client base": found("GNSS"),
        "GNSS client": [
            info("POS", text(
                "###### position from gnss: position type=2, messageCounter=4294967295, LAT=48.137154 (valueType is "
                "PhysicalValue), LON=-1e-05 (valueType is LogicalValue), altitudeWGS84=566.0999755859375 (valueType "
                "is Init), altitudeMeanSeaLevel=519.5 (valueType is Error) yawAngle=359.8999938964844 (valueType is "
                "unknown), speed2D=0 (valueType is not set), preciseLocalTimeSeconds=1700000000 (valueType is "
                "PhysicalValue), preciseLocalTimeNanoseconds=500000999 (valueType is PhysicalValue), sample is {} us "
                "old at arrival compared to PLT, sampleTime = 1700000000500000 arrivalTime = {}")),
            replacing("GNSS-DR", "1700000000", "500000999"),
            sending("GNSS-DR"),
            AS_MM,
            position_without_values(" value is not set"),
            position_without_values("=1", "=4294967295", "=1999", ", sample is {} us into the future compared to PLT, "
                                    "sampleTime = 4294967295000001 arrivalTime = {}"),
            position_without_values("=2"),
            replacing("GNSS-DR", "missing", "missing"),
            info("POS", "###### positions quality from gnss: positionType=1, gDOP=2.5 (valueType is PhysicalValue), "
                 "hDOP=0.8999999761581421 (valueType is Init), pDOP=1.000000020040877e+20 (valueType is Error), "
                 "vDOP=3 (valueType is not set), isActivatedAssistedGNSS=1, statusReceiverMode=2, statusFixType=3, "
                 "updateRateGNSS=10 (valueType is PhysicalValue), satsInView=17 (valueType is not set), satsInUse=12 "
                 "(valueType is PhysicalValue), satsTracked=14 (valueType is not set), statusGNSSAntenna=1"),
            info("POS", "###### positions quality from gnss: positionType value is not set, gDOP value is not set "
                 "(valueType is not set), hDOP value is not set (valueType is not set), pDOP value is not set "
                 "(valueType is not set), vDOP value is not set (valueType is not set), isActivatedAssistedGNSS value "
                 "is not set, statusReceiverMode value is not set, statusFixType value is not set, updateRateGNSS "
                 "value is not set (valueType is not set), satsInView value is not set (valueType is not set), "
                 "satsInUse value is not set (valueType is not set), satsTracked value is not set (valueType is not "
                 "set), statusGNSSAntenna value is not set")],
        "data identifiers": [
            *sensors(time_master=False), *changed("POS_Input_GNSS", "Init", "Nominal"),
            *changed("POS_Input_GNSS", "Nominal", "Error"), *changed("POS_Input_GNSS", "Error", "Nominal")],
        "outputs": [*changed("POS_Output_DeadReckoning", "Init", "Nominal"),
                    *changed("POS_Output_DeadReckoning", "Nominal", "Error")],
        "monitors": [
            *(row for one in MONITORS for row in (initialised(one, RESTARTED), event(one, 0, "kPassed"))),
            initialised(0x83D101, CLEARED)],
        "payload errors": [
            malformed(MONITOR, "1", BEYOND),
            malformed(GNSS, "positions", "Invalid source tag wire type"),
            malformed(GNSS, "positions", "Violation of [PRS_SOMEIP_00900]: Record length given by sender is too "
                      "small. This is possibly due to a mismatch between the data models of sender and receiver."),
            malformed(GNSS, "positions", BEYOND),
            malformed(GNSS, "positions", "Deserialization calculated invalid end position.")],
        "trace of the skeletons": [
            trace("info", "Service_skeleton_constructed", POSITIONING, "1",
                  ',"4_struct4bytes":196608,"5_utf8simple":"Positioning"'),
            ("TRCE", "verbose", '{"1_incident":{"1_id":"Event_update_tx","2_Event_id":32769}}'),
            trace("info", "Offer_service", POSITIONING, "1"),
            trace("verbose", "Method_call_request_process", MONITOR, "53504",
                  ',"4_method_id":1,"5_method_call_id":1', payload=',"2_data":{"1_uint8":2}'),
            trace("debug", "Method_call_response_tx", MONITOR, "53504",
                  ',"4_method_id":1,"5_method_call_id":1,"6_error_code":0'),
            trace("verbose", "Method_call_request_process", D_14A0, "1", ',"4_method_id":1,"5_method_call_id":1',
                  payload=',"2_data":{"1_undefined_type":"undefined_type"}'),
            trace("error", "Method_call_request_err", MONITOR, "53504", ',"4_method_id":1,"5_error_code":9'),
            trace("info", "Stop_offer_service", POSITIONING, "1")],
        "trace of the proxies": [
            trace("info", "Find_service_start", GNSS, "any", searched=True),
            trace("info", "Find_service_result", GNSS, "any", searched=True),
            trace("info", "Service_handle", GNSS, "1"),
            trace("info", "Service_proxy_constructed", GNSS, "1",
                  ',"4_struct4bytes":196608,"5_utf8simple":"GNSS"'),
            of_positions("info", "Field_subscribe"),
            trace("debug", "Find_service_handler_performance", GNSS, "any", ',"4_time":{}', searched=True),
            of_positions("verbose", "Event_update_rx"),
            of_positions("debug", "Event_update_when_not_subscribed"),
            of_positions("verbose", "Event_cache_update"),
            of_positions("verbose", "Event_receive_handler"),
            of_positions("verbose", "Event_receive_handler_performance", ',"5_time":{}'),
            of_positions("error", "Event_deserialize_exception"),
            trace("info", "Find_service_stop", GNSS, searched=True),
            of_positions("info", "Field_unsubscribe")],
    },
    "a full storage": {
        "lifecycle": [*BANNER, STARTED, INTERRUPTED, *LEFT],
        "start of the parts": [*ENTERED, info("TMCL", "enter TimemasterClientImpl::init()")],
        "settings": [info("DBAC", "Got entry ", key, "=", value) for key, value in STORED.items()],
        "client base": [*found("GNSS"), *found("TMCL")],
        "Time client": [times("2", "1234999"), times("type missing, ", "18446744073709551615"),
                        times("3", "pltOffset missing"), times("type missing, ", "pltOffset missing")],
        "pipeline": [replacing("GNSS", "1700000000", "500000999"), sending("GNSS")],
        "data identifiers": [*sensors(time_master=True), *changed("POS_Input_Time", "Init", "Nominal")],
        "inputs": changed("POS_Input_GNSS", "Init", "Nominal"),
        "outputs": changed("POS_Output_DeadReckoning", "Init", "Nominal"),
    },
    "a broken storage": {
        "lifecycle": [*BANNER, STARTED, TERMINATED, *LEFT],
        "start of the parts": [*ENTERED, *sensors(time_master=False)],
        "settings": [info("DBAC", re.compile(r".*/broken/POS_Key_Value_Port\.json.*")), WARNING, *NO_SETTINGS],
    },
    "no storage": {"lifecycle": [*BANNER, FATAL], "settings": [LOCATION_NOT_FOUND]},
    "no clock": {
        "lifecycle": [*BANNER, error("POS", "Critical error: failed to create instance of timeutils"), FATAL],
        "settings": [LOCATION_NOT_FOUND],
    },
    "an exit code": {
        "lifecycle": [*BANNER, *LEFT, error("POS", "Close POS application with return code ", "3", ".")],
        "settings": [LOCATION_NOT_FOUND, *NO_SETTINGS],
    },
    "classes": {
        "settings": [info("DBAC", "Unable to extract value for key ", key, "\n\t", "not a Boolean")
                     if key != INTERVAL else info("DBAC", "Got entry ", key, "=", STORED[key]) for key in SETTINGS],
        "persistency": [
            info("DBAC", "No such entry for bbeforeRW"),
            info("DBAC", "No such entry for bafterRW"),
            info("DBAC", "controlledReadBinaryData no data size b"),
            info("DBAC", "b, controlledSaveBinaryData will store 2 bytes"),
            info("DBAC", "Got entry bbeforeRW=2"),
            info("DBAC", "Got entry bafterRW=2"),
            info("DBAC", "Got entry b=2 bytes"),
            info("DBAC", "controlledReadBinaryData loaded 2 bytes"),
            info("DBAC", "Got entry bbeforeRW=10"),
            info("DBAC", "Got entry bafterRW=12"),
            info("DBAC", "controlledReadBinaryData failed to load b size beforeRW: 12 size afterRW: 12"),
            info("DBAC", "Got entry bbeforeRW=1"),
            info("DBAC", "Got entry bafterRW=1"),
            info("DBAC", re.compile(r"Unable to extract value for key b\S.*")),
            info("DBAC", "controlledReadBinaryData failed to load b size beforeRW: 1 size afterRW: 1"),
            info("DBAC", "Remove b"),
            FORBIDDEN,
            info("DBAC", "Modifications not allowed. Tried to remove key b"),
            info("DBAC", "Modifications not allowed. Tried to controlledSaveBinaryData with key b"),
            ALLOWED,
            info("DBAC", "c, controlledSaveBinaryData will store 2 bytes"),
            info("DBAC", "Modifications not allowed. Tried to set value for key c"),
            error("DBAC", "Unable to store to DB: c: storing became forbidden during the save"),
            info("DBAC", "controlledSaveBinaryData failed"),
            info("DBAC", "Modifications not allowed. Tried to remove key cbeforeRW"),
            info("DBAC", "Modifications not allowed. Tried to remove key c"),
            info("DBAC", "Modifications not allowed. Tried to remove key cafterRW"),
            info("DBAC", "Left out of the table: signed\n\tNot supported KVS type"),
            info("DBAC", "d, controlledSaveBinaryData will store 2 bytes"),
            error("DBAC", "Unable to store to DB: No such entry"),
            info("DBAC", "Remove dbeforeRW"),
            info("DBAC", "Remove d"),
            info("DBAC", "Remove dafterRW")],
        "PHM": [error("PHMT", "Error in timer function:", "no checkpoint")] + ([] if THREAD_SANITIZER else [
            error("PHMT", "Error when joining the timer thread:", ANY)]),
        "service provider": [
            info("PSRV", "POS Service update positions with latitude= ", "1000.000000", ", longitude = ",
                 "-11.250000"),
            ("MWCB", "warn", "Notify enabled but Update not called; Event_id=", "32769"),
            ("MWCB", "warn", "Get handler enabled but not configured and Update not called; Method_id=", "1")],
        "monitors": [
            info("DSRV", "diagnosticMonitorServiceImpl::sendEvent(): ignore, skeleton not ready yet!"),
            ENTERED[1],
            *(event(0x83D104, number, name) for number, name in enumerate((
                "kPrepassed", "kPrefailed", "kFdcThresholdReached", "kResetTestFailed", "kFreezeDebouncing",
                "kResetDebouncing", "kPrestore", "kClearPrestore", "unknonw"), start=2)),
            *changed("POS_Output_DeadReckoning", "Init", "Nominal"),
            *changed("POS_Output_DeadReckoning", "Nominal", "Init"),
            initialised(1, RESTARTED)],
        "payload errors": [malformed("a::Service", "element", why) for why in (
            "Calculated record length does not fit into configured length field",
            "Invalid value for length field size.",
            "Violation of COM.PRS_SOMEIP_00215: All length fields must have same size and not be 0 when wire type 4 "
            "is used (4,2,4)",
            "Deserialization detected std::size_t overflow.",
            "Seek beyond the end of the data buffer",
            "destination cannot be NULL",
            "Deserialization of a type in TLV mode, but no tag list generated. This is an error in the generator.",
            "Vectors must have a length field that deserializer can also deserialize it. Violation of "
            "PRS_SOMEIP_00376 & PRS_SOMEIP_00107!")],
        "trace of the skeletons": [
            ("TRCE", "error", '{"1_incident":{"1_id":"Service_instantiation_error","2_instance_id":'
             '{"1_id":"Instance_id","2_string":"Unknown"}}}'),
            *2 * [trace("error", "Event_request_update_err", POSITIONING, "1", ',"4_event_id":32769')],
            trace("fatal", "Method_call_request_exception", MONITOR, "53505", ',"4_method_id":1')],
        "trace of the proxies": [
            trace("error", "Find_service_handler_exception", GNSS, "any", searched=True),
            of_positions("error", "Event_state_handler_exception"),
            of_positions("error", "Event_receive_handler_exception")],
        "exceptions of handlers": [
            left("find-service", GNSS, "any", "find handler"), left("state", GNSS, "positions", "state handler"),
            left("receive", GNSS, "positions", "receive handler"), left("method", MONITOR, "1", "monitor")],
    },
}

APPLICATION_DESCRIPTION = "POS application"
DESCRIPTIONS = {
    "GNSS": "gnssClientImpl class own context", "TMCL": "TimemasterClientImpl class own context",
    "CCSW": "ComponentClietWrapper class own context", "DBAC": "Persistency access",
    "PSRV": "posServiceImpl class own context", "DSRV": "diagnosisServiceImpl class own context",
    "PHMC": "phmClientImpl class own logger", "PHMT": "PHM Timer Logger", "TRCE": "Binding trace",
}

# --- the peers and the processes


class Run:
    def __init__(self, desk, log, name, program, *arguments, **options):
        self.name, self.log, self.desk = name, log, desk
        self.process = desk.start(program, *arguments, **options)
        self.groups = TEXTS[name]

    def messages(self):
        return self.log.of(self.process.pid)

    def records(self, name):
        """How many trace records of this name there are."""
        return sum(f'"1_id":"{name}"' in one.arguments[0] for one in self.messages() if one.context == "TRCE")

    def wait(self, row):
        until(lambda: any(one.fits(row) for one in self.messages()), f"{self.name}: {row}")

    def end(self, number=None, code=0):
        if number:
            self.process.send_signal(number)
        assert self.process.wait(30) == code, (self.name, self.process.returncode)
        for group, rows in self.groups.items():
            for row in rows:
                self.wait(row)
            rest = iter(self.messages())
            for row in rows:
                assert any(one.fits(row) for one in rest), f"{self.name}, {group}: not in its place: {row}"
        known = [OPEN_TO_ALL, *(row for rows in self.groups.values() for row in rows)]
        for one in self.messages():
            if one.context == "TRCE":
                check_record(*one.arguments)
            else:
                assert any(one.fits(row) for row in known), f"{self.name}: not listed: {one}"


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
        self.peer = network.peer(RECEIVER)
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
    rows = run.groups
    with Source(desk, network) as source:
        run.wait(STARTED)
        descriptions()
        first, *others = MONITORS.values()
        tester.init_monitor(first, REENABLED)
        for name in others:
            tester.init_monitor(name, RESTART)
        tester.call(D_14A0, NO_TEXTS)
        tester.init_monitor(first, b"", code=9)
        source.offer(GNSS)
        source.subscriber(GNSS, "positions")
        run.wait(rows["trace of the proxies"][5])  # subscribing is a part of the search's handler
        source.notify(GNSS, "positions", records(FULL_POSITION))
        run.wait(sending("GNSS-DR"))
        source.acknowledge()
        source.notify(GNSS, "positions", records([], FUTURE_POSITION, [u32(0, 2)]))
        run.wait(replacing("GNSS-DR", "missing", "missing"))
        source.notify(GNSS, "positionsQuality", records(FULL_QUALITY, []))
        run.wait(rows["GNSS client"][-1])
        for payload, row in zip(MALFORMED, rows["payload errors"][1:]):
            source.notify(GNSS, "positions", payload)
            run.wait(row)
        run.wait(rows["outputs"][-1])  # nothing has come for the time-out
        run.wait(rows["data identifiers"][-3])
        source.notify(GNSS, "posGnssSatInfos", records())
        run.wait(rows["data identifiers"][-2])
        tester.init_monitor("POS_Input_GNSS", CLEAR)
    run.process.send_signal(signal.SIGUSR1)
    run.wait(FORBIDDEN)
    run.process.send_signal(signal.SIGUSR2)
    run.wait(ALLOWED)
    run.end(signal.SIGTERM)
    offers, stops = (run.records(name) for name in ("Offer_service", "Stop_offer_service"))
    assert offers == stops == 9 + len(MONITORS), (offers, stops)  # and the statistics, positions, data identifiers


def descriptions():
    """What the daemon knows of the application and its contexts."""
    told = subprocess.run(["dlt-control", "-j", "-p", str(DAEMON_PORT), "localhost"], capture_output=True, text=True,
                          timeout=20).stdout
    assert f"APID:POS- {APPLICATION_DESCRIPTION}\n" in told, told
    contexts = dict(re.findall(r"^CTID:(\w{4})  \d  0 (.*)$", told, re.MULTILINE))
    contexts.pop("SIPR", None)  # there when the runtime had something to say
    assert contexts == DESCRIPTIONS, contexts


def full_storage(desk, log, network):
    storage = desk.path / "full"
    storage.mkdir()
    values = {key: {"type": "UInt32", "value": int(value)} if key == INTERVAL
              else {"type": "Boolean", "value": value == "1"} for key, value in STORED.items()}
    (storage / "POS_Key_Value_Port.json").write_text(json.dumps(values), encoding="utf-8")
    run = Run(desk, log, "a full storage", APPLICATION, environment={"POS_STORAGE_DIR": str(storage)})
    with Source(desk, network) as source:
        source.acknowledge()
        run.wait(STARTED)
        source.offer(GNSS)
        for row in found("GNSS"):
            run.wait(row)
        source.offer(TIME)
        source.notify(TIME, "times", records([u32(0, 2), u64(5, 1234999)], [u64(5, 18446744073709551615)], [u32(0, 3)],
                                             []))
        source.notify(GNSS, "positions", records(FULL_POSITION, FUTURE_POSITION))
        for group in ("Time client", "pipeline", "data identifiers", "inputs", "outputs"):
            run.wait(run.groups[group][-1])
    run.end(signal.SIGINT)


def other_storages(desk, log):
    storage = desk.path / "broken"
    storage.mkdir()
    (storage / "POS_Key_Value_Port.json").write_text("{", encoding="utf-8")
    run = Run(desk, log, "a broken storage", APPLICATION, environment={"POS_STORAGE_DIR": str(storage)})
    run.wait(STARTED)
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
        run.wait(run.groups["trace of the proxies"][1])
        source.notify(GNSS, "positions", records())
        run.wait(run.groups["trace of the proxies"][2])
        tester.subscribe(POSITIONING)
        run.wait(run.groups["service provider"][1])
        tester.call(POSITIONING, b"", code=1)
        tester.init_monitor("POS_Input_GNSS", CLEAR, code=1)
    run.process.stdin.close()
    run.end()


def main():
    with contextlib.ExitStack() as stack:
        desk = stack.enter_context(Desk(NETWORK))
        log = Log(desk.path, DAEMON_PORT)
        stack.callback(log.end)
        network = Network(desk=desk)
        stack.callback(network.close)
        tester = Tester(desk, network, TESTER)
        empty_storage(desk, log, network, tester)
        full_storage(desk, log, network)
        other_storages(desk, log)
        failures(desk, log, network, tester)
        log.check_printed()
        print(f"{len(log.messages)} messages, {sum(len(r) for g in TEXTS.values() for r in g.values())} rows")


if __name__ == "__main__":
    main()
