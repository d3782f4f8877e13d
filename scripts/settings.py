#!/usr/bin/env python3
"""Writes what follows from the settings' declarations: settings.py FOLDER_OF_PROGRAMS

host/arbor-graph.schema.json is what `arbord --schema` prints, made readable; docs/settings.md shows the same as tables, and what
`arbor-boot schema` prints. With --check nothing is written, and a difference is an error.
"""

import argparse
import json
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SCHEMA = ROOT / "host/arbor-graph.schema.json"
TABLES = ROOT / "docs/settings.md"

INTRODUCTION = """# Settings

Every setting of a graph file, and of the [file that says how the device boots](#bootjson), made from the declarations in the code by `scripts/settings.py`: please change those. What a
whole file looks like, and what to think of, is in [integration.md](integration.md#the-graph-file). `arbord --check --graph FILE` tells all
that is wrong with a file at once; `arbord --schema` prints the JSON Schema for editors.

Paths are absolute; `$NAME` and `${NAME}` in them are variables of the host's environment.
"""


def allowed(schema: dict) -> str:
    """What a value may be, in few words."""
    if "enum" in schema:
        return ", ".join(f"`{name}`" for name in schema["enum"])
    if schema["type"] == "integer":
        return f"{schema['minimum']} to {schema['maximum']}"
    if schema["type"] == "array":
        return "list of " + ("paths" if "pattern" in schema["items"] else "texts")
    if schema["type"] == "string" and schema.get("pattern", "").find("[/$]") >= 0:
        return "path" if schema["pattern"] == "^[/$]" else "path, or empty"
    return {"string": "text", "boolean": "`true`, `false`", "object": "object"}[schema["type"]]


def standard(schema: dict) -> str:
    """What holds when nothing is said."""
    value = schema.get("default", "")
    return "" if value in ("", []) else f"`{json.dumps(value)}`"


def table(title: str, properties: dict) -> str:
    """One section of the page."""
    rows = ["| Setting | May be | Default | Meaning |", "|---|---|---|---|"]
    for key, schema in properties.items():
        meaning = schema.get("description", "").replace("|", "\\|")
        if "examples" in schema and not standard(schema):
            meaning += f" For example `{json.dumps(schema['examples'][0])}`."
        rows.append(f"| `{key}` | {allowed(schema)} | {standard(schema)} | {meaning.strip()} |")
    return f"\n## {title}\n\n" + "\n".join(rows) + "\n"


def tables(schema: dict, boot: dict) -> str:
    """The whole page."""
    text = INTRODUCTION
    for section in ("core", "comms", "log", "platform"):
        text += table(f"`{section}`", schema["properties"][section]["properties"])
    text += table("Each of `nodes`", schema["properties"]["nodes"]["items"]["properties"])
    for record, definition in schema["definitions"].items():
        text += table(f"`config` of a `{record.removesuffix('Cfg')}`", definition["properties"])
    return text + table("`boot.json`", boot["properties"])


def printed(*command: str | Path) -> dict:
    """The schema that a program prints."""
    return json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)


def main() -> int:
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("programs", type=Path)
    arguments.add_argument("--check", action="store_true", help="only compare")
    given = arguments.parse_args()
    schema = printed(given.programs / "arbord", "--schema")
    wanted = {SCHEMA: json.dumps(schema, indent=2) + "\n", TABLES: tables(schema, printed(given.programs / "arbor-boot", "schema"))}
    different = [path for path, text in wanted.items() if not path.exists() or path.read_text(encoding="utf-8") != text]
    for path in different:
        if given.check:
            print(f"settings: {path.relative_to(ROOT)} is not what the code says; run scripts/settings.py", file=sys.stderr)
        else:
            path.write_text(wanted[path], encoding="utf-8")
    return 1 if given.check and different else 0


if __name__ == "__main__":
    sys.exit(main())
