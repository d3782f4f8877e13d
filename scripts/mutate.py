#!/usr/bin/env python3
"""Plants faults in the product, one at a time, and tells which of them the tests notice: mutate.py [N] [SEED] [FILE:LINE...].

Of all lines on which a fault can be planted the seed chooses N, or those that are named. Each fault is built and the tests of its room run, the near
ones first, until one fails. A fault that does not compile, or compiles to the same, counts for nothing; the next one takes
its place. All of it happens in copies below build/mutate, and in a sandbox whose writes go nowhere else: a fault may well be
that something deletes too much. A line is chosen by its text, so a change elsewhere leaves the other faults as they are.
"""

import hashlib
import json
import os
import queue
import re
import select
import shutil
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

from faultplaces import Fault, choose

ROOT = Path(__file__).resolve().parent.parent
HOME = ROOT / "build" / "mutate"
PRODUCT = ("text", "framework", "NodeArborInstall", "services", "host", "boot", "cli", "packages")
DEVICE = ["endtoend." + name for name in "journey badinput drives operations.together trial trust documents".split()]
PAIR = ["endtoend." + name for name in "accessory.journey accessory.trust".split()]
PACKAGES = ["packages." + name for name in "test_install test_build test_corpus test_trust test_handed_over test_progress "
            "test_running_slot test_ends".split()]
MADE = ["made.settings", "made.reference"]
# The tests of a room. The first row counts with which a file's name begins.
FITTING = {
    "text": ["framework_values_test", "cli_text_test", "cli_program_test", "services_tests", "gateway_tests", "endtoend.badinput"],
    "framework/ZTrust": ["trust_tests", "node_tests", "cli_program_test", "endtoend.trust", "endtoend.documents", "endtoend.accessory.trust"],
    "framework/ZBoot": ["boot_tests", *MADE, "services_tests", "endtoend.trial", "endtoend.doctor"],
    "framework/NodeLink": ["link_tests", "cli_program_test", *PAIR],
    "framework": ["framework_values_test", "framework_graph_test", "host_tests", "services_tests", "node_tests", "link_tests",
                  "gateway_tests", *MADE, *DEVICE, *PAIR],
    "NodeArborInstall/Install": ["node_tests", *DEVICE, "endtoend.operations.restarts"],
    "NodeArborInstall/Remote": ["node_tests", *PAIR, "endtoend.remote"],
    "NodeArborInstall/Transfer": ["node_tests", *PAIR, "endtoend.accessory.troubles"],
    "NodeArborInstall": ["node_tests", *MADE, *DEVICE, *PAIR, "endtoend.doctor"],
    "services/NodeJournal": ["services_tests", "gateway_tests", "endtoend.operations.restarts", "endtoend.operations.together"],
    "services/NodeGateway": ["gateway_tests", "host_tests", *MADE, "endtoend.journey", "endtoend.documents", "endtoend.doctor"],
    "services/NodePeer": ["link_tests", *MADE, *PAIR, "endtoend.accessory.troubles"],
    "services/NodeTrial": ["services_tests", *MADE, "endtoend.trial", "endtoend.doctor"],
    "services": ["services_tests", "node_tests", "host_tests", *MADE, "endtoend.drives", "endtoend.journey", *PAIR],
    "host": ["host_tests", "framework_graph_test", *MADE, "endtoend.journey"],
    "boot": ["boot_tests", *MADE, "endtoend.trial"],
    "cli/PageServer": ["cli_program_test", "page.doors"],
    "cli": ["cli_text_test", "cli_program_test", "trust_tests", "link_tests", "made.reference", "endtoend.doctor", "endtoend.journey",
            "endtoend.operations.together", "endtoend.trial", "endtoend.trust", "endtoend.documents", *PAIR],
    "packages": [*PACKAGES, "endtoend.journey", "endtoend.trial", "endtoend.trust", "endtoend.documents"],
}
HANGS = 10.0  # a test that takes so many times what it takes without a fault hangs
SLOW = 1.0  # seconds
SHORTEST = 30.0  # seconds; no test hangs before that
CASE = re.compile(r"^(?:\[ RUN +\] |test_\w+ \()([\w./]+)")
FAILED = re.compile(r"^(?:\[  FAILED  \] |(?:FAIL|ERROR): \w+ \()([\w./]+)", re.MULTILINE)
# Everything is there to be read and written, but what is written is forgotten; only the workshop's folder is real, as HOME/work.
SANDBOX = """set -e
home=$1 workshop=$2 folder=$3; shift 3
root=$workshop/root
mount -t tmpfs tmpfs "$root"
mkdir "$root/upper" "$root/work" "$root/all"
mount -t overlay overlay -o "lowerdir=/,upperdir=$root/upper,workdir=$root/work" "$root/all"
cd "$root/all"
mount --rbind /dev dev; mount --rbind /sys sys; mount -t proc proc proc
mount -t tmpfs tmpfs tmp; mount -t tmpfs tmpfs run
mkdir -p ".$home"; mount --bind "$home" ".$home"; mount --bind "$workshop" ".$home/work"
ip link set lo up
exec chroot . env -C "$folder" "$@"
"""
UNSHARED = ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--net", "--ipc"]
SOURCE, BUILD = HOME / "work" / "source", HOME / "work" / "build"  # as the sandbox sees them


