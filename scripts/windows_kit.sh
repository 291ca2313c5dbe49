#!/usr/bin/env bash
# Makes build/windows-kit.zip: whoever has a Windows unpacks it there and runs run.cmd. See docs/first_run_on_windows.md.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
. scripts/machine.sh
mkdir -p build
cmake --workflow --preset release >build/kit-build.log 2>&1 || { tail -40 build/kit-build.log >&2; exit 1; }
# The test programs are asked for their tests.
machine_new "$PWD/build/machine-kit"
version=$(sed -n 's/^project(tessaplug VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
commit=$(git describe --always --dirty 2>/dev/null || echo unknown)
python3 tools/make_kit.py build/release "tessaplug $version, commit $commit" build/windows-kit.zip
