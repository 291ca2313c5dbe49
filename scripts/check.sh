#!/usr/bin/env bash
# Format of everything that is tracked, static analysis of its C++ and YAML. The argument is the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}

git ls-files >/dev/null || { echo "check: this needs the git working tree" >&2; exit 1; }
mapfile -t formatted < <(git ls-files '*.c' '*.cpp' '*.h')
clang-format-19 --dry-run --Werror "${formatted[@]}" || { echo "check: run scripts/format.sh" >&2; exit 1; }
echo "check: ${#formatted[@]} files formatted"

mapfile -t described < <(git ls-files '*.yml')
yamllint --strict "${described[@]}"
echo "check: ${#described[@]} YAML files checked"

# The drivers' kernel headers are not made for the analyser.
mapfile -t analysed < <(git ls-files '*.cpp')
printf '%s\n' "${analysed[@]}" | xargs -P "$(nproc)" -n 1 clang-tidy-19 --quiet -p "$build" 2>"$build/clang-tidy.log" || {
    grep -v 'generated\.$' "$build/clang-tidy.log" >&2 || true
    echo "check: clang-tidy has findings" >&2
    exit 1
}
echo "check: ${#analysed[@]} files analysed"
