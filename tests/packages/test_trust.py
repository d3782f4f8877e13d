"""Trust documents from their first key to the last: made, signed, rotated, carried, and looked at by packages."""

import json
import os
import shutil
from unittest import mock

from forge import Signer
from support import ARBOR_PKG, BOARD, PackageTest, must_run, read, run, write

from arborinstaller import documents, jsontext
from arborinstaller.failure import Failure
from arborpkg.trustfile import TrustFile


class Trust(PackageTest):
    def setUp(self) -> None:
        self.file = self.path(f"{self.id()}.json")
        self.people = {name: Signer(self.folder, name) for name in ("alice", "bob", "carol", "dave", "second")}

    def trust(self, command: str, *arguments: str, code: int = 0) -> str:
        done = run(ARBOR_PKG, "trust", command, self.file, *arguments)
        self.assertEqual(code, done.returncode, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def sign(self, *names: str) -> str:
        return self.trust("sign", *(word for name in names for word in ("--key", self.people[name].key_file)))

    def add(self, name: str, role: str, *more: str) -> str:
        return self.trust("add-key", "--key", self.people[name].certificate_file, "--role", role, *more)

    def make(self, *trust: str, threshold: int = 2) -> None:
        """Document 1 with these trust keys and the usual release key; as many as it takes have signed it."""
        self.trust("init")
        for name in trust:
            self.add(name, "trust")
        self.trust("add-key", "--key", os.path.join(self.keys, "cert.pem"), "--role", "release", "--name", "Release")
        self.trust("threshold", f"trust={threshold}")
        self.assertIn("number 1 is complete", self.sign(*trust[:threshold]))

    def copied(self, name: str) -> str:
        """A folder that has the file as it is now."""
        os.makedirs(self.path(name), exist_ok=True)
        return os.path.dirname(shutil.copy(self.file, self.path(name, documents.FILE)))

    def build(self, name: str, version: str, *options: str, by: str = "") -> str:
        signers = ((self.people[by].key_file, self.people[by].certificate_file),) if by else ()
        done = run(ARBOR_PKG, "build", *self.recipe(version, *signers), "-o", self.path(name), *options)
        self.assertEqual("", done.stderr)
        return self.path(name)

    def verdict(self, package: str, trust: str, state: str = "") -> str:
        """What arbor-pkg says, which must be what the package says itself."""
        facts = self.inspect(package, "--trust", trust, "--state", state)[1]
        said = run(package, "--verify", BOARD, "--trust", trust, env={**os.environ, "ARBOR_TRUST_STATE": state}).stdout
        self.assertEqual(f"{'OK' if facts['verdict'] == 'good' else 'FAILED'}: {facts['sentence']}\n", said)
        return facts["verdict"]

    def test_keys_rotate_a_leaked_one_and_a_package_are_withdrawn_and_the_floor_rises(self) -> None:
        self.trust("init")
        for name in ("alice", "bob", "carol"):
            self.add(name, "trust")
        self.assertIn("4 trust keys have to sign, but there are 3", self.trust("threshold", "trust=4"))
        self.trust("threshold", "trust=2")
        self.trust("add-key", "--key", os.path.join(self.keys, "cert.pem"), "--role", "release", "--board", BOARD)
        said = self.sign("alice")
        self.assertIn("alice has signed number 1\nnumber 1 is signed by 1 of the 2 trust keys of its own that are needed", said)
        self.assertIn("signed by 1 of the 2", run(self.package, "--verify", "--trust", self.copied("half")).stdout)
        self.assertIn("signed by 1 of the 2", run(ARBOR_PKG, "build", *self.recipe("3.045"), "-o", self.path("x.pkg"),
                                                  "--trust-document", self.file).stderr)
        self.assertIn("1 signature(s) of it were dropped", self.trust("expires", "2030-12-31"))
        self.assertIn("number 1 is complete", self.sign("alice", "carol"))
        system = self.copied("system")
        write(os.path.join(system, "second.pem"), self.people["second"].certificate)
        newer = self.build("second.pkg", "3.047", "--security-number", "2", by="second")
        self.assertEqual(["good", "unknownSigner"], [self.verdict(package, system) for package in (self.package, newer)])

        # Alice leaves and Dave comes; those of both documents have to agree.
        self.assertIn("number 2 follows on number 1", self.trust("remove-key", self.people["alice"].key[:8]))
        self.add("dave", "trust")
        self.assertIn("1 of the 2 trust keys of number 1 that are needed (may sign: alice", self.sign("dave", "bob"))
        self.assertIn("number 2 is complete", self.sign("alice"))
        # The release key leaked: another one takes its place.
        self.trust("remove-key", os.path.join(self.keys, "cert.pem"))
        self.add("second", "release")
        self.sign("bob", "dave")
        state = self.copied("state")
        self.assertEqual(["unknownSigner", "good"], [self.verdict(package, system, state) for package in (self.package, newer)])
        carrying = self.build("carrying.pkg", "3.048", "--trust-document", self.file, by="second")
        self.assertEqual(["good", "good"], [self.verdict(carrying, system, where) for where in ("", state)])
        self.assertEqual(3, self.inspect(carrying)[1]["carriedTrust"])
        instrument = self.instrument()
        for package, place, code in ((self.package, state, 1), (self.package, "", 0), (carrying, "", 0), (newer, state, 0)):
            instrument.environment["ARBOR_TRUST_STATE"] = place
            self.assertEqual(code, instrument.install(package, "--no-reboot", "--trust", system)[0], (package, place))

        digest = self.inspect(newer)[1]["signedDigest"]
        self.assertIn(digest, self.trust("revoke", newer))
        self.sign("carol", "dave")
        self.copied("state")
        self.assertEqual(["revoked", "good"], [self.verdict(package, system, state) for package in (newer, carrying)])
        self.trust("floor", "1")
        self.sign("carol", "dave")
        self.assertEqual("belowFloor", self.verdict(carrying, system, self.copied("state")))
        self.assertIn("security floor is 1 and only goes up", self.trust("floor", "0", code=1))
        shown = json.loads(self.trust("show", "--json"))["documents"]
        self.assertEqual([(number, []) for number in (1, 2, 3, 4, 5)], [(one["number"], one["missing"]) for one in shown])
        self.assertEqual(["bob", "carol", "dave", "second"], sorted(key["name"] for key in shown[-1]["keys"]))
        self.assertIn("second: release, all boards", self.trust("show"))

    def test_an_archive_builds_packages_that_carry_the_documents(self) -> None:
        self.make("alice", "bob")
        must_run(ARBOR_PKG, "archive", *self.recipe("3.049"), "--trust-document", self.file, self.path("3.049"))
        run(self.path("3.049", "installer", "installer.py"), "--build", "--device", BOARD, "--output", "again.pkg")
        self.assertEqual(read(self.path("3.049", "arbor_qm.pkg")), read(self.path("3.049", "again.pkg")))
        self.assertEqual("good", self.verdict(self.path("3.049", "again.pkg"), self.copied("archive")))

    def test_nobody_is_trusted_when_a_document_is_there_that_does_not_hold(self) -> None:
        self.make("alice", threshold=1)
        good = read(self.file).decode()
        unsigned = jsontext.encode({"documents": [{**json.loads(good)["documents"][0], "signatures": []}]}).decode()
        for trust, state, complaint in ((good[:-3], None, "damaged"), (unsigned, None, "signed by 0 of the 1"),
                                        ("", good, "damaged"),
                                        (good, good[1:], "damaged"), (good, unsigned, "signed by 0 of the 1"),
                                        (good, "/", "cannot be read"), (None, "/", "cannot be read"), (None, None, "OK: "),
                                        (None, good, "signed by Release"), (good, None, "signed by Release")):
            with self.subTest(trust=trust, state=state):
                for name, content in (("t", trust), ("s", state)):
                    shutil.rmtree(self.path(name), ignore_errors=True)
                    os.makedirs(self.path(name, documents.FILE) if content == "/" else self.path(name))
                    if content not in (None, "/"):
                        write(self.path(name, documents.FILE), content)
                shutil.copy(os.path.join(self.keys, "cert.pem"), self.path("t"))
                said = run(self.package, "--verify", "--trust", self.path("t"),
                           env={**os.environ, "ARBOR_TRUST_STATE": self.path("s")}).stdout
                self.assertIn(complaint, said)
                self.assertEqual("OK" in complaint or "Release" in complaint, said.startswith("OK"))

    def test_wrong_changes_are_refused_and_leave_the_file_as_it_was(self) -> None:
        self.make("alice", "bob")
        weak = Signer(self.folder, "weak", key=("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024"))
        alice, carol = self.people["alice"], self.people["carol"]
        before = read(self.file)
        for complaint, command, *arguments in (
                ("exists already", "init"),
                ("is there already", "add-key", "--key", alice.certificate_file, "--role", "release"),
                ("Ed25519 key, or an RSA", "add-key", "--key", weak.certificate_file, "--role", "release"),
                ("neither a certificate nor", "add-key", "--key", alice.key_file, "--role", "release"),
                ("no board name", "add-key", "--key", carol.certificate_file, "--role", "release", "--board", "a b"),
                ("name: 1 to 64", "add-key", "--key", carol.certificate_file, "--role", "release", "--name", "x" * 65),
                ("roles: ", "add-key", "--key", carol.certificate_file, "--role", "release", "--role", "release"),
                ("no key is there", "remove-key", "0" * 8), ("No such file", "remove-key", alice.key[:7]),
                ("no key is there", "remove-key", carol.certificate_file), ("expected ROLE=N", "threshold", "trust=17"),
                ("expected ROLE=N", "threshold", "root=1"), ("expected a date", "expires", "2030-02-30"),
                ("no package header", "revoke", alice.key_file),
                ("not a trust key", "sign", "--key", carol.key_file), ("cannot be read", "sign", "--key", self.path("none")),
                ("PIN is not known", "sign", "--key", "pkcs11:object=x")):
            with self.subTest(complaint, command=command):
                self.assertIn(complaint, self.trust(command, *arguments, code=1))
                self.assertEqual(before, read(self.file))
        self.assertIn("that is so already", self.trust("threshold", "trust=2"))
        self.assertEqual(before, read(self.file))
        with TrustFile(self.file, []).lock():
            self.assertIn("another file is being changed", self.trust("floor", "1", code=1))
        write(self.file, before.decode()[:-5])
        self.assertIn("damaged", self.trust("show", code=1))

    def test_the_oldest_documents_fall_off_a_chain_that_grows_too_long(self) -> None:
        self.make("alice", threshold=1)
        key = self.people["alice"].key_file
        for number in range(2, 24):
            file = TrustFile.load(self.file)
            first = file.entries[0].number
            # From number 18 on they are long as well.
            file.edit(lambda fields: fields.update(expires=f"2030-01-{number:02}",
                                                   revoked=[f"{number:064}"] * (number // 18 * 128)))
            file.sign(key)
            notes = file.save()
            chain = documents.load(self.file)
            self.assertEqual(number, documents.follow(chain[0], chain).number)
            self.assertEqual([f"number {gone} fell off" for gone in range(first, chain[0].number)],
                             [note[:note.index(":")] for note in notes])
            if number < 18:
                self.assertEqual(max(1, number - 15), chain[0].number)
        self.assertEqual((23, 5), (chain[-1].number, len(chain)))
        file.edit(lambda fields: fields.update(securityFloor=1))
        with mock.patch.object(documents, "MAX_CHAIN", 15000), self.assertRaisesRegex(Failure, "more than 15000 bytes"):
            file.save()
        self.assertEqual(23, documents.load(self.file)[-1].number)

    def test_a_key_in_a_token_signs_documents_and_packages(self) -> None:
        os.makedirs(self.path("tokens"), exist_ok=True)
        write(self.path("softhsm2.conf"), f"directories.tokendir = {self.path('tokens')}\n")
        uri = "pkcs11:token=office;object=signer"
        signer = Signer(self.folder, "token", key=("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"))
        with mock.patch.dict(os.environ, {"SOFTHSM2_CONF": self.path("softhsm2.conf"), "ARBOR_KEY_PASSPHRASE": "1234"}):
            for arguments in (("--init-token", "--free", "--label", "office", "--so-pin", "4321"),
                              ("--import", signer.key_file, "--token", "office", "--label", "signer", "--id", "01")):
                must_run("softhsm2-util", *arguments, "--pin", "1234")
            os.unlink(signer.key_file)
            must_run(ARBOR_PKG, "keygen", "--key", uri, "--out", self.path("token"), "--name", "Token")
            certificate = self.path("token", "cert.pem")
            self.trust("init")
            self.trust("add-key", "--key", uri, "--role", "trust", "--role", "release", "--name", "Token")
            self.assertIn(signer.key[:16], self.trust("show"))
            self.assertIn("number 1 is complete", self.trust("sign", "--key", uri))
            done = run(ARBOR_PKG, "build", *self.recipe("3.050", (uri, certificate)), "-o", self.path("token.pkg"))
            self.assertEqual("", done.stderr)
            said = self.trust("sign", "--key", "pkcs11:object=none;pin-value=1234", code=1)
            self.assertIn("pkcs11:object=none;pin-value=...: ", said)
        self.assertEqual("good", self.verdict(self.path("token.pkg"), self.copied("by-token")))
