#!/usr/bin/env bash
# Installs what building and running needs on Debian 12 and 13; does nothing where it is there already.
set -euo pipefail

packages=(
    clang-19 lld-19 clang-tidy-19 clang-format-19
    g++-mingw-w64-x86-64-posix mingw-w64-tools binutils-mingw-w64-x86-64
    ninja-build cmake googletest libcli11-dev nlohmann-json3-dev python3 git yamllint
    wine64 xvfb xdotool imagemagick chromium lldb-19
    msitools wixl openssl osslsigncode ca-certificates python3-jsonschema python3-pyte
    prometheus prometheus-node-exporter
)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

command -v apt-get >/dev/null || { echo "setup: this needs Debian 12 or 13 (no apt-get here)" >&2; exit 1; }
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo env DEBIAN_FRONTEND=noninteractive)
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
# Some packages start a service, which the tests do not need: they run its program themselves. Nothing is started where
# this file says so, which packages ask for, and the services are not started with the machine either.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap '"${sudo[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
    "${sudo[@]}" chmod 755 "$policy"
fi
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
for service in prometheus prometheus-node-exporter; do
    case " ${missing[*]} " in
    *" $service "*) "${sudo[@]}" systemctl disable "$service" || "${sudo[@]}" update-rc.d "$service" disable || true ;;
    esac
done >/dev/null 2>&1
