#!/bin/sh
# history_test.sh FOLDER VXHOST EMULATOR...: reads every log in FOLDER and compares the rows with
# the transcript next to it. A running service wrote service.log. "watch --json", which shows no
# records, wrote watch.json. rare.log contains records that need events of a real machine, a restart
# or a later version. quiet.log contains no delivery. RECORD=1 writes the transcripts instead.
set -u
folder=$1 vxhost=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
store=$work/store
mkdir "$store"
for log in "$folder"/*.log "$folder"/*.json; do
  exits 0 run --store "$store" history "$log" --utc --until 2026-11-26T10:00:00Z
  same "${log%.*}.txt" "$work/output"
done

# Windows PowerShell saves redirected output as UTF-16.
iconv -f UTF-8 -t UTF-16 "$folder/service.log" > "$work/service.log"
exits 0 run --store "$store" history "$work/service.log" --utc --until 2026-11-26T10:00:00Z
cmp -s "$folder/service.txt" "$work/output" || fail "history does not read UTF-16:" "$work/output"

# The filters leave only the failed deliveries of one subscription since a given time.
expect 0 '"decision":"not sent","failed":true' --store "$store" history "$folder/service.log" --failed --json \
  --subscription "$(awk '/not sent/ { print $4; exit }' "$folder/service.txt")" --since 2026-11-26T05:38:30Z
[ "$(grep -c '^{' "$work/output")" = 1 ] || fail "the filters of history leave:" "$work/output"

# quiet WHY ARG...: expects WHY, the reason why nothing was delivered, as the last line for these arguments.
quiet() {
  why=$1
  shift
  exits 0 run --store "$store" history "$folder/quiet.log" --utc "$@"
  [ "$(tail -n 1 "$work/output")" = "$why" ] ||
    fail "history $* does not end with \"$why\", but:" "$work/output"
}
day=2026-11-26T
nothing='Nothing was delivered:'
quiet "$nothing the service did not run from ${day}06:20:00.000Z to ${day}08:00:00.000Z; no power event came" \
  --since ${day}06:15Z --until ${day}08:15Z
quiet "$nothing the subscription was stored later, at ${day}09:00:00.000Z, than the last event, power 10 at ${day}08:30:00.000Z" \
  --since ${day}08:00:00Z --until ${day}09:05Z --program LATE
quiet "Nothing was delivered to it: it has not waited for the last event, power 18 at ${day}06:00:00.000Z: vxhost explain power 18" \
  --since ${day}05:00Z --until ${day}06:05Z --subscription aaaaaaaa
grep -q 'accepted: client ann (Tool.exe)' "$work/output" || fail 'the row lacks its program:' "$work/output"
quiet 'The log does not mention it. Deliveries to other subscriptions: 1. What is stored: vxhost subscriptions' \
  --since ${day}05:00Z --until ${day}06:05Z --program Report.exe

# A delivery that waits while the module stops records its end after that. It has one row.
{
  sed -n '/"waiting".*"9b43bfcf"/p' "$folder/service.log"
  sed -n '/"the module is stopped"/{p;q}' "$folder/service.log"
  sed -n '/"waiting".*"9b43bfcf"/s/"decision":"waiting"/"decision":"dropped","reason":"service_ended"/p' "$folder/service.log"
} > "$work/stopped.log"
expect 0 'dropped: the service ended while it waited' --store "$store" history "$work/stopped.log"
[ "$(grep -c ' 9b43bfcf ' "$work/output")" = 1 ] || fail "the delivery has several rows:" "$work/output"

# A service that was renamed leaves a log that ends with a stop. The other service runs, later even
# with the process id of the earlier one.
two=$work/two
mkdir "$two"
sed 's/2026-11-26/2026-10-20/; s/9b43bfcf/aaaaaaaa/g' "$work/stopped.log" | head -n 2 > "$two/vxhost-20261020-0001.log"
cp "$folder/service.log" "$two/OrvaneService-20261126-0001.log"
exits 0 run --store "$store" history "$(windows "$two")" --utc --until 2026-11-26T05:38:32Z
! grep -q 'did not run' "$work/output" && [ "$(grep -c ' aaaaaaaa .*dropped' "$work/output")" = 1 ] &&
  [ "$(grep -c ' platform 1 *9b43bfcf ' "$work/output")" = 1 ] || fail "two services in a folder:" "$work/output"

# Times are local unless they name a zone. Each day's log has an event at its start and one at noon.
india() { (export TZ='<+0530>-5:30' && run "$@"); }
for day in yesterday today; do
  for time in '00:00' '12:00'; do
    sed "s/\"time\":\"[^\"]*\"/\"time\":\"$(TZ=UTC date -d "TZ=\"<+0530>-5:30\" $day $time" +%FT%T.000Z)\"/;/power event 18/!d" \
      "$folder/quiet.log"
  done
done > "$work/days.log"
for case in 'yesterday:4' 'today:2' '12:00:1' '00:01:1' '--until yesterday:1'; do
  since=${case%:*}
  case $since in --until*) arguments=$since ;; *) arguments="--since $since" ;; esac
  # shellcheck disable=SC2086 # an option and its value
  exits 0 india --store "$store" history "$work/days.log" $arguments
  count=$(grep -c '^....-..-..T[01][02]:00:00.000+05:30 power 18 .* received' "$work/output")
  [ "$count" = "${case##*:}" ] || fail "history $arguments shows $count events:" "$work/output"
done
# A page shows the last day and, for a dense log, only as much as a browser can show at once.
# draws COUNT FILE ARG...: the page for the file has COUNT entries and is smaller than 2 MB.
draws() {
  wanted=$1 file=$2
  shift 2
  exits 0 india --store "$store" history "$file" --timeline "Z:$work/page.html" "$@"
  count=$(grep -c '^,*{"at":' "$work/page.html")
  [ "$count" = "$wanted" ] && [ "$(wc -c < "$work/page.html")" -lt 2000000 ] ||
    fail "the page of $file $* has $count entries, wanted $wanted"
}
draws 3 "$work/days.log"
grep -q '"title":"The service from ....-..-..T12:00:00.000+05:30"' "$work/page.html" || fail 'the page begins otherwise'
draws 4 "$work/days.log" --since yesterday
awk -v record='{"kind":"power","decision":"ran","subscription":"aaaaaaaa","number":18,"delivery":1}' 'BEGIN { for (s = 0; s < 86400; s += 10)
  printf "{\"time\":\"2026-11-25T%02d:%02d:%02dZ\",\"level\":\"INFO\",\"thread\":1,\"process\":5,\"message\":\"ran %d\",\"record\":%s}\n",
    s / 3600, s / 60 % 60, s % 60, s, record }' > "$work/dense.log"
draws 4000 "$work/dense.log"
expect 2 '"soon" is not a time' history "$work/days.log" --since soon
expect 2 'No such file or directory; name the log files' history "$work/none"
expect 0 'ran: process 888' --store "$store" history "$folder/service.log" --timeline "Z:$work/page.html"
for wanted in '"decision":"accepted","tone":"good","subscription":"0a4a3c1f"' '"what":"ended"' \
  '"decision":"refused","tone":"bad","why":"it was not signed with a pinned key'; do
  grep -qF "$wanted" "$work/page.html" || fail "the page lacks $wanted"
done
expect 2 'needs the thread of each line' history "$folder/watch.json" --timeline "Z:$work/none.html"

# The log grows and continues in a second file. Each row is printed when it is recorded and again
# when its delivery ends.
logs=$work/grows
mkdir "$logs"
half=$(grep -n '"decision":"waiting".*"subscription":"faff689e"' "$folder/service.log" | cut -d: -f1)
head -n "$half" "$folder/service.log" > "$logs/Vx-20261126-0001.log"
touch "$work/rows"
# Does not use run, because ending run would not end the emulator.
"$emulator" ${prefix:+"$prefix"} "$vxhost" --store "$store" history "$(windows "$logs")" --follow --utc > "$work/rows" 2>&1 &
follower=$!
# shows COUNT PATTERN: waits up to ten seconds until COUNT rows match.
shows() {
  for _ in $(seq 100); do
    [ "$(grep -c "$2" "$work/rows")" = "$1" ] && return
    sleep 0.1
  done
  fail "history --follow does not show '$2' $1 times, but:" "$work/rows"
}
shows 1 ' platform 1 *faff689e .*waiting'
sed -n "$((half + 1)),85p" "$folder/service.log" >> "$logs/Vx-20261126-0001.log"
shows 1 ' platform 1 *faff689e .*ran: process 888'
stopped=$(grep -n '"the module is stopped"' "$folder/service.log" | head -n 1 | cut -d: -f1)
sed -n "86,${stopped}p" "$folder/service.log" > "$logs/Vx-20261126-0002.log"
shows 1 ' platform 1 *9b43bfcf .*dropped: its service ended before it did'
sed -n "$((stopped + 1)),\$p" "$folder/service.log" >> "$logs/Vx-20261126-0002.log"
shows 2 '^2026-11-26T05:38:4.* service .*stopped'
shows 1 ' platform 1 *0a4a3c1f .*ran: process 872'
shows 1 ' platform 1 *9b43bfcf .*dropped: its service ended before it did'
kill "$follower" 2> /dev/null
expect 2 '--follow excludes --until' history "$logs" --follow --until today

# A stored subscription's number can be used instead of its hash.
mkdir "$work/kept"
printf '{"document":{"OrvaneServiceDocument":{"value":{"PackageCatalogEventSubscriptions":{"value":"[%s]"}}}}}' \
  '{\"packageFamilyName\":\"Maker.App_1\"}' > "$work/values"
exits 0 run --store "$work/kept" store import "$work/values"
exits 0 run --store "$work/kept" history "$folder/rare.log" --subscription 1
grep -q 'uninstall Maker.App_1 da563f3b .*ran: process 4711' "$work/output" ||
  fail "history does not find the package subscription:" "$work/output"
[ -z "$(ls -A "$store")" ] || fail "history makes a store"
exit $((failures > 0))
