#!/bin/sh
# history_test.sh FOLDER VXHOST EMULATOR...: reads every log of FOLDER and compares the rows with the
# transcript beside it. service.log was written by a running service and watch.json by "watch --json", which
# shows no records. rare.log holds records that need events of a real machine, a restart or a later version.
# RECORD=1 writes the transcripts instead.
set -u
folder=$1 vxhost=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
store=$work/store
mkdir "$store"
for log in "$folder"/*.log "$folder"/*.json; do
  exits 0 run --store "$store" history "$log"
  same "${log%.*}.txt" "$work/output"
done

# Windows PowerShell saves what is redirected as UTF-16.
iconv -f UTF-8 -t UTF-16 "$folder/service.log" > "$work/service.log"
exits 0 run --store "$store" history "$work/service.log"
cmp -s "$folder/service.txt" "$work/output" || fail "history does not read UTF-16:" "$work/output"

# Every failed delivery, and nothing else, of one subscription since a time.
expect 0 '"decision":"not sent","failed":true' --store "$store" history "$folder/service.log" --failed --json \
  --subscription "$(awk '/not sent/ { print $4; exit }' "$folder/service.txt")" --since 2026-11-26T05:38:30
[ "$(wc -l < "$work/output")" = 1 ] || fail "the filters of history leave:" "$work/output"
expect 0 'ran: process 888' --store "$store" history "$folder/service.log" --timeline "Z:$work/page.html"
for wanted in '"decision":"accepted","tone":"good","subscription":"0a4a3c1f"' '"what":"ended"' \
  '"decision":"refused","tone":"bad","why":"it was not signed with a pinned key'; do
  grep -qF "$wanted" "$work/page.html" || fail "the page lacks $wanted"
done
expect 2 'needs the thread of each line' history "$folder/watch.json" --timeline "Z:$work/none.html"

# The number of a stored subscription stands for its hash.
mkdir "$work/kept"
printf '{"document":{"OrvaneServiceDocument":{"value":{"PackageCatalogEventSubscriptions":{"value":"[%s]"}}}}}' \
  '{\"packageFamilyName\":\"Maker.App_1\"}' > "$work/values"
exits 0 run --store "$work/kept" store import "$work/values"
exits 0 run --store "$work/kept" history "$folder/rare.log" --subscription 1
grep -q 'uninstall Maker.App_1 da563f3b .*ran: process 4711' "$work/output" ||
  fail "history does not find the package subscription:" "$work/output"
[ -z "$(ls -A "$store")" ] || fail "history makes a store"
exit $((failures > 0))
