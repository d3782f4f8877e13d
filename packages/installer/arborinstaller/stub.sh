#!/bin/sh
# Arbor update package @VERSION@ for board @BOARD@; --help lists what it can do.
#
# This page of shell starts the installer behind it in this same file. The installer is loaded into memory as a
# whole before it runs, so that it can still report when the medium that holds this file is pulled.
case "${1-}" in
    --version) echo '@VERSION@'; exit 0 ;;
esac
PATH="${PATH:+$PATH:}/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
export PATH
if ! command -v python3 >/dev/null 2>&1; then
    echo 'FAILED: this package needs python3, which was not found'
    exit 1
fi
exec python3 -I -S -B -c '
import hashlib, os, sys

def digest_ahead():
    """Hashes the image in a process of its own, while this one looks at who signed it; returns where it will be told."""
    parent = os.getpid()
    try:
        reader, writer = os.pipe()
        child = os.fork()
    except OSError:
        return None  # this one hashes it, later
    if child:
        os.close(writer)
        return reader
    try:
        os.closerange(0, 3)  # whoever reads what the check prints does not wait for this process
        image = int(os.environ.get("ARBOR_PACKAGE_FD") or os.open(sys.argv[1], os.O_RDONLY))
        digest, place = hashlib.sha256(), @PAYLOAD_OFFSET@
        while place < @PAYLOAD_END@ and os.getppid() == parent:
            data = os.pread(image, min(1 << 20, @PAYLOAD_END@ - place), place)
            if not data:
                break
            digest.update(data)
            place += len(data)
        state = os.fstat(image)
        os.write(writer, f"{state.st_dev} {state.st_ino} @PAYLOAD_OFFSET@ {place} {digest.hexdigest()}".encode())
    finally:
        os._exit(0)

ahead = digest_ahead() if any(word.startswith("--verify") for word in sys.argv[2:]) else None
import json
from importlib.machinery import ModuleSpec

class Modules:
    """Finds the installer modules among the sources that the package carries."""
    def __init__(self, sources):
        self.sources = sources
    def find_spec(self, name, path=None, target=None):
        if name in self.sources:
            return ModuleSpec(name, self, origin=name, is_package="." not in name)
    def create_module(self, spec):
        return None
    def exec_module(self, module):
        exec(compile(self.sources[module.__name__], module.__name__, "exec"), module.__dict__)

try:
    with open(sys.argv[1], "rb") as package:
        package.seek(@STUB_SIZE@)
        code = json.loads(package.readline(65536))["code"]
        text = package.read(code["size"])
    if hashlib.sha256(text).hexdigest() != code["sha256"]:
        raise ValueError("the installer in it was changed")
    sys.meta_path.insert(0, Modules(json.loads(text)))
except Exception as error:
    print("FAILED: the package is damaged:", error)
    sys.exit(1)
from arborinstaller.main import main
code = main(sys.argv[1], sys.argv[2:], ahead)
if sys.stdout:
    sys.stdout.flush()
os._exit(code)  # taking the interpreter down in good order would only take time
' "$0" "$@"
exit 1
