"""A real browser (Chromium without a window) that a test drives; tests/web/browser.mjs is its other half."""

import json
import pathlib
import subprocess
import tempfile

from desk import DEADLINE, SOURCE, until

DRIVER = SOURCE / "tests/web/browser.mjs"
NODE = pathlib.Path("/usr/bin/node")
PANELS = ["track", "now", "sky", "health", "time", "wire", "log"]  # of the page of posctl serve, in its order


class Browser:
    def __enter__(self):
        self.profile = tempfile.TemporaryDirectory(prefix="pos-browser-", ignore_cleanup_errors=True)
        self.process = subprocess.Popen([NODE, DRIVER, self.profile.name], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        try:
            self.process.wait(DEADLINE)
        finally:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()
            self.profile.cleanup()

    def __getattr__(self, command):
        def call(**options):
            self.process.stdin.write(json.dumps({"command": command, **options}) + "\n")
            self.process.stdin.flush()
            answer = json.loads(self.process.stdout.readline())
            if "error" in answer:
                raise AssertionError(f"{command} {options}: {answer['error']}")
            return answer["result"]
        return call

    def value(self, script):
        return self.evaluate(script=script)

    def text(self, selector):
        """The text of the first element, as it is shown: "" without one."""
        return self.value(f"document.querySelector({json.dumps(selector)})?.innerText ?? ''")

    def texts(self, selector):
        return self.value(f"[...document.querySelectorAll({json.dumps(selector)})].map(one => one.innerText)")

    def shows(self, selector, part):
        """Waits until the text of the element contains `part`."""
        until(lambda: part in self.text(selector), f"{part!r} in {selector}: {self.text(selector)!r}")
