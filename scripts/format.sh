#!/usr/bin/env bash
# Formats everything that is tracked.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format-19 -i
