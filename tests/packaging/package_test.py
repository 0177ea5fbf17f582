"""Installs, configures, upgrades, removes and purges the Debian packages on a bare machine below a systemd of its own.

package_test.py PACKAGES ARCHITECTURE: prints each command and its output. An architecture that the processor is not has
no systemd: its packages are installed in a folder, and its programs run under emulation.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "python"))
from machine import Machine  # pylint: disable=wrong-import-position

PACKAGES, ARCHITECTURE = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
NATIVE = subprocess.run(["dpkg", "--print-architecture"], check=True, capture_output=True, text=True).stdout.strip()
APT = ("env", "DEBIAN_FRONTEND=noninteractive", "LC_ALL=C.UTF-8", "apt-get", "--quiet=2", "--option=Dpkg::Use-Pty=0",
       "--option=Dpkg::Options::=--force-confold", "--yes")
# Grows with everything that apt and systemd do, whatever the package.
OF_THE_MACHINE = ("dev", "old", "proc", "run", "sys", "tmp", "offered", "newer", "var/cache", "var/log", "var/lib/apt",
                  "var/lib/dpkg", "var/tmp")


def packages_in(folder):
    return [next(folder.glob(f"{name}_*_{ARCHITECTURE}.deb")) for name in ("pos", "pos-tools")]


SDK = next(PACKAGES.glob(f"adaptive-platform-linux-dev_*_{ARCHITECTURE}.deb"))
PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/installing.md"
COMPILER = ("--no-install-recommends", "g++", "cmake", "make")


def make_root(folder):
    """A bare installation with the package lists, and what the packages depend on in apt's cache."""
    kept = PACKAGES / f"bare-root-{ARCHITECTURE}.tar"
    if not kept.exists():
        subprocess.run(["mmdebstrap", "--variant=minbase", "--include=systemd-sysv", f"--architectures={ARCHITECTURE}",
                        "--skip=cleanup/apt", "bookworm", kept.with_suffix(".new.tar")], check=True)
        kept.with_suffix(".new.tar").rename(kept)
    subprocess.run(["tar", "--extract", "--file", kept, "--directory", folder], check=True)
    (folder / "etc/resolv.conf").unlink(missing_ok=True)  # may be a link that leads out of the folder
    shutil.copy("/etc/resolv.conf", folder / "etc/resolv.conf")
    (folder / "offered").mkdir()
    for package in (*packages_in(PACKAGES), SDK):
        shutil.copy(package, folder / "offered")
    chroot = ["chroot", folder, *APT]
    subprocess.run([*chroot, "update"], check=True)
    subprocess.run([*chroot, "install", "--download-only", *(f"/offered/{file.name}" for file in packages_in(PACKAGES))],
                   check=True)
    if ARCHITECTURE == NATIVE:
        subprocess.run([*chroot, "install", "--download-only", *COMPILER, f"/offered/{SDK.name}"], check=True)


def make_newer(folder):
    """The same packages as a later version, whose delivered configuration differs in each file."""
    (folder / "newer").mkdir()
    for package in packages_in(PACKAGES):
        with tempfile.TemporaryDirectory() as unpacked:
            subprocess.run(["dpkg-deb", "--raw-extract", package, unpacked], check=True)
            control = pathlib.Path(unpacked, "DEBIAN/control")
            control.write_text(control.read_text().replace("\nVersion: ", "\nVersion: 99."))
            for file in pathlib.Path(unpacked, "etc/pos").rglob("*.*"):
                file.write_text(file.read_text() + ("# Of the later version.\n" if file.suffix == ".env" else "\n"))
            subprocess.run(["dpkg-deb", "--root-owner-group", "--build", unpacked, folder / "newer" / package.name],
                           check=True, stdout=subprocess.DEVNULL)


def files_of(root):
    found = set()
    for folder, folders, files in os.walk(root):
        inside = pathlib.Path(folder).relative_to(root)
        folders[:] = [name for name in folders if str(inside / name) not in OF_THE_MACHINE]
        found |= {str(inside / name) for name in folders + files}
    return found


class Folder:
    """In place of a machine for programs that this processor cannot run as its first process."""

    # Each command has its own mounts and processes: nothing of this machine lies in the folder when it is removed, and
    # nothing that a command started outlives it.
    MOUNTED = """
        mount -t proc proc "$0/proc"
        mount -t tmpfs tmpfs "$0/dev"
        for device in null zero full random urandom tty; do cp -a "/dev/$device" "$0/dev"; done
        mkdir "$0/dev/shm"
        exec chroot "$0" "$@" """

    def __init__(self, root):
        self.root = root

    def run(self, *command, **options):
        own = ("unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-ec", self.MOUNTED, self.root)
        return subprocess.run([*own, *command], check=False, text=True, stdin=subprocess.DEVNULL, **options)


