#!/bin/sh
# store_test.sh VXHOST MODULE EMULATOR...: runs the commands of store and subscriptions. Each part
# uses its own store.
set -u
vxhost=$1 module=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$module" "$with_data"

# part NAME: starts a part, with an empty store.
part() {
  store=$work/$1
  mkdir "$store"
}
# kept CODE TEXT ARG...: like expect, for a command that accesses the store itself.
kept() {
  kept_code=$1 kept_text=$2
  shift 2
  expect "$kept_code" "$kept_text" --store "$store" "$@"
}
# module CODE TEXT ARG...: like expect, for a command that has the module change the store.
module() {
  module_code=$1 module_text=$2
  shift 2
  expect "$module_code" "$module_text" --dll "$module" --store "$store" "$@"
}
subscribe() { # NUMBER: a subscription that can run
  module 0 'added: ' subscriptions add --power 18 --send f --app-service s --delay "$1" \
    --trigger "{01234567-89ab-cdef-0123-456789abcde$1}"
}

# Commands that only read create nothing.
part empty
kept 0 '(none is stored)' subscriptions
kept 1 'there is no file' store verify
kept 2 'there is no file' store show
kept 0 '(none is stored)' explain --all
run_at "$store" > "$work/output" 2>&1 && grep -q 'subscriptions   none' "$work/output" ||
  fail 'vxhost alone:' "$work/output"
kept 2 'there is no file' store backup "$work/nothing"
kept 1 'not removed' subscriptions remove 1
kept 0 'registration state: unknown' explain resume
[ -z "$(ls -A "$store")" ] || fail "a command that only looks makes: $(ls -A "$store")"

part subscriptions
subscribe 5
module 1 'not added: ' subscriptions add --power 18 --send f --app-service s --delay 6 \
  --trigger '{01234567-89ab-cdef-0123-456789abcde5}'
module 1 'never runs: commandParams.path: ' subscriptions add --platform 1 --run 'C:\Missing.exe'
module 0 '"added":true' subscriptions add --platform 1 --run 'C:\Missing.exe' --force --json
kept 0 'would be refused: ' subscriptions list
kept 0 '"number":2,"hash":' subscriptions --json
module 0 '1 deliveries are still waiting, for up to 5 s' events --power 18 --seconds 2
module 0 'removed: ' subscriptions remove 2
module 0 'removed: ' subscriptions remove 1
module 1 'not removed' subscriptions remove 1

# If a command's code is 0, its output still shows the outcome of the request.
part verdicts
power='{"powerEventType":18,"eventAction":1,"commandParams":{"path":"C:\\windows\\none.exe"}}'
printf '%s' "$power" | sed 's/,/, /g' > "$work/power.json"
module 0 'result 0x00000000 (stored)' exec 9 "$power"
module 1 'result 0x00000000 (stored already)' exec 9 "$power"
module 1 'result 0x00000000 (stored, but never runs: its text cannot be read)' exec 9
module 0 'result 0x00000000 (taken back)' exec 19
module 1 'result 0x00000000 (stored, but never runs: ' exec 14 '{"zephraEventTyp":1,"zephraEventAction":1,"commandParams":{}}'
module 1 'result 0x00000000 (nothing removed)' exec 19 '{}'
module 0 'result 0x00000000 (taken back)' exec 19 "@$work/power.json"

# Another service may store a value under the key of the module's document.
part replaced
printf '{"steps": [{"store": {"OrvaneServiceDocument": "x"}}]}' > "$work/replaced.json"
module 0 'happened' scenario "$work/replaced.json"
kept 1 'OrvaneServiceDocument is not a document' store verify

# An export omits the values of other services. A backup contains everything.
part others
printf '{"steps": [{"store": {"token": "a secret"}}]}' > "$work/others.json"
module 0 'happened' scenario "$work/others.json"
subscribe 5
kept 0 'a secret' store show
kept 0 '1 values of other services' store export
kept 0 'written to ' store export "$work/exported.json"
run --store "$store" store export 2> /dev/null | diff --strip-trailing-cr - "$work/exported.json" || fail 'the two exports differ'
run --store "$store" store export > /dev/full 2> "$work/output"
[ $? = 2 ] && grep -q 'standard output cannot be written' "$work/output" ||
  fail 'an export that was cut short succeeds:' "$work/output"
! grep -q 'secret' "$work/output" || fail "an export holds a value of another service:" "$work/output"
kept 0 'written to' store backup "$work/backup.dat"
subscribe 6
kept 0 'is kept as' store restore "$work/backup.dat"
kept 0 '   1  ' subscriptions
! grep -q '^ *2 ' "$work/output" || fail "a store that was restored holds what came later:" "$work/output"
kept 0 'a secret' store show
kept 0 'sound' store verify

# An exported text is imported unchanged, even if it is not safe to show in a terminal.
part marks
printf '{"zephraEventType":1,"eventAction":2,"commandParams":{"packageFamilyName":"a",
  "appServiceName":"b","payload":{"\342\200\217\302\205\177":1}}}' > "$work/marks.json"
module 1 'accepted' exec 14 "@$work/marks.json"
run --store "$store" store export > "$work/export.json" 2> "$work/errors" ||
  fail "the export fails:" "$work/errors"
kept 0 'is kept as' store import "$work/export.json"
module 0 'taken back' exec 15 "@$work/marks.json"

# A package subscription is removed only from the store.
part package
printf '{"document":{"OrvaneServiceDocument":{"value":{"PackageCatalogEventSubscriptions":{"value":
  "[{\\"catalogEvent\\":5}]"}}}}}' > "$work/package.json"
kept 0 '' store import "$work/package.json"
module 0 'removed: ' subscriptions remove 1

# A client's text cannot forge a row of a table or control the terminal. The file used to subscribe
# can also be used to unsubscribe, whatever white space it contains.
mkdir "$work/machine"
forged='a\u001b[2J\u009b1m\u007f\u202e\r\nplatform 1    start    0 s    C:\\\\forged.exe'
printf '{"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"%s",
  "appServiceName":"%s","payload":{"%s":1}}}' "$forged" "$forged" "$forged" > "$work/forged.json"
for command in 'exec 9 @forged.json' 'exec 20' subscriptions 'store show' 'validate @forged.json' \
  'exec 19 @forged.json' subscriptions; do
  # shellcheck disable=SC2086
  (cd "$work" && run_at "$work/machine" $command >> "$work/tables" 2>&1)
done
controls=$(printf '\033|\302[\200-\237]|\177|\342\200\256')
if [ "$(grep -c '^ *1  [0-9a-f]*  power 7 *0 s *send a message to a.*forged' "$work/tables")" != 1 ] ||
  LC_ALL=C grep -qE "$controls|^platform" "$work/tables"; then
  fail "a client's text reaches the terminal as it is, or its subscription is not shown:" "$work/tables"
fi
tail -n 1 "$work/tables" | grep -qF '(none is stored)' ||
  fail "exec 19 with the file that subscribed removes nothing:" "$work/tables"

expect 2 'already names a trigger' subscriptions add --power 7 --send a --app-service b \
  --payload '{"customTriggerGUID":"c"}' --trigger d
expect 2 'its own module and store' --store "$work" exec 22 --service=None
exit $((failures > 0))
