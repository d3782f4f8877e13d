"""What the package tests share: keys, packages, an instrument's storage and a progress receiver."""

import hashlib
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOM = os.path.join(os.path.dirname(os.path.dirname(HERE)), "packages")
ARBOR_PKG = os.path.join(ROOM, "arbor-pkg")
sys.path[:0] = [ROOM, os.path.join(ROOM, "installer")]  # for the tests of single modules
BOARD = "verdin-imx8mm"
LIMIT = 60  # seconds until a test is given up as hanging
INSTALLED = "Installed, takes effect at the next restart"
UNIX = ("--skip-verify", "--sock=1", "--addr=progress")
NO_RESTART = ("--skip-verify", "--no-reboot")


def read(*path: str) -> bytes:
    with open(os.path.join(*path), "rb") as file:
        return file.read()


def write(path: str, text: str) -> None:
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def wait_until(holds, what: str) -> None:
    end = time.monotonic() + LIMIT
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(f"it did not come to this: {what}")
        time.sleep(0.01)


def run(*command: str, limit: float = LIMIT, **options) -> subprocess.CompletedProcess:
    return subprocess.run(command, capture_output=True, text=True, timeout=limit, check=False, **options)


def must_run(*command: str, **options) -> str:
    """What a program prints; it has to end well."""
    done = run(*command, **options)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


class PackageTest(unittest.TestCase):
    """A folder with keys and a payload of three and a half pieces; instruments and packages are made on demand."""

    @classmethod
    def setUpClass(cls) -> None:
        folder = tempfile.TemporaryDirectory(prefix="arbor")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        cls.keys = cls.path("keys")
        must_run(ARBOR_PKG, "keygen", "--out", cls.keys, "--name", "Test signer")
        cls.payload = cls.path("payload.img")
        with open(cls.payload, "wb") as file:
            file.write(os.urandom(7 << 19))
        cls.package, cls.older, cls.newer = cls.path("arbor_qm.pkg"), cls.path("older.pkg"), cls.path("newer.pkg")
        for package, version in ((cls.package, "3.045"), (cls.older, "3.044"), (cls.newer, "3.046")):
            must_run(ARBOR_PKG, "build", *cls.recipe(version), "--silent-seconds", "0.1", "-o", package)

    @classmethod
    def path(cls, *names: str) -> str:
        return os.path.join(cls.folder, *names)

    @classmethod
    def recipe(cls, version: str, *signers: tuple[str, str]) -> list[str]:
        """Options for a package of `version`; each of `signers`, when they are not the usual one, is a key and a certificate."""
        pairs = signers or ((cls.path("keys", "key.pem"), cls.path("keys", "cert.pem")),)
        return ["--version", version, "--board", BOARD, "--payload", cls.payload,
                *(word for key, certificate in pairs for word in ("--key", key, "--cert", certificate))]

    @staticmethod
    def inspect(file: str, *options: str) -> tuple[int, dict]:
        """The exit code, and the facts."""
        done = run(ARBOR_PKG, "inspect", "--json", *options, file)
        return done.returncode, json.loads(done.stdout)

    def instrument(self) -> "Instrument":
        instrument = Instrument(tempfile.mkdtemp(dir=self.folder))
        self.addCleanup(instrument.stop)
        return instrument

    def updated(self, *not_started: str) -> "Instrument":
        """An instrument that runs 3.044 from slot A. The packages `not_started` were installed since its last start."""
        instrument = self.instrument()
        instrument.must_install(self.older)
        instrument.restart()
        for package in not_started:
            instrument.must_install(package)
        return instrument


