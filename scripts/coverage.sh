#!/usr/bin/env bash
# Installs what is missing, builds, runs the tests over programs that count the lines and branches
# they take, and prints a table of the sources in tier/; line by line it is written to
# build-coverage/html/index.html. Fails below 99 % of the lines or 95 % of the branches.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh

LINES_AT_LEAST=99
BRANCHES_AT_LEAST=95

# build PRESET TARGET...
build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)" --target "${@:2}" -- --quiet
}

# The programs that start others are those of the test build; only what they start counts. Runs at
# the same time add up their counts; who is killed has none.
run_all_tests() {
    find build-coverage -name '*.gcda' -delete
    export ZU_TIER_PROGRAMS=$PWD/build-coverage
    run_tests "functions" build-coverage/unit_tests
    run_tests "programs" build/cli_tests
    run_tests "companion" build/tierctl_tests --gtest_filter='-*Large*:Killed*'
    run_tests "programs under faults" build/fault_tests
    [ "$failed" -eq 0 ]
}

report() {
    mkdir -p build-coverage/html
    gcovr --filter tier/ --exclude-throw-branches --exclude-unreachable-branches \
        --txt - --print-summary --html-details build-coverage/html/index.html \
        --fail-under-line "$LINES_AT_LEAST" --fail-under-branch "$BRANCHES_AT_LEAST" \
        build-coverage/tier
}

install_packages "${BUILD_PACKAGES[@]}" gcovr libgtest-dev mount tzdata
build test cli_tests tierctl_tests fault_tests
build coverage all
run_all_tests
report
