#!/usr/bin/env bash
# Measures on a fresh machine how long each command of tessactl takes to answer beyond the time that an empty program
# needs to start and end, and what those need that read a recording of a million messages. Not a test: the numbers are
# the machine's; the load is printed before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
. scripts/machine.sh
. scripts/station.sh
mkdir -p build
cmake --workflow --preset release >build/bench-build.log 2>&1 || { tail -40 build/bench-build.log >&2; exit 1; }
machine_new "$PWD/build/machine-answers"
station_new build/release >/dev/null
run tessahost install >/dev/null
run tessahost start >/dev/null
run adapterctl plug NX4120 >/dev/null

load() { echo "load $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"; }
load
echo "Beyond an empty program: the median of 11 rounds (10th to 90th percentile)"
run tessabench answers
echo
echo "A recording of a million messages"
run tessabench million
load
