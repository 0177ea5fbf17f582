"""The page in a real browser, beside the application on the real wire: each panel says what the application says."""

import json
import math
import re
import time
import unittest

from browser import PANELS, Browser
from desk import APPLICATION, GATEWAY, POSCTL, Desk_test, until
from network import NOTIFICATION, SUBSCRIBE, Network, endpoint, offer, someip
from payload import f32, f64, records, u32

GNSS = "lumo::services::gnss::GNSS"
PHYSICAL = 4


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


if __name__ == "__main__":
    unittest.main()
