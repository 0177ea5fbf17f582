"""The installed units below a systemd of their own: a machine in namespaces, whose files are this one's with the
installation on top."""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest

from desk import BUILD, until
from machine import Machine

# What the test needs beside sysinit.target, so that nothing of the machine itself is set up anew.
TARGET = """[Unit]
Requires=dbus.service pos.service
After=dbus.service pos.service
AllowIsolate=yes
"""
UNITS = {"pos": "POS__ORVEL1_Sys_Adaptive_01_Exe", "gnss-gateway@drive": "gnss-gateway $GNSS_GATEWAY_ARGUMENTS"}
# Without SystemCallErrorNumber= a call that the filter forbids kills its process.
DEADLY = """[Service]
SystemCallErrorNumber=
Restart=no
"""
TRACED = """[Service]
Type=exec
WatchdogSec=0
Restart=no
SystemCallFilter=
SystemCallErrorNumber=
StateDirectory=traced-{name}
ExecStart=
ExecStart=/usr/bin/strace --interruptible=never --follow-forks --summary-only --output /var/lib/traced-{name}/calls /usr/bin/{program}
"""
FORBIDDEN = set("""bpf chown chroot clock_settime delete_module execveat fchown finit_module init_module io_uring_setup
    kexec_load keyctl kill link linkat memfd_create mount open_by_handle_at perf_event_open personality pidfd_getfd
    pivot_root process_vm_readv process_vm_writev ptrace reboot setgid setns settimeofday setuid symlink swapon truncate
    umount2 unshare userfaultfd""".split())


class Unit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        installed = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="pos-installed-"))
        subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], check=True, capture_output=True,
                       env={**os.environ, "DESTDIR": installed})
        pathlib.Path(installed, "test.target").write_text(TARGET, encoding="utf-8")
        cls.machine = Machine("test.target", f"""
            cp -r {installed}/usr .
            rm -rf etc/pos && cp -r {installed}/usr/share/pos etc/pos
            cp {installed}/test.target etc/systemd/system
            chroot . systemd-sysusers
            ln -sf /dev/null etc/systemd/system/systemd-udevd.service""")
        cls.addClassCleanup(cls.machine.end)
        if not cls.machine.wait():
            raise unittest.SkipTest(cls.machine.log.read_text())

    def restart(self, drop_in):
        """Both units with a drop-in, while all that a user does with them goes on; then stops them."""
        machine, units = self.machine, [*UNITS]
        for name, program in UNITS.items():
            folder = f"/run/systemd/system/{name}.service.d"
            machine.do("mkdir", "-p", folder)
            machine.do("sh", "-c", f"cat > {folder}/test.conf << 'E'\n{drop_in.format(name=name, program=program)}\nE")
        machine.do("systemctl", "daemon-reload")
        machine.do("systemctl", "restart", *units)
        self.assertEqual(machine.do("posctl", "watch", "--field", "positions", "--count", "3").count("positions "), 3)
        for command in (["status"], ["stats"], ["peers"], ["discover"], ["settings"], ["doctor"], ["read", "all"],
                        ["log", "GNSS=debug"], ["state", "kPrepSD"]):
            machine.do("posctl", *command)
        machine.do("systemctl", "stop", *units)
        return {name: machine.unit("Result", name) for name in units}

    def test_1_runs_in_its_sandbox(self):
        self.assertEqual(self.machine.unit("StatusText"), "running")
        main = self.machine.unit("MainPID")
        self.assertEqual(self.machine.do("ps", "-o", "user=", "-p", main), "pos")
        self.assertEqual(self.machine.do("stat", "-c", "%U %a", "/var/lib/pos"), "pos 750")
        self.assertEqual(self.machine.do("stat", "-c", "%U %a", "/run/pos/POS.sock"), "pos 660")
        self.assertEqual(json.loads(self.machine.do("posctl", "describe", "--json"))["manifest"], "/etc/pos/manifest.json")
        self.assertIn("synchronised", self.machine.do("posctl", "stats"), "the filter lets the clock's state be read")
        self.machine.do("systemctl", "start", "gnss-gateway@drive")
        for name in UNITS:
            exposure = self.machine.run("systemd-analyze", "security", "--threshold=15", f"{name}.service",
                                        capture_output=True)
            self.assertEqual(exposure.returncode, 0, exposure.stdout)

    def test_2_state_management_reaches_it(self):
        self.assertEqual(self.machine.do("posctl", "state", "kPrepSD"), "kPrepSD confirmed with result 0")

    def test_3_the_watchdog_starts_it_anew(self):
        hung = self.machine.unit("MainPID")
        self.machine.do("kill", "-STOP", hung)
        until(lambda: self.machine.unit("NRestarts") == "1" and self.machine.unit("SubState") == "running", "restarted")
        self.assertNotEqual(self.machine.unit("MainPID"), hung)

    def test_4_ends_well(self):
        self.machine.do("systemctl", "stop", "pos")
        self.assertEqual(self.machine.unit("Result"), "success")
        self.assertEqual(self.machine.unit("ExecMainStatus"), "0")

    def test_5_makes_only_the_system_calls_that_its_filter_allows(self):
        self.assertEqual(self.restart(DEADLY), dict.fromkeys(UNITS, "success"))
        allowed = {name: set(self.machine.unit("SystemCallFilter", name).split()) for name in UNITS}
        self.assertEqual(self.restart(TRACED), dict.fromkeys(UNITS, "success"))
        for name, calls in allowed.items():
            table = self.machine.do("cat", f"/var/lib/traced-{name}/calls").splitlines()[2:-2]
            called = {line.split()[-1] for line in table}
            self.assertGreater(len(called), 30, table)
            self.assertEqual(called - calls, set())
            self.assertEqual(calls & FORBIDDEN, set())
            self.assertLess(len(calls), 200, "of about 360 that a processor has; the names of all processors count here")


if __name__ == "__main__":
    unittest.main()
