"""What tells one simulated device from another: its EEPROM, its role, and what it left the factory with."""

from dataclasses import dataclass


@dataclass(frozen=True)
class Device:
    """One simulated device. `name` is what people call it here; the fixtures keep its storage under it."""

    name: str
    model: str
    serial_number: str
    board: str
    role: str
    archived: tuple[str, ...]
    installed: str

    @property
    def host_name(self) -> str:
        """Its name in the network, without ".local"."""
        return f"{self.model}-{self.serial_number}"


INSTRUMENT = Device("instrument", "KiteQM", "KQ-240117", "verdin-imx8mm", "DEVICE_CART", ("3.043", "3.044"), "3.044")
ON_STICK = ("3.001", "3.045", "3.046")
DAMAGED = "3.047"
