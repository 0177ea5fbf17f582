"""posctl serve: what it tells of a running application, and what clients can cost it."""

import json
import os
import pathlib
import resource
import socket
import time
import unittest
import urllib.parse

from desk import APPLICATION, GATEWAY, POSCTL, SANITIZERS, Desk_test, inherited, until
from web import WebSocket, request

FREED = 300_000 if SANITIZERS else 0  # KiB that the address sanitizer keeps after their release


class Page_server(Desk_test):
    def serve(self, *arguments):
        self.server = self.start(POSCTL, "serve", "--listen", "127.0.0.1:0", *arguments)
        url = urllib.parse.urlsplit(self.server.stdout.readline())
        self.address = (url.hostname, url.port)
        return url

    def open(self, *arguments, **headers):
        client = WebSocket(self.address, *arguments, **headers)
        self.addCleanup(client.close)
        return client

    def cost(self, field):
        """Of the server: memory in KiB ("VmRSS"), or its number of threads."""
        for line in pathlib.Path(f"/proc/{self.server.pid}/status").read_text().splitlines():
            if line.startswith(field):
                return int(line.split()[1])
        return None

    def processor_time(self):
        fields = pathlib.Path(f"/proc/{self.server.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def test_it_tells_what_the_commands_print_and_goes_on_after_a_restart(self):
        markup = "<img src=x onerror=alert(1)>"
        start_application = lambda: self.start(APPLICATION, environment={"POS_LOG_LEVEL": f"GNSS=debug,{markup}"})
        self.serve("--control")
        client = self.open()
        hello, history = client.frame(), client.frame()
        self.assertEqual(inherited(self.server), [])  # a browser that it opens has none of them
        self.assertEqual([hello["topic"], history["topic"]], ["hello", "history"])
        self.assertEqual((hello["schema"], hello["data"]["control"], hello["data"]["source"]), (1, True, "live"))
        application = start_application()
        first = client.until("application", lambda data: data["present"])["data"]
        self.start(GATEWAY, "--rate", 10)
        change = client.until("change", lambda data: data["name"] == "gnss")
        self.assertEqual((change["data"]["before"], change["data"]["status"]), ("Init", "Nominal"))
        status = client.until("status", lambda data: data["verdict"] == "healthy")["data"]
        told = self.posctl("status")
        for member in ("inputs", "outputs", "system", "dataBus"):
            self.assertEqual(status[member], told[member])
        self.assertLess(len(client.until("statistics")["data"]["counters"]), 20)  # those that have changed

        # A client that comes later learns what has been.
        late = self.open()
        late.frame()
        history = late.frame()["data"]
        kept = {frame["topic"] for frame in history["frames"]}
        self.assertLessEqual({"application", "change", "offer", "log", "monitor"}, kept)
        lines = [line["text"] for frame in history["frames"] if frame["topic"] == "log" for line in frame["data"]["lines"]]
        self.assertTrue(any(markup in line for line in lines))
        self.assertTrue(any("application started" in line for line in lines))
        series = {(one["topic"], one["positionType"]): one["tiers"] for one in history["series"]}
        self.assertLessEqual({("output", None), ("input", 1), ("input", 2), ("statistics", None)}, series.keys())
        states = {}
        while not {"statistics", "status", "monitors", "offers", "satellites", "quality", "input"} <= states.keys():
            frame = late.frame()
            states.setdefault(frame["topic"], frame["data"])
        self.assertGreater(len(states["statistics"]["counters"]), 40)
        self.assertEqual(len(states["monitors"]["monitors"]), 23)
        self.assertGreater(len(states["satellites"]["records"]), 5)
        services = {offer["service"] for offer in states["offers"]["offers"]}
        self.assertIn("lumo::services::gnss::GNSS", services)

        client.send(json.dumps({"action": "initMonitor", "id": 5, "monitor": "POS_Input_GNSS", "reason": "kRestart"}).encode())
        self.assertEqual(late.until("monitor")["data"]["name"], "POS_Input_GNSS")
        self.assertEqual(client.until("answer")["data"], {"id": 5, "ok": True, "text": "it reports its result again"})

        self.desk.stop(application)
        client.until("application", lambda data: not data["present"])
        self.assertEqual(client.until("status")["data"]["verdict"], "no answer")
        start_application()
        second = client.until("application", lambda data: data["present"])["data"]
        self.assertGreater(second["started"], first["started"])
        client.until("output", lambda data: "LAT" in data["records"][0])

    def test_it_may_start_before_the_application_and_before_its_machine_has_an_address(self):
        self.desk.manifest["nodes"]["POS"]["localSocket"] = True
        nodes = self.desk.manifest["nodes"]
        usual, nodes["posctl"] = nodes["posctl"], {"address": "10.9.8.30", "prefixLength": 24}  # not of this machine
        self.desk.write_manifest()
        self.serve()
        client = self.open()
        first = client.until("hello")["data"]
        self.assertIn("no application listens", first["way"])
        application = self.start(APPLICATION)
        client.until("application", lambda data: data["present"])
        client.until("hello", lambda data: data["way"].startswith("through /"))
        nodes["posctl"] = usual  # the machine gets its address
        self.desk.write_manifest()
        last = client.until("hello", lambda data: data["way"].startswith("over the network"))["data"]
        self.assertEqual(last["server"], first["server"], "a page drops what it has for another server")
        self.start(GATEWAY)
        client.until("input", lambda data: "LAT" in data["records"][0])
        client.until("output", lambda data: "LAT" in data["records"][0])
        self.desk.stop(application)

        # A socket that --connect names and that comes later.
        path = self.desk.path / "elsewhere"
        path.mkdir()
        self.serve("--connect", path / "POS.sock")
        client = self.open()
        self.assertIn("No such file", client.until("application", lambda data: not data["present"])["data"]["text"])
        self.start(APPLICATION, environment={"POS_RUNTIME_DIR": str(path)})
        client.until("application", lambda data: data["present"])

    def test_a_fast_source_costs_a_browser_twenty_frames_a_second(self):
        self.serve()
        self.start(APPLICATION)
        self.start(GATEWAY, "--rate", 500)
        client = self.open()
        client.until("output", lambda data: "merged" in data)
        before, cost, frames = time.monotonic(), self.processor_time(), 0
        while time.monotonic() < before + 3:
            client.until("output")
            frames += 1
        self.assertLess(frames, 70)
        # 0.15 s without other work on the machine
        self.assertLess(self.processor_time() - cost, 1.5 if SANITIZERS else 0.5)

        # A browser that does not read loses frames, and then learns what holds.
        memory = self.cost("VmRSS")
        slow = self.open("/feed", 4096)
        end = time.monotonic() + 10
        while time.monotonic() < end:
            client.frame()
        self.assertLess(self.cost("VmRSS"), memory + FREED + 20_000)
        lost = slow.until("lost")
        self.assertGreater(lost["data"]["frames"], 10)
        slow.until("status")

    def test_strangers_see_nothing(self):
        url = self.serve("--token", "word-of-8")
        self.assertEqual(url.query, "token=word-of-8")
        bearer = {"Authorization": "Bearer word-of-8"}
        here = f"{self.address[0]}:{self.address[1]}"
        status, headers, body = request(self.address, f"/?{url.query}")
        self.assertEqual(status, 200)
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
        self.assertEqual(headers["Referrer-Policy"], "no-referrer")
        self.assertNotIn("Set-Cookie", headers)
        self.assertNotRegex(body.decode(), r'(src|href)="(?!data:)[^"?]*"')  # each file with its token
        for status, path, headers in (
            (401, "/", {}), (401, "/feed", {}), (401, "/?token=word-of-9", {}), (404, "/marks.json", bearer),
            (421, "/", {"Host": "elsewhere.example", **bearer}), (400, "/", {"Host": None, **bearer}),
            (403, "/", {"Origin": "http://elsewhere.example", **bearer}),
            (426, "/feed", bearer), (431, "/", {"Cookie": "x" * 10_000}), (413, "/", {"Content-Length": "9"}),
            *((404, path, bearer) for path in ("/../../etc/passwd", "/%2e%2e/page.js", "//etc/passwd", "/..\\index.html",
                                               "/index.html%00", "/index.html/")),
        ):
            self.assertEqual(request(self.address, path, **headers)[0], status, (path, headers))
        self.assertEqual(request(self.address, "/", "POST", **bearer)[0], 405)
        for garbage in (b"\0" * 100, b"GET / HTTP/9.9\r\n\r\n", b"GET  HTTP/1.1\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00"):
            with socket.create_connection(self.address) as connection:
                connection.sendall(garbage)
                self.assertIn(connection.recv(12), (b"HTTP/1.1 400", b""))
        self.assertEqual(self.open("/feed", Origin="http://elsewhere.example", **bearer).status, 403)
        self.assertEqual(self.open("/feed", Origin=f"http://{here}", **bearer).status, 101)

        for send, code in (
            (lambda one: one.send(b"x" * 5000), 1009), (lambda one: one.send(b"x", length=1 << 40), 1009),
            (lambda one: one.send(b"x", opcode=2), 1008), (lambda one: one.send(b"x", masked=False), 1002),
            (lambda one: [one.send(b"x" * 100, opcode=0 if index else 1, final=False) for index in range(41)], 1009),
            (lambda one: one.socket.sendall(one.framed(b"{}") * 40), 1008), (lambda one: one.send(b"\xff\xfe"), 1007),
        ):
            client = self.open("/feed", **bearer)
            send(client)
            self.assertEqual(client.closed_with(), code)
            client.close()
        client = self.open("/feed", **bearer)
        for number, action in enumerate(({"action": "componentState", "state": "kPrepSD"}, {"action": "makeFault", "fault": "off"})):
            client.send(json.dumps({"id": number, **action}).encode())
            answer = client.until("answer")["data"]
            self.assertEqual((answer["id"], answer["ok"]), (number, False))
            self.assertIn("--control", answer["text"])
        for _ in range(24):  # more than the bound of a second, in two
            client.send(b"{}")
            client.until("answer")
            time.sleep(0.08)
        self.assertEqual(self.desk.run(POSCTL, "serve", "--marks", "/nothing/there")[0], 1)

    def test_ten_thousand_idle_connections_keep_nobody_out(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 11_000), hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.serve()
        client = self.open()
        client.until("hello")
        memory = self.cost("VmRSS")
        idle = []
        for number in range(min(hard, 11_000) - 1000):
            idle.append(socket.create_connection(self.address, timeout=30))
            self.addCleanup(idle[-1].close)
            if number % 2:
                idle[-1].sendall(b"GET / HTTP/1.1\r\nHost:")
        start = time.monotonic()
        self.assertEqual(request(self.address)[0], 200)
        self.assertLess(time.monotonic() - start, 3)
        self.assertLessEqual(len(list(pathlib.Path(f"/proc/{self.server.pid}/fd").iterdir())), 150)
        self.assertLess(self.cost("VmRSS"), memory + FREED + 10_000)
        client.until("services")  # it is still there
        # WebSockets have a bound of their own.
        feeds = [self.open() for _ in range(16)]
        self.assertEqual([one.status for one in feeds], [101] * 15 + [503])

if __name__ == "__main__":
    unittest.main()
