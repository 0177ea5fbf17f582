"""The page in a real browser, beside the application on the real wire: each panel says what the application says."""

import contextlib
import gzip
import http.server
import json
import math
import os
import re
import threading
import time
import unittest

from browser import Browser
from desk import APPLICATION, BUILD, GATEWAY, POSCTL, Desk_test, until
from network import NOTIFICATION, SUBSCRIBE, Network, endpoint, offer, someip
from payload import f32, f64, records, u32

GNSS = "lumo::services::gnss::GNSS"
PHYSICAL = 4
PANELS = ["track", "now", "sky", "health", "time", "wire", "log"]
POLICY = "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'"
# Visible texts that stick out of the window or of a panel that clips, and panels that lie on each other.
OVERLAPS = """(() => {
  const found = [], panels = [...document.querySelectorAll('.panel')];
  const box = one => one.getBoundingClientRect();
  if (document.documentElement.scrollWidth > innerWidth) found.push(`the page is ${document.documentElement.scrollWidth} wide`);
  panels.forEach((a, i) => panels.slice(i + 1).forEach(b => {
    const p = box(a), q = box(b);
    if (Math.min(p.right, q.right) - Math.max(p.left, q.left) > 1 && Math.min(p.bottom, q.bottom) - Math.max(p.top, q.top) > 1)
      found.push(`${a.id} on ${b.id}`);
  }));
  const scrolls = (one, panel) => { for (; one !== panel; one = one.parentElement) if (getComputedStyle(one).overflowY === 'auto') return true; };
  for (const panel of panels) for (const one of panel.querySelectorAll('p, dd, dt, li, h2, h3, button, th, td, label')) {
    if (one.closest('.unseen, [hidden]') || scrolls(one, panel)) continue;
    const p = box(panel), q = box(one);
    if (q.width && (q.left < p.left - 1 || q.right > p.right + 1 || q.bottom > p.bottom + 1)) found.push(`${panel.id}: ${one.innerText}`);
  }
  return found; })()"""


def is_busy():
    """Whether other programs leave too little of the machine for its own figures."""
    return os.getloadavg()[0] > 3 * os.cpu_count()


def quantity(packing, number, value):
    """A measured quantity with its valueType."""
    return packing(number, value) + u32(number + 1, PHYSICAL)


