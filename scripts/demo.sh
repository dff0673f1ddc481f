#!/usr/bin/env bash
# Sets up the machine when needed (see setup.sh), builds the translate command
# and translates examples/hello.php through the real php, printing the merged
# page on standard output. Set-up and build messages go to standard error.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
export BUILD_DIR

"$ROOT/scripts/setup.sh" qztranslate >&2
exec "$BUILD_DIR/qztranslate" "$ROOT/examples/hello.php"
