# Sourced by the scripts that measure, in the project's folder: builds, and sets up a fresh machine with a station on it.
# shellcheck shell=bash
scripts/setup.sh
. scripts/machine.sh
. scripts/station.sh
mkdir -p build
cmake --workflow --preset release >build/bench-build.log 2>&1 || { tail -40 build/bench-build.log >&2; exit 1; }
machine_new "$PWD/build/machine-bench"
station_new build/release >/dev/null
