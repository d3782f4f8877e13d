#!/usr/bin/env bash
# Runs a command where programs of another architecture are compiled: cross.sh ARCHITECTURE COMMAND... (with foreign.sh before it, what
# was compiled runs there, too).
# That is a root of its own below build/, made the first time, since libraries of both architectures have to be of the very same
# version, and the machine's own are nobody's to change. The checkout is at the same place in it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

suite=bookworm
architecture=$1
shift
cross=build/cross-$architecture

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# What is in it: a change of the list makes it anew. The libraries are those of the recipe's build dependencies, but those that are the
# same everywhere, and what the tests are built with. The last two native ones are run by tests.
native=("crossbuild-essential-$architecture" debhelper cmake ninja-build ccache pkg-config python3 libcli11-dev openssl libubootenv-tool)
mapfile -t libraries < <(sed -n 's/^ \(lib[^ ,]*-dev\).*/\1/p' debian/control | sort -u | grep -vxE 'libcli11-dev|libmagicenum-dev')
libraries+=(libgtest-dev libgmock-dev libzmq3-dev cppzmq-dev)

make_root() {
    local wanted="${native[*]} ${libraries[*]}"
    [ "$(cat "$cross/ready" 2> /dev/null)" != "$wanted" ] || return 0
    printf 'cross: making a root for %s (build/cross.log)\n' "$architecture"
    as_root rm -rf "$cross/root" "$cross/ready"
    mkdir -p "$cross/ccache"
    {
        as_root debootstrap --variant=minbase "$suite" "$cross/root"
        as_root chroot "$cross/root" dpkg --add-architecture "$architecture"
        as_root chroot "$cross/root" apt-get update -qq
        as_root chroot "$cross/root" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
            "${native[@]}" "${libraries[@]/%/:$architecture}"
        as_root cp -a /usr/include/magic_enum "$cross/root/usr/include/"
    } > build/cross.log 2>&1 || { tail -n 40 build/cross.log >&2; return 1; }
    printf '%s' "$wanted" > "$cross/ready"
}

make_root
# In a mount namespace of its own: nothing is left mounted, however this ends.
# shellcheck disable=SC2016 # it is for the shell inside
as_root unshare --mount --propagation private sh -euc '
    root=$1 here=$2 cache=$3; shift 3
    mkdir -p "$root$here"
    mount --bind "$here" "$root$here"
    mount -t proc proc "$root/proc"
    mount -t tmpfs tmpfs "$root/tmp"
    exec chroot "$root" env LC_ALL=C.UTF-8 CCACHE_DIR="$cache" "$@"' sh "$cross/root" "$PWD" "$PWD/$cross/ccache" "$@"
