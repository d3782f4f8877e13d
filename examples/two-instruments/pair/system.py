"""What a device's system has outside its own places: host name, name service, ssh on both sides, the LED's tool.

Every file is mounted over the machine's in the device's namespace; the machine keeps its own.
"""

import os
import pwd
import socket
import subprocess
from pathlib import Path

from simulation import paths, places

from . import FOLDER
from .devices import CART, PALM, SSH, SSHD_PID, Station

KEY = SSH / "key"
CLIENT_SETTINGS = f"""\
# "ssh root@ADDRESS" is all that the command lines say; the rest stands here.
Host *
    IdentityFile {KEY}
    IdentitiesOnly yes
    IdentityAgent none
    UserKnownHostsFile {SSH}/known_hosts
    GlobalKnownHostsFile none
    StrictHostKeyChecking yes
    BatchMode yes
    ConnectTimeout 15
    ServerAliveInterval 5
    ServerAliveCountMax 3
"""

SERVER_SETTINGS = f"""\
ListenAddress {PALM.address}
HostKey {KEY}
AuthorizedKeysFile {SSH}/authorized_keys
PidFile {SSHD_PID}
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
PrintLastLog no
ClientAliveInterval 5
ClientAliveCountMax 3
"""


def make_ssh_key(station: Station) -> str:
    """Inside a device, with its places made: makes the key that it shows to the other. Returns its public half."""
    SSH.mkdir(mode=0o700)
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", station.device.name, "-f", str(KEY)], check=True)
    return KEY.with_suffix(".pub").read_text(encoding="ascii").strip()


def prepare(station: Station, others_key: str) -> None:
    """Inside a device: brings the rest of its system into place. Of the two, the host calls."""
    socket.sethostname(station.device.host_name)
    _resolve_local_names()
    home = Path(pwd.getpwuid(0).pw_dir, ".ssh")
    if home.is_dir():
        places.mount("instrument", home)  # the settings of whoever runs this are none of the device's business
    for name in (".bashrc", ".profile", ".bash_profile"):
        if (home.parent / name).is_file():
            _cover(home.parent / name, "")
    if station is CART:
        (SSH / "known_hosts").write_text(f"{PALM.address} {others_key}\n", encoding="ascii")
        _cover(Path("/etc/ssh/ssh_config"), CLIENT_SETTINGS)
    else:
        (SSH / "authorized_keys").write_text(f"{others_key}\n", encoding="ascii")
        (SSH / "sshd_config").write_text(SERVER_SETTINGS, encoding="ascii")
        _unlock_root()
        _bind(FOLDER / "i2cset", Path("/usr/sbin/i2cset"))


def _resolve_local_names() -> None:
    """Has ".local" names looked up by multicast, as an instrument's image does."""
    table = Path("/etc/nsswitch.conf")
    others = [line for line in table.read_text(encoding="utf-8").splitlines() if not line.startswith("hosts:")]
    _cover(table, "\n".join([*others, "hosts: files mdns4_minimal [NOTFOUND=return] dns"]) + "\n")


def _unlock_root() -> None:
    """Many machines lock root's password, which sshd takes for a locked account, keys or not."""
    table = Path("/etc/shadow")
    lines = table.read_text(encoding="utf-8").splitlines()
    unlocked = ["root:*:" + line.split(":", 2)[2] if line.startswith("root:!") else line for line in lines]
    _cover(table, "\n".join(unlocked) + "\n", 0o600)


def _cover(target: Path, text: str, mode: int = 0o644) -> None:
    """Shows a file of the device's own in place of the machine's."""
    own = paths.CONFIG / "system" / target.name
    own.parent.mkdir(exist_ok=True)
    own.touch(mode)
    own.write_text(text, encoding="utf-8")
    _bind(own, target)


def _bind(own: Path, target: Path) -> None:
    subprocess.run(["mount", "--bind", str(own), os.path.realpath(target)], check=True)
