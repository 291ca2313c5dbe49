#!/usr/bin/env bash
# Shows the plug-in at work on a fresh machine: the service starts, adapters are plugged in and out, and their
# access points follow. Ends with an error if any of it does not happen.
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
. scripts/machine.sh
. scripts/station.sh

bold= plain=
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$(tput bold 2>/dev/null || true)
    plain=$(tput sgr0 2>/dev/null || true)
fi
heading() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
fail() { echo "demo: $*" >&2; exit 1; }

heading "Building"
mkdir -p build
cmake --workflow --preset release >build/demo-build.log 2>&1 || { tail -40 build/demo-build.log >&2; fail "the build failed"; }
ls -l build/release/bin/tessaplug.dll | awk '{printf "tessaplug.dll  %.0f KB\n", $5 / 1024}'

heading "A fresh machine with the stand-ins of a station"
machine_new "$PWD/build/machine-demo"
# Waits until every access point of a model has a state; the argument is the model as the list shows it.
wait_for() {
    for _ in $(seq 100); do
        local points
        points=$(run q5config list | grep "^$1(" || true)
        [ "$(grep -c " $2\$" <<<"$points")" -eq 5 ] && return
        sleep 0.05
    done
    run q5config list >&2
    fail "the access points of $1 are not $2"
}
# Shows the access points; what changed since the last time is marked.
show_points() {
    run q5config list >"$WINEPREFIX/points.new"
    diff --unchanged-line-format='    %L' --old-line-format='' --new-line-format='  > %L' \
        "$WINEPREFIX/points" "$WINEPREFIX/points.new" || true
    mv "$WINEPREFIX/points.new" "$WINEPREFIX/points"
}
# Milliseconds from plugging to the last access point's change, from the time stamps of both.
elapsed() {
    python3 - "$1" "$2" <<'PYTHON'
import sys
def ms(line):
    h, m, s = line.split()[0].split(":")
    return round((int(h) * 60 + int(m)) * 60000 + float(s) * 1000)
changes = [line for line in open(sys.argv[2], errors="replace").read().splitlines() if line.strip()]
print(f"{len(changes)} access points changed; the last {ms(changes[-1]) - ms(sys.argv[1])} ms after the request")
PYTHON
}
# Plugs or unplugs a model and waits for its access points.
plug() { # plug|unplug MODEL LISTED-NAME visible|hidden
    rm -f "$WINEPREFIX/watching"
    run q5config watch 10 5 >"$WINEPREFIX/changes" 2>"$WINEPREFIX/watching" &
    local watcher=$!
    for _ in $(seq 200); do
        [ -s "$WINEPREFIX/watching" ] && break
        sleep 0.05
    done
    [ -s "$WINEPREFIX/watching" ] || fail "the changes cannot be watched"
    local request
    request=$(run adapterctl "$1" "$2")
    echo "$request"
    wait_for "$3" "$4"
    wait "$watcher"
    [ "$(wc -l <"$WINEPREFIX/changes")" -eq 5 ] || fail "not all changes were seen"
    elapsed "$request" "$WINEPREFIX/changes"
    show_points
}

station_new build/release
run adapterctl status
echo "the station manager's components:"
run stationmgr list
: >"$WINEPREFIX/points"
show_points

heading "Installing the product, which starts the service"
begin=$(date +%s%N)
product_install build/release || fail "the installation failed: $WINEPREFIX/drive_c/install.log says why"
echo "$(stat -c %s "$WINEPREFIX/drive_c/tessaplug.msi" | awk '{printf "%.1f MB", $1 / 1048576}'), made and installed in $(((\
    $(date +%s%N) - begin) / 1000000)) ms:"
ls "$(product_folder)" | grep -v winegap | sed 's/^/  /'
run tessactl --version
log="$WINEPREFIX/drive_c/ProgramData/Tessaplug/tessahost.log"
echo "as the service reported it:"
sed 's/^[^ ]* /  /' "$log" | tr -d '\r'
grep -q 'RUNNING' "$log" || fail "the service did not report RUNNING"
[ "$(grep -c 'START_PENDING' "$log")" -eq 6 ] || fail "the start did not report its steps"

heading "Plugging in an NX4120"
run tessactl status >"$WINEPREFIX/status"
plug plug NX4120 NX4120 visible
echo "what tessactl status tells, before and after:"
run tessactl status >"$WINEPREFIX/status.new"
diff "$WINEPREFIX/status" "$WINEPREFIX/status.new" && fail "tessactl status shows no difference"

heading "Plugging in a Fennlink U3, with its trace"
run tessactl trace start --level 4 --flags 9
plug plug FennlinkU3 'FENNLINK U3' visible
run tessactl trace stop
run tessactl trace decode >"$WINEPREFIX/trace.txt"
grep -q 'Unhide Fennlink U3(XLI)' "$WINEPREFIX/trace.txt" || fail "the trace does not show the arrival"
echo "$(wc -l <"$WINEPREFIX/trace.txt") trace messages; the plug-in's own:"
grep ' tessaplug_' "$WINEPREFIX/trace.txt" | cut -c1-150

