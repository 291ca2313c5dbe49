#!/usr/bin/env bash
# Makes build/windows-kit.zip: whoever has a Windows unpacks it there and runs run.cmd. See docs/first_run_on_windows.md.
#
#   windows_kit.sh [VERSION BUILD_FOLDER]   without arguments the version of the sources, in build/release
set -euo pipefail
cd "$(dirname "$0")/.."

own_version=$(cat VERSION)
version=${1:-$own_version}
build=${2:-build/release}
# One that was once built as another version goes back to that of the sources.
setting=(-U TESSA_VERSION)
[ "$version" = "$own_version" ] || setting=(-D "TESSA_VERSION=$version")

scripts/setup.sh
. scripts/machine.sh
mkdir -p build
{ cmake --preset release -B "$build" "${setting[@]}" && cmake --build "$build"; } >build/kit-build.log 2>&1 ||
    { tail -40 build/kit-build.log >&2; exit 1; }
# The test programs are asked for their tests.
machine_new "$PWD/build/machine-kit"
commit=$(git describe --always --dirty 2>/dev/null || echo unknown)
python3 tools/make_kit.py "$build" "tessaplug $version, commit $commit" build/windows-kit.zip
