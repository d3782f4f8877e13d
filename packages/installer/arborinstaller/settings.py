"""What an instrument may set about its installer: a file, overridden by the environment.

/etc/arbor/installer.json, every key optional:

    {"trust": "/etc/arbor/trust", "trustState": "/var/lib/arbor/trust", "acceptDevelopment": false,
     "rebootCommand": ["systemctl", "reboot"], "stallSeconds": 900, "kernelCommandLine": "/proc/cmdline",
     "runningSlotFile": "/run/arbor-boot/slot", "bootCommand": "/usr/bin/arbor-boot",
     "slotDevices": {"A": "/dev/disk/by-partlabel/rootA", "B": "/dev/disk/by-partlabel/rootB"}}

Environment: ARBOR_TRUST, ARBOR_TRUST_STATE (empty: none), ARBOR_ACCEPT_DEVELOPMENT (1: true) and ARBOR_REBOOT_COMMAND (a
command line, split like a shell splits words).
"""

import json
import os
import shlex
from typing import Any, Mapping, NamedTuple

from arborinstaller.failure import Failure

SETTINGS_FILE = "/etc/arbor/installer.json"


class Settings(NamedTuple):
    """Whom to trust, how the instrument restarts, when a silent worker is given up, who tells the slot."""

    trust: str = "/etc/arbor/trust"  # folder with the system's trust document, or with certificates
    rebootCommand: tuple[str, ...] = ("systemctl", "reboot")
    stallSeconds: float = 900.0
    kernelCommandLine: str = "/proc/cmdline"
    runningSlotFile: str = "/run/arbor-boot/slot"
    trustState: str = "/var/lib/arbor/trust"  # folder with the trust document that the instrument got since
    bootCommand: str = ""  # what makes a slot start next, where the link alone does not; see boot.switch
    acceptDevelopment: bool = False  # whether packages by development keys count
    slotDevices: Mapping[str, str] = {}  # the slots' partitions, where they are not files

    def with_trust(self, folder: str) -> "Settings":
        """The same with another folder `trust`, unless it is empty."""
        return self._replace(trust=folder or self.trust)


def load(path: str = SETTINGS_FILE) -> Settings:
    """The settings in force; Failure that names the file or variable and the key when one is wrong."""
    values = _from_file(path)
    if "ARBOR_TRUST" in os.environ:
        values["trust"] = os.environ["ARBOR_TRUST"]
    if "ARBOR_TRUST_STATE" in os.environ:
        values["trustState"] = os.environ["ARBOR_TRUST_STATE"]
    if "ARBOR_ACCEPT_DEVELOPMENT" in os.environ:
        values["acceptDevelopment"] = os.environ["ARBOR_ACCEPT_DEVELOPMENT"] == "1"
    if "ARBOR_REBOOT_COMMAND" in os.environ:
        values["rebootCommand"] = _words("ARBOR_REBOOT_COMMAND", os.environ["ARBOR_REBOOT_COMMAND"])
    return Settings(**values)


def _from_file(path: str) -> dict[str, Any]:
    try:
        with open(path, encoding="utf-8") as file:
            found = json.load(file)
    except FileNotFoundError:
        return {}
    except ValueError as error:
        raise Failure(f"{path}: not a JSON document ({error})") from None
    if not isinstance(found, dict):
        raise Failure(f"{path}: expected an object")
    readers = {"trust": _text, "rebootCommand": _words, "stallSeconds": _seconds, "kernelCommandLine": _path,
               "runningSlotFile": _path, "trustState": _text, "acceptDevelopment": _truth,
               "bootCommand": _path, "slotDevices": _devices}
    for key in found.keys() - readers.keys():
        raise Failure(f"{path}: unknown key '{key}' (known: {', '.join(readers)})")
    return {key: readers[key](f"{path}: {key}", value) for key, value in found.items()}


def _text(name: str, value: Any) -> str:
    if not isinstance(value, str) or not value:
        raise Failure(f"{name}: expected a text")
    return value


def _truth(name: str, value: Any) -> bool:
    if not isinstance(value, bool):
        raise Failure(f"{name}: expected true or false")
    return value


def _path(name: str, value: Any) -> str:
    if not os.path.isabs(_text(name, value)) or "\0" in value:
        raise Failure(f"{name}: expected an absolute path")
    return value


def _devices(name: str, value: Any) -> dict[str, str]:
    if not isinstance(value, dict) or sorted(value) != ["A", "B"]:
        raise Failure(f"{name}: expected an object with the partitions of A and B")
    return {slot: _path(f"{name}.{slot}", value[slot]) for slot in value}


def _words(name: str, value: Any) -> tuple[str, ...]:
    try:
        words = shlex.split(value) if isinstance(value, str) else list(value)
    except (ValueError, TypeError) as error:
        raise Failure(f"{name}: {error}") from None
    if not words or not all(isinstance(word, str) for word in words):
        raise Failure(f"{name}: expected a command")
    return tuple(words)


def _seconds(name: str, value: Any) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not value > 0:
        raise Failure(f"{name}: expected a number of seconds above 0")
    return float(value)
