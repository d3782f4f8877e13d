"""A set-up that is not as it should be: what the doctor finds on an instrument, and what it says to do."""

import json
import os
import shutil
import subprocess
from pathlib import Path

from signing import arbor_pkg, new_keys
from simulation import furnish, host, paths, sticks
from support import FIXTURES, InstrumentCase, stick_package

SOMEBODY = ("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups")
STATES = ("ok", "warning", "fault", "unknown")


class Doctor(InstrumentCase):
    TRUST = str(paths.TRUST)

    def look(self, *user: str) -> int:
        """The exit status; keeps what was found."""
        done = subprocess.run([*user, str(paths.program("arborctl")), "doctor", "--json"], stdout=subprocess.PIPE,
                              stdin=subprocess.DEVNULL, text=True, timeout=60, check=False)
        self.points = json.loads(done.stdout)["points"]
        for point in self.points:
            self.assertIn(point["state"], STATES)
            self.assertEqual(point["state"] == "ok", point["advice"] == "", point)
        return done.returncode

    def says(self, point: str, state: str, text: str) -> None:
        """Something of that kind was found at the point."""
        here = [each for each in self.points if each["point"] == point]
        self.assertTrue(any(each["state"] == state and text in each["text"] for each in here), (text, here))

    def change_graph(self, change) -> None:
        """Another graph file, from now on."""
        graph = json.loads(paths.GRAPH.read_text())
        change(graph)
        furnish.write_json(paths.GRAPH, graph)
        self.restart()

    def test_instrument_as_it_left_the_factory_has_no_fault(self) -> None:
        sticks.attach([stick_package("3.046")])
        self.assertEqual(0, self.look(), self.points)
        for point in ("host", "rights", "versions", "graph", "updates folder", "archive", "trust", "boot", "programs"):
            self.says(point, "ok", "")
        self.says("identity", "warning", "simulated")
        if not paths.plain_mode():
            self.says("sticks", "ok", "/media/usb1")

    def test_host_that_does_not_run_is_told_first_and_the_rest_is_looked_at(self) -> None:
        self.switch_off()
        self.assertEqual(1, self.look())
        self.assertEqual(("host", "fault"), (self.points[0]["point"], self.points[0]["state"]))
        self.says("trust", "ok", "certificates")
        self.says("boot", "ok", "slot A runs")
        self.process = host.start()

    def test_stick_that_the_host_does_not_see(self) -> None:
        if paths.plain_mode():
            self.skipTest("nothing can be mounted here")
        stick = paths.STICKS / "unseen"
        stick.mkdir()
        self.addCleanup(stick.rmdir)
        self.assertEqual(1, self.look("unshare", "--mount", "sh", "-c", f'mount -t tmpfs stick {stick} && exec "$0" "$@"'))
        self.says("sticks", "fault", f"{stick} is mounted, and the host does not see it")

    def test_faults_of_the_disk(self) -> None:
        if not paths.plain_mode():
            filler = paths.STORAGE / "filler"
            space = os.statvfs(paths.STORAGE)
            with open(filler, "wb") as file:
                os.posix_fallocate(file.fileno(), 0, space.f_bavail * space.f_frsize)
            self.assertEqual(1, self.look())
            self.says("archive", "fault", "it is full")
            filler.unlink()
        shutil.rmtree(paths.ARCHIVE)
        self.assertEqual(1, self.look())
        self.says("archive", "fault", "No such file")

    def test_judge_that_is_missing_or_can_not_judge(self) -> None:
        (paths.CONFIG / "installer.json").write_text("{}")
        self.assertEqual(0, self.look(), self.points)
        self.says("boot", "warning", "does not ask before it writes over the way back")
        self.change_graph(lambda graph: graph["nodes"].remove(
            next(node for node in graph["nodes"] if node["class"] == "ZNodeTrial")))
        self.assertEqual(1, self.look())
        self.says("boot", "fault", "no ZNodeTrial in the graph")

    def test_trust_document_that_has_expired(self) -> None:
        document = paths.TRUST / "arbor-trust.json"
        alice = new_keys("alice")
        arbor_pkg("trust", "init", document)
        arbor_pkg("trust", "add-key", document, "--key", alice / "cert.pem", "--role", "trust")
        arbor_pkg("trust", "add-key", document, "--key", FIXTURES / "keys/cert.pem", "--role", "release")
        arbor_pkg("trust", "expires", document, "2001-01-31")
        arbor_pkg("trust", "sign", document, "--key", alice / "key.pem")
        self.assertEqual(0, self.look())
        self.says("trust", "warning", "was meant to be used until 2001-01-31")
        self.switch_off()
        self.look()
        self.says("trust", "warning", "was meant to be used until 2001-01-31")
        document.write_text("{")
        self.look()
        self.says("trust", "fault", "arbor-trust.json")
        self.process = host.start()
        self.assertEqual(1, self.look())
        self.says("trust", "fault", "arbor-trust.json")

    def test_somebody_who_is_not_in_the_group(self) -> None:
        if os.geteuid() != 0:
            self.skipTest("only root can be somebody else")
        paths.TRIAL.parent.chmod(0o700)
        self.addCleanup(Path.chmod, paths.TRIAL.parent, 0o755)
        self.assertEqual(1, self.look(*SOMEBODY))
        self.says("host", "fault", "you are not in the group")
        self.says("updates folder", "unknown", "not readable for you")
        self.says("boot", "unknown", "not readable for you")
