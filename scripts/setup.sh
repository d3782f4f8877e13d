#!/usr/bin/env bash
# Installs what building, testing and demonstrating the project needs, from the distribution's packages; with --packages also
# what making and trying out packages of it needs, with --arm64 what tests on that architecture need, with --machine what the
# emulated machine needs, with --peers what the benchmark beside others needs. Safe to run again: it returns at once when everything is there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=(
    g++ clang clang-format clang-tidy cmake ninja-build ccache pkg-config
    libboost1.81-dev libboost-json1.81-dev libspdlog-dev libfmt-dev libcpp-httplib-dev libcli11-dev
    libmount-dev libsystemd-dev libseccomp-dev libssl-dev libsodium-dev libzmq3-dev cppzmq-dev libsqlite3-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    python3 openssl softhsm2 libengine-pkcs11-openssl libubootenv-tool shellcheck curl util-linux mount procps ca-certificates git
    chromium
    avahi-daemon avahi-utils libnss-mdns openssh-client openssh-server rsync dbus iproute2 i2c-tools bindfs python3-fusepy bubblewrap
)
package_tools=(debhelper dpkg-dev lintian mandoc man-db debootstrap systemd-container squashfs-tools u-boot-tools e2fsprogs)
arm64_tools=(debootstrap qemu-user-static)
peers=(rauc dbus squashfs-tools)
machine_tools=(qemu-system-arm qemu-user-static u-boot-qemu mmdebstrap debian-archive-keyring dosfstools mtools kmod cpio fdisk squashfs-tools u-boot-tools)
# The simulated devices start services of their own; the machine is not to run what the packages bring.
declare -A units=([avahi-daemon]="avahi-daemon.service avahi-daemon.socket" [openssh-server]="ssh.service ssh.socket")
policy=/usr/sbin/policy-rc.d
# magic_enum 0.9 or newer; the distribution's release may lack it.
enum_package=libmagicenum-dev
enum_header=/usr/include/magic_enum/magic_enum.hpp
next_suite=trixie
# What the page's tests and checks use; the versions are those of its package-lock.json.
page_tests=tests/page

log() { printf 'setup: %s\n' "$*"; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

missing_packages() {
    local name
    for name in "${packages[@]}"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed || echo "$name"
    done
}

install_packages() {
    log "installing $*"
    as_root apt-get update -qq
    if [ ! -e "$policy" ]; then
        trap 'as_root rm -f "$policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' | as_root install -m 755 /dev/stdin "$policy"
    fi
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
    local name brought=()
    for name in "$@"; do
        read -ra brought <<< "${units[$name]:-}"
        if [ "${#brought[@]}" -gt 0 ] && [ -d /run/systemd/system ]; then
            as_root systemctl disable --now "${brought[@]}"
        fi
    done
}

# Takes the one header-only package from the next release: a private copy of the machine's own package source with the
# suite's name replaced and a list folder of its own, so the machine's sources stay as they are.
fetch_enum_package() {
    local work suite
    suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
    work=$(mktemp -d)
    mkdir -p "$work/lists/partial" "$work/parts"
    if [ -e /etc/apt/sources.list.d/debian.sources ]; then
        sed -n '1,/^$/p' /etc/apt/sources.list.d/debian.sources |
            sed -e "s/^Suites:.*/Suites: $next_suite/" > "$work/parts/next.sources"
    else
        grep -m1 -E "^deb .* $suite " /etc/apt/sources.list | sed -e "s/ $suite / $next_suite /" > "$work/parts/next.list"
    fi
    local options=(-o "Dir::Etc::SourceList=/dev/null" -o "Dir::Etc::SourceParts=$work/parts"
                   -o "Dir::State::Lists=$work/lists" -o "APT::Sandbox::User=root")
    as_root apt-get "${options[@]}" update -qq
    (cd "$work" && as_root apt-get "${options[@]}" download -qq "$enum_package")
    as_root dpkg -i "$work/$enum_package"_*.deb
    as_root rm -rf "$work"
}

install_enum_package() {
    [ -e "$enum_header" ] && return
    log "installing $enum_package"
    local version
    version=$(apt-cache policy "$enum_package" 2>/dev/null | sed -n 's/^ *Candidate: *//p')
    if [ -n "$version" ] && dpkg --compare-versions "$version" ge 0.9; then
        as_root apt-get install -y --no-install-recommends "$enum_package"
    else
        fetch_enum_package
    fi
    [ -e "$enum_header" ] || { echo "setup: $enum_package did not bring $enum_header" >&2; return 1; }
}

# The distribution's, unless the machine has some already.
missing_node() {
    command -v node > /dev/null || echo nodejs
    command -v npm > /dev/null || echo npm
}

install_page_tests() {
    local lock=$page_tests/package-lock.json installed=$page_tests/node_modules/.package-lock.json
    if [ "$lock" -nt "$installed" ]; then
        log "installing what the page's tests use"
        npm ci --prefix "$page_tests" --no-audit --no-fund --ignore-scripts
        touch "$installed"
    fi
}

main() {
    command -v apt-get >/dev/null || { echo "setup: this needs a Debian system (apt-get was not found)" >&2; exit 1; }
    case ${1:-} in
        --packages) packages+=("${package_tools[@]}") ;;
        --machine) packages+=("${machine_tools[@]}") ;;
        --arm64) packages+=("${arm64_tools[@]}") ;;
        --peers) packages+=("${peers[@]}") ;;
        ?*) echo "setup: there is no '$1'; it takes --packages, --arm64, --machine or --peers" >&2; exit 2 ;;
    esac
    mapfile -t missing < <(missing_packages; missing_node)
    if [ "${#missing[@]}" -gt 0 ]; then
        install_packages "${missing[@]}"
    fi
    install_enum_package
    install_page_tests
}

main "$@"
