"""Building, signing, inspecting and checking packages."""

import hashlib
import json
import os
import shutil

from forge import Signer, rewritten
from support import ARBOR_PKG, BOARD, PackageTest, must_run, read, run, write

from arborinstaller.layout import Package


class Building(PackageTest):
    def build(self, *changes: str, signers: tuple[tuple[str, str], ...] = ()) -> str:
        return run(ARBOR_PKG, "build", *self.recipe("3.045", *signers), "-o", self.path("x.pkg"), *changes).stderr

    def verify(self, package: str, board: str = BOARD, trust: str = "") -> tuple[int, str]:
        done = run(package, "--verify", *([board] if board else []), "--trust", trust or self.keys, cwd="/")
        return done.returncode, done.stdout

    def test_a_package_says_what_went_into_it(self) -> None:
        new = self.path("new.pkg")
        self.assertEqual("", self.build("--security-number", "7", "-o", new))
        for package, number, security in ((new, 2, 7), (rewritten(new, self.path("old.pkg"), self.keys), 1, 0)):
            code, facts = self.inspect(package, "--trust", self.keys, "--board", BOARD)
            expected = {"format": number, "version": "3.045", "board": BOARD, "installerVersion": "1.0",
                        "payloadSize": 7 << 19, "securityNumber": security, "signer": "CN = Test signer",
                        "signature": "good", "payload": "good", "trusted": True, "verdict": "good",
                        "sentence": f"version 3.045 for board {BOARD}, signed by CN = Test signer"}
            self.assertEqual((0, expected), (code, {key: facts[key] for key in expected}))
        with Package(new) as package, open(new, "r+b") as file:
            file.seek(package.payload_end - 1)
            file.write(bytes([read(self.payload)[-1] ^ 1]))
        code, facts = self.inspect(new)
        self.assertEqual((1, "good", "bad"), (code, facts["signature"], facts["payload"]))
        self.assertIn("image is damaged", facts["sentence"])
        for arguments in (["--version"], ["--dry-run", "--version"]):
            self.assertEqual("3.045\n", run(self.package, *arguments).stdout)

    def test_the_same_inputs_give_the_same_bytes_with_either_kind_of_key(self) -> None:
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=r", "-keyout",
            self.path("rsa.key"), "-out", self.path("rsa.crt"))
        pair = self.path("rsa.key"), self.path("rsa.crt")
        for signers in ((), (pair,)):
            copies = []
            for name in ("one.pkg", "two.pkg"):
                self.assertEqual("", self.build("-o", self.path(name), signers=signers))
                copies.append(read(self.path(name)))
            self.assertEqual(copies[0], copies[1])
            self.assertEqual(0, self.verify(self.path("two.pkg"), trust=self.folder if signers else "")[0])

    def test_bad_inputs_are_refused_by_name(self) -> None:
        run("openssl", "ecparam", "-name", "prime256v1", "-genkey", "-out", self.path("ec.pem"))
        run(ARBOR_PKG, "keygen", "--out", self.path("other"))
        good = self.path("keys", "key.pem"), self.path("keys", "cert.pem")
        weak = Signer(self.folder, "weak", key=("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024"))
        server = Signer(self.folder, "server", ("extendedKeyUsage=serverAuth",))
        for changes, signer, complaint in (
                (["--version", "3.x'; id"], good, "no version"), (["--board", "a b"], good, "no board name"),
                (["--payload", self.path("none")], good, "none: No such file"),
                ([], (self.path("ec.pem"), good[1]), "use Ed25519 or RSA"),
                ([], (self.payload, good[1]), "payload.img: openssl"), ([], (good[0], self.payload), "holds no certificate"),
                ([], (good[0], self.path("other", "cert.pem")), "does not fit the certificate"),
                ([], (weak.key_file, weak.certificate_file), "key is too weak"),
                ([], (server.key_file, server.certificate_file), "CN = server is not one for signing packages"),
                (["--key", good[0]], good, "2 keys and 1 certificates"), (["--security-number", "-1"], good, "security number"),
                (["--silent-seconds", "0"], good, "silent seconds")):
            with self.subTest(complaint):
                self.assertIn(complaint, self.build(*changes, signers=(signer,)))
                self.assertFalse([name for name in os.listdir(self.folder) if "x.pkg" in name])
        self.assertIn("exists already", run(ARBOR_PKG, "keygen", "--out", self.keys).stderr)

    def test_verification_wants_the_board_and_a_trusted_signer(self) -> None:
        run(ARBOR_PKG, "keygen", "--out", self.path("stranger"))
        os.mkdir(self.path("empty"))
        os.mkdir(self.path("mixed"))
        shutil.copy(os.path.join(self.keys, "cert.pem"), self.path("mixed", "b.pem"))
        shutil.copy(self.payload, self.path("mixed", "a.pem"))
        for board, trust, code, text in ((BOARD, "keys", 0, "OK: version 3.045"), ("", "keys", 0, "OK"),
                                         (BOARD, "mixed", 0, "OK"),
                                         ("verdin-imx8mmm", "keys", 1, "not for verdin-imx8mmm"),
                                         (BOARD, "stranger", 1, "CN = Test signer is not trusted"),
                                         (BOARD, "empty", 1, "no trusted certificate"), (BOARD, "gone", 1, "gone")):
            with self.subTest(board=board, trust=trust):
                found, output = self.verify(self.package, board, self.path(trust))
                self.assertEqual(code, found, output)
                self.assertIn(text, output)

    def test_a_digest_that_was_found_ahead_counts_for_the_whole_payload_of_the_same_file_alone(self) -> None:
        right, other = hashlib.sha256(read(self.payload)).hexdigest(), "f" * 64
        with Package(self.package) as package:
            begin, end = package.payload_offset, package.payload_end
        here, there = os.stat(self.package), os.stat(self.newer)
        for told, digest in (
                (f"{here.st_dev} {here.st_ino} {begin} {end} {other}", other), ("", right), ("killed half-w", right),
                (f"{there.st_dev} {there.st_ino} {begin} {end} {other}", right),
                (f"{here.st_dev} {here.st_ino} {begin} {end - 1} {other}", right),
                (f"{here.st_dev} {here.st_ino} {begin + 1} {end} {other}", right)):
            reader, writer = os.pipe()
            os.write(writer, told.encode())
            os.close(writer)
            with self.subTest(told), Package(self.package, ahead=reader) as package:
                self.assertEqual([digest, right], [package.payload_digest(), package.payload_digest()])

    def test_one_known_signer_of_two_is_enough_and_the_first_is_named_when_there_is_none(self) -> None:
        stranger = Signer(self.folder, "first stranger")
        pairs = ((stranger.key_file, stranger.certificate_file), (self.path("keys", "key.pem"), self.path("keys", "cert.pem")))
        self.assertEqual("", self.build("-o", two := self.path("two.pkg"), signers=pairs))
        self.assertIn("signed by CN = Test signer", self.verify(two)[1])
        run(ARBOR_PKG, "keygen", "--out", self.path("nobody"))
        self.assertIn("CN = first stranger is not trusted", self.verify(two, trust=self.path("nobody"))[1])
        code, facts = self.inspect(two, "--trust", self.path("nobody"))
        self.assertEqual((1, "good", False, "unknownSigner"),
                         (code, facts["signature"], facts["trusted"], facts["verdict"]))

    def test_an_inspected_file_is_not_run_and_what_is_no_package_is_told(self) -> None:
        write(script := self.path("script.pkg"), f"#!/bin/sh\ntouch {self.path('ran')}\n")
        os.chmod(script, 0o755)
        os.mkfifo(self.path("pipe.pkg"))
        write(self.path("pipe.pkg.sig"), '{"board":"b","file":{"sha256":"' + "0" * 64 + '","size":0},"format":2,'
                                         '"securityNumber":0,"version":"1"}\n{"signatures":[{"key":"' + "0" * 64 +
                                         '","signature":"AAAA"}]}\n')
        for file in (script, self.folder):
            code, facts = self.inspect(file, "--trust", self.keys)
            self.assertEqual((1, "notPackage", None), (code, facts["verdict"], facts["version"]))
        self.assertEqual(1, self.inspect(self.path("pipe.pkg"), "--trust", self.keys)[0])
        self.assertFalse(os.path.exists(self.path("ran")))


