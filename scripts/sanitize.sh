#!/usr/bin/env bash
# The unit tests in a build that traps at undefined behaviour, on a heap with guard pages, on a fresh machine. Arguments
# are passed to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
. scripts/machine.sh
cmake --workflow --preset sanitize
machine_new "$PWD/build/machine-sanitize"
ctest --preset sanitize "$@"
