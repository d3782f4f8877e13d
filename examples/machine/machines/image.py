"""The images that a slot holds, the packages that bring them, and what the instrument leaves the factory with.

A slot's image is a file system with

    root.squashfs       Debian and our packages, the same in every version here
    layer/              what this version lays over it: its name, configuration, kernel modules
    boot/               kernel and initial RAM disk, for machines that have a boot loader
"""

import hashlib
import json
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from simulation import fixtures, furnish, paths
from simulation.identity import INSTRUMENT

from . import boot, debian

INSTALLED, GOOD, BLIND, DEAD, FURTHER, LOST = "3.044", "3.045", "3.046", "3.047", "3.048", "3.049"
"""Versions: what the instrument has; a good one; one that starts but does not measure; one that does not start at all; a good one again;
one that can not mount what it needs: the data, if it is a machine."""

MACHINE = debian.PROJECT / "examples/machine"
DATA = paths.STORAGE
_LEFT_OUT = ("usr/share/doc", "usr/share/man", "usr/share/locale", "usr/share/info", "var/cache", "var/lib/apt/lists", "var/log", "boot")


@dataclass(frozen=True)
class Kind:
    """A kind of machine. Where `devices` are named the slots are partitions, else files."""

    name: str
    architecture: str
    environment: str  # where the boot loader keeps what it knows, for fw_setenv
    devices: dict[str, str]
    deadline: int  # seconds that a version has until its checks have to hold
    longest: float  # seconds from the stick to the end of a trial, about

    @property
    def boots(self) -> bool:
        """Whether it is a machine with a kernel of its own."""
        return bool(self.devices)


CONTAINER = Kind("container", debian.NATIVE, f"{DATA}/uboot.env", {}, 10, 12.0)
EMULATED = Kind("emulated", debian.ARM, "/dev/disk/by-partlabel/env", {slot: f"/dev/disk/by-partlabel/root{slot}" for slot in "AB"}, 60, 120.0)


@dataclass(frozen=True)
class Factory:
    """All that is made in advance for a kind of machine."""

    kind: Kind
    folder: Path

    def image(self, version: str) -> Path:
        """The image that a slot holds."""
        return self.folder / f"system-{version}.img"

    def package(self, version: str) -> Path:
        """The package that brings it."""
        return self.folder / f"arbor-{version}.pkg"

    def size(self, version: str) -> int:
        """Bytes of the image of a version."""
        return int((self.folder / f"size-{version}").read_text(encoding="ascii"))

    @property
    def data(self) -> Path:
        """What is on the data partition at first."""
        return self.folder / "data"


def ensure(kind: Kind) -> Factory:
    """Makes what is missing, which takes minutes the first time."""
    tree = debian.tree(kind.architecture)
    sources = [Path(__file__), Path(boot.__file__), *sorted(path for path in (MACHINE / "system").rglob("*") if path.is_file())]
    mark = hashlib.sha256(str(tree).encode() + b"".join(path.read_bytes() for path in sources))
    return Factory(kind, debian.kept(f"factory-{kind.name}-", mark.hexdigest(), lambda folder: _make(kind, tree, folder)))


def _make(kind: Kind, tree: Path, folder: Path) -> None:
    folder.mkdir()
    fixtures.make_keys(folder)
    squashed = folder / "root.squashfs"
    debian.logged("mksquashfs", tree, squashed, "-comp", "zstd", "-Xcompression-level", "3", "-no-progress", "-e", *_LEFT_OUT)
    for version in (INSTALLED, GOOD, BLIND, DEAD, FURTHER, LOST):
        _make_image(kind, version, folder, squashed)
        (folder / f"size-{version}").write_text(str((folder / f"system-{version}.img").stat().st_size), encoding="ascii")
        if version != INSTALLED:
            debian.logged("python3", "-B", fixtures.PACKAGES / "arbor-pkg", "build", "--version", version, "--board", INSTRUMENT.board, "--payload",
                          folder / f"system-{version}.img", "--key", folder / "keys/key.pem", "--cert", folder / "keys/cert.pem", "-o",
                          folder / f"arbor-{version}.pkg")
            (folder / f"system-{version}.img").unlink()
    squashed.unlink()
    _make_data(kind, folder)


def _make_image(kind: Kind, version: str, folder: Path, squashed: Path) -> None:
    content = folder / "content"
    content.mkdir()
    (content / "root.squashfs").hardlink_to(squashed)
    _make_layer(kind, version, folder, content / "layer")
    if kind.boots:
        pieces = boot.ensure()
        (content / "boot").mkdir()
        for piece in (pieces.kernel, pieces.initrd):
            shutil.copy(piece, content / "boot")
        shutil.copytree(pieces.modules, content / "layer/usr/lib/modules")
    size = sum(path.stat().st_blocks * 512 for path in content.rglob("*")) * 21 // 20 + (4 << 20)
    image = folder / f"system-{version}.img"
    with open(image, "wb") as file:
        file.truncate(size >> 20 << 20)
    # The simplest form of the file system, which every boot loader reads.
    debian.logged("mkfs.ext4", "-q", "-F", "-m", "0", "-O", "^has_journal,^metadata_csum,^64bit", "-E", "root_owner=0:0", "-d", content, image)
    shutil.rmtree(content)


