"""Packages of strangers, and packages that are exchanged: nothing of them runs. What is signed runs apart from the system."""

import os
import shutil
import subprocess
import sys
import threading
import unittest
from pathlib import Path

from installs import ended, jobs
from signing import arbor_pkg, build, in_first_format, new_keys, refusal
from simulation import gateway, host, paths, sticks
from support import FIXTURES, InstrumentCase, arborctl, both_slots, configure, script_package, stick_package, wait_until

RAN = paths.RUNTIME / "ran"
STRANGER = f"touch {RAN}; case $1 in --version) echo 9.999;; esac"
# What a package tries while it is verified, and tells as the reason why it should not be installed.
TRIES = f"""
case $1 in --version) echo @VERSION@; exit 0;; esac
said=""
tried() {{ said="$said $1"; }}
touch {RAN} 2>/dev/null && tried wrote-runtime
touch {paths.STORAGE}/x 2>/dev/null && tried wrote-storage
touch /usr/x 2>/dev/null && tried wrote-system
cat {paths.CONFIG}/installer.json >/dev/null 2>&1 && tried read-settings
cat /etc/shadow >/dev/null 2>&1 && tried read-secrets
[ -e {paths.GATEWAY} ] && tried saw-gateway
[ -e /run/systemd ] && tried saw-service-manager
[ "$(ls /proc | grep -c '^[0-9]')" -gt 12 ] && tried saw-processes
[ "$(id -u)" = 0 ] && tried is-root
grep -q 'CapEff:.*[1-9a-f]' /proc/self/status && tried has-capabilities
[ "$(grep -c : /proc/net/dev)" -gt 1 ] && tried saw-network
unshare --user true && tried made-a-user-namespace
unshare --user --map-root-user --mount true && tried mounted
[ -n "$NOTIFY_SOCKET$ARBOR_SECRET" ] && tried saw-environment
echo "tried:$said"
(setsid sleep 1000 &) >/dev/null 2>&1 </dev/null
kill -9 -1
exit 1
"""


def search_first(case: unittest.TestCase, program: str, script: str) -> None:
    """In the place of the program, for a host that starts from now on."""
    folder = paths.STATE / "first"
    folder.mkdir()
    (folder / program).write_text(f"#!/bin/sh\n{script}\n")
    (folder / program).chmod(0o755)
    search = os.environ["PATH"]
    os.environ["PATH"] = f"{folder}:{search}"
    case.addCleanup(os.environ.update, {"PATH": search})


def package_tools(folder: Path) -> Path:
    """A copy of the package tools, to be changed."""
    shutil.copytree(paths.PROJECT / "packages", folder / "packages")
    return folder / "packages"


def strangers_package(version: str) -> Path:
    """A package that only lacks a signature that is trusted, and whose every part would tell that it has run."""
    folder = paths.STATE / "strangers"
    tools = package_tools(folder)
    stub = tools / "installer/arborinstaller/stub.sh"
    stub.write_text(stub.read_text().replace("#!/bin/sh\n", f"#!/bin/sh\ntouch {RAN}\n", 1))
    (tools / "installer/arborinstaller/__init__.py").write_text(f"open({str(RAN)!r}, 'w').close()\n")
    package = build(folder / f"arbor-{version}.pkg", version, keys=new_keys("Stranger"), tools=tools)
    RAN.unlink()  # the tools have run it
    return package


def signed_script(version: str, text: str) -> Path:
    """A package with the release's signature whose beginning is a script of the test's own."""
    folder = paths.STATE / "signed-scripts" / version
    tools = package_tools(folder)
    (tools / "installer/arborinstaller/stub.sh").write_text("#!/bin/sh\n" + text)
    (folder / "system.img").write_bytes(b"image")
    return build(folder / f"arbor-{version}.pkg", version, tools=tools, image=folder / "system.img")


