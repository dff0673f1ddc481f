#!/usr/bin/env bash
# Branch coverage of the library (ServerTranslator/) and of the stand-in host
# (host/) under the project's own tests, measured with gcovr.
#
#   bash scripts/coverage.sh [BUILD_DIR]     (default: build-coverage)
#
# Builds the library, the host and the test suites with --coverage, without
# optimisation, into their own folder, runs every test but the browser's
# (the preview's screenshots add no coverage of either folder and are the
# slowest), and prints one branch report per folder. The figures count the
# branches of our own code: gcovr leaves out the branches the compiler adds
# for exceptions (--exclude-throw-branches) and those it proves can never be
# taken (--exclude-unreachable-branches). Nothing else is excluded.
# Installs gcovr (and the build's own packages, scripts/setup.sh) when missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-coverage}

if ! command -v gcovr >/dev/null 2>&1; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  echo "coverage: installing gcovr" >&2
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends gcovr
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Coverage -DQZ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS_COVERAGE="-O0 -g --coverage -fno-threadsafe-statics -fno-exceptions -DQZ_COVERAGE" -DCMAKE_EXE_LINKER_FLAGS_COVERAGE=--coverage \
  -DCMAKE_SHARED_LINKER_FLAGS_COVERAGE=--coverage >/dev/null
BUILD_DIR=$build BUILD_TYPE=Coverage bash "$root/scripts/setup.sh"
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j"$(nproc)" --timeout 300 -LE browser >"$build/coverage-ctest.log" 2>&1 ||
  { tail -40 "$build/coverage-ctest.log"; exit 1; }
tail -3 "$build/coverage-ctest.log"

report() {
  gcovr --root "$root" --object-directory "$build" --filter "$root/$1/" \
    --exclude-throw-branches --exclude-unreachable-branches --branches --sort-percentage
}
echo "Branch coverage of the library (ServerTranslator/):"
report ServerTranslator
echo "Branch coverage of the host (host/):"
report host
