#!/usr/bin/env bash
# Installs what is missing, and changes the sources in small ways to see which change no test
# notices. The arguments go to tests/mutation/mutate.py.
#
#   scripts/mutate.sh [--count N] [--seed S] [FILE...]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" ninja-build python3
PYTHONDONTWRITEBYTECODE=1 exec python3 tests/mutation/mutate.py "$@"
