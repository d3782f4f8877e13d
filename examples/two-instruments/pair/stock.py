"""What the two devices are made from: their storages, with packages that the same key signed."""

from pathlib import Path

from simulation import fixtures

from .devices import CART, PALM


def ensure() -> Path:
    """Returns the folder with both storages and the trusted certificate; builds it first when it is missing."""
    return fixtures.ensure("pair", build)


def build(work: Path) -> None:
    """Fills `work`. The host keeps no built packages: it builds one when an accessory needs it."""
    fixtures.make_keys(work)
    for station in (CART, PALM):
        fixtures.make_storage(work, station.device)
    for package in (work / CART.device.name / "Packages").glob("*/arbor_qm.pkg"):
        package.unlink()
