"""The corpus that all readers are held to: every named file has the verdict of its name, no changed byte passes."""

import json
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
        written = corpus.Corpus(cls.folder)
        cls.disputed = written.disputed
        cls.expected = {row["file"]: row for row in written.rows}
        cls.chains = {row["chain"]: row for row in written.chain_rows}

    def test_each_file_has_its_verdict(self) -> None:
        self.assertEqual([], self.disputed)
        for number in "12":
            words = {row["verdict"] for name, row in self.expected.items()
                     if name.startswith((number, "header")) and "mutated" not in name}
            self.assertEqual({"good", "notPackage", "damaged", "badSignature", "weakKey", "wrongPurpose", "unknownSigner",
                              "wrongBoard"}, words)

    def test_each_chain_has_its_result_and_every_verdict_under_a_document_is_there(self) -> None:
        self.assertEqual({"good", "badSignature", "unknownSigner", "notAllowed", "tooFewSigners", "revoked", "belowFloor",
                          "wrongBoard"}, {row["verdict"] for row in self.expected.values() if "trust" in row})
        self.assertEqual({"followed", "nothingNew", "refused", "damaged"}, {row["result"] for row in self.chains.values()})

    def test_no_random_change_of_a_chain_leads_to_another_document(self) -> None:
        good = [entry["document"] for entry in json.loads(read(self.folder, "documents", "mutated.json"))["documents"]]
        results = []
        for name, row in self.chains.items():
            if "/mutated-" in name:
                results.append(row["result"])
                if row["result"] == "followed":
                    changed = [entry["document"] for entry in json.loads(read(self.folder, name))["documents"]]
                    self.assertEqual(good[1:row["number"] - 2], [text for text in changed if text in good[1:]], name)
        self.assertEqual({"followed", "refused", "damaged"}, set(results))

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