def _make_layer(kind: Kind, version: str, folder: Path, layer: Path) -> None:
    shutil.copytree(MACHINE / "system", layer, symlinks=True)
    arbor = layer / "etc/arbor"
    arbor.mkdir()
    shutil.copytree(folder / "trust", arbor / "trust")
    furnish.write_json(arbor / "Manifest.json", {
        "className": "ZSystemManifestMsg", "systemVersion": version, "installerVersion": "1.0", "installerPath": "installer",
        "components": [{"name": "system", "version": version, "board": INSTRUMENT.board}]})
    (arbor / "eeprom").write_bytes(furnish.eeprom_image(INSTRUMENT.model, INSTRUMENT.serial_number, INSTRUMENT.board))
    furnish.write_json(arbor / "boot.json", {"control": "uboot-env", "slots": str(paths.SLOTS), "state": "/var/lib/arbor/trial"})
    furnish.write_json(arbor / "installer.json", {"bootCommand": "/usr/bin/arbor-boot"} | ({"slotDevices": kind.devices} if kind.devices else {}))
    (layer / "etc/fw_env.config").write_text(f"{kind.environment} 0x0 0x4000\n", encoding="ascii")
    (layer / "etc/hostname").write_text("instrument\n", encoding="ascii")
    (layer / "etc/hosts").write_text("127.0.0.1 localhost instrument\n", encoding="ascii")
    mounts = f"{DATA}/state /var/lib/arbor none bind 0 0\n"
    if kind.boots:
        mounts = f"/dev/mmcblk1p3 {DATA} ext4 noatime,x-systemd.device-timeout=60 0 2\n" + mounts
        _let_root_in(layer)
    if version == LOST:
        mounts = mounts.replace("/dev/mmcblk1p3", "/dev/mmcblk1p9").replace("timeout=60", "timeout=5")
    if version == LOST and not kind.boots:
        mounts += "more /media/more tmpfs size=nothing 0 0\n"
    (layer / "etc/fstab").write_text(mounts, encoding="ascii")
    _write_graph(kind, folder, arbor)
    if version == BLIND:
        (layer / "usr/share/instrument/calibration").unlink()
    if version == DEAD:
        (layer / "usr/lib/systemd").mkdir(parents=True, exist_ok=True)
        (layer / "usr/lib/systemd/systemd").write_text("", encoding="ascii")  # somebody's build went wrong


def _let_root_in(layer: Path) -> None:
    """The console of the machine is whoever stands before it."""
    shadow = (debian.tree(debian.ARM) / "etc/shadow").read_text(encoding="ascii")
    (layer / "etc/shadow").write_text(shadow.replace("root:*:", "root::", 1), encoding="ascii")
    (layer / "etc/shadow").chmod(0o640)


def _write_graph(kind: Kind, folder: Path, arbor: Path) -> None:
    """The graph of the package, with what an integrator sets in it."""
    graph = json.loads((debian.tree(kind.architecture) / "etc/arbor/graph.json").read_text(encoding="utf-8"))
    graph["platform"]["eeprom"] = "/etc/arbor/eeprom"
    if not kind.boots:
        graph["platform"]["mounts"] = {paths.ARCHIVE_DEVICE: str(DATA)}
    nodes = {node["name"]: node for node in graph["nodes"]}
    nodes["ArborInstall"]["config"]["AllowDowngrades"] = True
    nodes["Trial"]["config"] = {"pauseSeconds": 1, "holdSeconds": 3, "deadlineSeconds": kind.deadline,
                       "checks": ["must measures 20 /usr/libexec/selftest", "must identity 10 request 3:deviceProps"]}
    furnish.write_json(arbor / "graph.json", graph)


def _make_data(kind: Kind, folder: Path) -> None:
    data = folder / "data"
    for place in ("Packages", "state", "Slots"):
        (data / place).mkdir(parents=True)
    first = folder / f"system-{INSTALLED}.img"
    digest = hashlib.sha256(first.read_bytes()).hexdigest()
    for slot in "AB":
        place = data / "Slots" / slot
        place.mkdir()
        (place / "version").write_text(f"{INSTALLED}\n", encoding="ascii")
        (place / "digest").write_text(f"{digest}\n", encoding="ascii")
        if not kind.devices:
            (place / "system.img").hardlink_to(first)
    (data / "Slots/active").symlink_to("A")
    text = folder / "environment"
    text.write_text("slot=A\nbootcount=0\nbootlimit=3\nupgrade_available=0\n", encoding="ascii")
    target = folder / "environment.bin"
    subprocess.run(["mkenvimage", "-s", "0x4000", "-o", target, text], check=True)
    if not kind.boots:
        target.rename(data / "uboot.env")
