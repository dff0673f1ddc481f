#!/usr/bin/env bash
# Branch coverage of the library (ServerTranslator/) and of the stand-in host
# (host/) under the project's own tests, measured with gcovr.
#
#   bash scripts/coverage.sh [BUILD_DIR]     (default: build-coverage)
#
# Builds the library, the host and the test suites with --coverage, without
# optimisation, into their own folder; runs every test but the browser's
# (the preview's screenshots reach no code the other preview tests do not);
# prints one branch report per folder, lowest files last.
#
# The figures count the branches of our own code. Two kinds of branch that
# only the compiler makes are kept out of the build: the thread-safe guard of
# function-local statics (-fno-threadsafe-statics; every entry point runs on
# one thread) and the exception edges of calls (-fno-exceptions; no code of
# ours throws or catches). gcovr leaves out any exception branch still seen
# (--exclude-throw-branches) and branches on lines without code
# (--exclude-unreachable-branches). Nothing else is excluded. The packages it
# needs, gcovr among them, come from scripts/setup.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-coverage}

flags="-O0 -g --coverage -fno-threadsafe-statics -fno-exceptions -DQZ_COVERAGE"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Coverage -DQZ_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS_COVERAGE="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS_COVERAGE=--coverage -DCMAKE_SHARED_LINKER_FLAGS_COVERAGE=--coverage >/dev/null
BUILD_DIR=$build BUILD_TYPE=Coverage bash "$root/scripts/setup.sh"
# Building runs each suite once to list its tests: only the run below counts.
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j"$(nproc)" --timeout 300 -LE browser >"$build/coverage-ctest.log" 2>&1 ||
  { tail -40 "$build/coverage-ctest.log"; exit 1; }
grep -E 'tests passed|tests failed' "$build/coverage-ctest.log"

report() {
  echo "Branch coverage of $1/:"
  gcovr --root "$root" --object-directory "$build" --filter "$root/$1/" --exclude-throw-branches \
    --exclude-unreachable-branches --branches --sort-percentage 2>/dev/null |
    grep -v -e '^-*$' -e 'GCC Code Coverage Report' -e '^Directory:'
}
report ServerTranslator
report host
