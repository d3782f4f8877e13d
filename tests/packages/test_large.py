"""Packages beyond the sizes that 31 and 32 bits can tell. Their images are mostly holes, and stay holes."""

import json
import os

from support import ARBOR_PKG, BOARD, PackageTest, run

from arborinstaller.layout import Package

END = b"the end of the image"
HASHING = 600  # seconds, on a machine that does much else


class Large(PackageTest):
    def build(self, size: int) -> str:
        """A package whose image has `size` bytes, the last of which are END."""
        with open(self.path("large.img"), "wb") as image:
            image.seek(size - len(END))
            image.write(END)
        recipe = ["large.img" if word == self.payload else word for word in self.recipe("3.045")]
        done = run(ARBOR_PKG, "build", *recipe, "-o", "large.pkg", cwd=self.folder, limit=HASHING)
        self.assertEqual("", done.stderr)
        package = self.path("large.pkg")
        self.assertLess(os.stat(package).st_blocks * 512, 8 << 20)
        with Package(package) as opened:
            self.assertEqual(size, opened.header.payload.size)
            with open(package, "rb") as file:
                file.seek(opened.payload_offset + size - len(END))
                self.assertEqual(END + b'{"signatures":[', file.read(len(END) + 15))
        return package

    def test_an_image_of_3_gib_is_built_and_verified(self) -> None:
        checked = run(self.build(3 << 30), "--verify", BOARD, "--trust", self.keys, limit=HASHING)
        self.assertIn("OK: version 3.045", checked.stdout)

    def test_an_image_of_5_gib_is_built_and_inspected(self) -> None:
        package = self.build(5 << 30)
        facts = json.loads(run(ARBOR_PKG, "inspect", "--json", "--trust", self.keys, package, limit=HASHING).stdout)
        self.assertEqual((5 << 30, "good", "good"), (facts["payloadSize"], facts["payload"], facts["verdict"]))
