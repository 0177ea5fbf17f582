"""A machine in namespaces, below a systemd of its own."""

import os
import pathlib
import subprocess
import tempfile
import time

BOOT = """set -e
mount --make-rprivate /
mount -t tmpfs tmpfs "$MOUNTS"
cd "$MOUNTS"
mkdir upper work root
eval "$MOUNT_ROOT"
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
eval "$PREPARE"
mkdir -p old
pivot_root . old
exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin $INIT
"""


class Machine:
    """Its files are those of `root`, or those of this machine, which stay as they are. `prepare` is run by a shell in its
    root folder before systemd starts `target`."""

    def __init__(self, target, prepare="", root=None):
        self.target = target
        self.folder = tempfile.TemporaryDirectory(prefix="pos-machine-")
        mounts, self.log = (pathlib.Path(self.folder.name, name) for name in ("mounts", "log"))
        mounts.mkdir()
        mount_root = "mount -t overlay overlay -o lowerdir=/,upperdir=upper,workdir=work root"
        with self.log.open("w") as log:
            self.namespaces = subprocess.Popen(
                ["unshare", "--mount", "--pid", "--uts", "--ipc", "--net", "--cgroup", "--fork", "--kill-child",
                 "bash", "-c", BOOT],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                env={**os.environ, "MOUNTS": str(mounts), "PREPARE": prepare,
                     "MOUNT_ROOT": f"mount --bind '{root}' root" if root else mount_root,
                     "INIT": f"/lib/systemd/systemd systemd.unit={target} systemd.log_target=null"},
            )

    def lacks_rights(self):
        return self.namespaces.poll() is not None and "mounted" not in self.log.read_text()

    def wait(self):
        """Until it has booted. Returns false if this user may not make one."""
        end = time.monotonic() + 120
        while time.monotonic() < end:
            if self.lacks_rights():
                return False
            if self.do("systemctl", "is-active", self.target) == "active":
                return True
            time.sleep(0.05)
        raise AssertionError("not booted: " + self.log.read_text())

    def run(self, *command, timeout=60, **options):
        """A process of the machine."""
        pid = self.namespaces.pid
        inside = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        return subprocess.run(["nsenter", "--all", "--target", *inside, *command], check=False, text=True,
                              stdin=subprocess.DEVNULL, timeout=timeout, **options)

    def do(self, *command):
        """What it prints."""
        return self.run(*command, capture_output=True).stdout.strip()

    def unit(self, name, of="pos"):
        return self.do("systemctl", "show", "--value", "--property", name, of)

    def end(self):
        self.namespaces.kill()  # and with it everything in it
        self.namespaces.wait()
        self.folder.cleanup()
