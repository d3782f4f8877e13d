"""The command line of a package file.

Each way through it loads what it needs and no more: a device is slow, and may have many packages to check.
"""

import argparse
import contextlib
import os
import stat
from typing import Callable

from arborinstaller.failure import Failure, describe
from arborinstaller.layout import Package

_UNIX, _TCP = 1, 2
_PACKAGES = "/media/mmcblk1p3/Packages"
_WHOLE = "ARBOR_PACKAGE_FD"  # environment: the number of a descriptor of the whole package


def main(path: str, arguments: list[str], ahead: int | None = None) -> int:
    """Runs the package file `path` with its command-line `arguments`; returns the exit code.

    The file may be no more than the package's head, when the environment hands over a descriptor of the whole. `ahead` is
    the pipe in which the payload's digest will be told, see layout.Package.
    """
    options = _parser(os.path.basename(path)).parse_args(arguments)
    whole = _handed_over()

    def opened() -> Package:
        return Package(path, whole, ahead)

    if options.version:
        return _answer(opened, lambda package: package.header.version)
    if options.verify is not None:
        from arborinstaller import settings, trust

        return _answer(opened, lambda package: "OK: " + trust.verify_all(
            package, settings.load().with_trust(options.trust), options.verify))
    return _install(opened, options)


def _parser(name: str) -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog=name, allow_abbrev=False, formatter_class=_Layout, description=(
        "An update package. Run without --version or --verify it installs itself beside the packages directory, into the "
        "slot that the system does not run from, and makes that slot the one that starts next."))
    parser.add_argument("--version", action="store_true", help="print the version that the package installs")
    parser.add_argument("--verify", nargs="?", const="", metavar="BOARD",
                        help="check signature and signer, and the board when one is given; 0: good, 1: not")
    parser.add_argument("--trust", default="", metavar="DIR",
                        help="whom to trust: a trust document or certificates (default /etc/arbor/trust)")
    parser.add_argument("--dir", default=_PACKAGES, help="the packages directory (default %(default)s)")
    parser.add_argument("--sock", "--socket", type=int, choices=(_UNIX, _TCP),
                        help="report progress: 1 over the UNIX socket --addr in --dir, 2 over TCP --addr:--port")
    parser.add_argument("--addr", default="", help="socket name or host")
    parser.add_argument("--port", type=_port, default=0, help="TCP port")
    parser.add_argument("--skip-verify", action="store_true", help="install without checking the signature again")
    parser.add_argument("--no-reboot", action="store_true", help="leave the restart to somebody else")
    parser.add_argument("--dry-run", action="store_true", help="go through it without changing anything")
    return parser


class _Layout(argparse.HelpFormatter):
    """As usual, but it finds out how wide the terminal is without the module shutil, which brings every compression along."""

    def __init__(self, prog: str) -> None:
        columns = os.environ.get("COLUMNS", "")
        width = int(columns) if columns.isdecimal() else 0
        with contextlib.suppress(OSError):
            width = width or os.get_terminal_size(1).columns
        super().__init__(prog, width=(width or 80) - 2)


def _port(text: str) -> int:
    if not text.isdecimal() or int(text) > 65535:  # 0 is what a host says that has none
        raise argparse.ArgumentTypeError(f"'{text}' is no port")
    return int(text)


def _install(opened: Callable[[], Package], options: argparse.Namespace) -> int:
    from arborinstaller import watcher
    from arborinstaller.progress import Address

    packages, address = os.path.abspath(options.dir), None
    # An incomplete address is answered like one that nobody listens at: by going on.
    if options.sock == _UNIX:
        address = Address(path=os.path.join(packages, options.addr))
    elif options.sock == _TCP:
        address = Address(host=options.addr, port=options.port)
    return watcher.install(opened, watcher.Options(
        packages=packages, address=address, verify=not options.skip_verify, trust=options.trust,
        reboot=not options.no_reboot, dry_run=options.dry_run))


def _handed_over() -> int | None:
    """The descriptor of the whole package; None when there is none. The programs that are started don't see it."""
    text = os.environ.pop(_WHOLE, "")
    if not (text.isascii() and text.isdecimal() and len(text) < 10):
        return None
    with contextlib.suppress(OSError):
        if stat.S_ISREG(os.fstat(int(text)).st_mode):
            os.set_inheritable(int(text), False)
            return int(text)
    return None


def _answer(opened: Callable[[], Package], question: Callable[[Package], str]) -> int:
    """Prints what `question` says about the package, or why it can't be answered."""
    try:
        with opened() as package:
            print(question(package))
    except (Failure, OSError) as error:
        print(f"FAILED: {describe(error)}")
        return 1
    return 0
