#!/usr/bin/env bash
# Translates the pages of real web applications, as Debian packages them,
# through an identity server (`--server cat`), and sorts each outcome:
#
#   identical   the merged page is the page, byte for byte
#   self-close  it differs only where an ordinary tag written `"/>` got its
#               translated-value attribute (the library rebuilds such a tag:
#               its source attribute text ends in "/", the server's does not)
#   differs     any other difference: look at it (the file is kept)
#   refused     the command refused the page (its message is kept, with what
#               `qztranslate --check` says)
#   failed      a crash, a signal or the time limit: a fault
#
#   bash scripts/realpages.sh [PACKAGE...]     (default: the list below)
#
# Downloads the packages with apt-get (needs `apt-get update` to have run)
# into $REALPAGES_DIR (default /tmp/qz-realpages), unpacks them there and
# never changes them; the pages are not part of this repository. Builds
# qztranslate first (scripts/setup.sh). Prints one line per package and the
# totals; exits 1 when any page failed.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
WORK="${REALPAGES_DIR:-/tmp/qz-realpages}"
QZ="${BUILD_DIR:-$ROOT/build}/qztranslate"
PACKAGES=("$@")
[ ${#PACKAGES[@]} -gt 0 ] || PACKAGES=(wordpress phpmyadmin dokuwiki mediawiki roundcube-core cacti
  gosa asp.net-examples redmine ruby-actionpack ruby-railties tdiary-core hiki)

BUILD_DIR="${BUILD_DIR:-$ROOT/build}" bash "$ROOT/scripts/setup.sh" qztranslate >/dev/null
mkdir -p "$WORK/debs" "$WORK/out"

totals=(0 0 0 0 0 0)
for package in "${PACKAGES[@]}"; do
  tree="$WORK/tree/$package"
  if [ ! -d "$tree" ]; then
    (cd "$WORK/debs" && apt-get download -q "$package" >/dev/null 2>>"$WORK/debs/apt.log") ||
      { echo "realpages: cannot download $package" >&2; continue; }
    mkdir -p "$tree"
    dpkg-deb -x "$(ls -t "$WORK"/debs/"${package}"_*.deb | head -n 1)" "$tree"
  fi
  counts=(0 0 0 0 0 0)  # pages identical self-close differs refused failed
  out="$WORK/out/$package"
  mkdir -p "$out"
  while IFS= read -r -d '' page; do
    counts[0]=$((counts[0] + 1))
    name="$out/$(printf '%s' "${page#"$tree"/}" | tr '/' '_')"
    status=0
    timeout 60 "$QZ" --timeout 20 --server cat -o "$name.merged" "$page" 2>"$name.errors" || status=$?
    if [ "$status" -eq 0 ] && cmp -s "$page" "$name.merged"; then
      counts[1]=$((counts[1] + 1))
      rm -f "$name.merged" "$name.errors"
    elif [ "$status" -eq 0 ] &&
      sed -E 's#/ qzTranslatedValue="[^"]*"/>#/>#g' "$name.merged" | cmp -s "$page" -; then
      counts[2]=$((counts[2] + 1))
      rm -f "$name.merged" "$name.errors"
    elif [ "$status" -eq 0 ]; then
      counts[3]=$((counts[3] + 1))
    elif [ "$status" -eq 1 ]; then
      counts[4]=$((counts[4] + 1))
      "$QZ" --check "$page" >>"$name.errors" 2>&1 || true
    else
      counts[5]=$((counts[5] + 1))
      echo "realpages: FAILED (status $status): $page" >&2
    fi
  done < <(find "$tree" -type f \( -iname '*.php' -o -iname '*.phtml' -o -iname '*.erb' -o -iname '*.rhtml' \
    -o -iname '*.aspx' -o -iname '*.ascx' -o -iname '*.master' -o -iname '*.asp' \) -print0 | sort -z)
  printf '%-18s %6d pages: %6d identical, %4d self-close, %4d differ, %4d refused, %d failed\n' "$package" \
    "${counts[@]}"
  for i in 0 1 2 3 4 5; do totals[i]=$((totals[i] + counts[i])); done
done
printf '%-18s %6d pages: %6d identical, %4d self-close, %4d differ, %4d refused, %d failed\n' "all" "${totals[@]}"
echo "realpages: what differs or was refused is kept in $WORK/out"
[ "${totals[5]}" -eq 0 ]
