# Makes a running machine a station: the programs in C:\tessaplug, the configuration library registered and filled,
# the adapters installed. Sourced after machine.sh.
#
#   station_new BUILD_FOLDER
#   product_install BUILD_FOLDER   makes the installer and installs the product, as an operator does
#   product_remove
#   run PROGRAM ARGUMENT...   runs a program of the installed product, or else of C:\tessaplug

product_folder() { echo "$WINEPREFIX/drive_c/Program Files/Tessaplug"; }

run() {
    local folder='C:\tessaplug\'
    [ ! -e "$(product_folder)/$1.exe" ] || folder='C:\Program Files\Tessaplug\'
    machine "$folder$1.exe" "${@:2}" | tr -d '\r'
}

product_install() {
    mkdir -p "$(product_folder)"
    # What Wine lacks, beside the programs.
    cp "$1"/bin/{winegap.dll,winegapbox.exe} "$(product_folder)"
    installer/make_msi.py "$1/bin" "$(cat VERSION)" "$WINEPREFIX/drive_c/tessaplug.msi"
    machine msiexec /i 'C:\tessaplug.msi' /qn /l 'C:\install.log'
}

product_remove() { machine msiexec /x 'C:\tessaplug.msi' /qn /l 'C:\remove.log'; }

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
