"""The packages on a bare Debian system with the real service manager: installed, used, upgraded, removed, purged.

The methods are chapters of one story on one machine, in the order of their names.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path
from typing import Callable

from machine import PACKAGES, Machine, fields

sys.path[:0] = [str(Path(__file__).resolve().parents[2] / folder) for folder in ("examples/instrument", "tests/endtoend")]
os.environ.setdefault("ARBOR_TEST_LOGS", str(PACKAGES.parent / "debian/logs"))
import installs  # noqa: E402
from simulation import fixtures, furnish, paths  # noqa: E402
from simulation.identity import INSTRUMENT  # noqa: E402

PATIENCE = 60.0
NEXT = "3.048"  # what is installed here
STICK = "/media/usb1"
# What runs of the system's own change on it whatever is installed.
PASSING = re.compile(r"/(proc|sys|dev|run|tmp|packages|var/(lib/(dpkg|apt|systemd|private)|cache|log|tmp))(/|$)|/machine-init$|/etc/(group|gshadow)-?$|/etc/ld\.so\.cache$")
# Each process stays below what one may have; together they want twice what a check may.
HUNGRY = """#!/bin/sh
case $1 in --version) echo 3.049; exit ;; esac
exec python3 -c '
import os, signal
def lost(*_):
    print("it was not given that much", flush=True)
    os._exit(1)
signal.signal(signal.SIGCHLD, lost)
told, tell = os.pipe()
for number in range(4):
    if os.fork() == 0:
        memory = b"x" * (250 << 20)
        os.write(tell, b".")
        signal.pause()
for number in range(4):
    os.read(told, 1)
