"""An instrument that really starts: test_machine.py [--cheap]. Emulated, or as a container.

The methods are chapters of one story on one machine, in the order of their names.
"""

import sys
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / folder) for folder in ("examples/instrument", "examples/two-instruments", "examples/machine")]
from machines import image, pair, story  # noqa: E402
from machines.container import Container  # noqa: E402
from machines.emulated import Emulated  # noqa: E402
from machines.image import FURTHER, LOST  # noqa: E402
from machines.machine import Machine  # noqa: E402

CHEAP = "--cheap" in sys.argv


class Chapters(unittest.TestCase):
    machine: Machine

    @classmethod
    def setUpClass(cls) -> None:
        cls.factory, = image.ensure(image.CONTAINER if CHEAP else image.EMULATED, image.ALONE)
        cls.machine = cls.enterClassContext(Container(cls.factory) if CHEAP else Emulated(cls.factory))
        cls.machine.power_on()
        cls.machine.wait(lambda: story.asked(cls.machine, "slots")["state"] == "confirmed", "the graph runs")

    def run(self, result: unittest.TestResult | None = None) -> unittest.TestResult | None:
        """After a failure the chapters behind it make no sense."""
        failed = bool(result and (result.failures or result.errors))
        done = result if failed else super().run(result)
        if not failed and result and (result.failures or result.errors):
            print(self.machine.said(), flush=True)
        return done

    def install_job(self) -> dict:
        return story.asked(self.machine, "history", "--kind", "install")["operations"][0]

    def begin_install(self, version: str) -> int:
        """Up to the moment at which the image is being written; the starts until then."""
        self.machine.pull()
        self.machine.plug([self.factory.package(version)])
        self.machine.wait(lambda: version in story.offered(self.machine), f"{version} is offered")
        file = next(each["file"] for each in story.asked(self.machine, "updates")["packages"] if each["version"] == version)
        self.machine.run(f"dd if={file} iflag=nocache count=0")  # what was checked is read again
        story.install(self.machine, version)

        def is_written() -> bool:
            job = self.install_job()
            self.assertIn(job["state"], ("Queued", "Running"), job["reason"])
            return job["state"] == "Running" and job["percent"] > 10

        self.machine.wait(is_written, "the image is being written")
        return len(self.machine.starts)

    def test_0_the_doctor_finds_no_fault(self) -> None:
        told = self.machine.run("arborctl doctor")
        self.assertEqual(0, told.status, told.text)

    def test_1_a_good_version_stays_and_those_that_fail_are_left(self) -> None:
        story.whole(self.machine, self.factory)

    @unittest.skipIf(CHEAP, "a container has no device that can go")
    def test_2_a_stick_that_is_pulled_while_it_is_read_leaves_the_version_that_runs(self) -> None:
        starts = self.begin_install(FURTHER)
        self.machine.pull()
        self.machine.wait(lambda: self.install_job()["state"] == "Failed", "the install has failed")
        self.assertIn("rror", self.install_job()["reason"])
        self.assertEqual(story.asked(self.machine, "slots")["state"], "confirmed")
        self.assertEqual(len(self.machine.starts), starts)

    def test_3_power_that_goes_while_the_image_is_written_leaves_the_version_that_runs(self) -> None:
        if CHEAP:  # its installer is done before anybody could cut
            self.skipTest("see machine --cuts")
        before = story.asked(self.machine, "status")
        starts = self.begin_install(FURTHER)
        self.machine.cut()
        self.machine.power_on()
        self.machine.wait(lambda: self.install_job()["state"] not in ("Queued", "Running"), "the install is over")
        self.assertNotEqual(self.install_job()["state"], "Succeeded")
        self.assertEqual([start.slot for start in self.machine.starts[starts:]], [before["runningSlot"]])
        self.assertEqual(story.asked(self.machine, "status")["installedVersion"], before["installedVersion"])

    def test_4_a_kernel_that_dies_starts_again_and_the_next_update_works(self) -> None:
        starts = len(self.machine.starts)
        if CHEAP:
            self.machine.cut()
            self.machine.power_on()
        else:
            with self.assertRaises(Exception):
                self.machine.run("echo c > /proc/sysrq-trigger")
            self.machine.wait_started(starts + 1)
        self.assertEqual(self.machine.starts[starts:], [story.Start("B", 0)])
        self.machine.wait(lambda: story.asked(self.machine, "slots")["state"] == "confirmed", "the graph runs")
        self.machine.pull()
        if not CHEAP:  # whose clock is that of others, too
            self.machine.run("date -s 1985-03-01")
        story.update(self.machine, self.factory, FURTHER)
        story.outcome(self.machine, FURTHER, "confirmed")

    def test_5_a_version_that_ends_in_emergency_mode_is_left(self) -> None:
        starts = len(self.machine.starts)
        self.machine.pull()
        story.update(self.machine, self.factory, LOST)
        story.outcome(self.machine, LOST, "reverted")
        # Without the data partition nothing is known but by the boot loader, which counts.
        self.assertEqual(["B", "A"] if CHEAP else ["B", "B", "B", "A"], [start.slot for start in self.machine.starts[starts:]])


class Pair(unittest.TestCase):
    def test_a_host_brings_its_accessory_to_its_own_version(self) -> None:
        with pair.machines(image.CONTAINER if CHEAP else image.EMULATED) as two:
            pair.whole(*two)


if __name__ == "__main__":
    unittest.main(argv=[word for word in sys.argv if word != "--cheap"], verbosity=2)
