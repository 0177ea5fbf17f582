"""An installation below a folder of its own: the tools start there and find the manifest."""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest


def run(*command):
    return subprocess.run(command, check=False, capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=60)


class Installation(unittest.TestCase):
    def test_an_installation_of_its_own(self):
        root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="pos-installed-")))
        done = run("cmake", "--install", os.environ["POS_BUILD_DIR"], "--prefix", root)
        self.assertEqual(done.returncode, 0, done.stderr)
        for unit in ("pos.service", "gnss-gateway@drive.service"):
            verified = run("systemd-analyze", "verify", "--man=no", root / "lib/systemd/system" / unit)
            self.assertNotIn(unit, verified.stderr)
        described = run(root / "bin/posctl", "describe", "--json")
        of_machine = pathlib.Path("/etc/pos/manifest.json")
        self.assertEqual(json.loads(described.stdout)["manifest"],
                         str(of_machine if of_machine.exists() else root / "share/pos/manifest.json"))
        self.assertEqual(run(root / "bin/gnss-gateway", "--help").returncode, 0)
        for file in ("man/man1/posctl-status.1", "bash-completion/completions/posctl",
                     "zsh/vendor-completions/_posctl", "fish/vendor_completions.d/posctl.fish"):
            self.assertIn("status", (root / "share" / file).read_text(encoding="utf-8"), file)


if __name__ == "__main__":
    unittest.main()
