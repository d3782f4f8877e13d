#!/usr/bin/env python3
"""Boot control "systemd-boot" with the real loader, on an emulated machine: real_loader.py BUILD KERNEL [WORK]

BUILD holds bin/arbor-boot; KERNEL is an unpacked linux-image-cloud-amd64 (boot/vmlinuz-*, lib/modules). Needs the packages
systemd-boot-efi, ovmf, qemu-system-x86, mtools, dosfstools, busybox-static, cpio. The machine starts from one FAT image: the loader
picks an entry and counts it down, a small initial RAM disk runs arbor-boot on that same file system, and the power goes. Takes about
four minutes without hardware that helps; run by hand.
"""

import json
import re
import shutil
import subprocess
import sys
from pathlib import Path

LOADER = Path("/usr/lib/systemd/boot/efi/systemd-bootx64.efi")
FIRMWARE = Path("/usr/share/ovmf/OVMF.fd")
BUSYBOX = Path("/bin/busybox")
MODULES = ("fs/nls/nls_cp437.ko", "fs/nls/nls_ascii.ko", "fs/fat/fat.ko", "fs/fat/vfat.ko")
SETTINGS = {"control": "systemd-boot", "entries": "/esp/loader/entries", "slots": "/slots", "state": "/esp/arbor/trial",
            "restart": "true"}
INIT = """#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc; mount -t devtmpfs dev /dev
for module in /modules/*; do insmod $module; done
until mount -t vfat /dev/nvme0n1 /esp; do sleep 1; done
echo; echo "COMMAND LINE $(cat /proc/cmdline)"
sh -c "$(cat /esp/arbor/do)" 2>&1 | sed 's/^/SAID /'
umount /esp; sync; echo "OVER"; poweroff -f
"""


def run(*command: object) -> str:
    """What a program prints; it has to succeed."""
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout


class Machine:
    """An emulated machine whose only disk is a FAT image."""

    def __init__(self, build: Path, kernel: Path, work: Path) -> None:
        self.work, self.disk = work, work / "esp.img"
        shutil.rmtree(work, ignore_errors=True)
        work.mkdir(parents=True)
        self._make_initrd(build, kernel)
        with open(self.disk, "wb") as file:
            file.truncate(160 << 20)
        run("mkfs.vfat", "-F", "32", self.disk)
        for folder in ("EFI", "EFI/BOOT", "loader", "loader/entries", "arbor"):
            run("mmd", "-i", self.disk, f"::{folder}")
        self.put("EFI/BOOT/BOOTX64.EFI", LOADER)
        self.put("vmlinuz", next((kernel / "boot").glob("vmlinuz-*")))
        self.put("initrd", work / "initrd")
        self.write("loader/loader.conf", "default arbor-*\ntimeout 0\n")
        self.write("arbor/boot.json", json.dumps(SETTINGS))
        for number, slot in ((2, "a"), (1, "b")):
            self.write(f"loader/entries/arbor-{number}-{slot}.conf",
                       f"title slot {slot}\nlinux /vmlinuz\ninitrd /initrd\noptions arbor.slot={slot.upper()} console=ttyS0 quiet panic=1\n")
        self.write("loader/entries/other.conf", "title other\nlinux /nothing\n")

    def _make_initrd(self, build: Path, kernel: Path) -> None:
        root = self.work / "root"
        for folder in ("bin", "proc", "dev", "esp", "modules", "slots/A", "slots/B"):
            (root / folder).mkdir(parents=True)
        shutil.copy(BUSYBOX, root / "bin/busybox")
        for place, module in enumerate(MODULES):
            found = next((kernel / "lib/modules").glob(f"*/kernel/{module}"))
            shutil.copy(found, root / "modules" / f"{place}-{found.name}")
        program = build / "bin/arbor-boot"
        shutil.copy(program, root / "bin/arbor-boot")
        for line in run("ldd", program).splitlines():
            for path in re.findall(r"(/\S+) \(", line):
                target = root / ("lib/" + Path(path).name if "ld-linux" not in path else path.lstrip("/"))
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(path, target)
        for slot, version in (("A", "3.044"), ("B", "3.046")):
            (root / "slots" / slot / "version").write_text(version)
        (root / "init").write_text(INIT)
        (root / "init").chmod(0o755)
        run("sh", "-c", f"cd {root} && find . | cpio -o -H newc --quiet | gzip > {self.work}/initrd")

    def put(self, name: str, file: Path) -> None:
        """Copies a file into the image."""
        run("mcopy", "-o", "-i", self.disk, file, f"::{name}")

    def write(self, name: str, text: str) -> None:
        """Writes a text into the image."""
        (self.work / "text").write_text(text)
        self.put(name, self.work / "text")

    def entries(self) -> list[str]:
        """Our entries, as they are on the disk now."""
        return sorted(re.findall(r"arbor-\S+\.conf", run("mdir", "-b", "-i", self.disk, "::loader/entries")))

    def start(self, do: str, patience: int = 240) -> tuple[str, str]:
        """One start to the end of the power: the slot that came up (empty: none did), and what its commands said."""
        self.write("arbor/do", do)
        command = ["qemu-system-x86_64", "-M", "q35", "-m", "512", "-nographic", "-no-reboot", "-net", "none", "-bios", FIRMWARE,
                   "-drive", f"file={self.disk},format=raw,if=none,id=disk", "-device", "nvme,drive=disk,serial=arbor"]
        try:
            said = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, check=False,
                                  timeout=patience).stdout
        except subprocess.TimeoutExpired as error:
            said = error.stdout or b""
        (self.work / "console").write_bytes(said)
        text = said.decode(errors="replace").replace("\r", "")
        slot = re.search(r"COMMAND LINE .*arbor\.slot=([AB])", text)
        return slot[1] if slot else "", "\n".join(re.findall(r"^SAID (.*)$", text, re.MULTILINE))


