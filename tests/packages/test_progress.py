"""Progress documents, and receivers that lag, go away and come back."""

import json
import os
import signal
import subprocess
import sys
import threading
from unittest import mock

from support import HERE, INSTALLED, LIMIT, UNIX, Instrument, PackageTest, Receiver, faulty, wait_until

from arborinstaller import progress


class Listener:
    """A receiver in a process of its own, which can be killed."""

    def __init__(self, instrument: Instrument, *deaf: str) -> None:
        self.path = os.path.join(instrument.packages, "progress")
        self.process = subprocess.Popen([sys.executable, "-B", os.path.join(HERE, "listener.py"), self.path, *deaf],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n"

    def __enter__(self) -> "Listener":
        return self

    def __exit__(self, *_: object) -> None:
        with self.process:
            self.process.kill()

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def pause(self) -> None:
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED)

    def wait_for(self, text: str) -> dict:
        """The next document with `text` in its message."""
        for line in self.process.stdout:
            document = json.loads(b"[" + line.encode().replace(b"}{", b"},{") + b"]")[-1]
            if text in document["message"]:
                return document
        raise AssertionError(f"the listener ended before '{text}' came")


class Receivers(PackageTest):
    def test_progress_arrives_whole_over_either_socket(self) -> None:
        for kind in ("unix", "tcp"):
            instrument = self.instrument()
            with self.subTest(kind), Receiver(instrument if kind == "unix" else None) as receiver:
                options = UNIX if kind == "unix" else ("--skip-verify", "--socket=2", "--addr=localhost",
                                                       f"--port={receiver.address[1]}")
                code, errors = instrument.install(self.package, *options, "--no-reboot")
            self.assertEqual((0, b"", ""), (code, receiver.torn, errors))
            self.assertEqual([(100, True)], [(end["percent"], end["done"]) for end in receiver.ends()])
            percents = [document["percent"] for document in receiver.documents]
            self.assertEqual(sorted(percents), percents)
            self.assertEqual({"header": "Installing 3.045", "message": INSTALLED, "percent": 100, "error": False,
                              "done": True, "spinner": False, "operation": "install"}, receiver.documents[-1])

    def test_a_receiver_that_lags_gets_fewer_documents_but_whole_ones_and_the_last(self) -> None:
        receiver = Receiver(self.instrument())
        sink = progress.ProgressSink(progress.Address(path=receiver.address))
        with mock.patch.object(progress, "_INTERVAL", 0):
            for percent in range(20):
                sink.offer(progress.Document("Installing", "\u00e4" * 1000, percent))
            with receiver:
                sink.finish(progress.Document("Installing", "end", 100, done=True), LIMIT)
        self.assertEqual(b"", receiver.torn)
        self.assertEqual([0, 100], [document["percent"] for document in receiver.documents])

    def test_an_install_goes_on_when_nobody_listens(self) -> None:
        for options in (UNIX, ("--skip-verify", "--sock=2", "--addr=127.0.0.1", "--port=1"),
                        ("--skip-verify", "--sock=2", "--addr=127.0.0.1", "--port=0")):
            code, errors = self.instrument().install(self.package, *options, "--no-reboot")
            self.assertEqual(0, code)
            self.assertRegex(errors, "(?s)cannot be reached.*100 % Installed")


class Returning(PackageTest):
    """The receiver is killed, and started again at the same path."""

    def test_documents_go_on_and_the_last_one_arrives(self) -> None:
        instrument = self.updated()
        with Listener(instrument, "deaf") as first:
            install = instrument.start(*faulty("fsync:system.img:hold", self.package), *UNIX, "--no-reboot")
            instrument.wait_until_held()
            first.kill()  # with a connection that it has never taken
        for _ in range(3):
            with Listener(instrument) as again:
                self.assertTrue(again.wait_for("Flushing")["spinner"])
                again.kill()
        with Listener(instrument) as last:
            last.wait_for("Flushing")
            instrument.let_go()
            self.assertTrue(last.wait_for(INSTALLED)["done"])
        install.communicate(timeout=LIMIT)
        self.assertEqual(0, install.returncode)

    def test_one_that_is_away_at_the_end_gets_the_last_one_when_it_is_back(self) -> None:
        for paused in (False, True):  # killed, or first hung and then killed with something unread
            instrument = self.updated()
            with Listener(instrument) as first:
                install = instrument.start(*faulty("fsync:system.img:hold", self.package), *UNIX, "--no-reboot")
                first.wait_for("Flushing")
                first.pause() if paused else first.kill()
                instrument.let_go()
                wait_until(lambda: instrument.record()["outcome"] == "succeeded", "the install has ended")
                first.kill()
            with Listener(instrument) as again:
                self.assertTrue(again.wait_for(INSTALLED)["done"])
            install.communicate(timeout=LIMIT)
            self.assertEqual(0, install.returncode)

    def test_a_last_one_that_was_sent_but_not_read_is_sent_again(self) -> None:
        instrument = self.instrument()
        with Listener(instrument) as first:
            sink = progress.ProgressSink(progress.Address(path=first.path))
            sink.offer(progress.Document("Installing", "begin"))
            first.wait_for("begin")
            first.pause()
            end = threading.Thread(target=sink.finish, args=(progress.Document("Installing", "end", done=True), LIMIT))
            end.start()
            wait_until(lambda: sink._unread() > 0, "the last document is sent")
            first.kill()
        with Listener(instrument) as again:
            self.assertTrue(again.wait_for("end")["done"])
        end.join(LIMIT)
        self.assertFalse(end.is_alive())

    def test_the_restart_waits_only_a_while_for_one_that_stays_away(self) -> None:
        instrument = self.updated()
        with Listener(instrument) as first:
            install = instrument.start(*faulty("fsync:system.img:hold", self.package), *UNIX)
            first.wait_for("Flushing")
            first.kill()
        instrument.let_go()
        _, errors = install.communicate(timeout=LIMIT)
        self.assertEqual((0, True), (install.returncode, os.path.exists(instrument.restarts)))
        self.assertIn("100 % Installed", errors)