@unittest.skipIf(paths.plain_mode(), "nothing can be mounted here")
class Trust(InstrumentCase):
    TRUST = str(paths.TRUST)

    def insert(self, *files: Path) -> Path:
        RAN.unlink(missing_ok=True)
        before = {scan["id"] for scan in jobs("Scan")}
        drive = sticks.attach(list(files))
        wait_until(lambda: any(scan["id"] not in before and scan["state"] == "Succeeded" and Path(scan["file"]) == drive
                               for scan in jobs("Scan")), "the stick was looked at")
        return drive

    def test_nothing_of_a_stranger_runs(self) -> None:
        stranger = new_keys("Stranger")
        files = [script_package("unsigned.pkg", STRANGER), script_package("._arbor.pkg", STRANGER),
                 build(paths.STATE / "foreign.pkg", "9.1", keys=stranger),
                 build(paths.STATE / "board.pkg", "9.2", board="apalis-imx8")]
        drive = self.insert(*files, stick_package("3.046"))
        os.symlink(files[0], drive / "link.pkg")
        self.ordered(0, "scan", str(drive))
        for name, reason in (("unsigned.pkg", "no package"), ("._arbor.pkg", "no package"),
                             ("foreign.pkg", "CN = Stranger is not trusted"), ("board.pkg", "is for board apalis-imx8")):
            wait_until(lambda: reason in refusal(name), f"{name} is refused because {reason}")
        self.assertEqual(["3.046"], gateway.updates())
        self.assertFalse(RAN.exists())
        self.assertIn("not trusted", arborctl("updates").stdout)

    def test_signed_package_needs_no_execute_bit_and_no_mount_that_allows_it(self) -> None:
        package = paths.STATE / "plain.pkg"
        shutil.copyfile(stick_package("3.046"), package)
        package.chmod(0o644)
        drive = self.insert(package)
        subprocess.run(["mount", "-o", "remount,bind,noexec,nosuid,nodev,ro", drive], check=True)
        gateway.post("scan", {"path": str(drive / "plain.pkg")})
        wait_until(lambda: gateway.updates() == ["3.046"], "it is offered")
        self.ordered(0, "install", "3.46", "--no-reboot", "--wait")  # the same version
        self.assertEqual(("B", {"A": "3.044", "B": "3.046"}), both_slots())

    def test_packages_whose_signature_covers_all_run_from_a_copy(self) -> None:
        own = script_package("own.pkg", f"""case $1 in --version) echo 3.047;; --verify) grep -q mine "$0";;
            *) grep -q mine "$0" && touch {RAN};; esac; exit $?\n# mine""", 0o644)
        sign = ("--board", "verdin-imx8mm", "--key", FIXTURES / "keys/key.pem", "--cert", FIXTURES / "keys/cert.pem")
        arbor_pkg("sign", own, "--version", "3.047", *sign)
        changed = Path(shutil.copy(own, paths.STATE / "changed.pkg"))
        changed.write_text(changed.read_text().replace("3.047", "3.048"))
        shutil.copy(f"{own}.sig", f"{changed}.sig")
        first = in_first_format(stick_package("3.046"), paths.STATE / "first.pkg")
        drive = self.insert(own, Path(f"{own}.sig"), changed, Path(f"{changed}.sig"), first)
        self.assertEqual(["3.047", "3.046"], gateway.updates())
        self.assertIn("not the file that was signed", refusal("changed.pkg"))
        self.ordered(0, "install", "3.046", "--no-reboot", "--wait")
        self.assertEqual(("B", {"A": "3.044", "B": "3.046"}), both_slots())
        done = arborctl("install", "3.047", "--no-reboot", "--wait")
        self.assertTrue(RAN.exists(), done.stdout)
        RAN.unlink()
        shutil.copy(script_package("x.pkg", STRANGER), drive / "own.pkg")
        self.assertNotEqual(0, arborctl("install", "3.047", "--no-reboot", "--wait").returncode)
        self.assertFalse(RAN.exists())
        self.assertEqual([], os.listdir(paths.TRUST_STATE))

    def test_package_that_was_exchanged_after_its_check_is_not_installed(self) -> None:
        wrong_board = build(paths.STATE / "other-board.pkg", "3.046", board="apalis-imx8")
        older = paths.STATE / "older.pkg"
        shutil.copy(stick_package("3.001"), older)
        for other, reason in ((script_package("x.pkg", STRANGER), "no package"), (wrong_board, "is for board"),
                              (older, "another version")):
            for exchange in (shutil.copyfile, lambda new, old: os.rename(shutil.copy(new, old.with_suffix(".new")), old)):
                with self.subTest(reason=reason, exchange=exchange):
                    drive = self.insert(stick_package("3.046"))
                    wait_until(lambda: gateway.updates() == ["3.046"], "it is offered")
                    exchange(other, drive / "arbor-3.046.pkg")
                    answer = gateway.post("updatesystem", {"version": "3.046", "reboot": False})[1]
                    self.assertFalse(answer["bSuccess"])
                    self.assertIn(reason, ended(answer["operationId"])["reason"])
                    self.assertEqual([], gateway.updates())
                    self.assertIn(reason, refusal("arbor-3.046.pkg"))
                    sticks.detach()
                    wait_until(lambda: not refusal("arbor-3.046.pkg"), "it has gone")
        self.assertEqual(("A", {"A": "3.044", "B": "3.043"}), both_slots())
        self.assertFalse(RAN.exists())

    def test_payload_that_is_exchanged_is_not_installed(self) -> None:
        drive = self.insert(stick_package("3.046"))
        wait_until(lambda: gateway.updates() == ["3.046"], "it is offered")
        with open(drive / "arbor-3.046.pkg", "r+b") as package:
            package.seek(-(1 << 20), os.SEEK_END)
            package.write(b"exchanged")
        self.assertIn("the image in the package is damaged", self.ordered(1, "install", "3.046", "--no-reboot", "--wait"))
        self.assertEqual("A", both_slots()[0])

    def test_package_that_is_exchanged_once_its_installer_has_begun_is_the_one_that_was_read(self) -> None:
        begun, go = paths.STATE / "begun", paths.STATE / "go"
        search_first(self, "python3", f"""case $0:$ARBOR_OPERATION in *:?*) touch {begun}
            while [ ! -e {go} ]; do sleep 0.05; done;; esac; exec {sys.executable} "$@" """)
        self.restart()
        bad = strangers_package("3.046")
        by_name = (lambda file: os.rename(shutil.copy(bad, file.with_suffix(".new")), file), 0, "3.046")
        in_place = (lambda file: shutil.copyfile(bad, file), 1, "3.043")
        for exchange, code, found in (in_place, by_name):
            with self.subTest(code=code):
                file = self.insert(stick_package("3.046")) / "arbor-3.046.pkg"
                wait_until(lambda: gateway.updates() == ["3.046"], "it is offered")
                install = threading.Thread(target=lambda: done.append(arborctl("install", "3.046", "--no-reboot", "--wait")))
                done: list[subprocess.CompletedProcess] = []
                install.start()
                wait_until(begun.exists, "the installer has begun")
                exchange(file)
                go.touch()
                install.join()
                self.assertEqual(code, done[0].returncode, done[0].stdout)
                self.assertEqual(found, both_slots()[1]["B"])
                self.assertFalse(RAN.exists())
                for path in (begun, go):
                    path.unlink()
                sticks.detach()
                wait_until(lambda: not gateway.updates(), "it has gone")

    @unittest.skipIf(subprocess.run(["bwrap", "--ro-bind", "/", "/", "--proc", "/proc", "true"], check=False).returncode,
                     "nothing can be confined here")
    def test_check_of_a_signed_package_is_confined(self) -> None:
        os.environ["ARBOR_SECRET"] = os.environ["NOTIFY_SOCKET"] = "/run/none"
        self.addCleanup(os.environ.pop, "ARBOR_SECRET")
        self.addCleanup(os.environ.pop, "NOTIFY_SOCKET")
        self.restart()
        forks = signed_script("9.4", "case $1 in --version) echo @VERSION@;; *) f() { f | f & }; f; sleep 1000;; esac")
        self.insert(signed_script("9.3", TRIES))
        wait_until(lambda: refusal("arbor-9.3.pkg"), "it is refused")
        self.assertEqual("tried:", refusal("arbor-9.3.pkg").strip())
        sticks.detach()
        configure("ArborInstall", CheckTimeoutSeconds=3)
        self.restart()
        sticks.attach([forks, stick_package("3.046")])
        wait_until(lambda: gateway.updates() == ["3.046"], "the other one is offered")
        wait_until(lambda: refusal("arbor-9.4.pkg"), "the one that forks is refused")
        self.assertFalse(RAN.exists())

        def left() -> str:
            return subprocess.run(["pgrep", "-x", "sleep"], capture_output=True, text=True, check=False).stdout
        wait_until(lambda: not left(), "nothing of them is left")

    def test_where_nothing_can_be_confined_the_settings_say_what_becomes_of_checks(self) -> None:
        search_first(self, "bwrap", "echo nothing can be confined here; exit 1")
        self.restart()
        self.assertIn("without being confined: checks can't be confined: nothing", arborctl("status").stdout)
        self.insert(stick_package("3.046"), script_package("unsigned.pkg", STRANGER))
        self.assertEqual(["3.046"], gateway.updates())
        self.assertFalse(RAN.exists())
        self.ordered(0, "install", "3.046", "--no-reboot", "--wait")
        sticks.detach()
        configure("ArborInstall", UnconfinedChecks=False)
        self.restart()
        self.assertIn("no package is accepted: checks can't be confined: nothing", arborctl("status").stdout)
        self.insert(stick_package("3.046"))
        self.assertEqual([], gateway.updates())
        self.assertRegex(refusal("arbor-3.046.pkg"), "^checks can't be confined: nothing")
        self.ordered(1, "upload", str(stick_package("3.046")))
        self.assertTrue((paths.UPDATES / "arbor-3.046.pkg").exists(), "what the device could not judge may be good")

    def test_packages_wait_until_it_is_known_whether_checks_can_be_confined_and_nobody_else_does(self) -> None:
        go = paths.STATE / "go"
        search_first(self, "bwrap", f"until [ -e {go} ]; do sleep 0.02; done; exec {shutil.which('bwrap')} \"$@\"")
        for _ in range(2):  # the first one is stopped while it is tried
            self.restart()
            self.assertIn("no package is accepted yet", arborctl("status").stdout)
        sticks.attach([stick_package("3.046")])
        go.touch()
        wait_until(lambda: gateway.updates() == ["3.046"], "it is offered")
        self.assertNotIn("no package", arborctl("status").stdout)

    def test_device_that_does_not_know_itself_accepts_nothing(self) -> None:
        board = paths.EEPROM.read_bytes()
        manifest = paths.MANIFEST.read_text()
        for spoil, mend, reason in (
                (lambda: paths.EEPROM.write_bytes(b"\xff" * 2048), lambda: paths.EEPROM.write_bytes(board), "board is not known"),
                (lambda: paths.MANIFEST.write_text("{"), lambda: paths.MANIFEST.write_text(manifest), "installed version")):
            with self.subTest(reason=reason):
                spoil()
                self.restart()
                self.insert(stick_package("3.046"))
                wait_until(lambda: reason in refusal("arbor-3.046.pkg"), "it is refused")
                self.assertEqual([], gateway.updates())
                sticks.detach()
                self.ordered(1, "upload", str(stick_package("3.046")))
                self.assertTrue((paths.UPDATES / "arbor-3.046.pkg").exists(), "it may be good")
                mend()
        shutil.rmtree(paths.TRUST)
        self.restart()
        self.insert(stick_package("3.046"))
        wait_until(lambda: "can't be read" in refusal("arbor-3.046.pkg"), "it is refused")
        self.assertIn("can't be read", arborctl("status").stdout)


