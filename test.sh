#!/usr/bin/env bash
# Builds everything and runs every check and test on a fresh machine. Arguments are passed to ctest.
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
. scripts/machine.sh

echo "== Building"
cmake --workflow --preset release
cmake --preset debug >/dev/null
cmake --build --preset debug --target tessaplug

echo "== Format and static analysis"
scripts/check.sh build/release

echo "== Tests"
machine_new "$PWD/build/machine-test"
ctest --preset release "$@"
