#!/bin/sh
# history_test.sh FOLDER VXHOST EMULATOR...: reads every log of FOLDER and compares the rows with the
# transcript beside it. service.log was written by a running service and the others by "watch --json"
# beside a module, except for rare.log, which holds lines that need events of a real machine.
# RECORD=1 writes the transcripts instead. Read a new one line by line before it is kept.
set -u
folder=$1 vxhost=$2
shift 2
store=$(mktemp -d)
trap 'rm -rf "$store"' EXIT
failures=0
for log in "$folder"/*.log "$folder"/*.json; do
  expected="${log%.*}.txt"
  "$@" "$vxhost" --store "$store" history "$log" 2>&1 | tr -d '\r' > "$store/rows"
  if [ -n "${RECORD:-}" ]; then
    cp "$store/rows" "$expected"
  elif ! diff -u "$expected" "$store/rows"; then
    echo "failed: history reads $log differently"
    failures=$((failures + 1))
  fi
done

# Every failed delivery, and nothing else, of one subscription since a time.
"$@" "$vxhost" --store "$store" history "$folder/service.log" --failed --json \
  --subscription "$(awk '/not sent/ { print $4; exit }' "$folder/service.txt")" --since 2026-11-25T11:44:10 2>&1 |
  tr -d '\r' > "$store/rows"
if [ "$(wc -l < "$store/rows")" != 1 ] || ! grep -q '"decision":"not sent","failed":true' "$store/rows"; then
  echo "failed: the filters of history leave:"
  cat "$store/rows"
  failures=$((failures + 1))
fi
"$@" "$vxhost" --store "$store" history "$folder/service.log" --timeline "Z:$store/page.html" > "$store/rows" 2>&1
for wanted in 'subscription accepted</b> <span class="reason">629974c1, client vxhost.exe ann' \
  'refused</b> <span class="reason">it is signed with another key' \
  'dropped</b> <span class="reason">the service ended while it waited' 'the module is stopped</b>'; do
  grep -qF "$wanted" "$store/page.html" || { echo "failed: the page lacks $wanted"; failures=$((failures + 1)); }
done
if "$@" "$vxhost" history "$folder/watch.json" --timeline "Z:$store/none.html" > "$store/rows" 2>&1 ||
  ! grep -q 'needs the thread of each line' "$store/rows"; then
  echo "failed: history draws lines without threads:"
  cat "$store/rows"
  failures=$((failures + 1))
fi
rm -f "$store/rows" "$store/page.html"

# A stored package subscription names the row of its family.
mkdir "$store/kept"
printf '{"document":{"OrvaneServiceDocument":{"value":{"PackageCatalogEventSubscriptions":{"value":"[%s]"}}}}}' \
  '{\"packageFamilyName\":\"Maker.App_1\"}' > "$store/values"
"$@" "$vxhost" --store "$store/kept" store import "$store/values" > /dev/null 2>&1
if ! "$@" "$vxhost" --store "$store/kept" history "$folder/rare.log" --subscription 1 2>&1 |
  grep -q 'uninstall Maker.App_1 [0-9a-f]\{8\} .*ran: process 4711'; then
  echo "failed: history does not name the package subscription"
  failures=$((failures + 1))
fi
rm -r "$store/kept" "$store/values"
[ -z "$(ls -A "$store")" ] || { echo "failed: history makes a store"; failures=$((failures + 1)); }
exit $((failures > 0))
