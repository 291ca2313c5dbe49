#!/usr/bin/env bash
# Runs a command in a fresh clone of the repository on a bare Debian, so that a missing package or a habit of one
# version is found: scripts/on_debian.sh 12|13 COMMAND [ARGUMENT]..., for example scripts/on_debian.sh 13 ./test.sh
# The bare system is made once below build/, and copied for each run; the copy of the last run stays to be looked at.
# What is not committed is not in the clone. Needs root and the packages debootstrap and git.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() { echo "on_debian: $*" >&2; exit 1; }

[ $# -ge 2 ] || fail "usage: scripts/on_debian.sh 12|13 COMMAND [ARGUMENT]..."
case "$1" in
    12) suite=bookworm ;;
    13) suite=trixie ;;
    *) fail "there is no Debian '$1' here: 12 or 13" ;;
esac
bare="$PWD/build/debian-$1-bare"
system="$PWD/build/debian-$1"
shift
[ "$(id -u)" -eq 0 ] || fail "this needs root"
for program in debootstrap git unshare; do
    command -v "$program" >/dev/null || fail "this needs $program: apt-get install $program"
done

mkdir -p build
if [ ! -d "$bare" ]; then
    echo "on_debian: making a bare $suite"
    rm -rf "$bare.new"
    debootstrap --variant=minbase "$suite" "$bare.new" >"$bare.log" 2>&1 || { tail -5 "$bare.log" >&2; fail "debootstrap failed"; }
    mv "$bare.new" "$bare"
fi
rm -rf "$system"
cp -a "$bare" "$system"
git clone -q . "$system/tessaplug"

# With mounts and processes of its own: none of either is left when the command has ended.
# shellcheck disable=SC2016
exec unshare --mount --pid --fork --kill-child bash -c '
    system=$1
    shift
    mount -t proc proc "$system/proc"
    mount --rbind /dev "$system/dev"
    exec env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM="${TERM:-dumb}" LANG=C.UTF-8 CI="${CI:-}" \
        chroot "$system" bash -c "cd /tessaplug && exec \"\$@\"" on_debian "$@"
' on_debian "$system" "$@"
