#!/usr/bin/env bash
# Fuzzes the library with libFuzzer under AddressSanitizer and
# UndefinedBehaviorSanitizer (fuzz/README.md says what each target checks).
#
#   scripts/fuzz.sh TARGET MINUTES [libFuzzer options...]  fuzzes one target
#   scripts/fuzz.sh all MINUTES [libFuzzer options...]     every target in turn, MINUTES each
#   scripts/fuzz.sh merge TARGET   adds to fuzz/corpus/TARGET the inputs of the last runs
#                                  that reach code its files do not
#   scripts/fuzz.sh check          builds every target, runs each once over its corpus
#   scripts/fuzz.sh list           names the targets
#
# Builds with clang into build-fuzz/ (FUZZ_BUILD_DIR overrides), installing
# clang and its sanitizer and fuzzer runtimes with apt-get when missing
# (needs root or sudo then). A run fuzzes at the lowest priority, one
# process, starting from fuzz/corpus/TARGET and keeping what it finds in
# build-fuzz/runs/TARGET/: new inputs in corpus/, failing inputs as crash-*,
# leak-*, timeout-* or slow-unit-*, and the log of each run, whose last
# lines give the figures for fuzz/README.md.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${FUZZ_BUILD_DIR:-$ROOT/build-fuzz}"
JOBS="${JOBS:-2}"

usage() {
  sed -n '5,10p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

targets() {
  sed -n '/^set(QZ_FUZZ_TARGETS/,/^)/p' "$ROOT/fuzz/CMakeLists.txt" | sed '1d;$d' | tr -d ' '
}

# clang, and the runtimes of its own version, which Debian packages apart.
install_missing() {
  local missing=()
  command -v cmake >/dev/null 2>&1 || missing+=(cmake)
  command -v make >/dev/null 2>&1 || missing+=(make)
  if ! command -v clang++ >/dev/null 2>&1; then
    missing+=(clang)
  else
    local probe
    probe="$(mktemp -d)"
    echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' > "$probe/p.cpp"
    if ! clang++ -fsanitize=fuzzer,address,undefined "$probe/p.cpp" -o "$probe/p" >/dev/null 2>&1; then
      local version
      version="$(clang++ --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n 1)"
      missing+=("libclang-rt-${version}-dev")
    fi
    rm -rf "$probe"
  fi
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || { echo "fuzz: need root to install: ${missing[*]}" >&2; exit 1; }
    sudo="sudo"
  fi
  echo "fuzz: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -q
  $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
  # A fresh clang may still lack the runtimes of its version.
  [[ " ${missing[*]} " == *" clang "* ]] && install_missing
  return 0
}

build() {
  install_missing
  cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQZ_FUZZ_ENGINE=ON -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_BENCH=OFF >/dev/null
  nice -n 19 cmake --build "$BUILD_DIR" -j"$JOBS" --target "$@" >&2
}

known() {
  targets | grep -qx "$1" || { echo "fuzz: no target $1 (scripts/fuzz.sh list)" >&2; exit 2; }
}

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"

fuzz_one() {
  local target="$1" minutes="$2"
  shift 2
  local run="$BUILD_DIR/runs/$target"
  local log
  log="$run/fuzz-$(date +%Y%m%d-%H%M%S).log"
  mkdir -p "$run/corpus"
  echo "fuzz: $target for $minutes minutes; log $log" >&2
  local status=0
  nice -n 19 "$BUILD_DIR/fuzz/$target" "$run/corpus" "$ROOT/fuzz/corpus/$target" \
    -max_total_time=$((minutes * 60)) -timeout=10 -print_final_stats=1 -dict="$ROOT/fuzz/markup.dict" \
    -artifact_prefix="$run/" "$@" >"$log" 2>&1 || status=$?
  # The last status line: total executions, coverage (cov: edges, ft:
  # features), corpus and speed; then the rate over the whole run.
  grep -E '^#[0-9]+' "$log" | tail -n 1 >&2 || true
  grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' "$log" >&2 || true
  if [ "$status" -ne 0 ]; then
    echo "fuzz: $target failed (status $status); see $log and $run/" >&2
    grep -E 'ERROR|broken promise|SUMMARY' "$log" | head -n 5 >&2 || true
  fi
  return "$status"
}

[ $# -ge 1 ] || usage
case "$1" in
  list)
    targets
    ;;
  check)
    mapfile -t all < <(targets)
    build "${all[@]}"
    for target in "${all[@]}"; do
      echo "fuzz: $target over its corpus" >&2
      nice -n 19 "$BUILD_DIR/fuzz/$target" -runs=0 "$ROOT/fuzz/corpus/$target" >/dev/null 2>"$BUILD_DIR/$target.check.log" ||
        { cat "$BUILD_DIR/$target.check.log" >&2; exit 1; }
    done
    ;;
  merge)
    [ $# -eq 2 ] || usage
    known "$2"
    build "$2"
    nice -n 19 "$BUILD_DIR/fuzz/$2" -merge=1 "$ROOT/fuzz/corpus/$2" "$BUILD_DIR/runs/$2/corpus" >&2
    ;;
  all)
    [ $# -ge 2 ] || usage
    minutes="$2"
    [[ "$minutes" =~ ^[1-9][0-9]*$ ]] || usage
    shift 2
    mapfile -t all < <(targets)
    build "${all[@]}"
    failed=0
    for target in "${all[@]}"; do fuzz_one "$target" "$minutes" "$@" || failed=1; done
    exit "$failed"
    ;;
  *)
    [ $# -ge 2 ] || usage
    known "$1"
    target="$1"
    minutes="$2"
    [[ "$minutes" =~ ^[1-9][0-9]*$ ]] || usage
    shift 2
    build "$target"
    fuzz_one "$target" "$minutes" "$@"
    ;;
esac
