#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: all of them on the release build, those of
# functions and programs under the sanitizers, where they measure coverage, and every fuzz target
# for some seconds. The last line counts the tests of the release build and of the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh
. scripts/sanitized.sh

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" dpkg-dev gcovr git jq lintian pdsh \
    prometheus strace systemd valgrind
install_duckdb

build test
cpack --config build/CPackConfig.cmake -B build/package >/dev/null
run_tests "release build" \
    build/{tierctl,sweep,cli,fault,unit,memcheck,runbook,package,cost,hardening}_tests

build sanitize
run_sanitized_tests
report_coverage

step "Fuzz"
scripts/fuzz.sh all 3

step "Counts"
if [ "$skipped" -eq 0 ]; then
    echo "$passed passed, $failed failed"
else
    echo "$passed passed, $failed failed, $skipped skipped"
fi
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
