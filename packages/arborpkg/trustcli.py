"""The commands of arbor-pkg trust."""

import argparse
import json
import re
from typing import Any, Callable

from arborinstaller.documents import ROLES
from arborinstaller.failure import Failure
from arborpkg import inspection, trustfile
from arborpkg.trustfile import Change, TrustFile

_DIGEST = re.compile(r"[0-9a-f]{64}")
_EXAMPLES = """examples:
  arbor-pkg trust init arbor-trust.json
  arbor-pkg trust add-key arbor-trust.json --key alice/cert.pem --role trust      # and those of two others
  arbor-pkg trust add-key arbor-trust.json --key release/cert.pem --role release
  arbor-pkg trust threshold arbor-trust.json trust=2
  arbor-pkg trust sign arbor-trust.json --key alice/key.pem --key "pkcs11:token=office;object=bob"
  arbor-pkg trust show arbor-trust.json
"""


def add_commands(parser: argparse.ArgumentParser) -> None:
    """Gives the parser of "arbor-pkg trust" its commands."""
    parser.epilog, parser.formatter_class = _EXAMPLES, argparse.RawDescriptionHelpFormatter
    parser.description = "Makes, changes and signs trust documents. A change of a document that is signed by enough keys " \
                         "makes the next one."
    commands = parser.add_subparsers(required=True, metavar="COMMAND")

    def command(name: str, help: str, run: Callable[[argparse.Namespace], int]) -> argparse.ArgumentParser:
        added = commands.add_parser(name, help=help)
        added.add_argument("file", metavar="FILE", help="the trust documents, such as arbor-trust.json")
        added.set_defaults(run=run)
        return added

    command("init", "make document 1, without keys yet", _init)

    add = command("add-key", "let a key sign", _editing(lambda file, options: trustfile.key_to_add(
        options.key, options.role, options.board, options.name)))
    add.add_argument("--key", required=True, metavar="PEM", help="certificate or public key, or pkcs11:... for one in a token")
    add.add_argument("--role", required=True, action="append", choices=ROLES,
                     help="what it may sign: trust documents, packages, packages for development; may be given again")
    add.add_argument("--board", action="append", default=[], metavar="B", help="only for this board; may be given again")
    add.add_argument("--name", default="", metavar="N", help="whose it is (default: what the certificate says)")

    remove = command("remove-key", "withdraw a key", _editing(lambda file, options: trustfile.key_to_remove(options.key)))
    remove.add_argument("key", metavar="KEY", help="its id, or the first 8 digits or more of it, or its PEM file")

    threshold = command("threshold", "say how many keys of a role it takes",
                        _editing(lambda file, options: trustfile.thresholds(options.threshold)))
    threshold.add_argument("threshold", nargs="+", metavar="ROLE=N", help="such as trust=2")

    revoke = command("revoke", "withdraw a package", _editing(_revocation))
    revoke.add_argument("package", metavar="PACKAGE_OR_DIGEST", help="the file, or its signedDigest of arbor-pkg inspect")

    floor = command("floor", "refuse packages with a smaller security number",
                    _editing(lambda file, options: trustfile.floor(file, options.number)))
    floor.add_argument("number", type=int, metavar="N")

    expires = command("expires", "say when it ought to be renewed; instruments don't look at it",
                      _editing(lambda file, options: trustfile.expiry(options.date)))
    expires.add_argument("date", metavar="DATE", help="such as 2030-12-31, or never")

    sign = command("sign", "sign the last document", _sign)
    sign.add_argument("--key", required=True, action="append", metavar="FILE",
                      help="private key (PEM), or pkcs11:... for one in a token; may be given again")

    show = command("show", "show the last document, and what it lacks", _show)
    show.add_argument("--json", action="store_true", help="all documents, as a JSON document")


def _init(options: argparse.Namespace) -> int:
    with TrustFile(options.file, []).lock():
        file = TrustFile.new(options.file)
        file.save()
    return _say(file, [])


def _editing(change: Callable[[TrustFile, argparse.Namespace], Change]) -> Callable[[argparse.Namespace], int]:
    """A command that makes one change."""
    return lambda options: _changed(options.file, lambda file: file.edit(change(file, options)))


def _sign(options: argparse.Namespace) -> int:
    return _changed(options.file, lambda file: [file.sign(key) for key in options.key])


def _changed(path: str, work: Callable[[TrustFile], list[str]]) -> int:
    with TrustFile(path, []).lock():
        file = TrustFile.load(path)
        notes = work(file)
        notes += file.save()
    return _say(file, notes)


def _say(file: TrustFile, notes: list[str]) -> int:
    print(*notes, *(file.missing() or [f"number {file.last.number} is complete"]), sep="\n")
    return 0


def _revocation(_: TrustFile, options: argparse.Namespace) -> Change:
    digest = options.package
    if not _DIGEST.fullmatch(digest):
        digest = inspection.signed_digest(options.package)
        print(f"{options.package}: {digest}")
    return trustfile.revocation(digest)


def _show(options: argparse.Namespace) -> int:
    file = TrustFile.load(options.file)
    if options.json:
        print(json.dumps({"documents": [_facts(file, place) for place in range(len(file.entries))]}, indent=2))
        return 0
    facts = _facts(file, len(file.entries) - 1)
    rows = [("document", f"{facts['number']} (the file has {file.entries[0].number} to {file.last.number})"),
            ("expires", facts["expires"] or "never"), ("security floor", facts["securityFloor"]),
            ("thresholds", ", ".join(f"{role} {facts['thresholds'][role]}" for role in ROLES))]
    rows += [("key", f"{key['id'][:16]}  {key['name']}: {', '.join(key['roles'])}, "
                     f"{'boards ' + ', '.join(key['boards']) if key['boards'] else 'all boards'}") for key in facts["keys"]]
    rows += [("revoked", digest) for digest in facts["revoked"]]
    rows += [("signed by", f"{id[:16]}  {name}") for id, name in file.signers(len(file.entries) - 1).items()]
    rows += [("lacks", sentence) for sentence in facts["missing"]]
    print(*(f"{name:15} {value}" for name, value in rows), sep="\n")
    return 0


def _facts(file: TrustFile, place: int) -> dict[str, Any]:
    document = file.entries[place].document
    return {"number": document.number, "expires": document.expires, "securityFloor": document.securityFloor,
            "thresholds": document.thresholds, "revoked": sorted(document.revoked),
            "keys": [{"id": id, "name": key.name, "roles": sorted(key.roles), "boards": sorted(key.boards)}
                     for id, key in document.keys.items()],
            "signedBy": list(file.signers(place)), "missing": file.missing(place)}
