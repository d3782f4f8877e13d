"""The graph host as the service manager and a person at a terminal meet it."""

import json
import os
import signal
import subprocess

from simulation import gateway, host, paths
from support import GENEROUS, InstrumentCase, arborctl


class Host(InstrumentCase):
    def test_asked_to_end_it_ends_in_order_even_with_a_listener(self) -> None:
        with gateway.Events():
            os.kill(self.process.pid, signal.SIGTERM)
            self.assertEqual(0, self.process.wait(GENEROUS), host.said())
        self.assertFalse(paths.GATEWAY.exists())
        unreachable = arborctl("status")
        self.assertEqual(3, unreachable.returncode, unreachable.stdout)
        self.assertIn("arborctl: arbord does not run: ", unreachable.stdout)
        self.assertIn(str(paths.GATEWAY), unreachable.stdout)

    def test_bad_graph_files_are_refused_with_file_line_and_key(self) -> None:
        good = paths.GRAPH.read_text()
        self.assertEqual((0, ""), _check(good)[::2])
        for old, new, named in (
                ('"level": 2', '"level": 2,,', ""),
                ('"level": 2', '"level": "much"', "level"),
                ('"queueLength": 256', '"queueLenght": 256', "queueLenght"),
                ('"class": "ZNodeStorage"', '"class": "ZNodeNothing"', "ZNodeNothing"),
                ('"libNodeStorage.so"', '"libNodeNowhere.so"', "libNodeNowhere.so"),
                ('"name": "Gateway"', '"name": "Storage"', "Storage"),
                ('"ProgressPort": 5600', '"ProgressPort": 70000', "ProgressPort")):
            with self.subTest(new):
                self.assertEqual(1, good.count(old))
                line = good[:good.index(old)].count("\n") + 1
                code, path, said = _check(good.replace(old, new))
                self.assertNotEqual(0, code)
                self.assertIn(path, said)
                self.assertIn(f":{line}", said)
                self.assertIn(named, said)

    def test_unknown_request_and_bad_field_are_named(self) -> None:
        for keyword, body, status, named in (
                ("nosuchkeyword", {}, 404, "nosuchkeyword"),
                ("compareversions", {"version1": 3}, 400, "version1"),
                ("upload", {}, 400, "className")):
            with self.subTest(keyword):
                code, problem = gateway.post(keyword, body)
                self.assertEqual(status, code)
                self.assertIn(named, json.dumps(problem))
        self.assertEqual((200, True), _compared("3.046", "3.044"), "the next good request works")


def _compared(first: str, second: str) -> tuple[int, bool]:
    status, answer = gateway.post("compareversions", {"version1": first, "version2": second})
    return status, answer["result"]


def _check(graph: str) -> tuple[int, str, str]:
    """What `arbord --check` makes of a graph file: exit code, the file's path, what it said about it on standard error."""
    path = paths.RUNTIME / "checked.json"
    path.write_text(graph)
    done = subprocess.run([str(paths.program("arbord")), "--graph", str(path), "--check"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True, timeout=GENEROUS, check=False)
    return done.returncode, str(path), done.stderr