class Signing(PackageTest):
    def test_a_signature_beside_a_file_says_whose_it_is_as_long_as_both_stay_as_they_are(self) -> None:
        tool = self.path("tool.run")
        arguments = ["sign", *self.recipe("3.045"), "--security-number", "3", tool]
        at = arguments.index("--payload")
        del arguments[at:at + 2]

        def inspect(*options: str) -> tuple[int, dict]:
            return self.inspect(tool, "--trust", self.keys, *options)

        write(tool, "#!/bin/sh\necho 3.045\n")
        self.assertEqual("notPackage", inspect()[1]["verdict"])
        signatures = []
        for _ in range(2):
            self.assertEqual(0, run(ARBOR_PKG, *arguments).returncode)
            signatures.append(read(tool + ".sig"))
        self.assertEqual(signatures[0], signatures[1])
        code, facts = inspect("--board", BOARD)
        expected = {"verdict": "good", "version": "3.045", "board": BOARD, "securityNumber": 3, "payload": "good",
                    "payloadSize": 21, "installerVersion": None, "signer": "CN = Test signer"}
        self.assertEqual((0, expected), (code, {key: facts[key] for key in expected}))
        self.assertEqual((1, "wrongBoard"), (inspect("--board", "b2")[0], inspect("--board", "b2")[1]["verdict"]))
        write(tool + ".sig", signatures[0].decode().replace("3.045", "3.046", 1))
        self.assertEqual((1, "badSignature"), (inspect()[0], inspect()[1]["verdict"]))
        write(tool + ".sig", signatures[0].decode())
        write(tool, "#!/bin/sh\necho 9.999\n")
        self.assertEqual((1, "damaged"), (inspect()[0], inspect()[1]["verdict"]))
        self.assertIn("is a package", run(ARBOR_PKG, *arguments[:-1], self.package).stderr)


