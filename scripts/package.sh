#!/usr/bin/env bash
# Makes what is given away, in build/package: see "Making a release" in docs/maintainers.md.
#
#   package.sh [VERSION] [--sign CERTIFICATE.pfx [--password-file FILE] [--timestamp URL]]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
exec tools/packaging/package.py "$@"
