#!/usr/bin/env python3
"""Writes the manual pages: manpages.py PROGRAMS VERSION OUTPUT

Nothing is told twice: arbord(8) and arborctl(1) are what the programs in the folder PROGRAMS say of themselves (--help), arbor-pkg(1)
comes from its command line's declaration, and arbor-graph(5) from the declarations of the settings (arbord --schema).
"""

import argparse
import json
import os
import re
import subprocess
import sys
import textwrap
import time
from dataclasses import dataclass, field
from pathlib import Path

import settings

ROOT = Path(__file__).resolve().parent.parent
GRAPH = ROOT / "host/system/graph.json"
COLUMN = 30  # where a program's help has its second column
# What the help tells of a value's type and checks, behind its name.
CHECKS = re.compile(r"( TEXT| REQUIRED|:[A-Z]+ in \[.*\]|:\{.*\}| Needs:.*| Excludes:.*)+$")


@dataclass
class Help:
    """What a program, or a command of it, says of itself."""

    name: str
    about: str
    usage: str
    options: list[tuple[str, str]] = field(default_factory=list)  # how it is written, what it means
    commands: list["Help"] = field(default_factory=list)
    notes: list[str] = field(default_factory=list)  # lines; indented ones are examples


def quoted(text: str) -> str:
    """Text as the formatter has to get it."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return "\\&" + text if text.startswith(".") else text


def filled(text: str) -> list[str]:
    """A paragraph in lines that fit."""
    return [quoted(line) for line in textwrap.wrap(text, 70, break_long_words=False, break_on_hyphens=False)]


def say(program: Path, *words: str) -> str:
    """What the program prints."""
    return subprocess.run([program, *words], check=True, capture_output=True, text=True).stdout


def read_help(program: Path, *words: str) -> Help:
    """The help of a program in its printed form: sections with two columns, and lines behind them."""
    about, usage, *rest = say(program, *words, "--help").splitlines()
    page = Help(" ".join([program.name, *words]), about, usage.removeprefix("Usage: "))
    section, commands = "", []
    for line in rest:
        if line in ("Options:", "Positionals:", "Subcommands:"):
            section = line
        elif not line:
            section = "" if section == "Subcommands:" or page.notes else section
        elif section == "Subcommands:":
            commands.append(line.split()[0])
        elif section and line.startswith("  ") and not page.notes:
            add_option(page.options, line)
        else:
            page.notes.append(line)
            section = ""
    page.commands = [read_help(program, *words, name) for name in commands]
    return page


def add_option(options: list[tuple[str, str]], line: str) -> None:
    """One line of two columns; a first one that is too long has a line of its own."""
    is_alone = len(line) <= COLUMN or line[COLUMN - 1] != " "
    written, meaning = (line, "") if is_alone else (line[:COLUMN], line[COLUMN:])
    if written.strip():
        options.append((CHECKS.sub("", written.strip()), meaning.strip()))
    else:
        options[-1] = (options[-1][0], f"{options[-1][1]} {meaning.strip()}".strip())


def read_parser(parser: argparse.ArgumentParser, about: str) -> Help:
    """The same of a command line that is declared in Python."""
    page = Help(parser.prog, about, " ".join(parser.format_usage().removeprefix("usage: ").split()))
    for action in parser._actions:
        if isinstance(action, argparse._SubParsersAction):
            abouts = {choice.dest: choice.help or "" for choice in action._choices_actions}
            page.commands += [read_parser(child, abouts.get(name, "")) for name, child in action.choices.items()]
        else:
            name = action.metavar or ("" if action.nargs == 0 else action.dest.upper())
            written = ", ".join(action.option_strings)
            meaning = (action.help or "") % {"default": action.default, "prog": parser.prog}
            page.options.append((f"{written} {name if isinstance(name, str) else ' '.join(name)}".strip(), meaning))
    page.notes = (parser.epilog or "").splitlines()
    return page


def title(name: str, section: int, version: str) -> list[str]:
    """A page's head. The date is the release's where one is told, so that the same sources give the same pages."""
    date = time.strftime("%Y-%m-%d", time.gmtime(int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))))
    return [f'.TH {name.upper()} {section} {date} "Arbor Install {version}" "Arbor Install"']


def definitions(rows: list[tuple[str, str]]) -> list[str]:
    """A list of terms with what they mean."""
    lines = []
    for term, meaning in rows:
        lines += [".TP", f"\\fB{quoted(term)}\\fR", *filled(meaning or "(needs no words)")]
    return lines


def notes(page: Help) -> list[str]:
    """Examples as they are written, and plain text."""
    lines: list[str] = []
    in_example = False
    for line in page.notes:
        is_example = line.startswith("  ")
        if not line or line.lower() == "examples:":
            continue
        if is_example != in_example:
            lines += [".PP", ".nf", ".RS"] if is_example else [".RE", ".fi"]
            in_example = is_example
        lines += [quoted(line.strip())] if is_example else [".PP", *filled(line)]
    return lines + ([".RE", ".fi"] if in_example else [])


def commands(page: Help) -> list[str]:
    """Each command of a program, and the commands below it."""
    lines = []
    for command in page.commands:
        lines += [f".SS {quoted(command.usage)}", *filled(command.about.rstrip(".") + ".")]
        lines += definitions([row for row in command.options if not re.match(r"-h\b", row[0])])
        if not command.commands:
            lines += notes(command)
        lines += commands(command)
    return lines


def program_page(page: Help, section: int, version: str, tail: list[str]) -> str:
    """The page of a program."""
    about = page.about[0].lower() + page.about[1:].rstrip(".")
    lines = title(page.name, section, version)
    lines += [".SH NAME", f"{quoted(page.name)} \\- {quoted(about)}", ".SH SYNOPSIS", f".B {quoted(page.usage)}"]
    lines += [".SH OPTIONS", *definitions(page.options)]
    if page.commands:
        lines += [".SH COMMANDS", *commands(page)]
    text = notes(page)
    lines += [".SH NOTES", *(text[1:] if text[:1] == [".PP"] else text), *tail]
    return "\n".join(lines) + "\n"


def graph_page(schema: dict, version: str) -> str:
    """The page of the graph file."""
    lines = title("arbor-graph", 5, version)
    lines += [".SH NAME", "arbor\\-graph \\- the file that tells arbord what to run", ".SH SYNOPSIS",
              ".I /etc/arbor/graph.json", ".SH DESCRIPTION",
              *filled("A JSON document. Paths are absolute; $NAME and ${NAME} in them are variables of the host's environment."),
              ".B arbord \\-\\-check \\-\\-graph", ".I FILE", "tells all that is wrong with one, each with its line,", "and",
              ".B arbord \\-\\-schema", "prints its JSON Schema."]
    for section in ("core", "comms", "log", "platform"):
        lines += [f'.SH "{section.upper()}"', *setting_rows(schema["properties"][section]["properties"])]
    libraries = schema["properties"]["libraries"]["description"]
    lines += [".SH LIBRARIES", *filled(libraries)]
    lines += [".SH NODES", "Each is an object:", *setting_rows(schema["properties"]["nodes"]["items"]["properties"])]
    for record, definition in schema["definitions"].items():
        lines += [f".SS config of a {record.removesuffix('Cfg')}", *setting_rows(definition["properties"])]
    lines += [".SH EXAMPLES", "The file that the packages bring:", ".PP", ".nf", ".RS",
              *(quoted(line) for line in GRAPH.read_text(encoding="utf-8").splitlines()), ".RE", ".fi",
              *see_also("arbord (8)", "arborctl (1)")]
    return "\n".join(lines) + "\n"


def setting_rows(properties: dict) -> list[str]:
    """A section's settings."""
    rows = []
    for key, schema in properties.items():
        parts = [schema.get("description", "").strip(), f"May be: {settings.allowed(schema)}."]
        if settings.standard(schema):
            parts.append(f"Default: {settings.standard(schema)}.")
        elif "examples" in schema:
            parts.append(f"For example {json.dumps(schema['examples'][0])}.")
        rows.append((key, " ".join(part for part in parts if part).replace("`", "")))
    return definitions(rows)