class Open(InstrumentCase):
    def test_without_a_policy_it_is_told_that_everything_runs(self) -> None:
        self.assertIn("every package that is brought runs", paths.HOST_LOG.read_text())
        self.assertIn("everybody's packages run", arborctl("status").stdout)
        sticks.attach([script_package("unsigned.pkg", STRANGER)])
        wait_until(lambda: gateway.updates() == ["9.999"], "it is offered")

    def test_what_an_installer_says_is_told_as_its_own_and_never_ends_it(self) -> None:
        forged = "2026-01-01 00:00:00.000 [2] ZNodeArborInstall forged"
        said = paths.STATE / "said"
        sticks.attach([script_package("says.pkg", f"""case $1 in --version) echo 9.1; exit;; --verify) exit;; esac
            printf '\\033[2J%s\\n' '{forged}'
            echo 'and complains' >&2
            while [ ! -e {said}.go ]; do sleep 0.1; done
            for line in $(seq 300); do echo "line $line" || exit 1; done
            touch {said}""")])
        wait_until(lambda: gateway.updates() == ["9.1"], "it is offered")
        self.assertTrue(gateway.post("updatesystem", {"version": "9.1", "reboot": False})[1]["bSuccess"])
        wait_until(lambda: "says: and complains" in arborctl("log", "-n", "1000").stdout, "it is told")
        console = host.said(10000)
        self.assertIn(f"says: \\x1b[2J{forged}", console)
        self.assertNotIn(f"\n{forged}", console)
        self.assertNotIn("\033", console)
        self.kill_host()
        self.process = host.start()
        Path(f"{said}.go").touch()
        wait_until(said.exists, "it goes on though nobody takes what it says")
