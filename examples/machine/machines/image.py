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

from pair import devices
from pair.devices import Station
from simulation import fixtures, furnish, paths
from simulation.identity import INSTRUMENT, Device

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

    @property
    def boots(self) -> bool:
        """Whether it is a machine with a kernel of its own."""
        return bool(self.devices)


@dataclass(frozen=True)
class Model:
    """What tells one machine from another: who it is, the version that it leaves the factory with, and those that there are packages of.
    `station` is its place beside the other of two."""

    device: Device
    installed: str
    brought: tuple[str, ...]
    station: Station | None = None

    @property
    def versions(self) -> tuple[str, ...]:
        """Those that there are images of."""
        return (self.installed, *self.brought)


ALONE = Model(INSTRUMENT, INSTALLED, (GOOD, BLIND, DEAD, FURTHER, LOST))
# The host has the accessory's version in its archive, and builds the package when it is asked for.
HOST = Model(devices.CART.device, GOOD, (), devices.CART)
ACCESSORY = Model(devices.PALM.device, INSTALLED, (GOOD,), devices.PALM)
CONTAINER = Kind("container", debian.NATIVE, f"{DATA}/uboot.env", {}, 10)
EMULATED = Kind("emulated", debian.ARM, "/dev/disk/by-partlabel/env", {slot: f"/dev/disk/by-partlabel/root{slot}" for slot in "AB"}, 60)


@dataclass(frozen=True)
class Factory:
    """All that is made in advance for a machine of a kind."""

    kind: Kind
    model: Model
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


def ensure(kind: Kind, *models: Model) -> list[Factory]:
    """Makes what is missing, which takes minutes the first time. One key signs for all of the models."""
    tree = debian.tree(kind.architecture)
    sources = [Path(__file__), Path(boot.__file__), *sorted(path for path in (MACHINE / "system").rglob("*") if path.is_file())]
    mark = hashlib.sha256(str(tree).encode() + b"".join(path.read_bytes() for path in sources))
    name = "-".join(("factory", kind.name, *(model.device.name for model in models), ""))
    folder = debian.kept(name, mark.hexdigest(), lambda place: _make(kind, models, tree, place))
    return [_factory(kind, model, folder) for model in models]


def _factory(kind: Kind, model: Model, folder: Path) -> Factory:
    return Factory(kind, model, folder / model.device.name)


def _make(kind: Kind, models: tuple[Model, ...], tree: Path, folder: Path) -> None:
    folder.mkdir()
    fixtures.make_keys(folder)
    squashed = folder / "root.squashfs"
    debian.logged("mksquashfs", tree, squashed, "-comp", "zstd", "-Xcompression-level", "3", "-no-progress", "-e", *_LEFT_OUT)
    for model in models:
        (folder / model.device.name).mkdir()
        for version in model.versions:
            _make_image(_factory(kind, model, folder), version, squashed)
    squashed.unlink()
    for model in models:
        _make_data(_factory(kind, model, folder))
    if HOST in models:
        _fill_archive(_factory(kind, HOST, folder), _factory(kind, ACCESSORY, folder))
    for model in models:
        _make_packages(_factory(kind, model, folder))


def _packaged(factory: Factory, version: str, verb: str, *target: object) -> None:
    """Makes of an image what brings it."""
    keys = factory.folder.parent / "keys"
    debian.logged("python3", "-B", fixtures.PACKAGES / "arbor-pkg", verb, "--version", version, "--board", factory.model.device.board, "--payload",
                  factory.image(version), "--key", keys / "key.pem", "--cert", keys / "cert.pem", *target)


def _make_packages(factory: Factory) -> None:
    """The images are in them then, and nowhere else."""
    for version in factory.model.brought:
        _packaged(factory, version, "build", "-o", factory.package(version))
        factory.image(version).unlink()


def _fill_archive(host: Factory, accessory: Factory) -> None:
    version = host.model.installed
    place = host.data / "Packages" / version
    _packaged(accessory, version, "archive", place)
    (place / "arbor_qm.pkg").unlink()  # it is to be built


def _make_image(factory: Factory, version: str, squashed: Path) -> None:
    kind, folder = factory.kind, factory.folder
    content = folder / "content"
    content.mkdir()
    (content / "root.squashfs").hardlink_to(squashed)
    _make_layer(factory, version, content / "layer")
    if kind.boots:
        pieces = boot.ensure()
        (content / "boot").mkdir()
        for piece in (pieces.kernel, pieces.initrd):
            shutil.copy(piece, content / "boot")
        shutil.copytree(pieces.modules, content / "layer/usr/lib/modules")
    size = sum(path.stat().st_blocks * 512 for path in content.rglob("*")) * 21 // 20 + (4 << 20)
    image = factory.image(version)
    (folder / f"size-{version}").write_text(str(size >> 20 << 20), encoding="ascii")
    with open(image, "wb") as file:
        file.truncate(size >> 20 << 20)
    # The simplest form of the file system, which every boot loader reads.
    debian.logged("mkfs.ext4", "-q", "-F", "-m", "0", "-O", "^has_journal,^metadata_csum,^64bit", "-E", "root_owner=0:0", "-d", content, image)
    shutil.rmtree(content)


