#!/usr/bin/env bash
# Installs what is missing, checks the sources, and runs every test twice: on the release build and
# under the address and undefined-behaviour sanitizers. The last line counts both runs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

step() { printf '\n== %s\n' "$*"; }

build() {
    step "Build: $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)" -- --quiet
}

# run_tests TITLE CTEST-ARGUMENT...: runs tests and adds to the counts.
passed=0 failed=0 skipped=0
run_tests() {
    step "Test: $1"
    shift
    local results=$PWD/test-results.xml
    ctest "$@" --output-junit "$results" --quiet || true
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

install_packages "${BUILD_PACKAGES[@]}" git libgtest-dev clang-format clang-tidy mandoc mount \
    strace tzdata valgrind

step "Format"
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
mandoc -Tlint -Wwarning docs/*.8

build test
run_tests "release build" --preset test
step "Lint"
git ls-files 'tier/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy -p build --quiet 2>/dev/null
build sanitize
run_tests "functions under the sanitizers" --preset sanitize
export ZU_TIER_PROGRAMS=$PWD/build-sanitize
run_tests "programs under the sanitizers" --preset test --label-regex programs

echo
if [ "$skipped" -eq 0 ]; then
    echo "$passed passed, $failed failed"
else
    echo "$passed passed, $failed failed, $skipped skipped"
fi
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
