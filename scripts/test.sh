#!/usr/bin/env bash
# Installs what is missing, checks the sources, and runs every test twice: on the release build and
# under the address and undefined-behaviour sanitizers. The last line counts both runs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

step() { printf '\n== %s\n' "$*"; }

# run_tests PRESET: builds and runs one preset; adds to the counts.
passed=0 failed=0 skipped=0
run_tests() {
    local preset=$1 results=$PWD/test-results-$1.xml
    step "Build: $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --parallel "$(nproc)" -- --quiet
    step "Test: $preset"
    ctest --preset "$preset" --output-junit "$results" --quiet || true
    local tests failures skips
    tests=$(attribute tests "$results")
    failures=$(attribute failures "$results")
    skips=$(attribute skipped "$results")
    passed=$((passed + tests - failures - skips))
    failed=$((failed + failures))
    skipped=$((skipped + skips))
    rm -f "$results"
}

# attribute NAME FILE: a count of a JUnit file's test suite.
attribute() {
    grep -m1 -oE "^[[:space:]]*$1=\"[0-9]+\"" "$2" | grep -oE '[0-9]+'
}

install_packages "${BUILD_PACKAGES[@]}" git libgtest-dev clang-format clang-tidy mandoc mount

step "Format"
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
mandoc -Tlint -Wwarning docs/*.8

run_tests test
step "Lint"
git ls-files 'tier/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy -p build --quiet 2>/dev/null
run_tests sanitize

echo
if [ "$skipped" -eq 0 ]; then
    echo "$passed passed, $failed failed"
else
    echo "$passed passed, $failed failed, $skipped skipped"
fi
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
