"""The installed unit below a systemd of its own: a machine in namespaces, whose files are this one's with the
installation on top."""

import os
import pathlib
import subprocess
import tempfile
import unittest

from desk import BUILD, until

# What the test needs beside sysinit.target, so that nothing of the machine itself is set up anew.
TARGET = """[Unit]
Requires=dbus.service pos.service
After=dbus.service pos.service
AllowIsolate=yes
"""
BOOT = """set -e
mount --make-rprivate /
mount -t tmpfs tmpfs "$MOUNTS"
cd "$MOUNTS"
mkdir upper work root
mount -t overlay overlay -o lowerdir=/,upperdir=upper,workdir=work root
cd root
mount -t proc proc proc
mount -o bind,ro proc/sys proc/sys
mount -t sysfs -o ro sysfs sys
mount -t tmpfs tmpfs sys/fs/cgroup
mkdir sys/fs/cgroup/systemd
mount -t cgroup -o none,name=systemd cgroup sys/fs/cgroup/systemd 2>/dev/null ||
  { umount sys/fs/cgroup; mount -t cgroup2 cgroup2 sys/fs/cgroup; }
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs dev
for device in null zero full random urandom tty; do cp -a /dev/$device dev; done
mkdir dev/shm dev/pts
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ip link set lo up multicast on
ip route add 224.0.0.0/4 dev lo
echo mounted
cp -r "$INSTALLED/usr" .
echo "$TARGET" > etc/systemd/system/test.target
chroot . systemd-sysusers
ln -sf /dev/null etc/systemd/system/systemd-udevd.service
mkdir old
pivot_root . old
exec env -i container=test PATH=/usr/sbin:/usr/bin /lib/systemd/systemd systemd.unit=test.target systemd.log_target=null
"""


class Machine:
    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="pos-machine-")
        installed, mounts, self.log = (pathlib.Path(self.folder.name, name) for name in ("installed", "mounts", "log"))
        mounts.mkdir()
        subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], check=True, capture_output=True,
                       env={**os.environ, "DESTDIR": str(installed)})
        with self.log.open("w") as log:
            self.namespaces = subprocess.Popen(
                ["unshare", "--mount", "--pid", "--uts", "--ipc", "--net", "--cgroup", "--fork", "--kill-child",
                 "bash", "-c", BOOT],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                env={**os.environ, "INSTALLED": str(installed), "MOUNTS": str(mounts), "TARGET": TARGET},
            )

    def lacks_rights(self):
        return self.namespaces.poll() is not None and "mounted" not in self.log.read_text()

    def booted(self):
        return self.do("systemctl", "is-active", "test.target") == "active"

    def do(self, *command):
        """What it prints."""
        pid = self.namespaces.pid
        inside = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        done = subprocess.run(["nsenter", "--all", "--target", *inside, *command], check=False, capture_output=True,
                              text=True, stdin=subprocess.DEVNULL, timeout=60)
        return done.stdout.strip()

    def unit(self, name):
        return self.do("systemctl", "show", "--value", "--property", name, "pos")

    def end(self):
        self.namespaces.kill()  # and with it everything in it
        self.namespaces.wait()
        self.folder.cleanup()


class Unit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.machine = Machine()
        cls.addClassCleanup(cls.machine.end)
        until(lambda: cls.machine.lacks_rights() or cls.machine.booted(), "booted")
        if cls.machine.lacks_rights():
            raise unittest.SkipTest(cls.machine.log.read_text())

    def test_1_runs_in_its_sandbox(self):
        self.assertEqual(self.machine.unit("StatusText"), "running")
        main = self.machine.unit("MainPID")
        self.assertEqual(self.machine.do("ps", "-o", "user=", "-p", main), "pos")
        self.assertEqual(self.machine.do("stat", "-c", "%U %a", "/var/lib/pos"), "pos 750")

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


if __name__ == "__main__":
    unittest.main()
