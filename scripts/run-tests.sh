#!/usr/bin/env bash
# Builds everything and runs every test suite.
#   bash scripts/run-tests.sh [BUILD_DIR [extra cmake arguments...]]
# Installs what the build and the end-to-end tests need when it is missing
# (scripts/setup.sh). BUILD_TYPE picks the build type (RelWithDebInfo).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
[ $# -gt 0 ] && shift
# Extra settings go into the build folder's cache first; setup keeps them.
if [ $# -gt 0 ] && command -v cmake >/dev/null 2>&1; then
  cmake -S "$root" -B "$build" "$@" >/dev/null
fi
BUILD_DIR=$build bash "$root/scripts/setup.sh"
if [ $# -gt 0 ]; then
  cmake -S "$root" -B "$build" "$@" >/dev/null
  cmake --build "$build" -j"$(nproc)"
fi
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 300
