#!/usr/bin/env bash
# Runs installer_test.py on a machine of its own with the stand-ins of a station. Arguments: the build folder, and what
# the Python test takes.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
cd "$here/../.."
. scripts/machine.sh
. scripts/station.sh

machine_new "$build/installer_test/machine"
station_new "$build" >/dev/null
python3 "$here/installer_test.py" "$build" "${@:2}"
