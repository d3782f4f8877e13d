"""What a version in the archive needs to build its package for other boards on the instrument itself.

The private key never leaves the release computer. Since a package's bytes follow from its inputs alone, the
release computer signs the package of each board in advance; the instrument assembles the same bytes and adds
the signatures that were made for them.
"""

import json
import os
from dataclasses import asdict, dataclass
from typing import Any

from arborinstaller.assemble import Recipe, Signer, write_package
from arborinstaller.failure import Failure
from arborinstaller.files import replacing
from arborinstaller.layout import Section, Signature, head_message

PLAN_FILE = "build-plan.json"
MANIFEST = "Manifest.json"


@dataclass(frozen=True)
class BuildPlan:
    """The inputs that all boards share, and each board's signatures as a package's trailer has them."""

    version: str
    payload: str  # file name in the version directory
    installerVersion: str
    silentSeconds: float
    securityNumber: int
    signatures: dict[str, list[dict[str, str]]]
    trust: dict[str, Any] | None = None

    def save(self, directory: str) -> None:
        """Writes the plan into the installer folder `directory`."""
        with replacing(os.path.join(directory, PLAN_FILE), 0o644) as file:
            file.write(json.dumps(asdict(self), indent=2, sort_keys=True).encode() + b"\n")

    @staticmethod
    def load(directory: str) -> "BuildPlan":
        """The plan in the installer folder `directory`; Failure when it is missing or damaged."""
        path = os.path.join(directory, PLAN_FILE)
        try:
            with open(path, encoding="utf-8") as file:
                fields: dict[str, Any] = json.load(file)
            plan = BuildPlan(**fields)
            plan.signatures.keys()
            plan.recipe("", "board")  # it looks at the values
        except (ValueError, TypeError, AttributeError) as error:
            raise Failure(f"{path} is damaged: {error}") from None
        return plan

    def recipe(self, version_directory: str, board: str) -> Recipe:
        """How to make the package for `board` from the payload in `version_directory`."""
        return Recipe(self.version, board, os.path.join(version_directory, self.payload), self.installerVersion,
                      self.silentSeconds, self.securityNumber, self.trust)

    def sign(self, board: str, payload: Section, signer: Signer) -> None:
        """Adds the signatures of the package for `board`, whose payload is `payload`."""
        message = head_message(self.recipe("", board).head(payload))
        self.signatures[board] = [signature.fields() for signature in signer(message)]

    def build(self, version_directory: str, board: str, name: str) -> str:
        """Writes the package for `board` as file `name` of the version directory and returns its path."""
        if not name or os.path.basename(name) != name or name in (".", "..", MANIFEST, self.payload):
            raise Failure(f"--output {name}: expected a plain name for the package file")
        if board not in self.signatures:
            raise Failure(f"version {self.version} is not signed for board '{board}' "
                          f"(signed for: {', '.join(sorted(self.signatures))})")
        try:
            signatures = [Signature.decode(fields) for fields in self.signatures[board]]
        except (ValueError, TypeError):
            raise Failure(f"the signature for board '{board}' is damaged") from None
        output = os.path.join(version_directory, name)
        try:
            write_package(self.recipe(version_directory, board), output, lambda _: signatures)
        except Failure as failure:
            raise Failure(f"{output} was not built: {failure}; the payload or the installer folder "
                          "is not as it was released") from None
        return output


def version_directory_of(installer_directory: str) -> str:
    """The version directory whose manifest names `installer_directory` as its installer's folder."""
    wanted = os.path.realpath(installer_directory)
    directory = wanted
    while directory != os.path.dirname(directory):
        directory = os.path.dirname(directory)
        try:
            with open(os.path.join(directory, MANIFEST), encoding="utf-8") as file:
                relative = str(json.load(file)["installerPath"])
        except (FileNotFoundError, NotADirectoryError):
            continue
        except (ValueError, KeyError, TypeError) as error:
            raise Failure(f"{directory}/{MANIFEST} is damaged: {error}") from None
        if os.path.realpath(os.path.join(directory, relative)) == wanted:
            return directory
    raise Failure(f"no {MANIFEST} above {installer_directory} names it as its installer")
