"""The command line of arbor-pkg."""

import argparse
import json
import sys

from arborinstaller import openssl
from arborinstaller.assemble import Recipe, Signer, write_package
from arborinstaller.failure import Failure, describe
from arborinstaller.trust import Trusted
from arborpkg import archive, detached, inspection, keys, trustcli, trustfile

_EXAMPLES = """examples:
  arbor-pkg keygen --out keys --name "Arbor release"
  arbor-pkg build --version 3.045 --board verdin-imx8mm --payload system.img \\
            --key keys/key.pem --cert keys/cert.pem -o arbor_qm.pkg
  arbor-pkg inspect arbor_qm.pkg --trust /etc/arbor/trust
  arbor-pkg sign update.run --version 3.045 --board verdin-imx8mm --key keys/key.pem --cert keys/cert.pem
  arbor-pkg trust init arbor-trust.json
  arbor-pkg archive --version 3.045 --board verdin-imx8mm --payload system.img \\
            --key keys/key.pem --cert keys/cert.pem Packages/3.045
"""


def main(arguments: list[str]) -> int:
    """Runs arbor-pkg; returns the exit code: 0 done, 1 it failed or the file is not sound, 2 usage."""
    options = make_parser().parse_args(arguments)
    try:
        return options.run(options)
    except (Failure, OSError) as error:
        print(f"arbor-pkg: {describe(error)}", file=sys.stderr)
        return 1


def make_parser() -> argparse.ArgumentParser:
    """The command line, for `main` and for the manual."""
    parser = argparse.ArgumentParser(prog="arbor-pkg", description="Builds, archives, signs and inspects update packages.",
                                     epilog=_EXAMPLES, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(required=True, metavar="COMMAND")

    keygen = commands.add_parser("keygen", help="make a key and its certificate")
    keygen.add_argument("--out", required=True, metavar="DIR", help="where key.pem and cert.pem go")
    keygen.add_argument("--key", default="", metavar="URI",
                        help="make the certificate of this key in a token (pkcs11:...) instead")
    keygen.add_argument("--name", default="Arbor packages", metavar="CN", help="the signer's name")
    keygen.set_defaults(run=_keygen)

    build = commands.add_parser("build", help="build a package file")
    _add_recipe(build)
    build.add_argument("-o", "--output", required=True, metavar="FILE", help="the package file")
    build.set_defaults(run=_build)

    store = commands.add_parser("archive", help="make a version directory for the archive")
    _add_recipe(store)
    store.add_argument("--build-board", action="append", metavar="BOARD", default=[*archive.KNOWN_BOARDS],
                       help=f"a further board the version can be built for (besides {', '.join(archive.KNOWN_BOARDS)})")
    store.add_argument("--component", action="append", metavar="NAME=VERSION[@BOARD]", default=[],
                       help="a component for the manifest (default: system, of the package's version)")
    store.add_argument("directory", metavar="DIR", help="the version directory, named like the version")
    store.set_defaults(run=_archive)

    sign = commands.add_parser("sign", help="write a signature beside an executable of your own format")
    _add_signing(sign)
    sign.add_argument("file", metavar="FILE", help="its signature becomes FILE.sig")
    sign.set_defaults(run=_sign)

    inspect = commands.add_parser("inspect", help="show what a package is, without running it")
    inspect.add_argument("--json", action="store_true", help="as a JSON document")
    inspect.add_argument("--trust", default="", metavar="DIR",
                         help="also say whether the trust document there, or the certificates, vouch for it")
    inspect.add_argument("--state", default="", metavar="DIR",
                         help="where the trust document lies that the instrument got since (with --trust)")
    inspect.add_argument("--development", action="store_true", help="as where packages by development keys are accepted")
    inspect.add_argument("--board", default="", metavar="B", help="also say whether it is for this board (with --trust)")
    inspect.add_argument("file", metavar="FILE", help="a package, or a file with FILE.sig beside it")
    inspect.set_defaults(run=_inspect)

    trustcli.add_commands(commands.add_parser(
        "trust", help="make, change and sign trust documents: who may sign packages, and which don't count any more"))
    return parser


def _add_signing(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--version", required=True, help="the system version, such as 3.045")
    parser.add_argument("--board", required=True, help="the board it is for, such as verdin-imx8mm")
    parser.add_argument("--security-number", type=int, default=0, metavar="N",
                        help="grows when older versions must not come back (default %(default)s)")
    parser.add_argument("--key", required=True, action="append", metavar="FILE",
                        help="private key (Ed25519 or RSA, PEM), or pkcs11:... for one in a token; may be given again for a "
                             "further signature")
    parser.add_argument("--cert", required=True, action="append", metavar="FILE",
                        help="its certificate (PEM), one for each --key")


def _add_recipe(parser: argparse.ArgumentParser) -> None:
    _add_signing(parser)
    parser.add_argument("--payload", required=True, metavar="FILE", help="the system image")
    parser.add_argument("--installer-version", default="1.0", metavar="V", help="default %(default)s")
    parser.add_argument("--silent-seconds", type=float, default=2.0, metavar="S",
                        help="longest pause between progress documents, then a spinner shows (default %(default)s)")
    parser.add_argument("--trust-document", default="", metavar="FILE",
                        help="carry these trust documents, for instruments that have an older one")


def _recipe(options: argparse.Namespace) -> Recipe:
    return Recipe(options.version, options.board, options.payload, options.installer_version, options.silent_seconds,
                  options.security_number, trustfile.to_carry(options.trust_document) if options.trust_document else None)


def _signer(options: argparse.Namespace) -> Signer:
    if len(options.key) != len(options.cert):
        raise Failure(f"{len(options.key)} keys and {len(options.cert)} certificates: give a --cert for each --key")
    return keys.signer(list(zip(options.key, options.cert)))


def _keygen(options: argparse.Namespace) -> int:
    if options.key and not openssl.is_in_token(options.key):
        raise Failure(f"--key {options.key}: expected a key in a token (pkcs11:...)")
    key, certificate = keys.generate(options.out, options.name, options.key)
    if not options.key:
        print(f"private key: {key} (keep it secret)")
    print(f"certificate: {certificate} (goes into /etc/arbor/trust or a trust document)")
    return 0


def _build(options: argparse.Namespace) -> int:
    write_package(_recipe(options), options.output, _signer(options))
    return 0


def _archive(options: argparse.Namespace) -> int:
    texts = options.component or [f"system={options.version}"]
    components = [archive.Component.parse(text, options.board) for text in texts]
    archive.create(options.directory, _recipe(options), _signer(options), options.build_board, components)
    return 0


def _sign(options: argparse.Namespace) -> int:
    print(detached.sign(options.file, options.version, options.board, options.security_number, _signer(options)))
    return 0


def _inspect(options: argparse.Namespace) -> int:
    if (options.board or options.state or options.development) and not options.trust:
        raise Failure("--board, --state and --development need --trust: what a file says of itself counts once its signer "
                      "is trusted")
    trusted = Trusted.load(options.trust, options.state, options.development) if options.trust else None
    facts = inspection.inspect(options.file, trusted, options.board)
    if options.json:
        print(json.dumps(facts, indent=2))
    else:
        for name, value in facts.items():
            if value is not None:
                print(f"{name:17} {value}")
    return 0 if inspection.is_sound(facts) else 1
