#!/usr/bin/env bash
# Every system call of the plug-in's life made to fail once, storms of events and many lives: the long form of
# tests/sweep, on a fresh machine; a quarter of an hour. Arguments are passed to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
. scripts/machine.sh
mkdir -p build
cmake --workflow --preset release >build/sweep-build.log 2>&1 || { tail -40 build/sweep-build.log >&2; exit 1; }
machine_new "$PWD/build/machine-sweep"
export TESSA_SWEEP=all
failed=0
# The storms and lives within their usual time limits; the pairs take longer than any test may.
ctest --preset release -R '^(Storm|DriverStorm|ManyLives)\.' --verbose "$@" |
    grep -E '^[0-9]+: [^\[]|tests passed|\*\*\*' || failed=1
machine build/release/bin/fault_sweep_tests.exe || failed=1
exit $failed
