#!/usr/bin/env bash
# Runs a command that may start programs of AArch64: foreign.sh COMMAND...
# It is root of namespaces of its own, whose kernel table of foreign programs knows them (Linux 6.7 or newer). The machine's own table,
# and with it what every other process may start, stays as it is.
set -euo pipefail

# What such a program's header looks like, and what of it counts.
magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

talk=$(mktemp -d)
child=
trap 'rm -r "$talk"; [ -z "$child" ] || kill "$child" 2> /dev/null || true' EXIT
mkfifo "$talk/made" "$talk/mapped"
export FOREIGN_TALK=$talk FOREIGN_ENTRY=":qemu-aarch64:M::$magic:$mask:/usr/bin/qemu-aarch64-static:F"
# The identities are those of outside, so that files belong to whom they belong; only who stands outside may say so.
# shellcheck disable=SC2016 # it is for the shells inside
unshare --user --mount bash -euc '
    echo made > "$FOREIGN_TALK/made"
    read -r _ < "$FOREIGN_TALK/mapped"
    exec setpriv --reuid 0 --regid 0 --clear-groups unshare --pid --fork --kill-child --mount-proc bash -euc "
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
        printf %s \"\$FOREIGN_ENTRY\" > /proc/sys/fs/binfmt_misc/register
        exec \"\$@\"" bash "$@"' bash "$@" &
child=$!
# Opened both ways and kept, which waits for nobody and loses nothing: who can't make namespaces ends without a word.
exec {made}<> "$talk/made" {mapped}<> "$talk/mapped"
read -r -t 20 -u "$made" _ || { echo "foreign: no namespaces can be made here" >&2; exit 1; }
echo "0 0 65536" > "/proc/$child/uid_map"
echo "0 0 65536" > "/proc/$child/gid_map"
echo mapped >&"$mapped"
wait "$child"
