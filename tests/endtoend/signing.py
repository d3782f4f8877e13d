"""Packages with signatures of the tests' own, and what became of them."""

import os
import subprocess
import sys
from pathlib import Path

from simulation import fixtures, gateway, paths

ARBOR_PKG = paths.PROJECT / "packages" / "arbor-pkg"


def arbor_pkg(*arguments: object) -> str:
    """Runs the package tool; what it says."""
    return subprocess.run([sys.executable, "-B", ARBOR_PKG, *arguments], check=True, capture_output=True, text=True).stdout


def new_keys(name: str, office: Path = paths.STATE / "keys") -> Path:
    """The folder of a key and its certificate, which nobody knows yet."""
    keys = office / name
    arbor_pkg("keygen", "--out", keys, "--name", name)
    return keys


def build(package: Path, version: str, board: str = "verdin-imx8mm", keys: Path | None = None,
          tools: Path = paths.PROJECT / "packages", image: Path | None = None, options: tuple = ()) -> Path:
    """Builds a package; without `keys` the instrument's own signs it."""
    keys = keys or fixtures.ensure() / "keys"
    package.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run([sys.executable, "-B", tools / "arbor-pkg", "build", "--version", version, "--board", board,
                    "--payload", image or paths.GRAPH, "--key", keys / "key.pem", "--cert", keys / "cert.pem",
                    "-o", package, *options], check=True, stdout=subprocess.DEVNULL)
    return package


def refusal(name: str) -> str:
    """Why the file of that name was refused; empty when it was not."""
    refused = gateway.post("inventory")[1]["refused"]
    return next((entry["reason"] for entry in refused if Path(entry["file"]).name == name), "")


def in_first_format(package: Path, target: Path) -> Path:
    """The package as it was built before format 2."""
    tests = paths.PROJECT / "tests" / "packages"
    subprocess.run([sys.executable, "-B", "-c", "import sys, support, forge; forge.rewritten(*sys.argv[1:])", package, target,
                    fixtures.ensure() / "keys"], check=True, cwd=tests, env={**os.environ, "PYTHONPATH": str(tests)})
    return target
