#!/usr/bin/env bash
# Installs what is missing, builds, and times the tool against its yardsticks: a table on standard
# output, and the same as JSON in FILE. Then adds a line to bench/history.ndjson, and says which rows
# have moved by more than they differed between the earlier runs on this machine.
#
# The largest table has 2^30 extents, or ZU_TIER_BENCH_EXTENTS: it and its copies take 16 bytes of /var/tmp each.
#
#   scripts/bench.sh [FILE]
set -euo pipefail
cd "$(dirname "$0")/.."
commit=$(git rev-parse --short HEAD)
git diff --quiet HEAD -- . ':!bench/history.ndjson' || commit+=-changed
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" libbenchmark-dev fio mount python3 time tzdata
cmake --preset bench >/dev/null
cmake --build --preset bench --parallel "$(nproc)" -- --quiet

# In memory if there is room for the images; the largest has 4 GiB.
parent=/tmp
if [ "$(df --output=avail -B1M /dev/shm 2>/dev/null | tail -n 1)" -gt 8192 ]; then parent=/dev/shm; fi
work=$(mktemp -d "$parent/zu_tier_bench.XXXXXX")
disk=$(mktemp -d /var/tmp/zu_tier_bench.XXXXXX)
trap 'rm -rf "$work" "$disk"' EXIT

rows=${1-$work/rows.json}
python3 bench/walks.py build "$work" --disk "$disk" --json "$rows"
python3 bench/history.py "$rows" bench/history.ndjson "$commit"
