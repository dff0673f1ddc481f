#!/usr/bin/env bash
# Prepares a fresh machine and builds the project into build/ (or $BUILD_DIR).
#
#   scripts/setup.sh              builds everything (library, command, tests)
#   scripts/setup.sh TARGET...    builds only those targets, e.g. qztranslate
#
# Installs, through apt-get and only when missing: the build tools (cmake,
# g++, GoogleTest, Google Benchmark), ICU for the host's encodings, the servers the translate command
# drives in the demos and tests (php for php pages, erb from ruby for erb
# pages), and for the preview's browser tests Debian's chromium with libpng
# and nlohmann-json to read what it renders, and gcovr for the coverage
# report (scripts/coverage.sh). Needs root or sudo only when something must
# be installed.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}"

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
[ -e /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -e /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
[ -e /usr/include/unicode/ucnv.h ] || missing+=(libicu-dev)
command -v php >/dev/null 2>&1 || missing+=(php-cli)
command -v erb >/dev/null 2>&1 || missing+=(ruby)
command -v chromium >/dev/null 2>&1 || missing+=(chromium)
[ -e /usr/include/png.h ] || missing+=(libpng-dev)
[ -e /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)
command -v gcovr >/dev/null 2>&1 || missing+=(gcovr)

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
      SUDO="sudo"
    else
      echo "setup: need root to install: ${missing[*]}" >&2
      exit 1
    fi
  fi
  echo "setup: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

jobs="$(nproc 2>/dev/null || echo 2)"
cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE="$BUILD_TYPE" >/dev/null
if [ $# -gt 0 ]; then
  cmake --build "$BUILD_DIR" -j"$jobs" --target "$@"
else
  cmake --build "$BUILD_DIR" -j"$jobs"
fi
echo "setup: built into $BUILD_DIR" >&2
