#!/usr/bin/env bash
# Builds the last commit twice, in two folders and without a compiler cache, and compares what comes out; some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER SOURCE_DATE_EPOCH
export CCACHE_DISABLE=1
folder=$PWD/build/reproducible
rm -rf "$folder"
git clone -q . "$folder/one"
git clone -q "$folder/one" "$folder/another/folder" # the same commit, whatever happens here meanwhile
for copy in one another/folder; do
    (cd "$folder/$copy" && cmake --preset release && cmake --build --preset release --target shipped) >"$folder/build.log" 2>&1 ||
        { tail -40 "$folder/build.log" >&2; exit 1; }
done
scripts/check_binaries.py --compare "$folder"/{one,another/folder}/build/release/bin
