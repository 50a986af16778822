#!/bin/sh
# vxhost_test.sh VXHOST MODULE SCENARIOS EMULATOR...: what a person or a script sees of vxhost.
set -u
vxhost=$1 module=$2 scenarios=$3
shift 3
. "$(dirname "$0")/../run_vxhost.sh"
need "$module"

# scenario NAME STEP...: writes a scenario of these steps.
scenario() {
  name=$1
  shift
  printf '{"steps": [%s]}' "$*" > "$work/$name.json"
}

for sample in first_boot packages born_on_date consent; do
  expect 0 'Everything that was expected happened.' \
    --simulate scenario "$scenarios/$sample.json"
done
expect 0 'Everything that was expected happened.' --dll "$module" --private-store \
  scenario "$scenarios/every_command.json"
expect 0 '3671.000 ann starts' --simulate scenario "$scenarios/first_boot.json"

scenario code '{"exec": 22, "expect": {"code": "20000002"}}'
scenario answer '{"exec": 22, "expect": {"answer": {"result": {}}}}'
scenario log '{"exec": 22, "expect": {"log": "never said"}}'
scenario event '{"logOn": "ann", "expect": {"event": "bob logs on"}}'
scenario noEvent '{"logOn": "ann", "expect": {"noEvent": "ann logs on"}}'
scenario stored '{"store": {"a": "b"}, "expect": {"stored": {"a": "b"}}}'
for unmet in code answer log event noEvent stored; do
  expect 1 '!! ' --simulate scenario "$work/$unmet.json"
done

printf '{"steps": [' > "$work/broken.json"
expect 2 'is not valid JSON: line 1, column 12: ' --simulate scenario "$work/broken.json"
expect 2 'cannot read' --simulate scenario "$work/missing.json"
# A worker may wait for longer than a day when the scenario ends.
scenario long '{"install": {"family": "a", "fullName": "a_1", "user": "ann"}},
  {"uninstall": {"family": "a", "user": "ann", "seconds": 100000}}'
expect 0 'Everything that was expected happened.' --simulate scenario "$work/long.json"

expect 0 'log INFO [vxhost]: Version number is' --dll "$module" --private-store exec 22
expect 1 'no such command' --dll "$module" --private-store exec 99
expect 2 'build it with scripts/build' --dll "$work/missing.dll" exec 22
expect 2 'there is no subcommand "exce"; did you mean "exec"?' exce 22
expect 2 '{"error":{"message":' --dll "$work/missing.dll" exec 22 --json
printf '\357\273\277{}' > "$work/utf8"
expect 0 '-> 22 {}' --simulate exec 22 @- < "$work/utf8"
printf '\377\376{\0"\0\032\001"\0:\0001\0}\0' > "$work/utf16"
expect 0 '-> 22 {"Ě":1}' --simulate exec 22 @- < "$work/utf16"
expect 0 "$(printf '\033[2m')" --simulate --color always exec 22

# What a script reads of exec is one line, whatever the module logs.
run --simulate exec 99 --json > "$work/raw" 2> "$work/errors"
if [ $? != 1 ] || [ "$(tr -d '\r' < "$work/raw")" != \
  '{"id":99,"code":"0x20000001","meaning":"no such command","answer":{}}' ] ||
  ! grep -q '"level":"ERROR"' "$work/errors"; then
  fail "exec --json mixes its result with the log:" "$work/raw" "$work/errors"
fi
expect 2 'subscriptions remove, pins, trust, validate, explain and doctor use it' \
  --private-store store show
expect 2 'no event to send' events
expect 2 'no event to send' service send
expect 2 'there is no folder' --dll "$module" service run --seconds 1 --log "$work/missing"
expect 2 'Invalid SID' --dll "$module" service run --seconds 1 --allow S-1-nonsense
! grep -q 'the module is started' "$work/output" || fail "the module runs before its options are read"
expect 2 'names a trigger already' subscriptions add --power 7 --send a --service b \
  --payload '{"customTriggerGUID":"c"}' --trigger d
