"""The system services of a device: message bus, multicast names, and on the accessory the ssh server. All are the real ones."""

import shutil
import subprocess
import time
from pathlib import Path

from simulation import paths

from .devices import INTERFACE, PALM, SSH, SSHD_PID, Station

START_SECONDS = 30.0

NAME_SETTINGS = """\
[server]
host-name={name}
domain-name=local
allow-interfaces={interface}
use-ipv4=yes
use-ipv6=no
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
"""


class ServiceError(Exception):
    """A service did not start; the text carries what it said."""


def start(station: Station) -> None:
    """Starts the services and returns when each is ready. They end with the device."""
    Path("/run/dbus").mkdir()
    _start("dbus-daemon", ["--system", "--nofork", "--nopidfile", "--nosyslog"], Path("/run/dbus/system_bus_socket"))
    settings = paths.CONFIG / "avahi-daemon.conf"
    settings.write_text(NAME_SETTINGS.format(name=station.device.host_name, interface=INTERFACE), encoding="ascii")
    # Its own cage is not needed in this one, and its limit on processes counts those of the whole machine.
    _start("avahi-daemon", [f"--file={settings}", "--no-drop-root", "--no-chroot", "--no-rlimits"],
           Path("/run/avahi-daemon/socket"))
    if station is PALM:
        Path("/run/sshd").mkdir(mode=0o755)
        _start("sshd", ["-D", "-e", "-f", str(SSH / "sshd_config")], SSHD_PID)


def _start(program: str, arguments: list[str], sign: Path) -> None:
    """Starts a service; `sign` is a file that it makes when it is ready."""
    log = paths.LOGS / f"{program}.log"
    with open(log, "ab") as output:
        process = subprocess.Popen([shutil.which(program) or program, *arguments], stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output, start_new_session=True)
    deadline = time.monotonic() + START_SECONDS
    while not sign.exists():
        if process.poll() is not None or time.monotonic() > deadline:
            raise ServiceError(f"{program} did not start:\n{log.read_text(encoding='utf-8', errors='replace')}")
        time.sleep(0.02)