class Instrument:
    """An instrument's storage, and the ways to run an installer on it."""

    def __init__(self, root: str) -> None:
        self.root = root
        self.packages, self.slots, self.restarts, self.release, self.command_line, self.boot_file, self._settings = (
            os.path.join(root, name) for name in ("Packages", "Slots", "restarts", "release", "cmdline", "boot", "settings"))
        self.handed_over: tuple[int, ...] = ()  # descriptors that installs inherit
        self._running: list[subprocess.Popen] = []
        os.makedirs(self.packages, exist_ok=True)
        # Never the real command: a test must not restart the machine it runs on.
        self.environment = {**os.environ, "ARBOR_REBOOT_COMMAND": f"touch {self.restarts}", "RELEASE": self.release,
                            "SETTINGS": self._settings}
        self.set()

    def set(self, **settings: object) -> None:
        """Writes the settings of installs that `faulty` starts; only those look at files of this instrument."""
        write(self.command_line, "quiet")
        write(self._settings, json.dumps({"kernelCommandLine": self.command_line, "runningSlotFile": self.boot_file,
                                          **settings}))

    def copy(self, root: str) -> "Instrument":
        """Another instrument, in the folder `root`, with the same storage."""
        shutil.copytree(self.slots, os.path.join(root, "Slots"), symlinks=True)
        return Instrument(root)

    def start(self, *command: str) -> subprocess.Popen:
        self._running.append(subprocess.Popen([*command, f"--dir={self.packages}"], env=self.environment, text=True,
                                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, pass_fds=self.handed_over))
        return self._running[-1]

    def let_go(self) -> None:
        open(self.release, "wb").close()

    def stop(self) -> None:
        self.let_go()
        for process in self._running:
            with process:
                process.terminate()

    def install(self, *command: str) -> tuple[int, str]:
        errors = self.start(*command).communicate(timeout=LIMIT)[1]
        return self._running[-1].returncode, errors

    def must_install(self, package: str) -> None:
        code, errors = self.install(package, "--skip-verify", "--no-reboot")
        assert code == 0, errors

    def wait_until_held(self) -> None:
        """Returns when the worker waits at a fault "hold"."""
        wait_until(lambda: os.path.exists(self.release + ".held"), "the fault is reached")

    def restart(self) -> None:
        """What a restart changes where the boot does not tell its slot: the kernel's name for the boot."""
        remembered = os.path.join(self.slots, "running")
        write(remembered, json.dumps({**json.loads(read(remembered)), "bootId": "an earlier boot"}))

    def record(self) -> dict:
        """What became of the last install, as the installer has left it; empty when it left nothing."""
        path = os.path.join(self.slots, "last.json")
        return json.loads(read(path)) if os.path.exists(path) else {}

    def active(self) -> str | None:
        link = os.path.join(self.slots, "active")
        return os.readlink(link) if os.path.islink(link) else None

    def startable_version(self) -> str:
        """The version the instrument would start: the active slot must be whole."""
        folder = os.path.join(self.slots, "active")
        digest = hashlib.sha256(read(folder, "system.img")).hexdigest()
        if read(folder, "digest").decode() != digest + "\n":
            raise AssertionError("the active slot does not hold what its digest says")
        return read(folder, "version").decode().strip()

    def slot(self, name: str) -> dict[str, tuple[bytes, int]]:
        """All that stands in a slot, with times, so that a file which was written anew is another one."""
        folder = os.path.join(self.slots, name)
        return {file: (read(folder, file), os.stat(os.path.join(folder, file)).st_mtime_ns) for file in os.listdir(folder)}

    def tree(self) -> dict[str, tuple[int, int]]:
        paths = [os.path.join(folder, name) for folder, folders, files in os.walk(os.path.dirname(self.packages))
                 for name in (*folders, *files)]
        return {path: (os.lstat(path).st_mtime_ns, os.lstat(path).st_size) for path in paths}


def faulty(fault: str, package: str) -> list[str]:
    return [sys.executable, os.path.join(HERE, "fault.py"), fault, package]


class Receiver:
    """Takes progress like the relay does: each read of up to 1024 bytes has to hold whole documents."""

    def __init__(self, instrument: Instrument | None = None) -> None:
        """Listens on the instrument's progress socket, or on a TCP port when there is no instrument."""
        self._server = socket.socket(socket.AF_UNIX if instrument else socket.AF_INET)
        self._server.bind(os.path.join(instrument.packages, "progress") if instrument else ("127.0.0.1", 0))
        self._server.settimeout(LIMIT)
        self._server.listen(5)
        self.address = self._server.getsockname()
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._receive)
        self.documents: list[dict] = []
        self.torn = b""

    def __enter__(self) -> "Receiver":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._thread.join(LIMIT)
        self._server.close()

    def wait_for(self, wanted) -> None:
        """Returns as soon as there is a document for which `wanted` holds."""
        with self._changed:
            if not self._changed.wait_for(lambda: any(map(wanted, self.documents)), LIMIT):
                raise AssertionError(f"not among {len(self.documents)} documents, last {self.documents[-1:]}")

    def ends(self) -> list[dict]:
        return [document for document in self.documents if document["done"] or document["error"]]

    def _receive(self) -> None:
        connection, _ = self._server.accept()
        with connection:
            connection.settimeout(LIMIT)
            # On a UNIX socket each document is read before the next is sent; on TCP several may have come by now.
            size = 1024 if self._server.family == socket.AF_UNIX else 1 << 16
            while chunk := connection.recv(size):
                try:
                    documents = json.loads(b"[" + chunk.replace(b"}{", b"},{") + b"]")
                except ValueError:
                    self.torn, documents = chunk, []
                with self._changed:
                    self.documents += documents
                    self._changed.notify_all()
