#!/usr/bin/env bash
# Builds the Debian packages of this checkout into build/packages, and has lintian look at them. The checkout stays as it is:
# debian/ is copied to build/package, and dpkg-buildpackage works there on the sources here.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

work=build/package/arbor-install
result=build/packages

log() { printf 'package: %s\n' "$*"; }

copy_recipe() {
    mkdir -p "$work"
    rm -rf "$work/debian"
    cp -a debian "$work/debian"
}

build() {
    log "building (build/package.log)"
    export ARBOR_SOURCE=$PWD
    # -nc: what was compiled before is kept, and make knows what has changed.
    (cd "$work" && dpkg-buildpackage --build=binary --no-sign --no-pre-clean) > build/package.log 2>&1 ||
        { tail -n 40 build/package.log >&2; return 1; }
}

collect() {
    rm -rf "$result"
    mkdir -p "$result"
    mv build/package/*.deb build/package/*.changes build/package/*.buildinfo "$result/"
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

rm -f build/package/*.deb build/package/*.changes build/package/*.buildinfo
copy_recipe
build
collect
inspect_manual
inspect
ls -sh "$result"/*.deb
log "done in $SECONDS s"
