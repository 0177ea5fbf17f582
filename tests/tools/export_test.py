"""Positions for other programs: files that are complete whenever they are read, and sentences that gpsd reads."""

import csv
import datetime
import functools
import json
import operator
import pathlib
import re
import signal
import socket
import unittest
from xml.etree import ElementTree

from desk import APPLICATION, GATEWAY, POSCTL, Desk_test, until

GPSD = pathlib.Path("/usr/sbin/gpsd")
GPX, KML = "{http://www.topografix.com/GPX/1/1}", "{http://www.opengis.net/kml/2.2}"
# The children that the public schemas allow, in their order, of the elements that we write.
CHILDREN = {
    GPX: {"gpx": ("metadata", "wpt", "rte", "trk", "extensions"), "trkseg": ("trkpt", "extensions"),
          "trk": ("name", "cmt", "desc", "src", "link", "number", "type", "extensions", "trkseg"),
          "trkpt": ("ele", "time", "magvar", "geoidheight", "name", "cmt", "desc", "src", "link", "sym", "type", "fix", "sat",
                    "hdop", "vdop", "pdop", "ageofdgpsdata", "dgpsid", "extensions")},
    KML: {"kml": ("Document",), "Document": ("name", "Placemark"), "TimeSpan": ("begin", "end"),
          "Placemark": ("name", "TimeSpan", "LineString"),
          "LineString": ("extrude", "tessellate", "altitudeMode", "coordinates")},
}
DECIMAL, TIME = r"[-+]?\d+(\.\d+)?", r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d+Z"
CONTENT = {"ele": DECIMAL, "geoidheight": DECIMAL, "speed": DECIMAL, "course": DECIMAL, "bearing": DECIMAL, "time": TIME,
           "begin": TIME, "tessellate": "1", "coordinates": rf"\s*({DECIMAL}(,{DECIMAL}){{1,2}}\s+)*"}


def check_document(path, space):
    """The document, whose elements have the order and the types of content of the schema."""
    document = ElementTree.parse(path).getroot()
    for element in document.iter():
        name = element.tag.removeprefix(space)
        known = CHILDREN[space].get(name)
        if known:
            places = [known.index(child.tag.removeprefix(space)) for child in element]
            assert places == sorted(places), (name, [child.tag for child in element])
        if content := CONTENT.get(name.split("}")[-1]):
            assert re.fullmatch(content, element.text), (name, element.text)
    return document


def places_of(path):
    """The coordinates in a file, with its end as the format demands it."""
    text = path.read_text()
    if path.suffix == ".gpx":
        return [(float(point.get("lat")), float(point.get("lon"))) for point in check_document(path, GPX).iter(GPX + "trkpt")]
    if path.suffix == ".kml":
        lists = [element.text.split() for element in check_document(path, KML).iter(KML + "coordinates")]
        return [(float(latitude), float(longitude)) for point in sum(lists, []) for longitude, latitude, *_ in [point.split(",")]]
    if path.suffix == ".csv":
        assert text.endswith("\n")
        return [(float(row["LAT"]), float(row["LON"])) for row in csv.DictReader(text.splitlines())]
    features = json.loads(text)["features"]
    return [tuple(feature["geometry"]["coordinates"][1::-1]) for feature in features]


def fields_of(sentence):
    body, sum_ = re.fullmatch(r"\$(.*)\*(\w\w)", sentence).groups()
    assert functools.reduce(operator.xor, body.encode()) == int(sum_, 16), sentence
    assert len(sentence) <= 80, sentence
    return body.split(",")


