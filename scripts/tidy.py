#!/usr/bin/env python3
"""Runs clang-tidy on the sources below the given folders: tidy.py BUILD_FOLDER FOLDER...

A source whose preprocessed text, settings and tool passed before is not looked at again: the build folder keeps one empty
file for each that passed.
"""

import hashlib
import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def main(build: Path, folders: list[str]) -> int:
    tool = hashlib.sha256(subprocess.check_output(["clang-tidy", "--version"]))
    tool.update((ROOT / ".clang-tidy").read_bytes())
    passed = build / "tidy-passed"
    passed.mkdir(exist_ok=True)
    commands = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    # The analyser is built on another compiler, which takes an option that it does not know for a fault of the source.
    known = [command | {"command": command["command"].replace(" -fno-gnu-unique", "")} for command in commands]
    (passed / "compile_commands.json").write_text(json.dumps(known), encoding="utf-8")
    wanted = sources(commands, folders)
    if not wanted:
        print(f"tidy: {build} compiles no source below {', '.join(folders)}", file=sys.stderr)
        return 1
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(lambda entry: check(entry, tool.copy(), passed), wanted))
    print(f"tidy: {len(results)} sources, {results.count(False)} with findings")
    return 0 if all(results) else 1


def sources(commands: list[dict], folders: list[str]) -> list[dict]:
    """The compile commands of the wanted sources, one for each."""
    wanted = {}
    for command in commands:
        path = Path(command["file"])
        if path.is_relative_to(ROOT) and path.relative_to(ROOT).parts[0] in folders:
            wanted[path] = command
    return list(wanted.values())


def check(command: dict, digest, passed: Path) -> bool:
    """Analyses one source unless exactly it has passed before; prints what is found."""
    digest.update(preprocessed(command))
    mark = passed / digest.hexdigest()
    if mark.exists():
        return True
    done = subprocess.run(["clang-tidy", "--quiet", "-p", str(passed), "--extra-arg=-Wno-unknown-warning-option", command["file"]], text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        print(done.stdout, flush=True)
        return False
    mark.touch()
    return True


def preprocessed(command: dict) -> bytes:
    """What the compiler sees, comments included, since some of them are addressed to the analyser."""
    words = shlex.split(command["command"])
    output = words.index("-o")
    del words[output:output + 2]
    compiled = words.index("-c")
    words[compiled:compiled + 1] = ["-E", "-C"]
    if Path(words[0]).name == "ccache":
        del words[0]
    return subprocess.run(words, cwd=command["directory"], stdout=subprocess.PIPE, check=True).stdout


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve(), sys.argv[2:]))
