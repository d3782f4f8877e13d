"""What the emulated machine starts with: Debian's kernel, its modules, and an initial RAM disk that finds a slot's system."""

import subprocess
from dataclasses import dataclass
from pathlib import Path

from . import debian

# In the order in which they are loaded; each with what it depends on before it.
_EARLY = ("virtio_pci", "virtio_blk", "ext4", "crc32c_generic", "loop", "squashfs", "overlay")
_LATER = ("virtio_net", "virtio_rng", "vfat", "nls_ascii", "nls_cp437", "nls_utf8", "usb-storage", "sd_mod", "xhci-pci", "sdhci-pci", "sdhci",
          "mmc_block", "i6300esb", "autofs4", "binfmt_misc", "ipv6", "fuse", "rtc-pl031")
# The slot's partition holds a file system with the system's root, compressed, and what this version lays over it. Neither is ever
# written to: what changes while the system runs is in memory, and what is to stay is on the data partition.
_INIT = """#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
while read -r module; do insmod "/modules/$module"; done < /modules/order
for word in $(cat /proc/cmdline); do
    case $word in arbor.slot=*) label=root${word#arbor.slot=} ;; esac
done
tries=0
until device=$(grep -l "^PARTNAME=$label\\$" /sys/class/block/*/uevent) || [ $tries -ge 100 ]; do
    tries=$((tries + 1))
    sleep 0.1
done
device=${device%/uevent}
mount -t ext4 -o ro "/dev/${device##*/}" /slot
losetup -r /dev/loop0 /slot/root.squashfs
mount -t squashfs -o ro /dev/loop0 /system
mount -t tmpfs tmpfs /changes
mkdir /changes/files /changes/work
mount -t overlay root -o lowerdir=/slot/layer:/system,upperdir=/changes/files,workdir=/changes/work /root
for place in proc sys dev; do umount /$place; done
exec switch_root /root /sbin/init
"""


@dataclass(frozen=True)
class Boot:
    """Where the pieces lie: what U-Boot loads, and the modules as they lie below /usr/lib."""

    kernel: Path
    initrd: Path
    modules: Path


def ensure() -> Boot:
    """Fetches and builds what is missing."""
    folder = debian.kept("boot-", f"{_INIT}{_EARLY}{_LATER}", _make)
    return Boot(folder / "vmlinuz", folder / "initrd", folder / "lib/modules")


def _fetch(folder: Path) -> dict[str, Path]:
    """The packages of the kernel and of the shell of the RAM disk, unpacked. The machine's own lists of packages stay as they are."""
    place = folder / "apt"
    for part in ("lists/partial", "cache/archives/partial"):
        (place / part).mkdir(parents=True)
    own = ["-o", f"APT::Architecture={debian.ARM}", "-o", f"APT::Architectures={debian.ARM}", "-o", f"Dir::State={place}", "-o", f"Dir::Cache={place}/cache",
           "-o", "Dir::State::status=/dev/null", "-o", "APT::Sandbox::User=root"]
    debian.logged("apt-get", *own, "update")
    depends = subprocess.run(["apt-cache", *own, "depends", "linux-image-arm64"], check=True, capture_output=True, text=True).stdout
    kernel = depends.split("Depends: ")[1].split()[0]
    found = {}
    for name in (kernel, "busybox-static"):
        debian.logged("env", "-C", place, "apt-get", *own, "download", name)
        found[name] = folder / name
        debian.logged("dpkg-deb", "-x", next(place.glob(f"{name}_*.deb")), found[name])
    return {"kernel": found[kernel], "shell": found["busybox-static"]}


def _depends(kernel: Path, version: str, modules: tuple[str, ...]) -> list[Path]:
    found: list[Path] = []
    for module in modules:
        told = subprocess.run(["modprobe", "-d", kernel, "-S", version, "--show-depends", module], check=False, capture_output=True, text=True)
        for line in told.stdout.splitlines():
            path = Path(line.split()[1]) if line.startswith("insmod") else None
            if path and path not in found:
                found.append(path)
    return found


def _make(folder: Path) -> None:
    folder.mkdir()
    parts = _fetch(folder)
    kernel = parts["kernel"]
    version = next((kernel / "lib/modules").iterdir()).name
    debian.logged("depmod", "-b", kernel, version)
    debian.logged("sh", "-euc", 'gzip -n -6 < "$1" > "$2"', "sh", kernel / f"boot/vmlinuz-{version}", folder / "vmlinuz")
    target = folder / "lib/modules" / version
    target.mkdir(parents=True)
    for path in _depends(kernel, version, _EARLY + _LATER):
        inside = target / path.relative_to(kernel / "lib/modules" / version)
        inside.parent.mkdir(parents=True, exist_ok=True)
        inside.write_bytes(path.read_bytes())
    for name in ("modules.builtin", "modules.builtin.modinfo", "modules.order"):
        (target / name).write_bytes((kernel / "lib/modules" / version / name).read_bytes())
    debian.logged("depmod", "-b", folder, version)
    _make_initrd(folder, kernel, version, parts["shell"])
    for path in (*parts.values(), folder / "apt"):
        debian.logged("rm", "-rf", path)


def _make_initrd(folder: Path, kernel: Path, version: str, shell: Path) -> None:
    disk = folder / "disk"
    for place in ("bin", "proc", "sys", "dev", "slot", "system", "changes", "root", "modules"):
        (disk / place).mkdir(parents=True)
    (disk / "bin/busybox").write_bytes((shell / "bin/busybox").read_bytes())
    (disk / "bin/busybox").chmod(0o755)
    (disk / "init").write_text(_INIT, encoding="ascii")
    (disk / "init").chmod(0o755)
    early = _depends(kernel, version, _EARLY)
    for path in early:
        (disk / "modules" / path.name).write_bytes(path.read_bytes())
    (disk / "modules/order").write_text("".join(f"{path.name}\n" for path in early), encoding="ascii")
    debian.logged("sh", "-euc", 'cd "$1" && find . | LC_ALL=C sort | cpio --quiet -o -H newc -R 0:0 | gzip -n > "$2"', "sh", disk, folder / "initrd")
    debian.logged("rm", "-rf", disk)
