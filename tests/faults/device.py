"""The instrument that faults are made on: what it runs, what a person is told, and what it takes of the machine."""

import os
import subprocess
import sys
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

from simulation import fixtures, furnish, gateway, host, paths, slots, sticks, whole
from simulation.whole import Broken, until

FRESH_THREADS = 4  # that the gateway may have started and kept since
FRESH_DESCRIPTORS = 4  # that may be open at this moment and were not at that one; the long form makes more rounds
MEMORY_KIB = 8192  # that the allocator may have kept since: rows that are about memory take less


class LeftOut(Exception):
    """This machine can't make the fault; the text says why."""


@dataclass
class Command:
    """arborctl as a person runs it, beside what goes on."""

    arguments: tuple[str, ...]
    program: tuple[str, ...] = (str(paths.program("arborctl")),)
    status: int = -1
    told: str = ""
    _thread: threading.Thread = field(init=False)

    def __post_init__(self) -> None:
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        try:
            done = subprocess.run([*self.program, *self.arguments], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, text=True, timeout=2 * whole.LIMIT,
                                  check=False)
            self.status, self.told = done.returncode, done.stdout
        except subprocess.TimeoutExpired as error:
            self.told = f"it did not end: {error.stdout!r}"

    def end(self) -> "Command":
        """Waits for it."""
        self._thread.join()
        if self.status < 0:
            raise Broken(f"arborctl {' '.join(self.arguments)}: {self.told}")
        return self


def arborctl(*arguments: str) -> Command:
    return Command(arguments).end()


def expect(holds: bool, what: str) -> None:
    if not holds:
        raise Broken(what)


def agreed(new: list[dict], done: Command) -> tuple[str, str]:
    """The state of the job that the command began, which is what the command said, and all that was said of it."""
    expect(len(new) <= 1, f"one order, and these jobs: {new}")
    state, reason = (new[0]["state"], new[0]["reason"]) if new else ("not begun", "")
    story = f"arborctl ended with {done.status} ({done.told!r}), the job is {state} ({reason!r})"
    expect(state in ("Succeeded", "Failed", "Cancelled", "Lost", "not begun"), story)
    unknown = done.status == 3 and "not known" in done.told  # the host was killed before it had answered
    expect((done.status == 0) == (state == "Succeeded") or unknown, story)
    expect(done.status == 0 or len(done.told.strip()) > 20, story)
    expect(state in ("Succeeded", "not begun") or bool(reason), story)
    return state, story


@dataclass(frozen=True)
class Taken:
    """What the graph host has of the machine when nothing goes on."""

    memory: int  # KiB of its own
    threads: int
    descriptors: int
    children: int
    files: frozenset[str]

    def __str__(self) -> str:
        return (f"{self.memory} KiB, {self.threads} threads, {self.descriptors} descriptors, {self.children} children, "
                f"{len(self.files)} files")


def taken() -> Taken:
    pid = host.running_pid()
    expect(pid is not None, "arborctl's host does not run")
    status = Path(f"/proc/{pid}/status").read_text()
    memory = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("RssAnon"))
    children = sum(_parent(int(name)) == pid for name in os.listdir("/proc") if name.isdigit())
    return Taken(memory, len(os.listdir(f"/proc/{pid}/task")), len(os.listdir(f"/proc/{pid}/fd")), children, _files())


def _parent(pid: int) -> int:
    try:
        return int(Path(f"/proc/{pid}/stat").read_text(errors="replace").rpartition(")")[2].split()[1])
    except OSError:
        return 0


def at_rest() -> Taken:
    """What it has once nothing goes on and nothing changes any more."""
    calm()
    found = [taken()]

    def stays() -> bool:
        time.sleep(0.2)
        found.append(taken())
        return found[-1].threads == found[-2].threads and found[-1].descriptors == found[-2].descriptors
    until(stays, "the host comes to rest")
    return found[-1]


def _files() -> frozenset[str]:
    """What lies where the programs write, but for what a stick brought and what the journal's library keeps beside it."""
    return frozenset(str(path) for folder in (paths.STATE, paths.RUNTIME, paths.SLOTS, paths.ARCHIVE)
                     for path in folder.rglob("*") if "sqlite-" not in path.name and path.parent.name != "office")


def is_calm() -> bool:
    """Nothing is under way."""
    return not gateway.get("operations?state=open")["operations"] and not gateway.get("status")["updateInProgress"]


def calm() -> None:
    until(is_calm, "nothing is under way any more")


def expect_as_before(before: Taken, memory: int = MEMORY_KIB, threads: int = FRESH_THREADS) -> None:
    """Waits until the host has no more than it had; the tolerances are those that are named."""
    def holds() -> bool:
        now = taken()
        return (now.memory <= before.memory + memory and now.threads <= before.threads + threads and
                now.descriptors <= before.descriptors + FRESH_DESCRIPTORS and now.children <= before.children and now.files <= before.files)
    try:
        until(holds, "the host has what it had")
    except Broken as error:
        now = taken()
        raise Broken(f"before: {before}; now: {now}; new files: {sorted(now.files - before.files)}\n{error}") from None


def fresh(trust: bool = True) -> None:
    """An instrument as it left the factory, with its host; older versions may be installed."""
    for name in filter(sticks.is_attached, paths.STICK_NAMES):
        sticks.detach(name)
    host.stop()
    furnish.furnish(fixtures.ensure())
    configure("ArborInstall", AllowDowngrades=True, **({} if trust else {"TrustedSigners": ""}))
    host.power_on()
    calm()


def configure(node: str, **settings: object) -> None:
    """Settings of a node for the next start."""
    graph = furnish.json.loads(paths.GRAPH.read_text())
    next(entry for entry in graph["nodes"] if entry["name"] == node)["config"].update(settings)
    furnish.write_json(paths.GRAPH, graph)


def restart() -> None:
    """The host ends in order, and starts again."""
    host.stop()
    reap()
    host.start()
    calm()


def reap() -> None:
    """Processes that lost their parent came to this one's; its own that have ended are waited for."""
    try:
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    except ChildProcessError:
        pass


def plug(*versions: str, name: str = "usb1") -> None:
    """A stick with packages goes in, and they are offered."""
    if sticks.is_attached(name):
        sticks.detach(name)
        until(lambda: not set(versions) & set(gateway.updates()), "the stick's packages are gone")
    sticks.attach([whole.package(version) for version in versions], name)
    until(lambda: set(versions) <= set(gateway.updates()), f"{versions} are offered")
    calm()


def jobs(kind: str) -> dict[str, dict]:
    """The newest jobs of a kind by their ids: few, since the host keeps the memory of the longest answer that it gave."""
    return {job["id"]: job for job in gateway.get(f"operations?limit=10&kind={kind}")["operations"]}


def install(version: str) -> dict:
    """A good update that nobody disturbs: told as done, and done. The job."""
    before = jobs("install")
    done = arborctl("install", version, "--no-reboot", "--wait")
    expect(done.status == 0, f"the next good update failed: {done.told}")
    new = [job for name, job in jobs("install").items() if name not in before]
    expect([job["state"] for job in new] == ["Succeeded"], f"it is told as {new}")
    expect_installed(version)
    return new[0]


def expect_installed(version: str) -> None:
    """The version stands whole in the slot that starts next."""
    expect(slots.versions()[slots.active()] == version, f"{slots.versions()}, and {slots.active()} starts next")
    whole.check_slot(slots.active())


def package_tool(*arguments: object) -> None:
    subprocess.run([sys.executable, "-B", paths.PROJECT / "packages" / "arbor-pkg", *arguments], check=True,
                   stdout=subprocess.DEVNULL)