@dataclass
class Run:
    """How a command ended: its code (None when it hung), what it printed, and what each of its cases took."""

    code: int | None
    said: str
    seconds: dict[str, float]
    case: str


class Workshop:
    """A copy of the sources, and a build of it."""

    def __init__(self, number: int) -> None:
        self.folder = HOME / str(number)
        for place in (self.folder / "root", HOME / "work"):
            place.mkdir(parents=True, exist_ok=True)

    def prepare(self) -> str:
        """Brings the copy to what the checkout holds, and builds it. Returns a digest of what the tests depend on."""
        listed = subprocess.run(["git", "-c", f"safe.directory={ROOT}", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                cwd=ROOT, capture_output=True, check=True).stdout.decode().split("\0")
        wanted = {name for name in listed if name and (ROOT / name).is_file()}
        source = self.folder / "source"
        for path in [path for path in source.rglob("*") if path.is_file() and str(path.relative_to(source)) not in wanted]:
            path.unlink()
        digest = hashlib.sha256()
        for name in sorted(wanted):
            copy, content = source / name, (ROOT / name).read_bytes()
            if name.split("/")[0] not in ("docs", "scripts", "bench"):
                digest.update(name.encode() + b"\0" + content)
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, copy)
        browser = Path("tests/page/node_modules")  # what set-up has brought for the page's tests
        (source / browser).unlink(missing_ok=True)
        (source / browser).symlink_to(ROOT / browser)
        made = self.run(["cmake", "-G", "Ninja", "-S", str(SOURCE), "-B", str(BUILD), "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",
                         "-DCMAKE_CXX_FLAGS=-w", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DARBOR_TESTS=ON"])
        if made.code != 0 or not self.build("all"):
            sys.exit(f"mutate: {self.folder} can't be built:\n{made.said}")
        return digest.hexdigest()

    def build(self, *targets: str) -> bool:
        done = self.run(["ninja", "-C", str(BUILD), *targets])
        if done.code != 0 and targets == ("all",):
            print(done.said[-4000:])
        return done.code == 0

    def run(self, command: list[str], folder: Path = HOME / "work", environment: tuple = (), usual: dict[str, float] | None = None) -> Run:
        """Runs a command in the sandbox; `usual` is what its cases take, and one that takes far longer ends it."""
        variables = os.environ | {"CCACHE_DIR": str(HOME / "ccache"), "ARBOR_FIXTURES": str(HOME / "work" / "fixtures")} | dict(entry.split("=", 1) for entry in environment)
        process = subprocess.Popen([*UNSHARED, "bash", "-c", SANDBOX, "sandbox", str(HOME), str(self.folder), str(folder), *command],
                                   env=variables, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        said, rest, seconds, case, begun = [], b"", {}, "", time.monotonic()
        while True:
            limit = max(SHORTEST, HANGS * usual.get(case, 60.0)) if usual is not None else 3600.0
            if not select.select([process.stdout], [], [], max(0.0, begun + limit - time.monotonic()))[0]:
                process.kill()
                process.wait()
                return Run(None, "".join(said), seconds, case)
            data = os.read(process.stdout.fileno(), 65536)
            *lines, rest = (rest + data).split(b"\n")
            for line in [*lines, *([] if data else [rest])]:
                said.append(line.decode(errors="replace") + "\n")
                if started := CASE.match(said[-1]):
                    seconds[case] = seconds.get(case, 0.0) + time.monotonic() - begun
                    case, begun = started[1], time.monotonic()
            if not data:
                seconds[case] = seconds.get(case, 0.0) + time.monotonic() - begun
                return Run(process.wait(), "".join(said), seconds, case)


class Tests:
    """The tests, and what each takes without a fault."""

    def __init__(self, workshop: Workshop, sources: str) -> None:
        listed = json.loads(workshop.run(["ctest", "--test-dir", str(BUILD), "--show-only=json-v1"]).said)["tests"]
        self._listed = {test["name"]: test for test in listed if test["name"].startswith(("endtoend.", "packages.", "made.", "page."))}
        self.usual: dict[str, dict[str, float]] = {}
        self._failing: dict[str, list[str]] = {}
        self._sources, self._kept = sources, HOME / "usual.json"
        if self._kept.exists() and (kept := json.loads(self._kept.read_text()))["sources"] == sources:
            self.usual, self._failing = kept["usual"], kept["failing"]

    def parts(self, names: list[str]) -> list[tuple[str, list[str]]]:
        """The tests with their cases, quick ones first; the slow cases of a program are a part of their own."""
        parts = []
        for name in filter(self.usual.get, names):
            usual = {case: seconds for case, seconds in self.usual[name].items() if case not in self._failing[name]}
            slow = {case for case, seconds in usual.items() if case and name not in self._listed and seconds > SLOW}
            for cases in (usual.keys() - slow - {""}, slow):
                if cases or not slow and name in self._listed:
                    parts.append((usual.get("", 0.0) + sum(usual[case] for case in cases), name, sorted(cases)))
                    if name in self._listed:
                        break
        return [(name, cases) for _, name, cases in sorted(parts)]

    def run(self, workshop: Workshop, name: str, cases: list[str]) -> Run:
        """Runs those cases of a test, all when there is none."""
        if name not in self._listed:
            chosen = [f"--gtest_filter={':'.join(cases)}", "--gtest_fail_fast"] if cases else []
            return workshop.run([str(BUILD / "bin" / name), *chosen], usual=self.usual.get(name))
        test = self._listed[name]
        command = [word for part in test["command"] for word in ([part, "-f"] if part == "unittest" else [part])]
        if self._failing.get(name):
            command[-1:] = cases
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        return workshop.run(command, Path(properties.get("WORKING_DIRECTORY", BUILD)), tuple(properties.get("ENVIRONMENT", [])), self.usual.get(name))

    def learn(self, workshop: Workshop, name: str) -> None:
        """Runs a test without a fault: what fails already is told, and left out from then on."""
        if name not in self._failing:
            done = self.run(workshop, name, [])
            print(f"{sum(done.seconds.values()):4.0f} s  {name} without a fault", flush=True)
            self._failing[name] = sorted(set(FAILED.findall(done.said)))
            if done.code == 0 or 0 < len(self._failing[name]) < len(done.seconds) - 1:
                self.usual[name] = done.seconds
        if self._failing[name] or name not in self.usual:
            print(f"mutate: fails without a fault, and is left out: {name} {' '.join(self._failing[name])}", flush=True)

    def keep(self) -> None:
        self._kept.write_text(json.dumps({"sources": self._sources, "usual": self.usual, "failing": self._failing}))


def targets(test: str) -> list[str]:
    return ["arbor_programs"] if "." in test else [test]


def fitting(fault: Fault) -> list[str]:
    return next(tests for room, tests in FITTING.items() if fault.file.startswith(room))


def judge(workshop: Workshop, tests: Tests, objects: dict[str, str], fault: Fault) -> str | None:
    """Plants one fault, and says what became of it; nothing when it does not count."""
    path = workshop.folder / "source" / fault.file
    good = path.read_bytes().decode("latin-1")
    made = objects.get(fault.file) or objects.get(fault.file.replace(".h", ".cpp"))

    def compiled() -> bytes | None:
        return (workshop.folder / "build" / made).read_bytes() if workshop.build(made) else None

    before = compiled() if made else b""
    path.write_bytes((good[:fault.start] + fault.new + good[fault.end:]).encode("latin-1"))
    try:
        if made and compiled() in (None, before):
            return None
        for test, cases in tests.parts(fitting(fault)):
            if path.suffix != ".py" and not workshop.build(*targets(test)):
                return None
            done = tests.run(workshop, test, cases)
            if done.code != 0:  # twice: on a busy machine one may fail by itself
                done = tests.run(workshop, test, cases)
            if done.code != 0:
                failed = FAILED.search(done.said)
                return f"caught by {test} {failed[1] if failed and done.code is not None else done.case}{' (hangs)' if done.code is None else ''}"
        return "survived"
    finally:
        path.write_bytes(good.encode("latin-1"))


def main(count: int, seed: str, places: list[str]) -> int:
    faults = choose(ROOT, PRODUCT, seed)
    if places:
        faults = [fault for fault in faults if str(fault).split(": ")[0] in places]
    print(f"mutate: {len(faults)} lines have room for a fault; seed {seed}", flush=True)
    workshops = [Workshop(number) for number in range(1, 2 * (os.cpu_count() or 1) + 1)]
    sources = workshops[0].prepare()
    for workshop in workshops[1:]:
        if not (workshop.folder / "build").exists():
            subprocess.run(["cp", "-a", *(str(workshops[0].folder / name) for name in ("source", "build")), str(workshop.folder)], check=True)
        workshop.prepare()
    commands = json.loads((workshops[0].folder / "build" / "compile_commands.json").read_text())
    objects = {str(Path(entry["file"]).relative_to(SOURCE)): entry["command"].split(" -o ")[1].split()[0] for entry in reversed(commands)}
    tests, free, results = Tests(workshops[0], sources), queue.SimpleQueue(), []
    for workshop in workshops:
        free.put(workshop)

    def in_a_workshop(work, *arguments):
        workshop = free.get()
        try:
            return work(workshop, *arguments)
        finally:
            free.put(workshop)

    def look_at(fault: Fault) -> tuple[Fault, str] | None:
        begun = time.monotonic()
        verdict = in_a_workshop(judge, tests, objects, fault)
        if verdict:
            print(f"{time.monotonic() - begun:4.0f} s  {fault}  {verdict}", flush=True)
        return (fault, verdict) if verdict else None

    with ThreadPoolExecutor(len(workshops)) as pool:
        list(pool.map(lambda name: in_a_workshop(lambda workshop: tests.learn(workshop, name)), dict.fromkeys(name for names in FITTING.values() for name in reversed(names))))
        tests.keep()
        while len(results) < count and faults:
            batch, faults = faults[:count - len(results)], faults[count - len(results):]
            results += filter(None, pool.map(look_at, batch))
    survived = [fault for fault, verdict in results if verdict == "survived"]
    print(f"\nmutate: of {len(results)} faults {len(results) - len(survived)} are caught" + "".join(f"\nsurvived: {fault}" for fault in survived))
    return 0


if __name__ == "__main__":
    sys.exit(main(int(sys.argv[1]) if len(sys.argv) > 1 else 20, sys.argv[2] if len(sys.argv) > 2 else "1", sys.argv[3:]))
