# Makes a running machine a station: the programs in C:\tessaplug, the configuration library registered and filled,
# the adapters installed. Sourced after machine.sh.
#
#   station_new BUILD_FOLDER
#   run PROGRAM ARGUMENT...   runs a program of C:\tessaplug

run() { machine "C:\\tessaplug\\$1.exe" "${@:2}" | tr -d '\r'; }

station_new() {
    local folder="$WINEPREFIX/drive_c/tessaplug" library="$WINEPREFIX/drive_c/korvane/bin"
    mkdir -p "$folder" "$library"
    cp -r "$1"/bin/{*.exe,tessaplug.dll,winegap.dll,adapters.inf,*.sys,tmf} "$folder"
    cp "$1/bin/q5orvix64x.dll" "$library"
    run adapterctl install
    run q5config register 'C:\korvane'
    run q5config init
    run stationmgr register
    run stationmgr init
    mkdir -p "$WINEPREFIX/drive_c/windows/syswow64"
    cp "$1/bin/q5panels.exe" "$WINEPREFIX/drive_c/windows/syswow64"
}
