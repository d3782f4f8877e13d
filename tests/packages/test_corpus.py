"""The corpus that all readers are held to: every named file has the verdict of its name, no changed byte passes."""

import tempfile
import unittest

import cases
import corpus
from support import read


class Corpus(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        folder = tempfile.TemporaryDirectory(prefix="arbor")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        rows, cls.disputed = corpus.write_corpus(cls.folder)
        cls.expected = {row["file"]: row for row in rows}

    def test_each_file_has_its_verdict(self) -> None:
        self.assertEqual([], self.disputed)
        for number in "12":
            words = {row["verdict"] for name, row in self.expected.items()
                     if name.startswith((number, "header")) and "mutated" not in name}
            self.assertEqual({"good", "notPackage", "damaged", "badSignature", "weakKey", "wrongPurpose", "unknownSigner",
                              "wrongBoard"}, words)

    def test_a_changed_payload_is_told_though_the_signature_is_good(self) -> None:
        for name in ("2-changed-payload-first", "2-changed-payload-last"):
            self.assertEqual(("good", "bad"), (self.expected[name]["verdict"], self.expected[name]["payload"]))
        self.assertEqual("good", self.expected["2-trusted"]["payload"])

    def test_no_random_change_makes_another_package_that_passes(self) -> None:
        good = read(self.folder, "files", "2-trusted")
        head, payload = self.parts(good)
        passed = 0
        for name, row in self.expected.items():
            if "mutated" in name and row["verdict"] == "good":
                self.assertTrue(name.startswith("2-"), name)
                found = self.parts(read(self.folder, "files", name))
                self.assertEqual(head, found[0])
                self.assertEqual("good" if found[1] == payload else "bad", row["payload"])
                passed += 1
        self.assertGreater(passed, 10)  # changes of the payload, and of what means nothing at the end

    @staticmethod
    def parts(package: bytes) -> tuple[bytes, bytes]:
        end = package.index(b"\n", 4096) + 1 + len(cases.CODE)
        return package[:end], package[end:end + len(cases.PAYLOAD)]
