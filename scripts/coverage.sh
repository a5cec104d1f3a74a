#!/usr/bin/env bash
# Installs what is missing, builds, runs the tests over the programs under the sanitizers, which
# count the lines and branches they take, and prints a table of the sources in tier/;
# build-sanitize/html/index.html shows them line by line. Fails below 99 % of the lines or 95 % of
# the branches.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh
. scripts/sanitized.sh

install_packages "${BUILD_PACKAGES[@]}" gcovr "${TEST_PACKAGES[@]}"
build test unit_test_cases cli_tests tierctl_tests fault_tests
build sanitize
run_sanitized_tests
[ "$failed" -eq 0 ]
report_coverage