def _make_layer(factory: Factory, version: str, layer: Path) -> None:
    kind, device = factory.kind, factory.model.device
    shutil.copytree(MACHINE / "system", layer, symlinks=True)
    arbor = layer / "etc/arbor"
    arbor.mkdir()
    shutil.copytree(factory.folder.parent / "trust", arbor / "trust")
    furnish.write_json(arbor / "Manifest.json", {
        "className": "ZSystemManifestMsg", "systemVersion": version, "installerVersion": "1.0", "installerPath": "installer",
        "components": [{"name": "system", "version": version, "board": device.board}]})
    (arbor / "eeprom").write_bytes(furnish.eeprom_image(device.model, device.serial_number, device.board))
    furnish.write_json(arbor / "boot.json", {"control": "uboot-env", "slots": str(paths.SLOTS), "state": "/var/lib/arbor/trial"})
    furnish.write_json(arbor / "installer.json", {"bootCommand": "/usr/bin/arbor-boot"} | ({"slotDevices": kind.devices} if kind.devices else {}))
    (layer / "etc/fw_env.config").write_text(f"{kind.environment} 0x0 0x4000\n", encoding="ascii")
    (layer / "etc/hostname").write_text(f"{device.name}\n", encoding="ascii")
    (layer / "etc/hosts").write_text(f"127.0.0.1 localhost {device.name}\n", encoding="ascii")
    mounts = f"{DATA}/state /var/lib/arbor none bind 0 0\n"
    if kind.boots:
        mounts = f"/dev/mmcblk1p3 {DATA} ext4 noatime,x-systemd.device-timeout=60 0 2\n" + mounts
        _let_root_in(layer)
        _lay_cable(factory, layer)
    if version == LOST:
        mounts = mounts.replace("/dev/mmcblk1p3", "/dev/mmcblk1p9").replace("timeout=60", "timeout=5")
    if version == LOST and not kind.boots:
        mounts += "more /media/more tmpfs size=nothing 0 0\n"
    (layer / "etc/fstab").write_text(mounts, encoding="ascii")
    _write_graph(factory, arbor)
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


def _lay_cable(factory: Factory, layer: Path) -> None:
    """A machine that has a network has it set up by the service manager."""
    if station := factory.model.station:
        place = layer / "etc/systemd"
        (place / "network").mkdir()
        (place / "network/cable.network").write_text(
            f"[Match]\nType=ether\n[Network]\nAddress={station.address}/{devices.NETWORK_BITS}\n", encoding="ascii")
        wanted = place / "system/multi-user.target.wants"
        wanted.mkdir(parents=True, exist_ok=True)
        (wanted / "systemd-networkd.service").symlink_to("/lib/systemd/system/systemd-networkd.service")


def _write_graph(factory: Factory, arbor: Path) -> None:
    """The graph of the package, with what an integrator sets in it."""
    kind, station = factory.kind, factory.model.station
    graph = json.loads((debian.tree(kind.architecture) / "etc/arbor/graph.json").read_text(encoding="utf-8"))
    graph["platform"]["eeprom"] = "/etc/arbor/eeprom"
    if not kind.boots:
        graph["platform"]["mounts"] = {paths.ARCHIVE_DEVICE: str(DATA)}
    nodes = {node["name"]: node for node in graph["nodes"]}
    nodes["ArborInstall"]["config"]["AllowDowngrades"] = True
    nodes["Trial"]["config"] = {"pauseSeconds": 1, "holdSeconds": 3, "deadlineSeconds": kind.deadline,
                       "checks": ["must measures 20 /usr/libexec/selftest", "must identity 10 request 3:deviceProps"]}
    nodes["DeviceProps"]["config"]["deviceType"] = factory.model.device.role
    if station:
        graph["libraries"] += ["libNodeFileIO.so", "libNodePeer.so"]
        peer: dict = {"keyFile": "/var/lib/arbor/link-key.json", "pinsFile": "/var/lib/arbor/link-pins.json", "exports": list(station.exports)}
        graph["nodes"] += [{"name": "FileIO", "class": "ZNodeFileIO", "required": False, "config": {}},
                           {"name": "Peer", "class": "ZNodePeer", "required": False,
                            "config": peer | ({"listen": station.link_address} if station.listens else {})}]
    furnish.write_json(arbor / "graph.json", graph)


def _make_data(factory: Factory) -> None:
    kind, folder, data = factory.kind, factory.folder, factory.data
    for place in ("Packages", "state", "Slots"):
        (data / place).mkdir(parents=True)
    first = factory.image(factory.model.installed)
    digest = hashlib.sha256(first.read_bytes()).hexdigest()
    for slot in "AB":
        place = data / "Slots" / slot
        place.mkdir()
        (place / "version").write_text(f"{factory.model.installed}\n", encoding="ascii")
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