expect 2 'its own module and store' --store "$work" subscriptions --service=None
expect 2 'its own module and store' --store "$work" store show --service=None
expect 2 'service" only lists' subscriptions --service=None add --power 7 --send a --service b
expect 2 'at most 64 characters' --dll "$module" --private-store exec 22 --caller "$(printf '%065d' 1)"
expect 2 '--seconds' --simulate events --power 7 --seconds -1
expect 2 'there is no file' trust "$work/missing.exe"
expect 1 'NEVER  powerEventType: power event 99 never occurs' validate '{"powerEventType":99,"eventAction":2,
  "commandParams":{"packageFamilyName":"a","appServiceName":"b","payload":{}}}'
expect 1 'line 1, column 13: ' validate '{"a":"\udc00"}'
for command in exec scenario events 'store show' 'store restore' subscriptions 'subscriptions add' \
  explain history pins trust pin watch validate explain-resume; do
  # shellcheck disable=SC2086
  expect 0 "Usage: vxhost $command" $command --help
done

# A client's text neither forges a row of a table nor drives the terminal.
forged='a\u001b[2J\u009b1m\u007f\u202e\r\nplatform 1    start    0 s    C:\\\\forged.exe'
printf '{"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"%s",
  "appServiceName":"%s","payload":{"%s":1}}}' "$forged" "$forged" "$forged" > "$work/forged.json"
for command in 'exec 9 @forged.json' 'exec 20' subscriptions 'store show' 'validate @forged.json' \
  'exec 19 @forged.json' subscriptions; do
  # shellcheck disable=SC2086
  (cd "$work" && run_at "$work" $command >> "$work/tables" 2>&1)
done
controls=$(printf '\033|\302[\200-\237]|\177|\342\200\256')
if [ "$(grep -c '^ *1  [0-9a-f]*  power 7 *0 s *send a message to a.*forged' "$work/tables")" != 1 ] ||
  LC_ALL=C grep -qE "$controls|^platform" "$work/tables"; then
  fail "a client's text reaches the terminal as it is, or its subscription is not shown:" "$work/tables"
fi

# Subscriptions are composed, listed, exported without the values of other services, and taken back.
# Commands that only look make nothing.
mkdir "$work/kept"
kept() {
  code=$1 text=$2
  shift 2
  expect "$code" "$text" --store "$work/kept" "$@"
}
kept 0 '(none is stored)' subscriptions
kept 1 'there is no file' store verify
kept 2 'there is no file' store show
kept 2 'there is no file' explain --all
kept 2 'there is no file' store backup "$work/nothing"
kept 1 'not removed' subscriptions remove 1
if [ -n "$(ls -A "$work/kept")" ]; then
  fail "a command that only looks makes: $(ls -A "$work/kept")"
fi
changing() {
  code=$1 text=$2
  shift 2
  expect "$code" "$text" --dll "$module" --store "$work/kept" subscriptions "$@"
}
trigger='{01234567-89ab-cdef-0123-456789abcdef}'
changing 0 'added: ' add --power 18 --send f --service s --trigger "$trigger" --delay 5
changing 1 'not added: ' add --power 18 --send f --service s --trigger "$trigger" --delay 6
changing 1 'never runs: commandParams.path: ' add --platform 1 --run 'C:\Missing.exe'
changing 0 '"added":true' add --platform 1 --run 'C:\Missing.exe' --force --json
kept 0 'never runs: commandParams.path: ' subscriptions list
kept 0 '"number":2,"hash":' subscriptions --json
scenario others '{"store": {"token": "a secret"}}'
expect 0 'happened' --dll "$module" --store "$work/kept" scenario "$work/others.json"
kept 0 'a secret' store show
kept 0 '1 values of other services' store export
run --store "$work/kept" store export > "$work/export.json" 2>&1
kept 0 'written to' store backup "$work/backup.dat"
changing 0 'removed: ' remove 2
changing 0 'removed: ' remove 1
changing 1 'not removed' remove 1
kept 0 'is kept as' store restore "$work/backup.dat"
kept 0 '   2  ' subscriptions
# A text comes back from an export as it was, also where a terminal must not see it.
printf '{"zephraEventType":1,"eventAction":2,"commandParams":{"packageFamilyName":"a",
  "appServiceName":"b","payload":{"\342\200\217\302\205\177":1}}}' > "$work/marks.json"
