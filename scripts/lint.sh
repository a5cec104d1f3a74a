#!/usr/bin/env bash
# Installs what is missing and checks the sources without running them: their format, the manual
# page, and what clang-tidy and cppcheck have to say. BUILD is where the tool has been configured.
#
#   scripts/lint.sh [BUILD]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" clang-format clang-tidy cppcheck git mandoc
build=${1:-build}
[ -e "$build/compile_commands.json" ] || cmake --preset release -B "$build" >/dev/null

git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
mandoc -Tlint -Wwarning docs/*.8
# What takes longest comes first.
git ls-files 'tier/*.cpp' | tac |
    xargs -P "$(nproc)" -n 1 clang-tidy -p "$build" --quiet 2>/dev/null
cppcheck -j "$(nproc)" --quiet --std=c++20 --enable=warning,performance,portability,style \
    --inline-suppr --suppressions-list=.cppcheck-suppressions --error-exitcode=1 \
    -I tier tier
