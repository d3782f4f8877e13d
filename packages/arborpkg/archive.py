"""Version directories as the instrument's archive holds them."""

import json
import os
import shutil
from dataclasses import dataclass

import arborinstaller
from arborinstaller.assemble import Recipe, Signer, measure, write_package
from arborinstaller.buildplan import MANIFEST, BuildPlan
from arborinstaller.failure import Failure
from arborinstaller.files import replacing
from arborinstaller.layout import check_board, check_version

PACKAGE = "arbor_qm.pkg"
PAYLOAD = "system.img"
INSTALLER_FOLDER = "installer"
KNOWN_BOARDS = ("verdin-imx8mm", "apalis-imx8")


@dataclass(frozen=True)
class Component:
    """A part of the system that the manifest lists."""

    name: str
    version: str
    board: str

    @staticmethod
    def parse(text: str, board: str) -> "Component":
        """The component in NAME=VERSION or NAME=VERSION@BOARD; `board` where none is given."""
        name, _, rest = text.partition("=")
        version, _, own = rest.partition("@")
        if not name:
            raise Failure(f"component '{text}': expected NAME=VERSION or NAME=VERSION@BOARD")
        return Component(name, check_version(version), check_board(own or board))


def create(directory: str, recipe: Recipe, signer: Signer, boards: list[str], components: list[Component]) -> None:
    """Makes the version directory: payload, package, installer and manifest.

    The package is for the recipe's board; the installer can build it for each of `boards` too. The directory
    is named like the version (the instrument takes it so) and must not exist; on failure it is taken away.
    """
    directory = os.path.abspath(directory)
    if os.path.basename(directory) != recipe.version:
        raise Failure(f"{directory}: a version directory is named like its version; "
                      f"give {os.path.join(directory, recipe.version)}")
    try:
        os.makedirs(directory)
    except FileExistsError:
        raise Failure(f"{directory} exists already") from None
    try:
        _fill(directory, recipe, signer, {recipe.board, *boards}, components)
    except BaseException:
        shutil.rmtree(directory, ignore_errors=True)
        raise


def _fill(directory: str, recipe: Recipe, signer: Signer, boards: set[str], components: list[Component]) -> None:
    installer = os.path.join(directory, INSTALLER_FOLDER)
    _copy_installer(installer)
    shutil.copyfile(recipe.payload, os.path.join(directory, PAYLOAD))
    plan = BuildPlan(recipe.version, PAYLOAD, recipe.installer_version, recipe.silent_seconds, recipe.security_number, {},
                     recipe.trust)
    payload = measure(os.path.join(directory, PAYLOAD))
    for board in sorted(boards):
        plan.sign(board, payload, signer)
    plan.save(installer)
    write_package(plan.recipe(directory, recipe.board), os.path.join(directory, PACKAGE), signer)
    manifest = {
        "className": "ZSystemManifestMsg", "systemVersion": recipe.version,
        "installerVersion": recipe.installer_version, "installerPath": INSTALLER_FOLDER,
        "components": [vars(component) for component in components]}
    # The manifest comes last: with it the version is complete.
    with replacing(os.path.join(directory, MANIFEST), 0o644) as file:
        file.write(json.dumps(manifest, indent=2).encode() + b"\n")


def _copy_installer(target: str) -> None:
    modules = os.path.dirname(os.path.abspath(arborinstaller.__file__))
    shutil.copytree(modules, os.path.join(target, "arborinstaller"), ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copy(os.path.join(os.path.dirname(modules), "installer.py"), target)
