#!/usr/bin/env bash
# Installs what is missing and checks the sources without running them: their format, the manual
# pages, and the warnings of clang-tidy and cppcheck.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" clang-format clang-tidy cppcheck git mandoc
# Only configured: clang-tidy does not read the headers that g++ has precompiled.
cmake --preset release -B build-lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null

git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
mandoc -Tlint -Wwarning docs/*.8
# The slowest come first.
git ls-files 'tier/*.cpp' | tac |
    xargs -P "$(nproc)" -n 1 clang-tidy -p build-lint --quiet 2>/dev/null
cppcheck -j "$(nproc)" --quiet --std=c++20 --enable=warning,performance,portability,style \
    --inline-suppr --suppressions-list=.cppcheck-suppressions --error-exitcode=1 \
    -I tier tier
