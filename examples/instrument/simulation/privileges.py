"""Becoming root, and the environment that goes along where a program is started with an empty one."""

import os
import shutil
import subprocess
import sys

from . import paths

CANNOT = 77
_KEPT = ("ARBOR_BUILD", "ARBOR_FIXTURES", "ARBOR_TEST_LOGS", "INSTRUMENT_FORCE_PLAIN", "INSTRUMENT_PAYLOAD_MIB",
         "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "TERM", "CI", "NO_COLOR", "PYTHONPATH")


def kept() -> list[str]:
    """The variables that a run depends on, as NAME=VALUE."""
    return [f"{name}={os.environ[name]}" for name in _KEPT if name in os.environ]


def may_become_root() -> bool:
    """Whether sudo would work: it may ask for a password only where there is a terminal to ask on."""
    if shutil.which("sudo") is None:
        return False
    return sys.stdin.isatty() or subprocess.run(["sudo", "-n", "true"], stderr=subprocess.DEVNULL).returncode == 0


def run_as_root(script: str, arguments: list[str]) -> int:
    """Becomes `script` once more, as root; returns only where that is not possible."""
    if not may_become_root():
        print(f"{os.path.basename(script)}: SKIPPED, it needs root: neither is this root nor does sudo work here", flush=True)
        return CANNOT
    os.execvp("sudo", ["sudo", "env", *kept(), f"ARBOR_FIXTURES={paths.fixtures_folder()}",
                       sys.executable, "-B", os.path.abspath(script), *arguments])
