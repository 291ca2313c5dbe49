# A machine to run on: a Wine prefix of its own, with a display. Sourced by demo.sh, test.sh, bench.sh and
# growth.sh.
#
#   machine_new FOLDER   makes a fresh machine in FOLDER and keeps it running until the script ends
#   machine PROGRAM ...  runs a program on it

. scripts/display.sh

machine_folder=
machine_keeper=

machine() { /usr/lib/wine/wine64 "$@"; }

machine_new() {
    machine_folder=$1
    export WINEPREFIX=$machine_folder WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml="
    machine_end
    rm -rf "$machine_folder"
    mkdir -p "$(dirname "$machine_folder")"
    trap machine_end EXIT
    display_need
    machine wineboot -i >/dev/null 2>&1 || { echo "machine: the Wine prefix cannot be made" >&2; return 1; }
    # What crashes on purpose shows nothing.
    machine reg add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 /f >/dev/null 2>&1 ||
        { echo "machine: its registry cannot be written" >&2; return 1; }
    # A machine that was just made does not start drivers: boot it once more.
    /usr/lib/wine/wineserver -k && /usr/lib/wine/wineserver -w
    # Services end with the last ordinary program of the machine: this one waits for a key that never comes.
    local input
    mkfifo "$machine_folder/keeper"
    exec {input}<>"$machine_folder/keeper"
    /usr/lib/wine/wine64 cmd /c pause <&"$input" >/dev/null 2>&1 &
    machine_keeper=$!
    disown "$machine_keeper"
    exec {input}>&-
    # The services of the machine keep the output of the program that starts them open: not that of a test.
    machine cmd /c exit >/dev/null 2>&1 </dev/null
}

machine_end() {
    # Nothing here may fail: under set -e the script's own result would be lost.
    [ -z "$machine_keeper" ] || kill "$machine_keeper" 2>/dev/null || true
    machine_keeper=
    if [ -d "$machine_folder" ]; then
        /usr/lib/wine/wineserver -k 2>/dev/null || true
        /usr/lib/wine/wineserver -w || true
    fi
    display_end
}
