"""A package whose image has 5 GiB, on its whole way: from the host to the accessory, checked there and installed.

What it takes lies on a real disk, and is removed with the test.
"""

import os
import shutil
import tempfile
from pathlib import Path

from pair import stock
from pair_support import (BUILT, CART, PALM, TRANSFER, PairCase, arborctl, build_package, let_in, other, until,
                          until_connected)
from signing import build
from simulation import gateway, paths, slots

SIZE, END = 5 << 30, b"the end of the image"
NEW = "3.046"


class Large(PairCase):
    def setUp(self) -> None:
        self.disk = Path(tempfile.mkdtemp(prefix="large-", dir=paths.build_folder()))
        self.addCleanup(shutil.rmtree, self.disk)
        free = shutil.disk_usage(self.disk).free
        self.assertGreater(free, 11 << 30, f"{self.disk}: the test takes 11 GiB for a while, {free >> 30} are free")

    def _on_disk(self, place: Path) -> None:
        """Lays a folder of the accessory on the disk, with what it holds."""
        folder = self.disk / place.name
        shutil.copytree(PALM.path(place), folder, symlinks=True)
        self.assertEqual(0, PALM.run("mount", "--bind", str(folder), str(place)).returncode)
        self.addCleanup(PALM.run, "umount", "--lazy", str(place))

    def test_5_gib_are_transferred_checked_and_installed(self) -> None:
        let_in(PALM, CART)
        let_in(CART, PALM)
        until_connected()
        build_package()
        self._on_disk(paths.SLOTS)
        self._on_disk(paths.UPDATES)
        PALM.run("reboot").check_returncode()  # the updates folder is watched by what it was at the start
        until(lambda: other(CART).get("connected"), "the accessory is back")

        with open(self.disk / "image", "wb") as image:
            image.seek(SIZE - len(END))
            image.write(END)
        package = build(self.disk / "large.pkg", NEW, image=self.disk / "image", keys=stock.ensure() / "keys",
                        options=("--silent-seconds", "60"))
        self.assertLess(package.stat().st_blocks * 512, 8 << 20, "holes stay holes")
        BUILT.unlink()
        self.assertEqual(0, os.spawnlp(os.P_WAIT, "cp", "cp", "--sparse=always", str(package), str(BUILT)))

        done = arborctl(CART, *TRANSFER)
        self.assertEqual(0, done.returncode, done.stdout)
        until(lambda: NEW in gateway.updates(PALM.gateway), "the carried package is checked and offered")
        self.assertEqual(package.stat().st_size, PALM.path(paths.UPDATES / BUILT.name).stat().st_size)
        done = arborctl(PALM, "install", NEW, "--no-reboot", "--wait")
        self.assertEqual(0, done.returncode, done.stdout)
        folder = PALM.path(paths.SLOTS)
        self.assertEqual(NEW, slots.versions(folder)[slots.active(folder)])
        with open(folder / slots.active(folder) / "system.img", "rb") as image:
            self.assertEqual(SIZE, image.seek(0, os.SEEK_END))
            image.seek(-len(END), os.SEEK_END)
            self.assertEqual(END, image.read())
