#!/usr/bin/env bash
# Installs what is missing and runs the tests of salvage, which copies in several threads, over
# programs under ThreadSanitizer. Takes some minutes; not part of scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh
. scripts/sanitized.sh

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
build test tierctl_tests zu_tier
build threads zu_tier zu_tierctl
export ZU_TIER_PROGRAMS=$PWD/build-threads
GTEST_FILTER='*Salvage*' run_tests "salvage, under ThreadSanitizer" build/tierctl_tests
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
