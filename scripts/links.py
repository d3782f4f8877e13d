#!/usr/bin/env python3
"""Finds links in the pages that lead nowhere: to a file that is not there, or to a heading that the page does not have."""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LINK = re.compile(r"\]\(([^)\s]+)\)")
CODE = re.compile(r"^```.*?^```|^    .*?$|`[^`\n]*`", re.MULTILINE | re.DOTALL)


def anchors(page: Path) -> set[str]:
    """The names of a page's headings, as a browser of repositories makes them."""
    names = set()
    for line in re.sub(r"^```.*?^```", "", page.read_text(encoding="utf-8"), flags=re.MULTILINE | re.DOTALL).splitlines():
        if line.startswith("#"):
            title = line.lstrip("#").strip().lower().replace(" ", "-")
            names.add(re.sub(r"[^\w-]", "", title))
    return names


def wrong(page: Path) -> list[str]:
    """What is wrong with a page's links."""
    found = []
    for link in LINK.findall(CODE.sub("", page.read_text(encoding="utf-8"))):
        if "://" in link:
            continue
        name, _, heading = link.partition("#")
        target = (page.parent / name).resolve() if name else page
        if not target.exists():
            found.append(f"{page.relative_to(ROOT)}: there is no {name}")
        elif heading and heading not in anchors(target):
            found.append(f"{page.relative_to(ROOT)}: {name or 'it'} has no heading #{heading}")
    return found


def main() -> int:
    listed = subprocess.run(["git", "-c", f"safe.directory={ROOT}", "ls-files", "--cached", "--others", "--exclude-standard", "--",
                             "*.md"], cwd=ROOT, check=True, capture_output=True, text=True).stdout
    found = [text for name in listed.splitlines() if (ROOT / name).exists() for text in wrong(ROOT / name)]
    print("\n".join(found), end="\n" if found else "", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