BOOT = "arbor-boot --settings /esp/arbor/boot.json"


def expect(what: str, wanted: object, found: object) -> None:
    """Says what was seen; ends when it is not what it should be."""
    print(f"{'ok' if wanted == found else 'WRONG'}: {what}: {found}", flush=True)
    if wanted != found:
        sys.exit(f"it should be {wanted}")


def main() -> None:
    build, kernel = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    machine = Machine(build, kernel, Path(sys.argv[3] if len(sys.argv) > 3 else "real-loader").resolve())

    def boots(do: str, slot: str, entries: list[str], what: str, patience: int = 240) -> str:
        ran, said = machine.start(do, patience)
        expect(f"{what}: slot", slot, ran)
        expect(f"{what}: entries", entries, machine.entries())
        return said

    print(boots(f"{BOOT} start; {BOOT} activate B; {BOOT} check", "A", ["arbor-2-a.conf", "arbor-3-b+3.conf"], "an install into B"))
    for left in ("2-1", "1-2", "0-3"):
        boots(f"{BOOT} start", "B", ["arbor-2-a.conf", f"arbor-3-b+{left}.conf"], "a start that proves nothing")
    said = boots(f"{BOOT} start; {BOOT} show", "A", ["arbor-2-a.conf", "arbor-3-b+0-3.conf"], "no starts are left")
    state = json.loads(said.splitlines()[-1])
    expect("the state", ("3.046", False, 1), (state["last"]["version"], state["last"]["confirmed"], state["counts"]["neverUp"]))
    boots(f"{BOOT} start", "A", ["arbor-2-a.conf", "arbor-3-b+0-3.conf"], "and it stays there")

    boots(f"{BOOT} activate B", "A", ["arbor-2-a.conf", "arbor-4-b+3.conf"], "the next install")
    boots(f"{BOOT} start; {BOOT} stop", "B", ["arbor-2-a.conf", "arbor-4-b+3.conf"], "an orderly end costs nothing")
    boots(f"{BOOT} start", "B", ["arbor-2-a.conf", "arbor-4-b+2-1.conf"], "a power cut costs a start")

    # What "good" does, as it is left by a power cut between its two steps: the loader starts either.
    boots("cd /esp/loader/entries; cp arbor-4-b* arbor-4-b.conf", "B", ["arbor-2-a.conf", "arbor-4-b+1-2.conf", "arbor-4-b.conf"], "half confirmed")
    expect("half confirmed, and started: slot", "B", machine.start("true")[0])

    machine.write("broken", "this is no kernel")
    boots(f"rm /esp/loader/entries/arbor-4-*; sed s,/vmlinuz,/broken, /esp/loader/entries/arbor-2-a.conf | sed s/slot=A/slot=B/ > "
          f"/esp/loader/entries/arbor-5-b+3.conf", "B", ["arbor-2-a.conf", "arbor-5-b+3.conf"], "a version that does not start at all")
    for left in ("2-1", "1-2", "0-3"):
        boots("true", "", ["arbor-2-a.conf", f"arbor-5-b+{left}.conf"], "nothing comes up, and the power is cut", 45)
    boots("true", "A", ["arbor-2-a.conf", "arbor-5-b+0-3.conf"], "the version before comes back")
    print("The real loader does what is expected of it.")


if __name__ == "__main__":
    main()
