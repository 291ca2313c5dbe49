#!/usr/bin/env bash
# Measures on a fresh machine how costs grow, each point at least 11 times, and replaces docs/growth: the numbers and the
# pictures of them. Not a test: the numbers are the machine's. It takes a quarter of an hour; what else the computer does
# then is in the numbers.
set -euo pipefail
cd "$(dirname "$0")/.."

ONE_PROCESSOR=yes
. scripts/measured_station.sh
run tessahost install >/dev/null

load() { cut -d ' ' -f 1-3 /proc/loadavg; }

data=build/growth.txt
{
    echo "# Medians, their 10th and 90th percentiles and how many rounds they are of; scripts/growth.sh"
    echo "# $(nproc) processors; load before it $(load)"
    for subject in growth-template growth-components growth-records; do
        echo "# tessabench $subject"
        run tessabench "$subject"
        echo "# load after it $(load)"
    done
} | tee "$data"

# Only a whole measurement takes the place of the last one.
scripts/growth_plots.py "$data" build/growth
mkdir -p docs/growth
cp "$data" build/growth/*.svg docs/growth
