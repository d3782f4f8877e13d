#!/usr/bin/env bash
# Builds the Debian packages of this checkout into build/packages, and has lintian look at them: package.sh [--arm64]
# The checkout stays as it is: debian/ is copied to build/package, and dpkg-buildpackage works there on the sources here. With
# --arm64 the packages are for that architecture and go into build/packages-arm64. They are built in a root of their own below build/,
# since libraries of both architectures have to be of the very same version, and the machine's own are nobody's to change.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

suite=bookworm
architecture=$(dpkg --print-architecture)
options=(--build=binary)
case ${1:-} in
    --arm64) architecture=arm64 options=(--build=any --host-arch arm64 '--build-profiles=cross,nocheck' --no-check-builddeps) ;;
    ?*) echo "package: there is no '$1'; it takes --arm64" >&2; exit 2 ;;
esac
work=build/package/$architecture/arbor-install
result=build/packages${1:+-$architecture}
cross=build/cross-$architecture

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

# The libraries are those of the recipe's build dependencies, but those that are the same everywhere.
make_root() {
    [ -e "$cross/ready" ] && return
    log "making a root for $architecture (build/cross.log)"
    local libraries
    mapfile -t libraries < <(sed -n 's/^ \(lib[^ ,]*-dev\).*/\1/p' debian/control | sort -u | grep -vxE 'libcli11-dev|libmagicenum-dev')
    as_root rm -rf "$cross"
    mkdir -p "$cross"
    {
        as_root debootstrap --variant=minbase "$suite" "$cross/root"
        as_root chroot "$cross/root" dpkg --add-architecture "$architecture"
        as_root chroot "$cross/root" apt-get update -qq
        as_root chroot "$cross/root" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
            "crossbuild-essential-$architecture" debhelper cmake ninja-build ccache pkg-config python3 libcli11-dev \
            "${libraries[@]/%/:$architecture}"
        as_root cp -a /usr/include/magic_enum "$cross/root/usr/include/"
    } > build/cross.log 2>&1 || { tail -n 40 build/cross.log >&2; return 1; }
    touch "$cross/ready"
}

# In a mount namespace of its own: nothing is left mounted, however this ends.
in_root() {
    mkdir -p "$cross/ccache"
    # shellcheck disable=SC2016 # it is for the shell inside
    as_root unshare --mount --propagation private sh -euc '
        root=$1 here=$2 cache=$3; shift 3
        mkdir -p "$root$here"
        mount --bind "$here" "$root$here"
        mount -t proc proc "$root/proc"
        exec chroot "$root" env LC_ALL=C.UTF-8 CCACHE_DIR="$cache" "$@"' sh "$cross/root" "$PWD" "$PWD/$cross/ccache" "$@"
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
    make_root
    build in_root
    as_root chown -R --reference=. "$work/.." "$cross/ccache"
    collect
fi
inspect
ls -sh "$result"/*.deb
log "done in $SECONDS s"
