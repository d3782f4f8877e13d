"""The two devices: who they are, where they are in their network, and the graphs that they run."""

from dataclasses import dataclass
from pathlib import Path

from simulation import furnish, paths
from simulation.identity import Device

NETWORK_BITS = 24
INTERFACE = "link0"
LINK_PORT = 5700

# Each device's link key, and whom it lets in; they are the image's own and stay over restarts.
LINK_KEY = paths.CONFIG / "link-key.json"
LINK_PINS = paths.CONFIG / "link-pins.json"


@dataclass(frozen=True)
class Station:
    """A device with its place in the network. `exports` are the requests that the other device may send."""

    device: Device
    address: str
    listens: bool
    exports: tuple[str, ...]

    @property
    def mdns_name(self) -> str:
        return f"{self.device.host_name}.local"

    @property
    def link_address(self) -> str:
        return f"tcp://{self.address}:{LINK_PORT}"

    def graph(self) -> dict:
        """The one instrument's graph with the link to the other device."""
        document = furnish.graph(self.device)
        document["libraries"] += ["libNodePeer.so"]
        peer: dict = {"keyFile": str(LINK_KEY), "pinsFile": str(LINK_PINS), "exports": list(self.exports)}
        if self.listens:
            peer["listen"] = self.link_address
        # Without it an instrument still takes updates from a stick.
        document["nodes"] += [{"name": "Peer", "class": "ZNodePeer", "required": False, "config": peer}]
        return document


CART = Station(Device("cart", "QMA", "CT-240101", "apalis-imx8", "DEVICE_CART", ("3.045", "3.046"), "3.046"),
               "10.77.0.1", True, ("3:checkCompatibility",))
PALM = Station(Device("palm", "QMD", "PM-240117", "verdin-imx8mm", "DEVICE_PALM", ("3.043", "3.044"), "3.044"),
               "10.77.0.2", False, ("2:upload",))
STATIONS = {station.device.name: station for station in (CART, PALM)}

LED = paths.RUNTIME / "led"
LED_BROKEN = paths.RUNTIME / "led-broken"
SSH = paths.CONFIG / "ssh"
SSHD_PID = Path("/run/sshd.pid")