class Export(Desk_test):
    def setUp(self):
        super().setUp()
        self.desk.start(APPLICATION)

    def start_source(self, rate=20):
        return self.desk.start(GATEWAY, "--rate", rate)

    def start_nmea(self, *arguments):
        nmea = self.desk.start(POSCTL, "nmea", *arguments)
        port = int(nmea.stdout.readline().rsplit(":", 1)[1]) if arguments[:1] == ("--listen",) else None
        return nmea, port

    def test_each_file_is_complete_when_the_program_is_killed(self):
        watch = self.desk.start(POSCTL, "watch", "--json", "--field", "positions")
        files = [self.desk.path / f"drive.{kind}" for kind in ("gpx", "kml", "csv", "geojson")]
        exports = [self.desk.start(POSCTL, "export", f"--{path.suffix[1:]}", path) for path in files]
        until(lambda: all(path.exists() for path in files), "the files")
        source = self.start_source()
        seen = set()

        def watched(count):
            for _ in range(count):
                seen.update((one.get("LAT"), one.get("LON")) for one in json.loads(watch.stdout.readline())["records"])
        watched(10)
        for path in files:
            until(lambda: len(places_of(path)) > 10, path)  # also while it is written
        for export in exports:
            export.kill()
        # Until the last position of the files has been watched.
        for path in files:
            places = places_of(path)
            while places[-1] not in seen:
                watched(1)
            self.assertEqual(set(places) - seen, set(), path)
        self.desk.stop(source)

    def test_lines_of_a_watch_become_a_track_with_a_piece_for_each_reception(self):
        lines = self.desk.path / "lines"
        stamps = (1_700_000_000, 1_700_000_001, 1_700_000_060)
        records = [{"LAT": 48.5, "LON": 1e-7 * n, "altitudeMeanSeaLevel": 500, "preciseLocalTimeSeconds": stamp,
                    "preciseLocalTimeNanoseconds": 250_000_000} for n, stamp in enumerate(stamps)]
        records[1:1] = [{"LAT": 91, "LON": 1, "messageCounter": 1}]
        lines.write_text("".join(json.dumps({"field": "positions", "records": [one]}) + "\n" for one in records)
                         + '{"field": "posMapInfo", "records": []}\n{"field": "positions", "rec')
        gpx = self.desk.path / "drive.gpx"
        code, output, errors = self.desk.run(POSCTL, "export", "--gpx", gpx, "--from", lines)
        self.assertEqual((code, errors), (0, ""))
        self.assertEqual(output, f"3 positions in {gpx}, 1 had no coordinates, 1 lines were no positions\n")
        pieces = list(check_document(gpx, GPX).iter(GPX + "trkseg"))
        self.assertEqual([len(piece) for piece in pieces], [1, 1, 1])
        self.assertEqual(pieces[2][0].get("lon"), "0.0000002")
        self.assertEqual(pieces[2][0].find(GPX + "time").text, "2023-11-14T22:14:20.250Z")
        table = self.desk.run(POSCTL, "export", "--csv", "-", "--from", lines, "--count", 1)[1]
        self.assertEqual(table.splitlines()[1].split(",")[:5], ["2023-11-14T22:13:20.250Z", "", "", "48.5", "0.0"])
        code, _, errors = self.desk.run(POSCTL, "export", "--csv", "/dev/full", "--from", lines)
        self.assertIn('cannot write to "/dev/full"', errors)

    def test_gpsd_reads_the_positions(self):
        self.start_source()
        nmea, port = self.start_nmea("--listen", "tcp:0")
        own = 20_000 + self.desk.network
        self.desk.start(GPSD, "-N", "-n", "-S", own, f"tcp://127.0.0.1:{port}")

        def connected():
            try:
                return socket.create_connection(("127.0.0.1", own), timeout=30)
            except OSError:
                return None
        client = self.enterContext(until(connected, "gpsd listens"))
        client.sendall(b'?WATCH={"enable":true,"json":true};\n')
        watch = self.desk.start(POSCTL, "watch", "--json", "--field", "positions")
        records, epochs, equal = {}, 0, 0
        reports = (json.loads(line) for line in client.makefile(encoding="utf-8"))
        for report in (one for one in reports if one["class"] == "TPV" and one.get("mode", 0) >= 2):
            time = datetime.datetime.fromisoformat(report["time"]).timestamp()
            while not records or max(records) < time:
                for one in json.loads(watch.stdout.readline())["records"]:
                    if "LAT" in one:
                        stamp = one["preciseLocalTimeSeconds"] + one["preciseLocalTimeNanoseconds"] // 10**6 / 1000
                        records[round(stamp, 3)] = one
            one = records.get(round(time, 3))
            # From before the watch, or before gpsd knows which sentence ends an epoch.
            epochs += "altMSL" in report
            if one is None or epochs <= 3:
                continue
            for name, member, delta in (("lat", "LAT", 1e-7), ("lon", "LON", 1e-7), ("altMSL", "altitudeMeanSeaLevel", 1e-3),
                                        ("speed", "speed2D", 2e-3), ("track", "courseOverGround", 0.01)):
                self.assertAlmostEqual(report[name], one[member], delta=delta, msg=name)
            self.assertEqual(report["mode"], 3)
            equal += 1
            if equal == 20:
                break
        code, output = self.desk.stop(nmea, signal.SIGINT)
        self.assertEqual((code, output), (0, "1 clients\n"))

    def test_an_old_or_missing_position_is_not_valid(self):
        source = self.start_source()
        nmea, _ = self.start_nmea()

        def next_epoch(status, *absent):
            while True:
                fields = fields_of(nmea.stdout.readline().rstrip())
                if fields[0] == "GNRMC" and fields[2] == status:
                    return fields
        self.assertRegex(",".join(next_epoch("A")), r"^GNRMC,\d{6}\.\d{3},A,46\d\d\.\d{6},N,007\d\d\.\d{6},E,[\d.]+,[\d.]+,\d{6},,,A$")
        gga, vtg, gsa, gst = (fields_of(nmea.stdout.readline().rstrip()) for _ in range(4))
        self.assertEqual((gga[0], gga[6], vtg[0], gsa[:3], gst[0]), ("GNGGA", "1", "GNVTG", ["GNGSA", "A", "3"], "GNGST"))
        self.desk.stop(source)
        self.assertRegex(",".join(next_epoch("V")), r"^GNRMC,\d{6}\.\d{3},V,,,,,,,\d{6},,,N$")
        self.start_source()
        next_epoch("A")
        self.desk.stop(nmea)
        nmea, _ = self.start_nmea("--max-age", "0.000001", "--timeout", 3)
        next_epoch("V")
        self.assertEqual(nmea.wait(30), 1)
        raw = self.desk.start(POSCTL, "nmea", "--position", "GNSS", "--count", 2)
        self.assertEqual(raw.wait(30), 0)

    def test_slow_and_many_clients_cost_sentences_and_no_memory(self):
        self.start_source(rate=1000)
        nmea, port = self.start_nmea("--listen", "tcp:0")
        slow = self.enterContext(socket.socket())
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        slow.connect(("127.0.0.1", port))
        others = [self.enterContext(socket.create_connection(("127.0.0.1", port), timeout=30)) for _ in range(16)]
        self.assertEqual(others[-1].recv(1), b"")  # there are 16 already
        reader, received = others[0].makefile("rb"), 0
        while received < 2_000_000:
            received += len(reader.readline())
        output = self.desk.stop(nmea)[1]
        self.assertRegex(output, r"^16 clients, 1 more refused, slow ones lost the sentences of \d+ positions\n$")
        text = b""
        while block := slow.recv(65536):
            text += block
        for line in text.decode().split("\r\n")[:-1]:
            fields_of(line)
        with socket.socket(type=socket.SOCK_DGRAM) as receiver:
            receiver.bind(("127.0.0.1", 0))
            receiver.settimeout(30)
            self.desk.start(POSCTL, "nmea", "--listen", f"udp:localhost:{receiver.getsockname()[1]}")
            self.assertEqual([line[:6] for line in receiver.recv(2000).decode().split()[:2]], ["$GNRMC", "$GNGGA"])
        for wrong in ("tcp:", "udp:1", "udp::1", "tcp:::1:5", "serial:1", "tcp:99999"):
            self.assertEqual(self.desk.run(POSCTL, "nmea", "--listen", wrong)[0], 3, wrong)


if __name__ == "__main__":
    unittest.main()