heading "The Fennlink U3's driver reports trouble"
run adapterctl report FennlinkU3 information "firmware 2.1 is loaded"
run adapterctl report FennlinkU3 warning "the bus cycle takes long"
display_find fenlu3 10 >/dev/null && fail "an information or a warning was shown"
echo "an information and a warning: nothing is shown"
run adapterctl report FennlinkU3 error "no voltage on the bus"
box=$(display_find fenlu3 100) || fail "the driver's error was not shown"
sleep 0.3 # until the box is painted
display_shot "$box" build/demo-driver-error.png
echo "an error: the box is shown, its picture is build/demo-driver-error.png"
display_press "$box" Return || fail "the box was not answered"
echo "answered; the driver's records in the System log:"
run tessactl log --log System --source fenlu3 | tee "$WINEPREFIX/records"
[ "$(wc -l <"$WINEPREFIX/records")" -eq 3 ] || fail "the driver's records are not in the System log"

heading "Unplugging the NX4120: the station manager lets go of it first"
run stationmgr list
plug unplug NX4120 NX4120 hidden
run stationmgr list
echo "its diagnostic entries, the virtual device in the top byte:"
run stationmgr diagnostics | tee "$WINEPREFIX/diagnostics"
[ "$(run stationmgr list | grep -c 'NX4120 .* stopped$')" -eq 2 ] || fail "the components were not stopped"
[ "$(wc -l <"$WINEPREFIX/diagnostics")" -eq 2 ] || fail "the diagnostic entries were not written"
echo "and the first access point was hidden:"
head -1 "$WINEPREFIX/changes"
[[ "$(tail -1 "$WINEPREFIX/diagnostics" | cut -c1-12)" > "$(head -1 "$WINEPREFIX/changes" | cut -c1-12)" ]] &&
    fail "an access point was hidden before the components were stopped"

heading "A failed assertion: the station manager has more components than there can be"
for number in $(seq 4 33); do
    run stationmgr add "$number" OTHER "Other $number"
done
run tessactl trace start --level 4 --flags 9
run adapterctl plug NX4120
wait_for NX4120 visible
run adapterctl unplug NX4120
box=$(display_find 'Fatal Error: tessaplug.dll !!!' 150) || fail "the assertion was not shown"
sleep 0.3
display_shot "$box" build/demo-assertion.png
echo "the box is shown, its picture is build/demo-assertion.png; answered with Retry, it writes a dump"
display_press "$box" Return || fail "the box was not answered"
box=$(display_find 'Wrote Memory dump.' 600) || fail "no dump was written"
display_press "$box" Return || fail "the box with the dump's path was not answered"
wait_for NX4120 hidden
run tessactl trace stop
dump=$(run tessactl trace decode | sed -n 's/.* error_handler  *Dump //p')
[ -n "$dump" ] || fail "the trace does not tell of the dump"
echo "the dump: $dump"
run tessactl dump info "$dump"
run tessactl dump history "$dump" | tee "$WINEPREFIX/history"
grep -q 'thrown by' "$WINEPREFIX/history" || fail "the dump has no exceptions"
echo "the trace of it:"
run tessactl trace decode | awk '{ count[$4]++ } END { for (source in count) printf "  %4d messages of %s\n", count[source], source }' | sort -k3 -rn
# The installer has started the service, and under Wine a service has the environment of who starts it.
folder=${dump%\\*}
run tessactl dump list --folder "$folder" | tee "$WINEPREFIX/dumps"
grep -qF "${dump##*\\}" "$WINEPREFIX/dumps" || fail "the dump is not where it is looked for"
run tessactl dump prune --keep 0 --folder "$folder"
for number in $(seq 4 33); do
    run stationmgr remove "$number"
done

heading "Plugging it in again with one access point deleted: the panel makes it"
run q5config delete 'NX4120(XLI)'
echo "deleted: NX4120(XLI)"
show_points
plug plug NX4120 NX4120 visible

heading "Unplugging both"
plug unplug NX4120 NX4120 hidden
plug unplug FennlinkU3 'FENNLINK U3' hidden

heading "Stopping the service"
run tessahost stop
tail -5 "$log" | sed 's/^[^ ]* /  /' | tr -d '\r'
grep -q 'STOPPED' "$log" || fail "the service did not report STOPPED"

heading "The Application log"
run tessactl log | tee "$WINEPREFIX/log.txt"
grep -q '0x00000100  The adapter service plug-in has started' "$WINEPREFIX/log.txt" ||
    fail "the Application log does not tell of the start"

heading "A report for whoever cannot come"
run tessactl report 'C:\tessaplug-report.html'
cp "$WINEPREFIX/drive_c/tessaplug-report.html" build/demo-report.html
echo "the page: build/demo-report.html"
if command -v chromium >/dev/null; then
    chromium --headless --no-sandbox --disable-gpu --user-data-dir="$WINEPREFIX/browser" --window-size=1400,3000 \
        --screenshot="$PWD/build/demo-report.png" "file://$PWD/build/demo-report.html" >/dev/null 2>&1 ||
        fail "the browser does not show the report"
    echo "its picture: build/demo-report.png"
fi

heading "Removing it"
product_remove || fail "the removal failed: $WINEPREFIX/drive_c/remove.log says why"
echo "what the installer says:"
tr -d '\r' <"$WINEPREFIX/drive_c/remove.log" | grep -A1 '^Tessaplug: ' | grep -v '^Action\|^--'
[ "$(ls "$(product_folder)" | grep -vc winegap)" -eq 0 ] || fail "files are left in $(product_folder)"
(run tessahost status 2>&1 || true) | grep 'is not installed' || fail "the service is still there"
run adapterctl uninstall

heading "Everything happened as it should."
