#!/usr/bin/env bash
# Measures on a fresh machine how long each command of tessactl takes to answer beyond the time that an empty program
# needs to start and end, and what those need that read a recording of a million messages. Not a test: the numbers are
# the machine's; the load is printed before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

ONE_PROCESSOR=yes
. scripts/measured_station.sh
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
