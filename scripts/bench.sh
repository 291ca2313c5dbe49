#!/usr/bin/env bash
# Measures the plug-in beside its bare counterparts on a fresh machine. Not a test: the numbers are the machine's.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
. scripts/machine.sh
. scripts/station.sh
mkdir -p build
cmake --workflow --preset release >build/bench-build.log 2>&1 || { tail -40 build/bench-build.log >&2; exit 1; }
machine_new "$PWD/build/machine-bench"
station_new build/release >/dev/null

echo "Tracing that is off"
run tessabench trace
echo "One device event in the control handler"
run tessabench handler
echo "tessaplug_init and the same system calls made bare (11 processes)"
for _ in $(seq 11); do run tessabench init; done >"$WINEPREFIX/init"
[ "$(wc -l <"$WINEPREFIX/init")" -eq 11 ] || { echo "bench: a start failed" >&2; exit 1; }
median() { awk -v column="$1" '{ print $column }' "$WINEPREFIX/init" | sort -n | sed -n 6p; }
awk -v bare="$(median 1)" -v init="$(median 2)" -v kb="$(median 3)" 'BEGIN {
    printf "%-52s %10.2f ms\n%-52s %10.2f ms\n%-52s %10.2f\n%-52s %10d KB\n",
        "the same system calls made bare", bare, "tessaplug_init", init, "  ratio", init / bare,
        "private memory that loading and init add", kb }'
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
echo "An adapter of the running service"
run tessahost install >/dev/null
run tessahost start >/dev/null
run tessabench visible
run tessabench hidden
run tessahost uninstall >/dev/null
echo
echo "2000 plug events of one service"
TESSAPLUG_PLUG_EVENTS=2000 machine build/release/bin/system_tests.exe --gtest_filter='*PlugEventsLeave*' | tr -d '\r' |
    grep -E 'KB before|FAILED'
