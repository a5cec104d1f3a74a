#!/usr/bin/env bash
# Runs sweeps, on the release build or on the programs of the sanitizer build, and counts their runs
# of the tool: every failure of input, output and allocation, every moment to be killed, every kind
# of damage, every number of a repair file; and what the companion makes of random damage against
# what was there: 10,000 plans, 1,000 lost super blocks and 100,000 flips of bits for each layout;
# and a salvage that fails, or is killed and goes on, at each of its calls.
#
#   scripts/sweep.sh [--sanitize]
#       [io|memory|kill|apply|damage|configuration|plan|rescue|mend|salvage]...
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh

declare -A suites=([io]='*IoSweep*' [memory]='*MemorySweep*' [kill]='*KillSweep*'
    [apply]='*KilledApply*:*KilledNaming*' [damage]='*Damaged*'
    [configuration]='*Configuration*' [plan]='*PlanProperty*'
    [rescue]='*RescueSamples*' [mend]='Mend.*' [salvage]='*SalvageFaults*')
programs=build

sanitize=false
if [ "${1-}" = --sanitize ]; then
    sanitize=true
    shift
fi
[ $# -gt 0 ] || set -- io memory kill apply damage configuration plan rescue mend salvage
for sweep in "$@"; do
    [ -n "${suites[$sweep]-}" ] || {
        echo "There is no sweep \"$sweep\"." >&2
        exit 2
    }
done

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
cmake --preset test >/dev/null
cmake --build --preset test --parallel "$(nproc)" --target sweep_tests unit_tests fault_tests \
    tierctl_tests -- --quiet >/dev/null
if $sanitize; then
    cmake --preset sanitize >/dev/null
    cmake --build --preset sanitize --parallel "$(nproc)" --target zu_tier zu_tierctl \
        unit_tests -- --quiet >/dev/null
    export ZU_TIER_PROGRAMS=$PWD/build-sanitize
    programs=build-sanitize
fi
export ZU_TIER_PLAN_ROUNDS=10000 ZU_TIER_RESCUE_SAMPLES=1000 ZU_TIER_FLIPS=100000
export ZU_TIER_EVERY_STOP=1 ZU_TIER_SALVAGE_MOMENTS=1000000

all_failed=0
for sweep in "$@"; do
    passed=0 failed=0 runs=0 SECONDS=0
    tests=build/sweep_tests
    case $sweep in
    plan | rescue | mend) tests=$programs/unit_tests ;; # these call the functions, not the programs
    apply) tests=build/tierctl_tests ;;
    salvage) tests=build/fault_tests ;;
    esac
    GTEST_FILTER=${suites[$sweep]} run_tests "$sweep sweep" "$tests"
    echo "$runs runs in $passed tests that passed and $failed that failed, $SECONDS s"
    all_failed=$((all_failed + failed))
done
[ "$all_failed" -eq 0 ]