print("it was given all of it", flush=True)
os._exit(1)
'
"""


def ours(*names: str, folder: Path = PACKAGES) -> list[Path]:
    """Files of our packages."""
    return [package for name in names for package in folder.glob(f"{name}_*.deb")]


class Story(unittest.TestCase):
    machine: Machine
    work: Path

    @classmethod
    def setUpClass(cls) -> None:
        cls.work = Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="arbor-debian-")))
        cls.fixtures = fixtures.ensure()
        cls.machine = cls.enterClassContext(Machine())
        cls.before = cls.files()

    def run(self, result: unittest.TestResult | None = None) -> unittest.TestResult | None:
        """After a failure the chapters behind it make no sense."""
        failed = bool(result and (result.failures or result.errors))
        done = result if failed else super().run(result)
        if not failed and result and (result.failures or result.errors):
            print(self.machine.run("journalctl", "--no-pager", "-n", "150", check=False).stdout, flush=True)
        return done

    @classmethod
    def files(cls) -> set[str]:
        """All that is on the machine's disk, but what changes by itself."""
        found = cls.machine.shell("find / -xdev -not -path '/proc/*'").splitlines()
        return {path for path in found if not PASSING.match(path)}

    def wait(self, holds: Callable[[], bool], what: str) -> None:
        deadline = time.monotonic() + PATIENCE
        while not holds():
            self.assertLess(time.monotonic(), deadline, f"timed out until {what}")
            time.sleep(0.1)

    def arborctl(self, *words: str) -> dict:
        return json.loads(self.machine.run("arborctl", "--json", *words).stdout)

    def property(self, unit: str, name: str) -> str:
        return self.machine.run("systemctl", "show", "--value", "--property", name, unit).stdout.strip()

    def offered(self) -> set[str]:
        return set(re.findall(r"^(\d[\d.]*) ", self.machine.run("arborctl", "updates").stdout, re.M))

    def jobs(self, kind: str) -> list[dict]:
        return self.arborctl("history", "--kind", kind)["operations"]

    def installers(self) -> list[str]:
        units = self.machine.shell("systemctl list-units --plain --no-legend 'arbor-install-*.service'")
        return [line.split()[0] for line in units.splitlines() if "running" in line]

    def begin_install(self, until: str) -> tuple[dict, str]:
        """An install that stands still at a moment: its job, and its unit."""
        self.wait(lambda: NEXT in self.offered(), f"{NEXT} is offered")
        self.machine.shell(f"echo '{until}' > {installs.STOPS}")
        self.machine.run("arborctl", "install", NEXT, "--no-reboot")
        self.wait(lambda: bool(self.installers()), "an installer runs")
        unit = self.installers()[0]
        self.wait(lambda: bool(self.standing(unit)), f"the installer stands still at '{until}'")
        return self.jobs("install")[0], unit

    def standing(self, unit: str) -> list[str]:
        """Processes of the unit that stand still."""
        control = self.property(unit, "ControlGroup")
        return self.machine.shell(f"for p in $(cat /sys/fs/cgroup/systemd{control}/cgroup.procs /sys/fs/cgroup{control}/cgroup.procs 2> /dev/null); do "
                                  f"grep -q '^State:.T' /proc/$p/status 2> /dev/null && echo $p; done; true").split()

    def job(self, identity: str) -> dict:
        return next(job for job in self.jobs("install") if job["id"] == identity)

    def settled(self, identity: str) -> dict:
        self.wait(lambda: self.job(identity)["state"] not in ("Queued", "Running"), f"the job {identity} ends")
        return self.job(identity)

    def test_1_two_commands_lead_from_the_packages_to_a_running_service(self) -> None:
        packages = [f"/packages/{package.name}" for package in ours("arbor-install", "arborctl", "arbor-pkg")]
        self.machine.run("apt-get", "install", "-y", "--no-install-recommends", *packages)
        status = self.machine.run("arborctl", "status").stdout
        self.assertIn("no package is accepted: there is no trusted certificate", status)
        self.assertEqual(self.property("arbord", "ActiveState"), "active")
        self.assertEqual(self.machine.shell("systemctl --failed --no-legend --plain"), "")
        self.assertEqual(self.machine.shell("stat -c %U:%G:%a /run/arbor/gateway.sock").strip(), "root:arbor:660")
        self.assertIn("arbor-pkg", self.machine.run("arbor-pkg", "--help").stdout)
        exposure = self.machine.run("systemd-analyze", "security", "--no-pager", "arbord", check=False).stdout
        found = re.search(r"Overall exposure level for arbord.service: ([\d.]+)", exposure)
        self.assertTrue(found and float(found[1]) <= 2.5, exposure)

    def test_2_a_stick_is_seen_and_its_packages_are_checked_apart_from_the_host(self) -> None:
        self._furnish()
        self.machine.run("systemctl", "restart", "arbord")
        self._plug_stick_in()
        self.wait(lambda: NEXT in self.offered(), f"{NEXT} is offered")
        self.assertNotIn("confined", self.machine.run("arborctl", "status").stdout)
        checks = self.jobs("check")
        self.assertIn("Succeeded", [check["state"] for check in checks])
        self.assertIn("arbor-check-", self.machine.run("journalctl", "--no-pager", "_PID=1").stdout)

    def test_3_what_a_check_uses_is_bounded_for_all_its_processes_together(self) -> None:
        if not self.property("arbord", "MemoryCurrent").isdigit():
            self.fail("the machine's service manager can't bound memory here: its kernel gives it no memory controller")
        package = self.work / "hungry.pkg"
        package.write_text(HUNGRY)
        package.chmod(0o755)
        keys = self.fixtures / "keys"
        self.called("python3", "-B", paths.PROJECT / "packages/arbor-pkg", "sign", package, "--version", "3.049", "--board", INSTRUMENT.board,
                    "--key", keys / "key.pem", "--cert", keys / "cert.pem")
        for name in ("hungry.pkg.sig", "hungry.pkg"):
            self.machine.put(self.work / name, f"{STICK}/{name}")
        told = self.machine.run("arborctl", "scan", f"{STICK}/hungry.pkg", check=False)
        self.assertIn("it was not given that much", told.stdout + told.stderr)
        self.machine.shell(f"rm {STICK}/hungry.pkg*")
        self.assertEqual(self.property("arbord", "ActiveState"), "active")

    def test_4_neither_an_upgrade_nor_the_end_of_the_host_touches_an_installer(self) -> None:
        job, unit = self.begin_install(installs.HALFWAY)
        main = self.property(unit, "MainPID")
        self.assertEqual(self.property(unit, "MemoryMax"), str(512 << 20))
        before = self.property("arbord", "MainPID")
        self.assertIn("Arbor Install", self.machine.shell("systemd-inhibit --list --no-legend --no-pager"))
        self.machine.run("apt-get", "install", "-y", "--no-install-recommends", *self._next_packages())
        self.wait(lambda: self.property("arbord", "ActiveState") == "active", "the upgraded service runs")
        self.assertNotEqual(self.property("arbord", "MainPID"), before)
        self.machine.run("systemctl", "kill", "--signal=KILL", "--kill-who=main", "arbord")
        self.wait(lambda: self.machine.run("arborctl", "status", check=False).returncode == 0, "the host is back")
        self.assertEqual(self.property(unit, "MainPID"), main)
        self.assertEqual(self.job(job["id"])["state"], "Running")
        self.machine.shell(f"rm {installs.STOPS}; kill -CONT {' '.join(self.standing(unit))}")
        self.assertEqual(self.settled(job["id"])["state"], "Succeeded")
        self.assertEqual(self.machine.shell("cat /media/mmcblk1p3/Slots/active/version").strip(), NEXT)
        self.assertEqual(self.installers(), [])

    def test_5_an_install_that_is_cancelled_ends_with_all_its_processes(self) -> None:
        job, unit = self.begin_install(installs.HALFWAY)
        self.machine.run("arborctl", "cancel", job["id"], check=False)
        self.assertEqual(self.settled(job["id"])["state"], "Cancelled")
        self.wait(lambda: self.property(unit, "ActiveState") in ("inactive", ""), "the unit ends")
        self.assertEqual(self.machine.shell("systemctl --failed --no-legend --plain"), "")

    def test_5b_a_version_that_fails_is_left_by_the_host_in_its_sandbox(self) -> None:
        settings = {"slots": str(paths.SLOTS), "runningSlotFile": "/run/arbor-boot/slot", "bootIdFile": "/run/arbor-boot/id",
                    "restart": "touch /run/arbor-restarted"}
        # What the host itself may not do: look into /root, write into /run.
        checks = ["must outside 5 test -w /root", "must measures 5 echo no signal on channel 2; false"]
        record = {"checks": checks, "pauseSeconds": 1, "holdSeconds": 1, "deadlineSeconds": 3}
        self.machine.shell(f"echo '{json.dumps(settings)}' > /etc/arbor/boot.json; mkdir -p /run/arbor-boot\n"
                           f"for file in version digest; do echo {NEXT} > {paths.SLOTS}/B/$file; done\n"
                           "for slot in A B; do arbor-boot activate $slot; echo $slot | tee /run/arbor-boot/slot > /run/arbor-boot/id; "
                           "arbor-boot start; done")
        graph = json.loads(self.machine.shell(f"cat {paths.GRAPH}"))
        next(node for node in graph["nodes"] if node["name"] == "Trial")["config"] = record
        self.machine.shell(f"cat > {paths.GRAPH} <<'TEXT'\n{json.dumps(graph)}\nTEXT\nsystemctl restart arbord")
        self.wait(lambda: self.machine.run("test", "-e", "/run/arbor-restarted", check=False).returncode == 0, "the device restarts")
        slots = self.arborctl("slots")
        self.assertEqual([("outside", True), ("measures", False)], [(check["name"], check["passed"]) for check in slots["checks"]])
        self.assertEqual(self.machine.shell("cat /media/mmcblk1p3/Slots/active/version").strip(), INSTRUMENT.installed)
        self.assertIn("measures: no signal on channel 2; the device goes back", self.jobs("trial")[0]["reason"])
        self.machine.shell("rm /etc/arbor/boot.json /run/arbor-restarted; echo A | tee /run/arbor-boot/slot > /run/arbor-boot/id")

    def test_6_a_node_of_somebody_else_builds_against_the_development_package(self) -> None:
        root = self.work / "dev"
        for package in ours("arbor-install", "arbor-install-dev"):
            subprocess.run(["dpkg-deb", "-x", package, root], check=True)
        sample, build = root / "usr/share/doc/arbor-install-dev/examples/sample_node", self.work / "sample"
        self.called("cmake", "-S", sample, "-B", build, f"-DCMAKE_PREFIX_PATH={root}/usr", "-DCMAKE_BUILD_TYPE=Debug")
        self.called("cmake", "--build", build)
        graph = self.work / "graph.json"
        node = {"name": "sample", "class": "ZNodeSample", "config": {"everySeconds": 0}}
        graph.write_text(json.dumps({"libraries": [str(build / "libSampleNode.so")], "nodes": [node]}))
        told = subprocess.run([root / "usr/bin/arbord", "--graph", graph, "--check"], capture_output=True, text=True, check=False)
        self.assertIn('"everySeconds" is 0; it must be a number from 1 to 3600', told.stderr)
        flags = subprocess.run(["pkg-config", "--cflags", "arbor-install"], env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_PATH": str(
            next(root.glob("usr/lib/*/pkgconfig")))}, capture_output=True, text=True, check=True).stdout
        self.assertIn("/usr/include/arbor-install", flags)

    def called(self, *words: object) -> None:
        done = subprocess.run([str(word) for word in words], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_7_nothing_is_left_after_a_purge_but_what_others_put_there(self) -> None:
        self.machine.shell(f"umount {STICK}; rmdir {STICK}")
        self.machine.run("apt-get", "remove", "-y", "arbor-install", "arborctl", "arbor-pkg")
        self.assertNotEqual(self.property("arbord", "ActiveState"), "active")
        self.assertTrue(self.machine.run("test", "-e", "/var/lib/arbor/journal.sqlite").returncode == 0)
        self.machine.run("apt-get", "purge", "-y", "arbor-install")
        left = {path for path in self.files() - self.before if not path.startswith("/media/")}
        self.assertEqual(left, {"/etc/arbor", "/etc/arbor/Manifest.json", "/etc/arbor/eeprom", "/etc/arbor/trust",
                                "/etc/arbor/trust/release.pem"})
        self.assertEqual(self.before - self.files(), set())
        self.assertEqual(self.machine.shell("systemctl --failed --no-legend --plain"), "")

    def _furnish(self) -> None:
        """What an integrator brings: a data partition, whose packages are trusted, what the system is, which board it is."""
        self.machine.shell(f"mkdir -p {paths.STORAGE} && mount -t tmpfs -o size=256m {paths.ARCHIVE_DEVICE} {paths.STORAGE}")
        storage = self.fixtures / INSTRUMENT.name
        for folder in ("Packages", "Slots"):
            self.machine.put(storage / folder, f"{paths.STORAGE}/{folder}")
        self.machine.put(storage / "Packages" / INSTRUMENT.installed / "Manifest.json", str(paths.MANIFEST))
        for certificate in (self.fixtures / "trust").iterdir():
            self.machine.put(certificate, str(paths.TRUST / certificate.name))
        eeprom = self.work / "eeprom"
        eeprom.write_bytes(furnish.eeprom_image(INSTRUMENT.model, INSTRUMENT.serial_number, INSTRUMENT.board))
        self.machine.put(eeprom, str(paths.EEPROM))
        self.machine.shell(f"sed -i 's#\"eeprom\": \"[^\"]*\"#\"eeprom\": \"{paths.EEPROM}\"#' {paths.GRAPH}")

    def _plug_stick_in(self) -> None:
        folder = self.work / "package"
        folder.mkdir()
        package = installs.stepped_package(NEXT, self.fixtures, folder=folder)
        # Filled before it is seen.
        self.machine.shell("mkdir /run/stick && mount -t tmpfs -o noexec,nosuid,nodev stick /run/stick")
        self.machine.put(package, f"/run/stick/{package.name}")
        self.machine.shell(f"mkdir -p {STICK} && mount --bind /run/stick {STICK}")

    def _next_packages(self) -> list[str]:
        """The same packages as the version behind this one."""
        folder = self.work / "next"
        folder.mkdir()
        for package in ours("arbor-install", "arborctl"):
            tree = folder / "tree"
            subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
            control = tree / "DEBIAN/control"
            version = fields(package, "Version")[0]
            control.write_text(control.read_text().replace(version, version + "+1"))
            target = folder / package.name.replace(version, version + "+1")
            subprocess.run(["dpkg-deb", "--root-owner-group", "-b", tree, target], check=True, stdout=subprocess.DEVNULL)
            shutil.rmtree(tree)
            self.machine.put(target, f"/var/tmp/{target.name}")
        return [f"/var/tmp/{target.name}" for target in folder.glob("*.deb")]


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that nothing is left behind
    unittest.main(verbosity=2)
