"""Fills a device's places: storage, identity, configuration, trusted certificates."""

import json
import shlex
import shutil
import struct
import zlib
from pathlib import Path

from . import paths, places, privileges, slots
from .identity import INSTRUMENT, Device

# TlvInfo, the layout in which the boot loader keeps a board's identity.
TLV_PRODUCT_NAME = 0x21
TLV_SERIAL_NUMBER = 0x23
TLV_PLATFORM_NAME = 0x28
TLV_CRC32 = 0xFE
EEPROM_BYTES = 2048


def furnish(fixtures: Path, device: Device = INSTRUMENT, graph_document: dict | None = None) -> None:
    """Lays everything out afresh, whatever the places held; `fixtures` is what `fixtures.ensure` returned.

    `graph_document` goes into the graph file; without one it is `graph(device)`.
    """
    for place in paths.PLACES:
        places.empty(place)
    shutil.copytree(fixtures / device.name, paths.STORAGE, symlinks=True, dirs_exist_ok=True)
    shutil.copytree(fixtures / "trust", paths.TRUST)
    shutil.copy(paths.ARCHIVE / device.installed / "Manifest.json", paths.MANIFEST)
    paths.EEPROM.write_bytes(eeprom_image(device.model, device.serial_number, device.board))
    write_json(paths.GRAPH, graph_document or graph(device))
    # Whoever starts the installer from another device starts it with an empty environment.
    write_json(paths.CONFIG / "installer.json",
               {"rebootCommand": ["env", *privileges.kept(), str(paths.INSTRUMENT / "reboot")],
                "bootCommand": str(paths.program("arbor-boot")),
                "runningSlotFile": str(paths.RUNNING_SLOT)})
    write_json(paths.BOOT_SETTINGS,
               {"slots": str(paths.SLOTS), "state": str(paths.TRIAL), "runningSlotFile": str(paths.RUNNING_SLOT),
                "bootIdFile": str(paths.BOOT_ID),
                "restart": shlex.join(["env", *privileges.kept(), str(paths.INSTRUMENT / "reboot")])})
    slots.boot()


def write_json(path: Path, document: dict) -> None:
    """Writes one readable JSON file."""
    path.write_text(json.dumps(document, indent=2) + "\n", encoding="utf-8")


def eeprom_image(model: str, serial_number: str, board: str) -> bytes:
    """The EEPROM's bytes: header, three texts, checksum over all before its value, and the erased rest."""
    fields = ((TLV_PRODUCT_NAME, model), (TLV_SERIAL_NUMBER, serial_number), (TLV_PLATFORM_NAME, board))
    body = b"".join(bytes([code, len(text)]) + text.encode("ascii") for code, text in fields)
    crc_head = bytes([TLV_CRC32, 4])
    head = b"TlvInfo\0" + bytes([1]) + struct.pack(">H", len(body) + len(crc_head) + 4)
    covered = head + body + crc_head
    return (covered + struct.pack(">I", zlib.crc32(covered))).ljust(EEPROM_BYTES, b"\xff")


def graph(device: Device) -> dict:
    """The graph file. Where nothing can be mounted it names the mount that the kernel's table lacks, and the sticks."""
    plain = paths.plain_mode()
    platform: dict = {"eeprom": str(paths.EEPROM), "commandTimeoutSeconds": 120}
    storage: dict = {"removableRoots": [] if plain else [str(paths.STICKS)], "excludedRoots": [str(paths.STORAGE)]}
    if plain:
        platform["mounts"] = {paths.ARCHIVE_DEVICE: str(paths.STORAGE)}
        storage["roots"] = [str(paths.STICKS / name) for name in paths.STICK_NAMES]
    return {
        "core": {"updatesFolder": str(paths.UPDATES), "requestTimeoutSeconds": 30, "queueLength": 256,
                 "shutdownGraceSeconds": 30},
        "log": {"level": 2, "console": True, "journal": False, "file": str(paths.HOST_LOG), "fileSizeKiB": 1024,
                "fileCount": 5},
        "platform": platform,
        "libraries": ["libNodeJournal.so", "libNodeArborInstall.so", "libNodeStorage.so", "libNodeDeviceProps.so", "libNodeTrial.so",
                      "libNodeFileIO.so", "libNodeGateway.so"],
        "nodes": [
            {"name": "Journal", "class": "ZNodeJournal", "required": False,
             "config": {"databaseFile": str(paths.STATE / "journal.sqlite")}},
            {"name": "ArborInstall", "class": "ZNodeArborInstall", "config": _installer_record()},
            {"name": "Storage", "class": "ZNodeStorage", "config": storage},
            {"name": "FileIO", "class": "ZNodeFileIO", "required": False, "config": {}},
            {"name": "DeviceProps", "class": "ZNodeDeviceProps", "config": {"deviceType": device.role}},
            {"name": "Trial", "class": "ZNodeTrial", "required": False, "config": _trial_record()},
            {"name": "Gateway", "class": "ZNodeGateway", "config": {"socketPath": str(paths.GATEWAY)}},
        ],
    }


def _installer_record() -> dict:
    return {"ArchiveDevice": paths.ARCHIVE_DEVICE, "ArchiveDir": "Packages", "SystemInfoFilePath": str(paths.MANIFEST),
            "TrustedSigners": str(paths.TRUST), "TrustState": str(paths.TRUST_STATE), "UnconfinedChecks": True,
            "AllowDowngrades": False, "ProgressPort": 5600, "ProgressPath": "progress", "DryRun": False}


def _trial_record() -> dict:
    return {"bootSettings": str(paths.BOOT_SETTINGS), "manifest": str(paths.MANIFEST), "pauseSeconds": 1, "holdSeconds": 1,
            "deadlineSeconds": 10, "checks": [f"must measures 20 {paths.INSTRUMENT / 'selftest'}",
                                              "must identity 10 request 3:deviceProps"]}
