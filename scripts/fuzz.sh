#!/usr/bin/env bash
# Installs what is missing, builds the fuzz targets, makes their first inputs and runs them: every
# target, or one, for SECONDS each (default 60), as many at a time as there are processors. Then
# prints a table of the results. With 0 SECONDS only replays what there is: first inputs, the corpus
# of earlier runs and the regressions. Exit status 1 on a finding.
#
#   scripts/fuzz.sh [TARGET|all] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

TARGETS=(options json repair dump probe restore main_v1 main_v2 main_v3)
# The most bytes of an input.
export small=4608 large=20480
export seconds=${2:-60} build=build-fuzz
[ "${1:-all}" = all ] || TARGETS=("$1")

install_packages "${BUILD_PACKAGES[@]}" clang libclang-rt-14-dev python3

# The sample devices and their dumps are made by ordinary programs.
programs=${ZU_TIER_PROGRAMS:-build}
if [ -z "${ZU_TIER_PROGRAMS:-}" ]; then
    cmake --preset release >/dev/null
    cmake --build --preset release --parallel "$(nproc)" --target zu_tier zu_tierctl >/dev/null
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --parallel "$(nproc)" --target "${TARGETS[@]/#/fuzz_}" >/dev/null
rm -rf "$build/seeds"
mkdir -p "$build"/{corpus,findings,logs,seeds}
python3 scripts/fuzz_seeds.py "$programs" "$build/seeds"

# fuzz TARGET: one run; its log has the result.
fuzz() {
    local effort=(-runs=0)
    [ "$seconds" -eq 0 ] || effort=("-max_total_time=$seconds")
    local length=$small
    case $1 in restore | main_*) length=$large ;; esac
    mkdir -p "$build/corpus/$1"
    local inputs=("$build/corpus/$1" "$build/seeds/$1") regressions=tests/fuzz/regressions/$1
    [ ! -d "$regressions" ] || inputs+=("$regressions")
    "$build/fuzz_$1" "${effort[@]}" -timeout=25 -rss_limit_mb=2048 "-max_len=$length" \
        -print_final_stats=1 "-artifact_prefix=$build/findings/$1-" "${inputs[@]}" \
        >"$build/logs/$1.log" 2>&1 || echo "FINDING, status $?" >>"$build/logs/$1.log"
}
export -f fuzz
printf '%s\n' "${TARGETS[@]}" | xargs -P "$(nproc)" -I{} bash -c 'fuzz {}'

# last PATTERN FILE: the last number after PATTERN.
last() { grep -oE "$1[[:space:]]*[0-9]+" "$2" | tail -n 1 | grep -oE '[0-9]+$' || echo -; }

findings=0
printf '%-8s  %12s  %7s  %8s  %8s\n' target executions edges features findings
for target in "${TARGETS[@]}"; do
    log=$build/logs/$target.log
    found=$(grep -c '^FINDING' "$log" || true)
    findings=$((findings + found))
    printf '%-8s  %12s  %7s  %8s  %8s\n' "$target" \
        "$(last 'stat::number_of_executed_units:' "$log")" "$(last 'cov:' "$log")" \
        "$(last 'ft:' "$log")" "$found"
    [ "$found" -eq 0 ] || grep -E '^FUZZ:|SUMMARY:|Test unit written|^FINDING' "$log"
done
[ "$findings" -eq 0 ]
