"""The cable: a pair of virtual network interfaces, one end in each device's network namespace and nowhere else."""

import subprocess

from .devices import INTERFACE, NETWORK_BITS, Station


class NetworkError(Exception):
    """The network could not be made; the text carries the tool's reason."""


def join(first: int, second: int) -> None:
    """Lays the cable between the network namespaces of two processes."""
    _ip_of(first, "link", "add", "name", INTERFACE, "type", "veth", "peer", "name", INTERFACE, "netns", str(second))


def come_up(station: Station, process: int) -> None:
    """Gives the end in the network namespace of `process` the device's address and switches it on."""
    _ip_of(process, "address", "add", f"{station.address}/{NETWORK_BITS}", "dev", INTERFACE)
    for interface in (INTERFACE, "lo"):
        _ip_of(process, "link", "set", "dev", interface, "up")


def switch(process: int, on: bool) -> None:
    """Switches the end in the network namespace of `process`: off is a pulled cable for the device at the other end."""
    _ip_of(process, "link", "set", "dev", INTERFACE, "up" if on else "down")


def _ip_of(process: int, *arguments: str) -> None:
    """Within the network namespace of a process."""
    _run(["nsenter", f"--net=/proc/{process}/ns/net", "ip", *arguments])


def _run(command: list[str]) -> None:
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if done.returncode != 0:
        raise NetworkError(f"{' '.join(command)}: {done.stdout.strip()}")
