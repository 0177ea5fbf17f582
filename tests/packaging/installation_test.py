"""What an installation puts where: the unit starts a program that is there, and the tools find the manifest."""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest

BUILD = os.environ["POS_BUILD_DIR"]


def run(*command, **environment):
    return subprocess.run(
        [str(part) for part in command],
        check=False,
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
        timeout=60,
        env={**os.environ, **environment},
    )


class Installation(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="pos-installed-")
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def install(self, prefix, **environment):
        done = run("cmake", "--install", BUILD, "--prefix", prefix, **environment)
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_a_package_for_usr(self):
        self.install("/usr", DESTDIR=str(self.root))
        usr = self.root / "usr"
        lines = (usr / "lib/systemd/system/pos.service").read_text(encoding="utf-8").splitlines()
        unit = dict(line.split("=", 1) for line in lines if "=" in line and not line.startswith("#"))
        self.assertTrue(unit["ExecStart"].startswith("/usr/bin/"), unit["ExecStart"])
        self.assertTrue(os.access(self.root / unit["ExecStart"][1:], os.X_OK), unit["ExecStart"])
        users = run("systemd-sysusers", "--dry-run", f"--root={self.root}")
        self.assertIn(f"Creating user '{unit['User']}'", users.stderr)
        policy = (usr / "share/dbus-1/system.d/org.adaptive.pos.conf").read_text(encoding="utf-8")
        self.assertIn(f'<policy user="{unit["User"]}">', policy)

    def test_an_installation_of_its_own(self):
        self.install(self.root)
        verified = run("systemd-analyze", "verify", "--man=no", self.root / "lib/systemd/system/pos.service")
        self.assertNotIn("pos.service", verified.stderr)
        described = run(self.root / "bin/posctl", "describe", "--json")
        self.assertEqual(json.loads(described.stdout)["manifest"], str(self.root / "share/pos/manifest.json"))
        self.assertEqual(run(self.root / "bin/gnss-gateway", "--help").returncode, 0)


if __name__ == "__main__":
    unittest.main()