def see_also(*pages: str) -> list[str]:
    """The last section."""
    return [".SH SEE ALSO", *(f".BR {quoted(page)} ," for page in pages[:-1]), f".BR {quoted(pages[-1])}",
            ".PP", "/usr/share/doc/arbor\\-install/docs"]


def files(rows: list[tuple[str, str]]) -> list[str]:
    """The section that says where things are."""
    return [".SH FILES", *definitions(rows)]


def main() -> int:
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("programs", type=Path)
    arguments.add_argument("version")
    arguments.add_argument("output", type=Path)
    given = arguments.parse_args()
    sys.dont_write_bytecode = True
    sys.path[:0] = [str(ROOT / "packages"), str(ROOT / "packages/installer")]
    from arborpkg.cli import make_parser
    parser = make_parser()
    schema = json.loads(say(given.programs / "arbord", "--schema"))
    host_files = [("/etc/arbor/graph.json", "the graph, see arbor-graph(5)"),
                  ("/etc/arbor/Manifest.json", "what the running system is; part of the system image"),
                  ("/etc/arbor/trust", "whose packages are accepted"),
                  ("/var/lib/arbor", "the journal, and trust documents that came later"),
                  ("/run/arbor/gateway.sock", "where arborctl and other programs ask")]
    os.environ["COLUMNS"] = "1000"
    pages = {
        "arbord.8": program_page(read_help(given.programs / "arbord"), 8, given.version,
                                 files(host_files) + see_also("arborctl (1)", "arbor-graph (5)")),
        "arbor-boot.8": program_page(read_help(given.programs / "arbor-boot"), 8, given.version,
                                     files([("/etc/arbor/boot.json", "how the device boots"),
                                            ("/var/lib/arbor/trial", "the state of the version on trial")]) + see_also("arbord (8)")),
        "arborctl.1": program_page(read_help(given.programs / "arborctl"), 1, given.version,
                                   see_also("arbor-pkg (1)", "arbord (8)")),
        "arbor-pkg.1": program_page(read_parser(parser, parser.description or ""), 1, given.version,
                                    see_also("arborctl (1)")),
        "arbor-graph.5": graph_page(schema, given.version),
    }
    given.output.mkdir(parents=True, exist_ok=True)
    for name, text in pages.items():
        (given.output / name).write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
