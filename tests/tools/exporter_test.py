"""posctl exporter: what Prometheus makes of it, and what clients can cost it."""

import json
import pathlib
import re
import subprocess
import unittest
import urllib.parse
import urllib.request

from desk import APPLICATION, GATEWAY, POSCTL, SOURCE, Desk_test, until
from web import request

PROMTOOL, PROMETHEUS = pathlib.Path("/usr/bin/promtool"), pathlib.Path("/usr/bin/prometheus")
RULES = SOURCE / "packaging/prometheus/alerts.yml"
DASHBOARD = SOURCE / "packaging/grafana/pos.json"


class Exporter(Desk_test):
    def start_exporter(self):
        self.exporter = self.start(POSCTL, "exporter", "--listen", "127.0.0.1:0")
        url = urllib.parse.urlsplit(self.exporter.stdout.readline())
        self.address = (url.hostname, url.port)

    def start_all(self):
        self.application = self.start(APPLICATION)
        self.start(GATEWAY, "--rate", 20)
        self.start_exporter()
        until(lambda: self.samples().get('pos_input_status{name="gnss",status="Nominal"}'), "positions")

    def page(self):
        return request(self.address, "/metrics")[2].decode()

    def samples(self):
        """Values by metric with labels."""
        lines = (line for line in self.page().splitlines() if not line.startswith("#"))
        return {name: float(value) for name, value in (line.rsplit(" ", 1) for line in lines)}

    def test_metrics_are_those_of_the_page_and_of_the_application(self):
        self.desk.manifest["limits"]["subscribersPerEventGroup"] = 1
        self.desk.write_manifest()
        self.start_all()
        for _ in range(2):
            self.start(POSCTL, "watch", "--field", "positions")
        of_positioning = '{service="lumo::services::positioning::Positioning",instance="0x0001"}'
        until(lambda: self.samples()["pos_subscribers_refused" + of_positioning], "a subscriber that is refused")
        self.assertEqual(request(self.address, "/metrics")[1]["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        text = self.page()
        checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, capture_output=True, text=True, check=False)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, "", ""))
        page = (SOURCE / "docs/metrics.md").read_text(encoding="utf-8")
        table = self.desk.run(POSCTL, "exporter", "--list")[1]
        self.assertIn(table, page)
        told = {(name, kind) for name, kind in re.findall(r"^# TYPE (\w+) (\w+)$", text, re.MULTILINE)}
        self.assertLessEqual(told, set(re.findall(r"^\| `(\w+)` \| (\w+) \|", table, re.MULTILINE)))

        samples = self.samples()
        stats = self.posctl("stats")
        for name, value in {
            "pos_up": 1, 'pos_input_status{name="gnss",status="Nominal"}': 1,
            'pos_monitor_failed{monitor="POS_Input_GNSS",id="0x83D101"}': 0,
            "pos_subscribers" + of_positioning: 1, "pos_subscribers_refused" + of_positioning: 1,
            'pos_consumed_service_found{service="lumo::services::gnss::GNSS",instance="0x0001"}': 1,
            "pos_clock_synchronised": stats["clock"]["synchronised"],
        }.items():
            self.assertEqual(samples[name], value, name)
        for name, value, share in (
            ("pos_process_resident_memory_bytes", stats["process"]["residentBytes"], 0.2),
            ("pos_someip_datagrams_received_total", stats["counters"]["datagramsReceived"], 0.5),
            ('pos_position_age_seconds_count{age="stampToArrival"}',
             stats["ages"]["stampToArrival"]["sinceStart"]["count"], 0.5),
            ('pos_position_age_seconds_sum{age="betweenArrivals"}', stats["process"]["uptimeMs"] / 1000, 0.9),
        ):
            self.assertAlmostEqual(samples[name], value, delta=share * value, msg=name)

        self.desk.stop(self.application)
        gone = until(lambda: not (told := self.samples())["pos_up"] and told, "the application is away")
        self.assertEqual(gone.keys() & {"pos_process_threads", "pos_position_latitude_degrees"}, set())
        self.assertGreater(gone["pos_exporter_requests_total"], 2)
        self.start(APPLICATION)
        until(lambda: self.samples()["pos_up"], "the application is back")
        until(lambda: self.page() == self.page(), "two requests that a page answers")

    def test_it_may_start_before_an_application_that_only_its_socket_reaches(self):
        self.desk.manifest["nodes"]["POS"]["localSocket"] = True
        usual = self.desk.manifest["serviceDiscovery"].copy()
        self.desk.manifest["serviceDiscovery"]["multicastAddress"] = "239.192.99.99"  # the exporter meets no one there
        self.desk.write_manifest()
        self.start_exporter()
        self.assertEqual(self.samples()["pos_up"], 0)
        self.desk.manifest["serviceDiscovery"] = usual
        self.desk.write_manifest()
        self.start(APPLICATION)
        until(lambda: self.samples()["pos_up"], "the application is found")

    def test_a_prometheus_server_scrapes_it_and_knows_the_rules_and_the_dashboard(self):
        checked = subprocess.run([PROMTOOL, "check", "rules", RULES], capture_output=True, text=True, check=False)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        self.start_all()
        server = f"127.0.0.1:{20_000 + self.desk.network}"
        settings = self.desk.path / "prometheus.yml"
        settings.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [str(RULES)],
            "scrape_configs": [{"job_name": "pos", "static_configs": [{"targets": ["%s:%s" % self.address]}]}]}), encoding="utf-8")
        self.start(PROMETHEUS, f"--config.file={settings}", f"--storage.tsdb.path={self.desk.path / 'tsdb'}",
                   f"--web.listen-address={server}")

        def ask(what, **arguments):
            try:
                with urllib.request.urlopen(f"http://{server}/api/v1/{what}?" + urllib.parse.urlencode(arguments)) as answer:
                    return json.load(answer)["data"]
            except urllib.error.URLError as error:
                if getattr(error, "code", 503) != 503:
                    self.fail(f"{arguments}: {error.read()}")
                return None  # it has just started

        def value(expression):
            found = ask("query", query=expression)
            return found and [float(one["value"][1]) for one in found["result"]]

        until(lambda: value("pos_up") == [1], "a scrape")
        until(lambda: (value("rate(pos_position_notifications_total[10s])") or [0])[0] > 1, "positions flow")
        target, = ask("targets")["activeTargets"]
        self.assertEqual((target["health"], target["lastError"]), ("up", ""))
        queries = [target["expr"].replace("$instance", ".*")
                   for panel in json.loads(DASHBOARD.read_text(encoding="utf-8"))["panels"] for target in panel["targets"]]
        self.assertGreater(len(queries), 20)
        missing = [query for query in queries if "== 1" not in query and "> 0" not in query
                   and "clock_" not in query and not value(query.replace("[1m]", "[10s]"))]
        self.assertEqual(missing, [])  # each panel has something to show

        self.desk.stop(self.application)
        until(lambda: any(alert["labels"]["alertname"] == "PosDown" for alert in ask("alerts")["alerts"]), "an alert")
        rules = [rule for group in ask("rules")["groups"] for rule in group["rules"]]
        self.assertEqual({rule["health"] for rule in rules}, {"ok"})


if __name__ == "__main__":
    unittest.main()
