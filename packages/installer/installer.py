#!/usr/bin/env python3
"""Builds the update package of this version for a board: installer.py --build --device BOARD --output NAME.

The package is written as NAME into the version directory, beside the image it is made from, whatever the
current directory is.
"""

import argparse
import os
import sys

sys.dont_write_bytecode = True  # the archive holds what was released and nothing else

from arborinstaller.buildplan import BuildPlan, version_directory_of  # noqa: E402
from arborinstaller.failure import Failure, describe  # noqa: E402


def main() -> int:
    parser = argparse.ArgumentParser(allow_abbrev=False, description=__doc__.splitlines()[0])
    parser.add_argument("--build", action="store_true", required=True, help="build a package")
    parser.add_argument("--device", required=True, metavar="BOARD", help="the board to build for")
    parser.add_argument("--output", required=True, metavar="NAME", help="the package's file name")
    options = parser.parse_args()
    here = os.path.dirname(os.path.abspath(__file__))
    try:
        plan = BuildPlan.load(here)
        output = plan.build(version_directory_of(here), options.device, options.output)
    except (Failure, OSError) as error:
        print(f"FAILED: {describe(error)}")
        return 1
    print(f"OK: built version {plan.version} for board {options.device}: {output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
