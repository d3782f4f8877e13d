#!/usr/bin/env bash
# Builds the Debian packages of this checkout into build/packages, and has lintian look at them: package.sh [--arm64]
# The checkout stays as it is: debian/ is copied to build/package, and dpkg-buildpackage works there on the sources here. With
# --arm64 the packages are for that architecture and go into build/packages-arm64 (scripts/cross.sh).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

architecture=$(dpkg --print-architecture)
options=(--build=binary)
case ${1:-} in
    --arm64) architecture=arm64 options=(--build=any --host-arch arm64 '--build-profiles=cross,nocheck' --no-check-builddeps) ;;
    ?*) echo "package: there is no '$1'; it takes --arm64" >&2; exit 2 ;;
esac
work=build/package/$architecture/arbor-install
result=build/packages${1:+-$architecture}

log() { printf 'package: %s\n' "$*"; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

copy_recipe() {
    mkdir -p "$work"
    rm -rf "$work/debian"
    cp -a debian "$work/debian"
}

# build COMMAND...: dpkg-buildpackage, run by the command. --no-pre-clean: what was compiled before is kept, and ninja knows what has
# changed. The environment stays what it is: the compiler's cache keeps objects of another language apart.
build() {
    log "building for $architecture (build/package-$architecture.log)"
    "$@" env -C "$PWD/$work" ARBOR_SOURCE="$PWD" ARBOR_MANUAL="$PWD/build/release/manual" \
        dpkg-buildpackage "${options[@]}" --no-sign --no-pre-clean > "build/package-$architecture.log" 2>&1 ||
        { tail -n 40 "build/package-$architecture.log" >&2; return 1; }
}

collect() {
    rm -rf "$result"
    mkdir -p "$result"
    mv "$work"/../*.deb "$work"/../*.changes "$work"/../*.buildinfo "$result/"
}

# Nothing but the names of the pages is to be seen.
inspect_manual() {
    log "manual pages"
    local page
    for page in "$work"/obj-*/manual/*; do
        mandoc -Tlint "$page" || return 1
        lexgrog "$page"
    done
}

inspect() {
    log "lintian"
    lintian --fail-on error,warning --allow-root --tag-display-limit 0 "$result"/*.changes
}

rm -f "$work"/../*.deb "$work"/../*.changes "$work"/../*.buildinfo
copy_recipe
if [ "$architecture" = "$(dpkg --print-architecture)" ]; then
    build env
    collect
    inspect_manual
else
    build scripts/cross.sh "$architecture"
    as_root chown -R --reference=. "$work/.."
    collect
fi
inspect
ls -sh "$result"/*.deb
log "done in $SECONDS s"