expect 0 'accepted' --dll "$module" --store "$work/kept" exec 14 "@$work/marks.json"
run --store "$work/kept" store export > "$work/marks_export.json" 2> "$work/errors"
kept 0 'is kept as' store import "$work/marks_export.json"
expect 0 'taken back' --dll "$module" --store "$work/kept" exec 15 "@$work/marks.json"
printf '{"document":{"OrvaneServiceDocument":{"value":{"PackageCatalogEventSubscriptions":{"value":
  "[{\\"catalogEvent\\":5}]"}}}}}' > "$work/package.json"
kept 0 'is kept as' store import "$work/package.json"
changing 0 'removed: ' remove 3
changing 0 'removed: ' remove 2
kept 0 'sound' store verify
if grep -q 'secret' "$work/export.json"; then
  fail "an export holds a value of another service"
fi

# The file that subscribed also unsubscribes, whatever white space is in it.
if ! tail -n 1 "$work/tables" | grep -qF '(none is stored)'; then
  fail "exec 19 with the file that subscribed removes nothing:" "$work/tables"
fi

# Lines of one vxhost show in another one that watches, each once.
# Not by run, whose end would leave the emulator.
"$emulator" ${prefix:+"$prefix"} "$vxhost" watch --json --seconds 20 --level error --provider Service \
  --text Unsupported > "$work/watched" 2>&1 &
watcher=$!
tries=0
until grep -q 'Unsupported Function call 99' "$work/watched" || [ "$tries" = 20 ]; do
  expect 1 'no such command' --dll "$module" --private-store exec 99
  tries=$((tries + 1))
done
expect 2 'another monitor receives the debug output' watch --seconds 1
kill "$watcher" 2> /dev/null
if grep '^{' "$work/watched" | grep -qv '"process":[1-9].*Unsupported'; then
  fail "vxhost watch shows lines that its filters exclude:" "$work/watched"
fi
seen=$(grep -c '^{"time":.*Unsupported Function call 99' "$work/watched")
if [ "$seen" -lt 1 ] || [ "$seen" -gt "$tries" ]; then
  fail "vxhost watch shows a line of $tries runs $seen times:" "$work/watched"
fi

# The examination changes nothing: not even the folders of the store are made.
mkdir "$work/data"
run_at "$work/data" doctor >"$work/output" 2>&1
if [ $? != 1 ] || ! grep -q 'do: create it at installation' "$work/output" ||
  ! grep -q '+  store: .* does not exist yet' "$work/output" || [ -n "$(ls -A "$work/data")" ]; then
  fail "doctor finds no folder and makes none; it prints:" "$work/output"
fi
expect 2 'is missing or has no version' --dll missing.dll doctor
expect 1 '+  first-run set-up: complete' --simulate doctor
expect 1 '{"check":"logon process","health":"ok"' --simulate doctor --json
expect 2 'doctor examines the store of the machine' --private-store doctor

# A running service replies over its pipe, and its log is in the folder that was named.
mkdir "$work/served"
name=VxTest$$
run_at "$work/served" service run --name $name --seconds 6 --log "$(windows "$work/served")" \
  >"$work/run" 2>"$work/banner" </dev/null &
running=$!
tries=0
until process=$(sed -n 's/.* runs as process \([0-9]*\);.*/\1/p' "$work/banner") &&
  [ -n "$process" ] || [ "$tries" = 50 ]; do
  sleep 0.1
  tries=$((tries + 1))
done
expect 0 '<- {"result":{"getVersion":' service exec 22 --name "$name" --process "$process"
expect 1 'no such command' service exec 99 --name "$name" --process "$process"
expect 2 'and not to the service; nothing was sent' service exec 22 --name "$name" --process 1
wait $running
exit=$?
if [ $exit != 0 ] || ! grep -q '"message":"Version number is' "$work"/served/vxhost-*-0001.log; then
  fail "vxhost service run exits with $exit and prints:" "$work/banner" "$work/run" "$work"/served/vxhost-*.log
fi

exit $((failures > 0))
