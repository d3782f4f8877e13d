"""A package of which only the head is run, while the whole of it comes as an open descriptor."""

import os
import shutil

from forge import rewritten
from support import LIMIT, PackageTest, faulty, read, run, write

from arborinstaller.layout import Package

WHOLE = "ARBOR_PACKAGE_FD"


class HandedOver(PackageTest):
    def setUp(self) -> None:
        self.head = self.head_of(self.package, "head")

    def head_of(self, package: str, name: str) -> str:
        """The head of the package, in an executable file of its own."""
        with Package(package) as opened, open(self.path(name), "wb") as file:
            file.write(opened.head)
            os.chmod(file.name, 0o755)
        return file.name

    def open(self, package: str, *changes: tuple[int, bytes]) -> int:
        """A descriptor of a copy of the package, with bytes changed, that has no name any more."""
        copy = shutil.copy(package, self.path("nameless"))
        descriptor = os.open(copy, os.O_RDWR)
        self.addCleanup(os.close, descriptor)
        for at, data in changes:
            os.pwrite(descriptor, data, at)
        os.unlink(copy)
        return descriptor

    def verify(self, file: str, value: str, *descriptors: int) -> tuple[int, str]:
        done = run(file, "--verify", "--trust", self.keys, env={**os.environ, WHOLE: value}, pass_fds=descriptors)
        return done.returncode, done.stdout

    def test_the_head_alone_checks_and_installs_what_was_handed_over(self) -> None:
        old = rewritten(self.package, self.path("old.pkg"), self.keys)
        for package, head in ((self.package, self.head), (old, self.head_of(old, "old-head")), (self.package, self.package)):
            whole = self.open(package)
            self.assertEqual((0, "OK: version 3.045"), (found := self.verify(head, str(whole), whole))[:1] + (found[1][:17],))
            instrument = self.updated()
            instrument.environment[WHOLE] = str(whole)
            instrument.handed_over = (whole,)
            write(restart := self.path("restart"), f"(env; ls -l /proc/$$/fd) > {instrument.restarts}")
            instrument.environment["ARBOR_REBOOT_COMMAND"] = f"sh {restart}"
            code, errors = instrument.install(head, "--trust", self.keys)
            self.assertEqual((0, "B", "3.045"), (code, instrument.active(), instrument.startable_version()), errors)
            seen = read(instrument.restarts).decode()
            self.assertIn("PATH=", seen)
            for text in (WHOLE, "nameless"):
                self.assertNotIn(text, seen)

    def test_the_head_may_go_while_its_install_runs(self) -> None:
        instrument = self.updated()
        whole = self.open(self.package)
        instrument.environment[WHOLE] = str(whole)
        instrument.handed_over = (whole,)
        running = instrument.start(*faulty("any:1:hold", self.head), "--trust", self.keys, "--no-reboot")
        instrument.wait_until_held()
        os.unlink(self.head)
        instrument.let_go()
        errors = running.communicate(timeout=LIMIT)[1]
        self.assertEqual((0, "3.045"), (running.returncode, instrument.startable_version()), errors)

    def test_what_is_handed_over_must_be_the_same_package(self) -> None:
        with Package(self.package) as package:
            end = package.payload_end
        for name, whole, text in (
                ("another version", self.open(self.newer), "the package was exchanged"),
                ("another head", self.open(self.package, (30, b"!")), "the package was exchanged"),
                ("another image", self.open(self.package, (end - 1, b"!")), "the image in the package is damaged"),
                ("no package", os.open(self.payload, os.O_RDONLY), "no package header")):
            with self.subTest(name):
                code, output = self.verify(self.head, str(whole), whole)
                self.assertEqual(1, code)
                self.assertIn(text, output)
                instrument = self.updated()
                instrument.environment[WHOLE] = str(whole)
                instrument.handed_over = (whole,)
                code, errors = instrument.install(self.head, "--skip-verify", "--no-reboot")
                self.assertEqual((1, "3.044"), (code, instrument.startable_version()))
                self.assertIn(text, errors)

    def test_what_names_no_open_file_is_not_looked_at(self) -> None:
        whole = self.open(self.newer)
        reader, writer = os.pipe()
        folder = os.open(self.folder, os.O_RDONLY)
        for descriptor in (reader, writer, folder):
            self.addCleanup(os.close, descriptor)
        for value in ("", "x", "-1", "99", "+3", f" {whole}", f"{whole} ", "1" * 40, "\u0663", str(reader), str(folder)):
            with self.subTest(value):
                code, output = self.verify(self.package, value, whole, reader, folder)
                self.assertEqual(0, code, output)
                code, output = self.verify(self.head, value, whole, reader, folder)
                self.assertEqual(1, code)
                self.assertIn("incomplete", output)
