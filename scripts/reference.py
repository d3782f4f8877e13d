#!/usr/bin/env python3
"""Writes docs/reference.md from what the programs say of themselves: reference.py FOLDER_OF_PROGRAMS

Keywords, resources, events and messages are what a gateway describes (it is started for that, with all node libraries), exit
statuses what the programs' help tells. With --check nothing is written, and a difference is an error.
"""

import argparse
import http.client
import json
import re
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/reference.md"
PATIENCE = 60.0
PROGRAMS = ("arborctl", "arbord")

INTRODUCTION = """# Reference

What programs can ask and are told, made from the declarations in the code by `scripts/reference.py`: please change those.
Every setting of a graph file is in [settings.md](settings.md), every member of a package in [package-format.md](package-format.md),
the settings of the boot in [trial.md](trial.md#setting-it-up), every command in `man arborctl`.

A keyword is a `POST` to `/v1/KEYWORD`, with a message as its JSON body: `{}` will do where nothing has to be said. The answer is a message,
or none where the table shows "-". `arborctl send KEYWORD JSON` does the same. Of roles tells [access.md](access.md); those for nodes are
open to nobody but nodes. `GET /v1/openapi.json` says all of this to programs.
"""


class Connection(http.client.HTTPConnection):
    """HTTP over a UNIX socket."""

    def __init__(self, path: Path) -> None:
        super().__init__("localhost", timeout=PATIENCE)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(PATIENCE)
        self.sock.connect(str(self._path))


def description(arbord: Path) -> dict:
    """What a gateway says that it takes, nodes' messages too."""
    with tempfile.TemporaryDirectory(prefix="arbor-reference-") as name:
        folder = Path(name)
        graph = folder / "graph.json"
        path = folder / "gateway.sock"
        graph.write_text(json.dumps({
            "log": {"console": False}, "libraries": ["libNodeGateway.so"],
            "nodes": [{"name": "Gateway", "class": "ZNodeGateway", "config": {"socketPath": str(path), "developerMode": True}}]}))
        with subprocess.Popen([arbord, "--graph", graph]) as host:
            try:
                return ask(path, host)
            finally:
                host.terminate()


def ask(path: Path, host: subprocess.Popen) -> dict:
    """The document, once the gateway is there."""
    deadline = time.monotonic() + PATIENCE
    while host.poll() is None and time.monotonic() < deadline:
        try:
            connection = Connection(path)
            connection.request("GET", "/v1/openapi.json")
            return json.loads(connection.getresponse().read())
        except (FileNotFoundError, ConnectionRefusedError):
            time.sleep(0.05)
    sys.exit("reference: arbord did not answer")


def name_of(schema: dict) -> str:
    """The message that a schema means, as a link to it; or its type."""
    if "$ref" in schema:
        name = schema["$ref"].rpartition("/")[2]
        return f"[{name}](#{name.lower()})"
    for several, word in (("oneOf", " or "), ("anyOf", " or ")):
        if several in schema:
            return word.join(name_of(each) for each in schema[several])
    if "allOf" in schema:
        return name_of(schema["allOf"][0])
    if "enum" in schema:
        return ", ".join(f"`{value}`" for value in schema["enum"])
    kind = schema.get("type", "")
    if kind == "array":
        return "list of " + name_of(schema["items"])
    return " or ".join(kind) if isinstance(kind, list) else kind


def cell(text: str) -> str:
    """A text in a table."""
    return text.replace("|", "\\|")


def keywords(paths: dict) -> str:
    """What can be asked for by a message."""
    rows = ["| Keyword | Role | Message | Answer | What for |", "|---|---|---|---|---|"]
    for path, methods in paths.items():
        if "post" not in methods:
            continue
        post = methods["post"]
        answer = post["responses"].get("200")
        message = name_of(post["requestBody"]["content"]["application/json"]["schema"])
        told = name_of(answer["content"]["application/json"]["schema"]) if answer else "-"
        rows.append(f"| `{path.removeprefix('/v1/')}` | {post['x-role']} | {message} | {told} | {cell(post['summary'])} |")
    return "\n## Keywords\n\n" + "\n".join(rows) + "\n"


def resources(paths: dict) -> str:
    """What can be read."""
    rows = ["| Resource | What it tells | Parameters |", "|---|---|---|"]
    for path, methods in paths.items():
        if "get" in methods:
            get = methods["get"]
            told = "; ".join(f"`{each['name']}`: {cell(each['description'])}" for each in get.get("parameters", []))
            rows.append(f"| `GET {path}` | {cell(get['summary'])} | {told} |")
    return "\n## Resources\n\n" + "\n".join(rows) + "\n"


def events(paths: dict) -> str:
    """What is told as it happens."""
    text = paths["/v1/events"]["get"]["responses"]["200"]["description"]
    return f"\n## Events\n\n`GET /v1/events`, or `arborctl watch`. {text}\n"


def messages(schemas: dict) -> str:
    """Every message with its members."""
    text = "\n## Messages\n\nUnknown members are ignored; enumerators are read by name or number.\n"
    for name, schema in sorted(schemas.items()):
        members = {}
        for part in [schema, *schema.get("allOf", [])]:
            members.update(part.get("properties", {}))
        base = [name_of(part) for part in schema.get("allOf", []) if "$ref" in part]
        text += f"\n### {name}\n\n" + (schema["description"] + ".\n\n" if "description" in schema else "")
        text += f"As {base[0]}, and:\n\n" if base and members else f"As {base[0]}.\n" if base else ""
        rows = [f"| `{key}` | {name_of(each)} |" for key, each in members.items() if key != "className"]
        text += "| Member | Is |\n|---|---|\n" + "\n".join(rows) + "\n" if rows else "" if base else "No members.\n"
    return text


def exits(programs: Path) -> str:
    """How the programs end."""
    rows = ["| Program | Exit status |", "|---|---|"]
    for program in PROGRAMS:
        said = subprocess.run([programs / program, "--help"], check=True, capture_output=True, text=True).stdout
        told = re.search(r"Exit status: (.*?)\.\s", said, re.DOTALL)
        rows.append(f"| `{program}` | {' '.join(told[1].split())} |")
    rows.append("| `arbor-boot`, `arbor-pkg` | 0 done, 1 not done, with a sentence that says why, 2 usage (`arbor-boot`: 100 and more) |")
    return "\n## Exit statuses\n\n" + "\n".join(rows) + "\n"


def main() -> int:
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("programs", type=Path)
    arguments.add_argument("--check", action="store_true", help="only compare")
    given = arguments.parse_args()
    said = description(given.programs / "arbord")
    wanted = (INTRODUCTION + keywords(said["paths"]) + resources(said["paths"]) + events(said["paths"]) + exits(given.programs) +
              messages(said["components"]["schemas"]))
    if not PAGE.exists() or PAGE.read_text(encoding="utf-8") != wanted:
        if given.check:
            print("reference: docs/reference.md is not what the code says; run scripts/reference.py", file=sys.stderr)
            return 1
        PAGE.write_text(wanted, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