class Archiving(PackageTest):
    def test_a_version_directory_builds_its_packages_for_the_boards_it_was_signed_for(self) -> None:
        version = self.path("3.045")
        self.assertIn("give " + version, run(ARBOR_PKG, "archive", *self.recipe("3.045"), self.folder).stderr)
        must_run(ARBOR_PKG, "archive", *self.recipe("3.045"), "--component", "fpga=1.2@apalis-imx8", version)
        manifest = json.loads(read(version, "Manifest.json"))
        self.assertEqual([{"name": "fpga", "version": "1.2", "board": "apalis-imx8"}], manifest["components"])
        script = os.path.join(version, manifest["installerPath"], "installer.py")

        def build(board: str, name: str) -> str:
            done = run(script, "--build", "--device", board, "--output", name, cwd="/")
            self.assertEqual(done.returncode, 0 if done.stdout.startswith("OK") else 1)
            return done.stdout

        before = set(os.listdir(version))
        self.assertIn("OK: built", build("apalis-imx8", "arbor_kite.pkg"))
        self.assertEqual({"arbor_kite.pkg"}, set(os.listdir(version)) - before)
        checked = run(os.path.join(version, "arbor_kite.pkg"), "--verify", "apalis-imx8", "--trust", self.keys)
        self.assertIn("OK: version 3.045 for board apalis-imx8", checked.stdout)
        self.assertIn("OK", build(BOARD, "again.pkg"))
        self.assertEqual(read(version, "again.pkg"), read(version, "arbor_qm.pkg"))
        self.assertIn("not signed for board 'toaster'", build("toaster", "a.pkg"))
        self.assertIn("expected a plain name", build(BOARD, "../a.pkg"))
        with open(os.path.join(version, "system.img"), "r+b") as image:
            image.write(b"other")
        self.assertIn("not as it was released", build("apalis-imx8", "b.pkg"))
        self.assertFalse([name for name in os.listdir(version) if "a.pkg" in name or "b.pkg" in name])
