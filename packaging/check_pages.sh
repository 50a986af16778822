#!/bin/sh
# check_pages.sh FOLDER: fails if a page in this staged delivery links to a file that the delivery lacks, or
# names one as a command or as a source to read. Names in square brackets and in a "Tests:" paragraph are
# evidence, which only the sources contain.
set -eu
cd "$1"
missing=$({
  for page in *.md docs/*.md; do
    grep -oE '\]\([^)#]+' "$page" | cut -c 3- | grep -v : | sed "s|^|$(dirname "$page")/|" || :
    sed -E '/^Tests: /,/^$/d; s/\[`[^]]*\]//g' "$page" | tr ' \t`"(),;|' '\n' | sed 's|^\./||; s|[.:]$||; s|#.*||' |
      grep -E '^(\.ci|bench|build|cmake|docs|fuzz|hosting|lib|packaging|samples|scenarios|schemas|scripts|src|stores|tests)/' || :
    ! grep -qE '(^|`)(cmake|ctest) ' "$page" || echo "$page: a build"
  done
  for scenario in scenarios/*.json; do
    sed -nE 's|.*"store": "([^"]+)".*|scenarios/\1|p' "$scenario"
  done
} | sort -u | while IFS= read -r name; do [ -e "$name" ] || echo "$name"; done)
[ -z "$missing" ] || {
  echo "check_pages.sh: pages name what the delivery lacks:" "$missing" >&2
  exit 1
}
