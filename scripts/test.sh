#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: all of them on the release build, those of
# functions and programs under the address and undefined-behaviour sanitizers and once more to count
# what they reach, and every fuzz target for some seconds. The last line counts the tests of the
# release build and of the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh

build() {
    step "Build: $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)" -- --quiet
}

install_packages "${BUILD_PACKAGES[@]}" dpkg-dev git jq libgtest-dev mount pdsh strace \
    tzdata valgrind

build test
cpack --config build/CPackConfig.cmake -B build/package >/dev/null
for tests in unit cli tierctl fault sweep cost hardening memcheck package runbook; do
    run_tests "$tests, release build" "build/${tests}_tests"
done

build sanitize
# All zones of the machine take long, and the same code.
run_tests "unit, under the sanitizers" build-sanitize/unit_tests \
    --gtest_filter='-*.EveryZoneOfTheMachine'
export ZU_TIER_PROGRAMS=$PWD/build-sanitize
run_tests "fault, under the sanitizers" build/fault_tests
# The search for leaks takes a third of a short run; fault, memcheck and fuzz tests look for them.
export ASAN_OPTIONS=detect_leaks=0
run_tests "cli, under the sanitizers" build/cli_tests
run_tests "tierctl, under the sanitizers" build/tierctl_tests --gtest_filter='-*Large*:Killed*'
unset ZU_TIER_PROGRAMS ASAN_OPTIONS

step "Coverage"
scripts/coverage.sh

step "Fuzz"
scripts/fuzz.sh all 3

step "Counts"
if [ "$skipped" -eq 0 ]; then
    echo "$passed passed, $failed failed"
else
    echo "$passed passed, $failed failed, $skipped skipped"
fi
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
