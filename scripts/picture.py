#!/usr/bin/env python3
"""Draws what the demo printed as a picture for the README: ./run demo --batch | scripts/picture.py > docs/demo.svg

Of log lines and of tables only what tells the story stays, log lines as their texts; all else stands as it was printed.
"""

import re
import sys
from html import escape

COLUMNS, CHARACTER, LINE, MARGIN = 116, 7.8, 17, 16
LOG_LINE = re.compile(r"    \d{4}-\d\d-\d\d [\d:.]+ (?P<level>[DIWE]) \S+ \S+ \S+:\d+ (?P<text>.*)")
STORY = re.compile(r"Found package file|Install complete|Removing package")
# Rows of tables, with the rows below that go on with them, and lists up to their blank line.
LEFT_OUT = re.compile(r"(Serial number|Board|Archive|Free|Drives|arbord) {2}|Built for accessories:")
GOES_ON = re.compile(r" {12}|VERSION .* FILE$|\d\S+ .* archive ")
COLOURS = {"heading": "#8ab4f8", "command": "#ffffff", "log": "#9aa0a6", "error": "#f28b82", "good": "#81c995", "text": "#dadce0"}


def shortened(printed: list[str]) -> list[tuple[str, str]]:
    """The lines to show, each with its kind."""
    begin = next((number for number, line in enumerate(printed) if line.startswith("*")), 0)
    shown = []
    left_out = False
    for line in printed[begin:]:
        logged = LOG_LINE.match(line)
        left_out = bool(LEFT_OUT.match(line) or (left_out and GOES_ON.match(line)))
        if left_out:
            continue
        if logged:
            if STORY.search(logged["text"]):
                shown.append(("error" if logged["level"] == "E" else "log", "    " + logged["text"]))
        elif line.strip() or (shown and shown[-1][1].strip()):
            shown.append((kind_of(line), line))
    return shown


def kind_of(line: str) -> str:
    if line.startswith("*"):
        return "heading"
    if line.startswith("$"):
        return "command"
    return "good" if line.startswith("  ok:") else "text"


def picture(lines: list[tuple[str, str]]) -> str:
    width, height = COLUMNS * CHARACTER + 2 * MARGIN, len(lines) * LINE + 2 * MARGIN
    rows = [f'<text x="{MARGIN}" y="{MARGIN + (number + 0.75) * LINE:.1f}" fill="{COLOURS[kind]}">{cut(line)}</text>'
            for number, (kind, line) in enumerate(lines) if line.strip()]
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" width="{width:.0f}">',
                      '<title>The demo: a stick goes in, its packages are checked, one is installed</title>',
                      '<rect width="100%" height="100%" rx="8" fill="#202124"/>',
                      '<g font-family="monospace" font-size="13" xml:space="preserve">', *rows, "</g>", "</svg>"])


def cut(line: str) -> str:
    return escape(line if len(line) <= COLUMNS else line[:COLUMNS - 3] + "...")


if __name__ == "__main__":
    print(picture(shortened(sys.stdin.read().splitlines())))
