# Sourced by the scripts that measure, in the project's folder: builds, and sets up a fresh machine with a station on it.
# shellcheck shell=bash
scripts/setup.sh
. scripts/machine.sh
. scripts/station.sh
mkdir -p build
cmake --workflow --preset release >build/bench-build.log 2>&1 || { tail -40 build/bench-build.log >&2; exit 1; }
# Where ONE_PROCESSOR is set, everything runs on one: there a thread that wakes another costs the same each time. On two
# of a virtual machine it costs up to six times as much, for seconds on end, whenever the two are on different ones.
[ -z "${ONE_PROCESSOR-}" ] || taskset -cp "$(($(nproc) - 1))" $$ >/dev/null
machine_new "$PWD/build/machine-bench"
station_new build/release >/dev/null
