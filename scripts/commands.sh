#!/usr/bin/env bash
# Prints docs/commands.md as the built programs tell it; the argument is their folder. Written anew with:
#   scripts/commands.sh >docs/commands.md
set -euo pipefail
cd "$(dirname "$0")/.."

programs=${1:-build/release/bin}
if [ -z "${WINEPREFIX:-}" ]; then
    . scripts/machine.sh
    machine_new "$PWD/build/machine-commands" >&2
fi
cat <<'HEAD'
# Commands

What both programs print for `help COMMAND` and `COMMAND --help`, all in one. Written by `scripts/commands.sh`; change
the definitions in `host/command_line.cpp` and `tools/tessactl/`, not this file.

HEAD
for program in tessahost tessactl; do
    /usr/lib/wine/wine64 "$programs/$program.exe" manual | tr -d '\r'
    [ "$program" = tessactl ] || echo
done
