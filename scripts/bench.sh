#!/usr/bin/env bash
# Measures the plug-in beside its bare counterparts on a fresh machine: both take turns in one run, at least 31 times
# where it does not say otherwise, and what counts is the ratio: the median of the rounds, with its 10th and 90th
# percentile. Not a test: the numbers are the machine's.
set -euo pipefail
cd "$(dirname "$0")/.."

ONE_PROCESSOR=yes
. scripts/measured_station.sh

echo "Tracing that is off"
run tessabench trace
echo "One device event in the control handler"
run tessabench handler
echo "tessaplug_init and the same system calls made bare (31 processes)"
for _ in $(seq 31); do run tessabench init-once; done >"$WINEPREFIX/inits"
run tessabench inits <"$WINEPREFIX/inits"
ls -l build/release/bin/tessaplug.dll | awk '{ printf "%-52s %10d KB\n\n", "tessaplug.dll", $5 / 1024 }'
echo "Messages of the driver"
run tessabench messages
run tessabench records
run tessabench lifecycle
echo
echo "When something breaks"
run tessabench dump
run tessabench decode
echo
echo "An adapter of the running service, which takes turns with a bare one"
run tessahost install >/dev/null
run tessabench plug
echo "2000 plug events of one service"
run tessahost uninstall >/dev/null
run stationmgr unregister # it would start for each, and COM takes a second for that
TESSAPLUG_PLUG_EVENTS=2000 machine build/release/bin/system_tests.exe --gtest_filter='*PlugEventsLeave*' | tr -d '\r' |
    grep -E 'KB before|FAILED'