class Package(unittest.TestCase):
    maxDiff = None

    def do(self, *command):
        print("#", *command, flush=True)
        done = self.machine.run(*command, timeout=900, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        print(done.stdout, end="", flush=True)
        self.assertEqual(done.returncode, 0, command)
        return done.stdout.strip()

    def install(self, folder):
        self.do(*APT, "install", *(f"/{folder}/{file.name}" for file in packages_in(PACKAGES)))

    def journal(self):
        return self.machine.do("journalctl", "--output", "cat", "--unit", "pos")

    def move_to_another_network(self):
        """By the page's line."""
        for node in (10, 20, 30):  # by this machine's program: the bare one has none
            subprocess.run(["nsenter", "--net", "--target", str(self.machine.namespaces.pid), "ip", "address", "add",
                            f"192.168.7.{node}/24", "dev", "lo"], check=True)
        self.do("sh", "-ec", re.search("^sed -i .*/etc/pos/manifest.json.*$", PAGE.read_text(), re.MULTILINE)[0])
        self.do("systemctl", "restart", "gnss-gateway@drive")
        self.do("posctl", "watch", "--count", "3")
        self.assertIn("192.168.7.20", self.do("posctl", "peers"))

    def build_the_example(self):
        """With the installed SDK, and beside the installed application."""
        self.do(*APT, "install", *COMPILER, f"/offered/{SDK.name}")
        found = self.do("sh", "-ec", """
            cp -r /usr/share/doc/adaptive-platform-linux-dev/examples/geofence /tmp/geofence
            cmake -S /tmp/geofence -B /tmp/geofence/build > /dev/null
            cmake --build /tmp/geofence/build
            export GEOFENCE_MANIFEST=/tmp/geofence/manifest.json POS_MANIFEST=/tmp/geofence/manifest.json
            export GEOFENCE_STORAGE_DIR=/tmp/geofence/store
            /tmp/geofence/build/geofence 2> /tmp/geofence/log & geofence=$!
            posctl discover --for 4
            kill $geofence
            wait $geofence
            grep "The vehicle is" /tmp/geofence/log || { cat /tmp/geofence/log; exit 1; }""")
        self.assertRegex(found, r"0x2B10 .*example::geofence::Geofence")
        self.do(*APT, "purge", "--auto-remove", "adaptive-platform-linux-dev", "g++", "cmake", "make")

    def build_the_example_for_another_processor(self):
        """With this machine's libraries of that processor, which the page names."""
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["dpkg-deb", "--extract", SDK, folder], check=True)
            example = f"{folder}/usr/share/doc/adaptive-platform-linux-dev/examples/geofence"
            toolchain = next(pathlib.Path(folder).glob("usr/lib/*/cmake/AdaptivePlatform/arm64.cmake"))
            subprocess.run(["cmake", "-S", example, "-B", f"{folder}/build", f"-DCMAKE_PREFIX_PATH={folder}/usr",
                            f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"], check=True)
            subprocess.run(["cmake", "--build", f"{folder}/build"], check=True)
            shutil.copy(f"{folder}/build/geofence", self.root / "tmp")
        self.assertIn('"example::geofence::State"', self.do("/tmp/geofence", "--describe"))

    def purge(self, bare):
        self.do(*APT, "remove", "pos", "pos-tools")
        kept = {name for name in files_of(self.root) - bare if name.startswith("etc/pos")}
        self.assertIn("etc/pos/pos.env", kept)
        self.assertFalse((self.root / "usr/bin/posctl").exists())
        self.do(*APT, "purge", "--auto-remove", "pos", "pos-tools")
        left = sorted(files_of(self.root) - bare)
        print("left:", left, flush=True)
        return left

    def make(self):
        self.root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="pos-root-")))
        self.root.chmod(0o755)
        make_root(self.root)
        make_newer(self.root)

    def test_the_programs_have_the_defences_of_the_compiler(self):
        unpacked = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for package in packages_in(PACKAGES):
            subprocess.run(["dpkg-deb", "--extract", package, unpacked], check=True)
        gnu = {"amd64": "x86_64-linux-gnu", "arm64": "aarch64-linux-gnu"}[ARCHITECTURE]
        branches = {"amd64": "endbr64", "arm64": "paciasp"}[ARCHITECTURE]
        programs = sorted((unpacked / "usr/bin").iterdir())
        self.assertEqual(len(programs), 3)
        for program in programs:
            told = subprocess.run([f"{gnu}-readelf", "--wide", "--all", program], check=True, capture_output=True,
                                  text=True).stdout
            for sign in ("DYN (Position-Independent", "GNU_RELRO", "BIND_NOW", "__stack_chk_fail", "__memcpy_chk"):
                self.assertIn(sign, told, program.name)
            code = subprocess.run([f"{gnu}-objdump", "--disassemble", "--section=.text", program], check=True,
                                  capture_output=True, text=True).stdout
            self.assertGreater(code.count(branches), 1000, program.name)

    @unittest.skipUnless(ARCHITECTURE == NATIVE, "needs a systemd of this processor")
    def test_on_a_bare_machine(self):
        self.make()
        bare = files_of(self.root)
        self.machine = Machine("basic.target", root=self.root)
        self.addCleanup(self.machine.end)
        self.assertTrue(self.machine.wait(), "only root can make a machine")

        self.install("offered")
        self.assertEqual(self.do("systemctl", "is-active", "pos"), "active")
        self.assertEqual(self.do("systemctl", "is-enabled", "pos"), "enabled")
        self.do("systemctl", "start", "gnss-gateway@drive")
        self.do("posctl", "watch", "--count", "3")
        self.do("systemctl", "is-active", "gnss-gateway@drive")
        self.do("posctl", "watch", "--count", "30")  # the states of outputs and monitors have changed meanwhile
        before = self.journal()
        self.assertIn("POS_Output_DeadReckoning", before)
        self.do("posctl", "watch", "--count", "20")
        self.assertEqual(self.journal(), before, "nothing while positions flow")
        self.assertEqual(json.loads(self.machine.do("posctl", "describe", "--json"))["manifest"], "/etc/pos/manifest.json")
        self.assertRegex(self.do("posctl", "settings"), r"recievedGNSSDataLogging +false")
        self.assertEqual(self.do("posctl", "state", "kPrepSD"), "kPrepSD confirmed with result 0")
        self.build_the_example()
        self.move_to_another_network()

        edited = {}
        for name, old, new in (("manifest.json", '"cyclicOfferDelayMs": 1000', '"cyclicOfferDelayMs": 900'),
                               ("pos.env", "POS_LOG_LEVEL=info,", "POS_LOG_LEVEL=warn,"),
                               ("gnss-gateway/drive.env", "--rate 10", "--rate 5")):
            file = self.root / "etc/pos" / name
            edited[file] = file.read_text().replace(old, new)
            self.assertNotEqual(edited[file], file.read_text(), name)
            file.write_text(edited[file])
        before = {name: self.machine.unit("MainPID", name) for name in ("pos", "gnss-gateway@drive")}
        self.install("newer")
        for file, text in edited.items():
            self.assertEqual(file.read_text(), text)
        self.assertIn("99.", self.do("dpkg-query", "--show", "pos"))
        for name, process in before.items():
            self.assertNotIn(self.machine.unit("MainPID", name), (process, "0"), name)
        self.do("posctl", "watch", "--count", "3")
        self.do("systemctl", "enable", "gnss-gateway@drive")
        left = self.purge(bare)
        for name in before:
            self.assertEqual(self.machine.unit("MainPID", name), "0", name)
        self.assertEqual([name for name in left if re.search("pos|gnss|adaptive", name)], [])
        self.assertEqual(self.machine.do("id", "--name", "--user", "pos"), "pos", "users stay, as the policy says")

    @unittest.skipIf(ARCHITECTURE == NATIVE, "runs below systemd")
    def test_under_emulation(self):
        self.make()
        (self.root / "usr/sbin/policy-rc.d").write_text("#!/bin/sh\nexit 101\n")
        (self.root / "usr/sbin/policy-rc.d").chmod(0o755)
        bare = files_of(self.root)
        self.machine = Folder(self.root)
        self.install("offered")
        self.do("sh", "-ec", """
            mkdir -p /run/pos && chown pos /run/pos
            set -a && . /etc/pos/pos.env && set +a
            export RUNTIME_DIRECTORY=/run/pos STATE_DIRECTORY=/tmp/state POS_STATE_BUS=none
            setpriv --reuid pos --regid pos --clear-groups POS__ORVEL1_Sys_Adaptive_01_Exe & application=$!
            gnss-gateway --rate 10 > /dev/null & gateway=$!
            posctl watch --count 3
            kill $gateway $application
            wait $gateway
            wait $application""")
        self.build_the_example_for_another_processor()
        self.install("newer")
        self.assertEqual([name for name in self.purge(bare) if re.search("pos|gnss|adaptive", name)], [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
