#!/usr/bin/env bash
# Measures translations side by side with their yardsticks, in one run:
#
#   bash scripts/bench.sh            everything (about ten minutes)
#   bash scripts/bench.sh quick      the whole command and the library on 1 MB only
#
# 1. The whole command on a 1 MB realistic PHP page against php alone on the
#    same page, and with --server cat against cat (hyperfine, medians).
# 2. Peak resident memory of the command on that page, and on a page whose
#    server output is 50 times the page (GNU time, less a tiny page's).
# 3. build-bench/bench/TranslateBench: the library's own work replayed
#    beside memcpy, and hostile shapes at 1, 4, 16 and 64 MB with their
#    time per unit and peak memory (bench/README.md explains the table).
#
# Installs what is missing (apt-get): the build tools, Google Benchmark, ICU,
# hyperfine, php, GNU time and perf. Builds a Release build into
# build-bench/ (BENCH_DIR overrides). Notes the machine's load first: the
# ratios are what to compare, the times move with the load.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${BENCH_DIR:-$ROOT/build-bench}"
MODE="${1:-all}"

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
[ -e /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
[ -e /usr/include/unicode/ucnv.h ] || missing+=(libicu-dev)
command -v hyperfine >/dev/null 2>&1 || missing+=(hyperfine)
command -v php >/dev/null 2>&1 || missing+=(php-cli)
[ -x /usr/bin/time ] || missing+=(time)
command -v perf >/dev/null 2>&1 || missing+=(linux-perf)
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  echo "bench: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_FUZZ=OFF >/dev/null
cmake --build "$BUILD" -j2 --target qztranslate TranslateBench qzprobe >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
qz="$BUILD/qztranslate"

echo "== machine"
echo "$(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(free -g | awk '/Mem:/ {print $2}') GiB"
echo "load: $(uptime | sed 's/.*load average: //')"

"$BUILD/bench/qzprobe" realistic 1048576 --page > "$work/page.php"
# A page whose output is 50 times its size: 20 KB of text, and a loop.
{
  for i in $(seq 1 200); do echo "<p class=\"intro\">Static text of the page, paragraph $i, kept as it is.</p>"; done
  echo '<table><?php for ($i = 0; $i < 6300; $i++) { ?><tr class="<?= $i % 2 ? "odd" : "even" ?>"><td><?= $i ?></td><td>row text</td></tr>'
  echo '<?php } ?></table>'
} > "$work/loop.php"

# Median of a hyperfine CSV row, in ms.
median() { awk -F, -v row="$2" 'NR == row + 1 { printf "%.1f", $4 * 1000 }' "$1"; }

compare() {  # label, yardstick command, command
  hyperfine -N -w 3 -r "${RUNS:-30}" --export-csv "$work/h.csv" "$2" "$3" >/dev/null 2>&1
  local a b
  a=$(median "$work/h.csv" 1)
  b=$(median "$work/h.csv" 2)
  awk -v l="$1" -v a="$a" -v b="$b" 'BEGIN { printf "%-40s %8.1f ms %8.1f ms %7.2fx\n", l, a, b, b / a }'
}

echo
echo "== whole command, 1 MB realistic page (medians; yardstick, command, ratio)"
cd "$work"
compare "qztranslate page.php vs php page.php" "php page.php" "$qz page.php"
compare "qztranslate --server cat vs cat" "cat page.php" "$qz --server cat page.php"

echo
echo "== peak resident memory of the command's own process"
# With --server-output the command runs no child, so its peak is its own
# (a server's would count otherwise): the server's answer is made first.
peak() {  # label, UTF-16 bytes to divide by, command...
  local label=$1 bytes=$2
  shift 2
  local kb
  kb=$(/usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1)
  awk -v l="$label" -v kb="$kb" -v b="$bytes" -v fixed="${FIXED_KB:-0}" \
    'BEGIN { printf "%-44s %8.1f MB %7.2f x\n", l, kb / 1024, (kb - fixed) * 1024 / b }'
}
answer() {  # page, answer file
  "$qz" --labelled "$work/labelled.php" "$1"
  php "$work/labelled.php" > "$2"
}
FIXED_KB=$(/usr/bin/time -f %M "$qz" --server-output "$ROOT/examples/hello.aspx.server-output.html" \
  "$ROOT/examples/hello.aspx" 2>&1 >/dev/null | tail -1)
echo "the fixed part (a tiny page): $(awk -v kb="$FIXED_KB" 'BEGIN { printf "%.1f MB", kb / 1024 }'), taken off below"
answer page.php page.out
page16=$(( $(stat -c %s page.php) * 2 ))
peak "realistic 1 MB, per UTF-16 byte of the page" "$page16" "$qz" --server-output page.out page.php
answer loop.php loop.out
loop16=$(( $(stat -c %s loop.php) * 2 ))
out16=$(( $(stat -c %s loop.out) * 2 ))
echo "loop page: $(stat -c %s loop.php) bytes, its output $(stat -c %s loop.out) bytes" \
  "($(( $(stat -c %s loop.out) / $(stat -c %s loop.php) ))x)"
peak "output ~50x, per UTF-16 byte of the page" "$loop16" "$qz" --server-output loop.out loop.php
peak "output ~50x, per byte of page + output" "$(( loop16 + out16 ))" "$qz" --server-output loop.out loop.php

echo
echo "== library and hostile shapes"
filter='.*'
[ "$MODE" = quick ] && filter='Library/realistic|Translate/realistic/1MB'
"$BUILD/bench/TranslateBench" --benchmark_filter="$filter" 2>&1 | grep -v '^\*\*\*'
