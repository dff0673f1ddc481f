#!/usr/bin/env bash
# Sets up the machine when needed (see setup.sh), builds the translate command
# and translates examples/hello.php through the real php, printing the merged
# page on standard output. It also writes the page's preview, an HTML file to
# open in a browser, and prints its path last. Set-up and build messages go
# to standard error.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
export BUILD_DIR

"$ROOT/scripts/setup.sh" qztranslate >&2
preview="$BUILD_DIR/hello.php.preview.html"
"$BUILD_DIR/qztranslate" --preview "$preview" "$ROOT/examples/hello.php"
echo "demo: the preview of examples/hello.php is $preview" >&2
