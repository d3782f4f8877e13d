"""Where things are on a device, and where this checkout keeps what they are made from."""

import os
from pathlib import Path

# Fixed on a real instrument; the installer's command line and the remote log name them literally.
ARCHIVE_DEVICE = "/dev/mmcblk1p3"
STORAGE = Path("/media/mmcblk1p3")
ARCHIVE = STORAGE / "Packages"
SLOTS = STORAGE / "Slots"
LOGS = Path("/usr/share/Logs")

# Chosen by the instrument's image.
CONFIG = Path("/etc/arbor")
RUNTIME = Path("/run/arbor")
STATE = Path("/var/lib/arbor")
BOOT = Path("/run/arbor-boot")
UPDATES = STATE / "updates"
STICKS = Path("/media")

GRAPH = CONFIG / "graph.json"
MANIFEST = CONFIG / "Manifest.json"
EEPROM = CONFIG / "eeprom"
TRUST = CONFIG / "trust"
TRUST_STATE = STATE / "trust"
BOOT_SETTINGS = CONFIG / "boot.json"
TRIAL = STATE / "trial"
GATEWAY = RUNTIME / "gateway.sock"
HOST_LOG = LOGS / "arbord.log"
HOST_CONSOLE = LOGS / "arbord.console"
HOST_PID = RUNTIME / "arbord.pid"
BOOT_ID = BOOT / "boot_id"  # the kernel's name of the boot, as long as this instrument believes it
KERNEL_BOOT_ID = Path("/proc/sys/kernel/random/boot_id")
RUNNING_SLOT = BOOT / "slot"  # written by each boot: the slot that it started from
AGAIN = BOOT / "again"  # there once the start of the boot wants the device restarted
FAULTS = BOOT / "faults"  # what is wrong with which version, for selftest

# Everything that one instrument has to itself while it runs.
PLACES = (STORAGE, LOGS, CONFIG, RUNTIME, STATE, BOOT)
STICK_NAMES = ("usb1", "usb2")

INSTRUMENT = Path(__file__).resolve().parent.parent
PROJECT = INSTRUMENT.parent.parent


def build_folder() -> Path:
    """The build whose programs run in the instrument: ARBOR_BUILD, or the release build of this checkout."""
    return Path(os.environ.get("ARBOR_BUILD") or PROJECT / "build" / "release").resolve()


def program(name: str) -> Path:
    """One of the built programs."""
    return build_folder() / "bin" / name


def fixtures_folder() -> Path:
    """Where keys and packages are kept between runs; they are the same for every build."""
    return Path(os.environ.get("ARBOR_FIXTURES") or PROJECT / "build" / "instrument").resolve()


def plain_mode() -> bool:
    """True inside an instrument whose paths are real directories, not private mounts."""
    return os.environ.get("ARBOR_INSTRUMENT") == "plain"