class Source:
    """Offers GNSS to all and sends them what a test wants."""

    def __init__(self, desk):
        self.network = Network(desk=desk)
        self.network.under_test |= set(desk.manifest["nodes"]["posctl"]["addresses"])
        self.peer = self.network.peer(desk.address(42))
        self.service = desk.manifest["services"][GNSS]
        self.socket, self.id = self.peer.socket(), int(self.service["id"], 0)
        self.subscribers = {}
        self.counter = 0
        self.peer.unicast.on_entry = self.answer
        self.offered = 0.0

    def answer(self, entry):
        if entry.type == SUBSCRIBE and entry.ttl:
            self.peer.acknowledge(entry)
            self.subscribers.setdefault(entry.group, set()).add(entry.endpoints[0][:2])

    def has_all(self):
        """Whether the application and the server have subscribed to each field; offers again until then."""
        if time.monotonic() - self.offered > 0.5:
            self.peer.tell(offer(self.id), [endpoint(self.socket)])
            self.offered = time.monotonic()
        return sorted(len(each) for each in self.subscribers.values()) == [2, 2, 2]

    def notify(self, field, payload):
        event = int(self.service["fields"][field]["notifier"], 0)
        for subscriber in self.subscribers[int(self.service["fields"][field]["eventGroup"], 0)]:
            self.socket.send(someip(self.id, event, payload, type=NOTIFICATION, client=0), subscriber)

    def position(self, latitude, longitude):
        self.counter += 1
        now = time.time_ns()
        common = [u32(1, self.counter), quantity(f64, 2, latitude), quantity(f64, 4, longitude), quantity(f32, 10, 90.0),
                  quantity(f32, 14, 10.0), quantity(f32, 28, 1.0), quantity(u32, 40, now // 10**9), quantity(u32, 42, now % 10**9)]
        self.notify("positions", records([u32(0, 1), *common], [u32(0, 2), *common]))


class Page(Desk_test):
    """Tests beside the application."""

    def setUp(self):
        super().setUp()
        self.browser = self.enterContext(Browser())

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def serve(self, address="127.0.0.1:0", *arguments):
        self.server = self.start(POSCTL, "serve", "--listen", address, *arguments)
        return self.server.stdout.readline().strip()

    def lights(self):
        return dict(self.browser.value("[...document.querySelectorAll('[data-light]')].map(one => [one.dataset.light, one.innerText.split('\\n').pop().trim()])"))

    def test_each_panel_says_what_the_application_says_and_the_loss_of_the_source_too(self):
        markup = "<img src=x onerror=alert(1)>"
        application = self.start(APPLICATION, environment={"POS_LOG_LEVEL": f"info,{markup}"})
        gateway = self.start(GATEWAY, "--rate", 10)
        url = self.serve()
        page = self.browser
        page.open(url=url, height=4000)
        page.shows(".verdict .word", "Healthy")
        until(lambda: page.texts(".strip .curve-0 .number")[0].startswith(("9.", "10.")), "the rate")
        until(lambda: re.search(r"Rate out\s+(9|10)\.\d", page.text(".now .rows")), "the rate of this moment")
        self.assertEqual(page.value("document.querySelector('#control').offsetHeight"), 0)  # without --control
        self.assertNotIn("Control", page.text("nav") + page.text(".rights"))
        self.assertRegex(page.text(".now .rows"), r"Fix\s+3D(.|\n)*Source\s+GNSS and GNSS-DR")
        until(lambda: re.search(r"[1-9]\d* used of \d+ in view", page.text(".sky .caption")), "the sky")

        gateway.kill()
        gateway.wait()
        page.shows('[data-light="inputs.gnss"] .word', "Error")
        page.shows(".verdict .word", "Failed")
        page.shows("[aria-live]", "GNSS, input: Error")
        status = json.loads(self.desk.run(POSCTL, "status", "--json")[1])
        self.assertIn(status["reason"][:12], page.text(".verdict .reason"))
        words = {"NotAvailable": "not available"}
        lights = self.lights()
        for group, did in (("inputs", "d_14a0"), ("outputs", "d_14a1"), ("system", "d_14a3")):
            values = self.posctl("read", did)["values"]
            for name, value in values.items():
                if f"{group}.{name}" in lights or not re.fullmatch(r"system\d+", name):
                    self.assertEqual(lights.pop(f"{group}.{name}"), words.get(value, value), name)
        self.assertEqual(lights, {})
        faults = self.posctl("read", "d_1190")["values"]
        self.assertIn("GNSS", page.text(".findings"), faults)
        position = status["position"]["record"]
        self.assertEqual(page.text(".now .place").split(), [f"{position['LAT']:.6f}°", "N", f"{position['LON']:.6f}°", "E"])
        self.assertIn("Last position", page.text(".now .banner"))
        self.assertIn(f"{position['altitudeMeanSeaLevel']:.1f}", page.text(".now .rows"))
        unsynchronised = not status["clock"]["synchronised"]
        self.assertEqual("clock not synchronised" in page.text(".now .rows"), unsynchronised)

        peers = self.posctl("peers")
        subscribers = [one for service in peers["offered"] for one in service["subscribers"]]
        shown = page.text(".wire .offers table")
        for one in subscribers:
            self.assertIn(f"{one['address']} udp {one['udpPort']}", shown)
        self.assertIn(peers["consumed"][0]["cause"], page.text(".wire .uses"))
        counters = self.posctl("stats")["counters"]
        kept = dict(page.value("[...document.querySelectorAll('.counters tr')].map(row => [row.cells[0].innerText.trim(), row.cells[1].innerText])"))
        number = int(re.sub(r"\D", "", kept["notificationsReceived"]))
        self.assertEqual(number, counters["notificationsReceived"])
        line = next(one for one in application.log.read_text().splitlines() if markup in one)
        self.assertIn(markup, line)
        page.fill(selector=".filters input", text="onerror")
        until(lambda: page.texts(".lines mark") == ["onerror"], "the search")
        self.assertIn(markup, page.text(".lines .text"))
        self.assertEqual(page.value("document.querySelectorAll('img').length"), 0)
        self.assertIn("find=onerror", until(lambda: "find" in page.value("location.hash") and page.value("location.hash"), "the address"))

        self.start(GATEWAY)
        page.shows('[data-light="inputs.gnss"] .word', "Nominal")
        page.shows(".track .caption", "2 pieces, 1 gap")

    def test_it_goes_on_after_restarts_of_the_application_and_of_the_server(self):
        page = self.browser
        page.open(url=self.serve(), height=4000)
        page.shows(".verdict .word", "No application")
        application = self.start(APPLICATION)
        self.start(GATEWAY)
        page.shows(".verdict .word", "Healthy")
        self.assertEqual(self.desk.stop(application)[0], 0)
        page.shows(".verdict .word", "No application")
        self.assertTrue(page.value("document.body.hasAttribute('data-stale')"))
        self.start(APPLICATION)
        page.shows(".verdict .word", "Healthy")
        page.shows(".track .caption", "1 gap")
        page.shows(".events", "The application is gone")

        page.without_server(expected=True)
        port = page.value("location.host")
        self.assertEqual(self.desk.stop(self.server)[0], 0)
        page.shows(".verdict .word", "No server")
        page.shows(".verdict .reason", "next attempt")
        self.assertTrue(page.value("!document.querySelector('.retry').hidden"))
        self.serve(port)
        page.shows(".verdict .word", "Healthy")
        until(lambda: page.texts(".lines .text"), "the log")

    def test_with_control_it_initialises_requests_and_makes_faults(self):
        self.desk.start_bus()
        self.start(APPLICATION)
        page = self.browser
        page.open(url=self.serve("127.0.0.1:0", "--control"), height=4000)
        page.shows("#control .absence", "start gnss-gateway with --control")
        self.start(GATEWAY, "--rate", 10, "--control")
        page.shows(".verdict .word", "Healthy")
        until(lambda: "second-provider" in page.texts("#fault-kind option"), "the faults that the gateway knows")

        # A fault by keyboard alone.
        for _ in range(PANELS.index("health") + 2):
            page.press(key="F6")
        for key in ("Tab", "Tab", "End", "Home", "Tab", "Enter"):  # to the list of faults, the last, off, the start
            page.press(key=key)
        page.shows("#control .planned", "off\nin force for")
        page.shows('[data-light="inputs.gnss"] .word', "Error")
        page.shows(".rights", "Control on, 1 fault made")
        page.shows(".faults .answer", "Done: the gateway makes the fault off.")
        for key in ("Tab", "Tab", "Tab", "Enter"):  # the duration, the form's button, the fault's
            page.press(key=key)
        page.shows('[data-light="inputs.gnss"] .word', "Nominal")
        page.shows("#control .none", "No fault is in force.")
        self.assertEqual(page.value("document.activeElement.closest('section')?.id"), "control")

        # Texts that the page refuses, and one that the gateway refuses.
        page.choose(selector="#fault-kind", value="jump")
        for text in ("12 m", "10000001", "5@3"):
            page.fill(selector="#fault-value", text=text)
            page.press(key="Enter")
            self.assertIn(f"Value: a number from −10\u202f000\u202f000 to 10\u202f000\u202f000 (m) is expected, found “{text}”.", page.text(".problem"))
            self.assertEqual(page.value("document.activeElement.ariaInvalid + document.activeElement.id"), "truefault-value")
        page.fill(selector="#fault-value", text="20")
        page.fill(selector="#fault-start", text="9999999")
        page.press(key="Enter")
        page.shows(".faults .answer", 'Refused: fault "jump=20@9999999": expected a start in seconds from 0 to 1000000, found "9999999".')
        self.assertEqual(page.accessibility(), [])

        # Those of others, and those that wait.
        page.fill(selector="#fault-start", text="600")
        page.fill(selector="#fault-duration", text="1.5")
        page.press(key="Enter")
        page.shows("#control .planned", "jump=20@600+1.5\nbegins in")
        self.assertEqual(self.desk.run(POSCTL, "fault", "value-type=2")[0], 0)
        page.shows("#control .planned", "value-type=2\nin force for")
        page.look(width=1280, height=4000, scheme="dark")
        self.assertEqual(page.accessibility(), [])
        page.click(selector=".now-planned > button")
        page.shows("#control .none", "No fault is in force.")
        self.assertEqual(self.posctl("fault")["faults"], [])

        page.choose(selector=".requests select", value="POS_Input_GNSS")
        page.click(selector=".requests .line button")
        page.shows(".requests .answer", "Done: ")
        page.shows(".events", "POS_Input_GNSS: ")
        page.click(selector=".requests .states button")
        page.shows(".requests .answer", "Done: kOn is confirmed.")
        page.shows(".component", "Component state kOn")

    def test_a_jump_separates_the_track_and_satellites_stand_at_their_angles(self):
        self.start(APPLICATION)
        source = Source(self.desk)
        self.addCleanup(source.network.close)
        page = self.browser
        page.open(url=self.serve())
        until(source.has_all, "two subscribers of each field")
        for number in range(40):
            source.position(47.0 + (0.01 if number >= 20 else 0.0), 8.0 + number * 1e-5)
            source.network.quiet(0.05)
        page.shows(".track .caption", "2 pieces, 1 jump of 1.1 km")
        self.assertIn("1 jump of 1.1 km", page.value("document.querySelector('.map').ariaLabel"))

        angles = {number: (18 * number % 360, number * 4.0) for number in range(1, 21)}
        source.notify("posGnssSatInfos", records(*(
            [u32(0, number), u32(1, number % 5), quantity(f32, 2, elevation), quantity(f32, 4, azimuth), quantity(f32, 6, 20.0 + number),
             u32(8, number % 3)] for number, (azimuth, elevation) in angles.items())))
        page.shows(".sky .caption", "7 used of 20 in view")
        seen = page.value("[...document.querySelectorAll('.satellite')].map(one => [+one.textContent.slice(1), one.getCTM().e - one.parentNode.getCTM().e, one.getCTM().f - one.parentNode.getCTM().f, one.parentNode.getCTM().a])")
        self.assertEqual(len(seen), 20)
        rim = page.value("+document.querySelector('.sky-plot .ring').getAttribute('r')")
        for number, x, y, scale in seen:
            azimuth, elevation = angles[number]
            self.assertAlmostEqual(math.degrees(math.atan2(x, -y)) % 360, azimuth, delta=1)
            self.assertAlmostEqual(90 * (1 - math.hypot(x, y) / scale / rim), elevation, delta=1)

        # Samples without coordinates: no fix.
        source.notify("positions", records([u32(0, 1), u32(1, 99)], [u32(0, 2), u32(1, 99)]))
        page.shows(".now .banner", "No fix")
        self.assertEqual(page.text(".now .place"), "No coordinates")


class Synthetic_page(unittest.TestCase):
    """Tests of what the page does by itself, with frames that are made in the browser."""

    @classmethod
    def setUpClass(cls):
        cls.folder = contextlib.ExitStack()

        class Handler(http.server.SimpleHTTPRequestHandler):
            def translate_path(self, path):
                name = path.split("?")[0].lstrip("/") or "index.html"
                return str(BUILD / ("tests/web/bundle" if name == "synthetic.js" else "web/dist") / name)

            def send_head(self):
                if self.path.split("?")[0] != "/":
                    return super().send_head()
                text = (BUILD / "web/dist/index.html").read_text().replace("page.js", "synthetic.js").encode()
                self.send_response(200)
                self.send_header("Content-Type", "text/html")
                self.send_header("Content-Security-Policy", POLICY)
                self.send_header("Content-Length", str(len(text)))
                self.end_headers()
                self.wfile.write(text)
                return None

            def log_message(self, *_):
                pass

        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.url = f"http://127.0.0.1:{cls.server.server_port}/"
        cls.browser = Browser().__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.browser.__exit__()
        cls.server.shutdown()
        cls.server.server_close()

    def tearDown(self):
        self.assertEqual(self.browser.problems(), [])

    def open(self, path="", **look):
        self.browser.open(url=self.url + path, **look)
        self.browser.until(script="() => window.source")

    def drive(self, seconds):
        return self.browser.value(f"source.drive(Date.now(), {seconds * 1000})")

    def test_it_is_accessible_and_nothing_overlaps_at_any_width(self):
        page = self.browser
        for width, height, scheme in ((360, 780, "light"), (768, 1024, "light"), (1280, 800, "dark"), (1280, 800, "light"), (3840, 2160, "dark")):
            with self.subTest(width=width, scheme=scheme):
                self.open("?control", width=width, height=height, scheme=scheme)
                self.drive(60)
                page.value("source.send('application', {present: false, since: Date.now() - 5000, text: 'it has withdrawn its offer'}, Date.now())")
                page.shows(".verdict .word", "No application")
                self.assertEqual(page.value(OVERLAPS), [])
                if width < 2000:
                    self.assertEqual(page.accessibility(), [])

    def test_the_keyboard_reaches_everything_and_the_focus_is_seen(self):
        page = self.browser
        self.open("?control")
        self.drive(60)
        panels = [*PANELS[:4], "control", *PANELS[4:]]
        for panel in [*panels, panels[0]]:
            page.press(key="F6")
            self.assertEqual(page.value("document.activeElement.closest('section')?.id"), panel)
        page.value("document.activeElement.blur()")
        reached, seen = set(), None
        for _ in range(120):
            page.press(key="Tab")
            here = page.value("(() => { const one = document.activeElement, style = getComputedStyle(one.matches('.choice input') ? one.nextSibling : one);"
                              " return [one.closest('section, nav')?.id || one.localName, style.outlineStyle !== 'none' && parseFloat(style.outlineWidth) >= 2]; })()")
            if here[0] == "body":
                break
            reached.add(here[0])
            self.assertTrue(here[1], f"focus is not seen: {page.value('document.activeElement.outerHTML')}")
        self.assertLessEqual(set(panels), reached)
        page.value("document.querySelector('[data-light]').focus()")
        page.press(key="ArrowDown")
        self.assertIn("odometry, input: not available", page.text(".explanation"))
        page.value("document.querySelector('.strips').focus()")
        page.press(key="PageUp")
        page.press(key="ArrowLeft")
        until(lambda: "Rate out in a second: positions 20" in page.value("document.querySelector('.strips').getAttribute('aria-valuetext')"), "values at the cursor")
        page.shows(".time .when", "Values at")
        self.assertEqual(page.value("document.querySelectorAll('.u-cursor-x').length"), 6)
        page.value("document.querySelector('.now .enlarge').focus()")
        page.press(key="Enter")
        until(lambda: page.value("location.hash") == "#only=now", "the address")
        page.press(key="Escape")
        until(lambda: page.value("[...document.querySelectorAll('.panel')].every(one => one.offsetHeight)"), "all panels")

    def test_an_hour_of_history_costs_a_bounded_time_and_memory(self):
        page = self.browser
        self.open("#span=3600")
        self.drive(3600)
        frames = """new Promise(done => { const times = []; let last = performance.now();
          const step = now => { times.push(now - last); last = now; source.drive(Date.now(), 50);
            times.length < 100 ? requestAnimationFrame(step) : done(times.slice(10)); }; requestAnimationFrame(step); })"""
        page.value(frames)
        first = page.memory()
        # Other programs on the machine take frames too: the best of some measurements counts.
        rates = [1000 * len(times) / sum(times) for times in (page.value(frames) for _ in range(4))]
        self.drive(3600)
        self.drive(3600)
        page.value(frames)
        last = page.memory()
        print(f"{max(rates):.0f} frames a second with an hour of history at 20 Hz; heap with arrays "
              f"{sum(first.values()) / 1e6:.1f} MB after one hour, {sum(last.values()) / 1e6:.1f} MB after three")
        self.assertGreater(max(rates), 3 if is_busy() else 30)
        self.assertLess(sum(last.values()), 1.2 * sum(first.values()) + 1e6)

    def test_the_first_view_is_small(self):
        page = self.browser
        size = sum(len(gzip.compress((BUILD / "web/dist" / name).read_bytes())) for name in ("index.html", "page.js", "page.css", "icon.svg"))
        self.assertLess(size, 150 * 1024)
        paints = []
        while len(paints) < 8 and min(paints, default=1000) > 300:  # the machine may be busy
            self.open()
            paints.append(until(lambda: page.value("performance.getEntriesByName('first-contentful-paint')[0]?.startTime ?? 0"), "a paint"))
        print(f"{size / 1024:.0f} KiB compressed; first paint after {min(paints):.0f} ms")
        self.assertLess(min(paints), 3000 if is_busy() else 300)


if __name__ == "__main__":
    unittest.main()
