"""Trust documents on a device: brought by sticks, packages and people, refused with the reason, and never lost."""

import shutil
import subprocess
import unittest
from pathlib import Path

from installs import jobs
from signing import arbor_pkg, build, new_keys, refusal
from simulation import gateway, host, paths, sticks
from support import FIXTURES, InstrumentCase, arborctl, installed, script_package, stick_package, wait_until

NAME = "arbor-trust.json"
KEPT = paths.TRUST_STATE


class Documents(InstrumentCase):
    """A system with document 1, which two keys have signed: alice's and bob's; the release's key signs packages."""

    TRUST = str(paths.TRUST)

    def setUp(self) -> None:
        super().setUp()
        self.office = paths.STATE / "office"
        self.office.mkdir()
        self.keys = {name: new_keys(name) for name in ("alice", "bob", "carol", "second")}
        self.file = self.office / NAME
        self.trust("init")
        for name in ("alice", "bob"):
            self.add(name, "trust")
        self.trust("add-key", "--key", FIXTURES / "keys/cert.pem", "--role", "release")
        self.add("second", "release")
        self.trust("threshold", "trust=2")
        self.sign("alice", "bob")
        shutil.copy(self.file, paths.TRUST / NAME)
        self.restart()
        self.assertEqual(1, self.in_force())

    def trust(self, command: str, *arguments: object) -> None:
        arbor_pkg("trust", command, self.file, *arguments)

    def add(self, name: str, role: str) -> None:
        self.trust("add-key", "--key", self.keys[name] / "cert.pem", "--role", role)

    def sign(self, *names: str) -> None:
        self.trust("sign", *(word for name in names for word in ("--key", self.keys[name] / "key.pem")))

    def copied(self, folder: str) -> Path:
        """The file as it is now, in the folder's place on a stick."""
        (self.office / folder).mkdir()
        return Path(shutil.copy(self.file, self.office / folder))

    def in_force(self) -> int:
        return gateway.post("trust")[1]["number"]

    def plug(self, *files: Path) -> dict:
        """What became of the trust document on a stick with these files."""
        before = {job["id"] for job in jobs("Trust")}
        sticks.attach(list(files))
        def brought() -> list[dict]:
            return [job for job in jobs("Trust") if job["id"] not in before and job["asker"].startswith("drive ")]
        wait_until(lambda: brought() and brought()[0]["endedAt"] > 0, "the trust document was looked at")
        return brought()[0]

    def test_leaked_key_and_package_are_withdrawn_by_plugging_in_a_stick(self) -> None:
        second = build(paths.STATE / "second.pkg", "3.047", keys=self.keys["second"])
        other = build(paths.STATE / "other.pkg", "3.048", keys=self.keys["second"])
        sticks.attach([stick_package("3.046"), second, other], paths.STICK_NAMES[1])
        wait_until(lambda: gateway.updates() == ["3.048", "3.047", "3.046"], "all are offered")
        self.trust("remove-key", FIXTURES / "keys/cert.pem")
        self.trust("revoke", second)
        self.sign("alice", "bob")
        brought = self.plug(self.file)
        self.assertEqual(("Succeeded", "2"), (brought["state"], brought["version"]))
        wait_until(lambda: gateway.updates() == ["3.048"], "what was withdrawn is offered no longer")
        self.assertIn("not trusted", refusal("arbor-3.046.pkg"))
        self.assertIn("revoked", refusal("second.pkg"))
        self.ordered(1, "install", "3.047", "--wait")
        # Nothing brings it back: no restart, no power cut with half a file, no older stick.
        (KEPT / f"{NAME}.new").write_text("{")
        self.kill_host()
        self.process = host.start()
        self.assertEqual(2, self.in_force())
        wait_until(lambda: gateway.updates() == ["3.048"], "the other one is offered")
        self.assertEqual("3.044", installed())
        self.assertIn("trust document 2", arborctl("status").stdout)
        self.assertIn(self.keys["second"].name + ": release", arborctl("trust", "show").stdout)

    def test_package_brings_the_key_that_signed_it(self) -> None:
        new = new_keys("new")
        self.trust("add-key", "--key", new / "cert.pem", "--role", "release")
        self.sign("alice", "bob")
        sticks.attach([build(paths.STATE / "new.pkg", "3.047", keys=new),
                       build(paths.STATE / "carries.pkg", "3.048", keys=new, options=("--trust-document", self.file))])
        # The first one was refused, or will be judged by what the other one brought.
        wait_until(lambda: gateway.updates() == ["3.048", "3.047"], "both are offered")
        self.assertEqual(2, self.in_force())
        self.ordered(0, "install", "3.048", "--no-reboot", "--wait")

    def test_what_must_not_be_followed_is_refused_with_the_reason(self) -> None:
        older = self.copied("older")
        self.trust("floor", "3")
        self.sign("alice")
        lacks = self.copied("lacks")
        self.sign("bob")
        self.trust("expires", "2030-12-31")
        self.sign("alice", "bob")
        newest = self.copied("newest")
        arbor_pkg("trust", "init", self.office / "strange.json")
        job = self.plug(lacks)
        self.assertEqual("Failed", job["state"])
        self.assertIn("signed by 1 of the 2", job["reason"])
        sticks.detach()
        for file in (lacks, self.office / "strange.json", paths.GRAPH):
            self.ordered(1, "trust", "apply", str(file))
        self.assertEqual(1, self.in_force())
        self.ordered(0, "trust", "apply", str(newest))
        self.assertEqual(3, self.in_force())
        self.assertIn("in force already", arborctl("trust", "apply", str(newest)).stdout)
        brought = self.plug(older)
        self.assertIn("goes back", brought["reason"])
        # A person's own file stays where it is, when it is looked at by itself, too.
        before = len(jobs("Trust"))
        gateway.post("scan", {"path": brought["file"]})
        wait_until(lambda: len(jobs("Trust")) > before, "the file was looked at")
        wait_until(lambda: not gateway.get("operations?state=Open")["operations"], "all has ended")
        self.assertTrue(Path(brought["file"]).exists())
        wait_until(lambda: [entry["keyword"] for entry in gateway.get("orders")["orders"]].count("applytrust") == 5,
                   "each order is kept")

    def test_package_whose_key_is_withdrawn_while_it_is_checked_is_not_offered(self) -> None:
        slow = script_package("slow.pkg", "case $1 in --version) echo 3.047;; --verify) sleep 2;; esac", 0o644)
        key = self.keys["second"]
        arbor_pkg("sign", slow, "--version", "3.047", "--board", "verdin-imx8mm", "--key", key / "key.pem", "--cert", key / "cert.pem")
        self.trust("remove-key", key / "cert.pem")
        self.sign("alice", "bob")
        sticks.attach([slow, Path(f"{slow}.sig")])
        wait_until(lambda: [check["version"] for check in jobs("Check")] == ["3.047"], "it is being verified")
        self.ordered(0, "trust", "apply", str(self.file))
        wait_until(lambda: not gateway.get("operations?state=Open")["operations"], "all has ended")
        self.assertEqual([], gateway.updates())
        self.assertIn("not trusted", refusal("slow.pkg"))

    def test_document_that_is_brought_to_the_updates_folder_is_followed_and_not_left_there(self) -> None:
        self.trust("floor", "3")
        self.sign("alice", "bob")
        shutil.copyfile(self.file, paths.UPDATES / NAME)
        wait_until(lambda: self.in_force() == 2, "it is followed")
        wait_until(lambda: not (paths.UPDATES / NAME).exists(), "it is removed")
        sticks.attach([stick_package("3.046")])
        wait_until(lambda: "security number" in refusal("arbor-3.046.pkg"), "what is below the floor is refused")

    @unittest.skipIf(paths.plain_mode(), "nothing can be mounted here")
    def test_document_that_can_not_be_kept_is_not_in_force(self) -> None:
        KEPT.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k,mode=755", "none", KEPT], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", KEPT], check=True)
        (KEPT / "full").write_bytes(bytes(4096))
        self.trust("remove-key", FIXTURES / "keys/cert.pem")
        self.add("carol", "release")
        self.sign("alice", "bob")
        carries = build(paths.STATE / "carries.pkg", "3.048", keys=self.keys["carol"], options=("--trust-document", self.file))
        self.assertIn("No space left", self.plug(self.file, carries)["reason"])
        wait_until(lambda: refusal("carries.pkg"), "nor does what a package brings count for it")
        self.assertEqual(1, self.in_force())
        (KEPT / "full").unlink()
        self.ordered(0, "trust", "apply", str(self.file))
        self.assertEqual(2, self.in_force())
        # One that is damaged all the same: nobody knows any more who is trusted.
        (KEPT / NAME).write_text("{")
        self.assertIn("no package is accepted", arborctl("status").stdout)
        sticks.detach()
        sticks.attach([stick_package("3.046")])
        wait_until(lambda: NAME in refusal("arbor-3.046.pkg"), "it is refused")
