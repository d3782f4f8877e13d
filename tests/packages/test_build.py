"""Building, inspecting and checking packages."""

import json
import os
import shutil

from support import ARBOR_PKG, BOARD, PackageTest, read, run


class Building(PackageTest):
    def build(self, *changes: str) -> str:
        return run(ARBOR_PKG, "build", *self.recipe("3.045"), "-o", self.path("x.pkg"), *changes).stderr

    def verify(self, package: str, board: str = BOARD, trust: str = "") -> tuple[int, str]:
        done = run(package, "--verify", *([board] if board else []), "--trust", trust or self.keys, cwd="/")
        return done.returncode, done.stdout

    def test_a_package_says_what_went_into_it(self) -> None:
        facts = json.loads(run(ARBOR_PKG, "inspect", "--json", "--trust", self.keys, self.package).stdout)
        expected = {"version": "3.045", "board": BOARD, "installerVersion": "1.0", "payloadSize": 7 << 19,
                    "signer": "CN = Test signer", "signature": "good", "trusted": True}
        self.assertEqual(expected, {key: facts[key] for key in expected})
        for arguments in (["--version"], ["--dry-run", "--version"]):
            self.assertEqual("3.045\n", run(self.package, *arguments).stdout)

    def test_the_same_inputs_give_the_same_bytes_with_either_kind_of_key(self) -> None:
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=r", "-keyout",
            self.path("rsa.key"), "-out", self.path("rsa.crt"))
        for keys in ((), ("--key", self.path("rsa.key"), "--cert", self.path("rsa.crt"))):
            copies = []
            for name in ("one.pkg", "two.pkg"):
                self.assertEqual("", self.build("-o", self.path(name), *keys))
                copies.append(read(self.path(name)))
            self.assertEqual(copies[0], copies[1])
            self.assertEqual(0, self.verify(self.path("two.pkg"), trust=self.folder if keys else "")[0])

    def test_bad_inputs_are_refused_by_name(self) -> None:
        run("openssl", "ecparam", "-name", "prime256v1", "-genkey", "-out", self.path("ec.pem"))
        run(ARBOR_PKG, "keygen", "--out", self.path("other"))
        for changes, complaint in ((["--version", "3.x'; id"], "no version"), (["--board", "a b"], "no board name"),
                                   (["--payload", self.path("none")], "none: No such file"),
                                   (["--key", self.path("ec.pem")], "use Ed25519 or RSA"),
                                   (["--key", self.path("payload.img")], "payload.img: openssl"),
                                   (["--cert", self.payload], "holds no certificate"),
                                   (["--cert", self.path("other", "cert.pem")], "does not fit the certificate"),
                                   (["--silent-seconds", "0"], "silent seconds")):
            with self.subTest(changes=changes):
                self.assertIn(complaint, self.build(*changes))
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

    def test_no_changed_byte_passes(self) -> None:
        good = read(self.package)
        header_end = good.index(b"\n", 4096)
        payload = good.index(read(self.payload)[:64])
        flipped = {"comment of the stub": 30, "padding of the stub": 4000,
                   "version in the header": good.index(b"3.045", 4096),
                   "certificate": good.index(b"-----BEGIN", 4096) + 200, "code": header_end + 500,
                   "first byte of the payload": payload, "last byte of the payload": len(good) - 65,
                   "signature": len(good) - 64, "last byte": len(good) - 1}
        cases = {what: good[:at] + bytes([good[at] ^ 1]) + good[at + 1:] for what, at in flipped.items()}
        cases |= {"cut in the signature": good[:-1], "cut in the payload": good[:payload + 5],
                  "cut in the code": good[:header_end + 9], "cut in the header": good[:4200],
                  "cut after the stub": good[:4096], "longer": good + b"\0"}
        for what, content in cases.items():
            with self.subTest(what):
                with open(self.path("bad.pkg"), "wb") as file:
                    file.write(content)
                os.chmod(self.path("bad.pkg"), 0o755)
                code, output = self.verify(self.path("bad.pkg"))
                self.assertEqual(1, code, output)
                self.assertIn("FAILED: ", output)
                self.assertEqual(1, run(ARBOR_PKG, "inspect", self.path("bad.pkg")).returncode)


class Archiving(PackageTest):
    def test_a_version_directory_builds_its_packages_for_the_boards_it_was_signed_for(self) -> None:
        version = self.path("3.045")
        self.assertIn("give " + version, run(ARBOR_PKG, "archive", *self.recipe("3.045"), self.folder).stderr)
        done = run(ARBOR_PKG, "archive", *self.recipe("3.045"), "--component", "fpga=1.2@apalis-imx8", version)
        self.assertEqual(0, done.returncode, done.stderr)
        manifest = json.loads(read(version, "Manifest.json"))
        self.assertEqual([{"name": "fpga", "version": "1.2", "board": "apalis-imx8"}], manifest["components"])
        script = os.path.join(version, manifest["installerPath"], "installer.py")

        def build(board: str, name: str) -> str:
            return run(script, "--build", "--device", board, "--output", name, cwd="/").stdout

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
