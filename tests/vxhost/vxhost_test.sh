#!/bin/sh
# vxhost_test.sh VXHOST MODULE SCENARIOS EMULATOR...: what a person or a script sees of vxhost.
set -u
vxhost=$1 module=$2 scenarios=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# expect CODE TEXT ARG...: running vxhost with the arguments exits with CODE and prints TEXT.
expect() {
  code=$1 text=$2
  shift 2
  "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@" > "$work/output" 2>&1
  exit=$?
  if [ "$exit" != "$code" ] || ! grep -qF -- "$text" "$work/output"; then
    echo "failed: vxhost $* exits with $exit, wanted $code and \"$text\"; it prints:"
    cat "$work/output"
    failures=$((failures + 1))
  fi
}
emulator=$1 prefix=${2:-}

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

scenario slip '{"exce": 22}'
expect 2 'step 1: unknown part of a step: exce' --simulate scenario "$work/slip.json"
expect 2 '"logOn" needs a simulated machine' --dll "$module" --private-store \
  scenario "$work/event.json"
scenario expectation '{"exec": 22, "expect": {"lgo": "x"}}'
expect 2 'unknown expectation: lgo' --simulate scenario "$work/expectation.json"
scenario member '{"copy": {"from": "a"}}'
expect 2 'step 1: a step lacks "to"' --simulate scenario "$work/member.json"
scenario type '{"advance": "a while"}'
expect 2 'a value is of the wrong type' --simulate scenario "$work/type.json"
printf '{"steps": [' > "$work/broken.json"
expect 2 'is not valid JSON: line 1, column 12: ' --simulate scenario "$work/broken.json"
expect 2 'cannot read' --simulate scenario "$work/missing.json"

expect 0 'log INFO [vxhost]: Version number is' --dll "$module" --private-store exec 22
expect 1 'no such command' --dll "$module" --private-store exec 99
expect 2 'build it with scripts/build' --dll "$work/missing.dll" exec 22
expect 2 'there is no subcommand "exce"' exce 22
expect 2 'only exec, scenario and events have a use for it' --private-store store show
expect 2 'no event to send' events
expect 2 '--seconds' --simulate events --power 7 --seconds -1
expect 2 'there is no file' trust "$work/missing.exe"
expect 1 'NEVER  power event 99 never comes' validate '{"powerEventType":99,"eventAction":2,
  "commandParams":{"packageFamilyName":"a","appServiceName":"b","payload":{}}}'
expect 1 'line 1, column 13: ' validate '{"a":"\udc00"}'
for command in exec scenario events 'store show' subscriptions trust pin watch validate \
  explain-resume; do
  # shellcheck disable=SC2086
  expect 0 "Usage: vxhost $command" $command --help
done

# Lines of one vxhost show in another one that watches, each once.
"$emulator" ${prefix:+"$prefix"} "$vxhost" watch --json --seconds 20 > "$work/watched" 2>&1 &
watcher=$!
tries=0
until grep -q 'function id 99: ' "$work/watched" || [ "$tries" = 20 ]; do
  expect 1 'no such command' --dll "$module" --private-store exec 99
  tries=$((tries + 1))
done
kill "$watcher" 2> /dev/null
seen=$(grep -c '^{"time":.*function id 99: ' "$work/watched")
if [ "$seen" -lt 1 ] || [ "$seen" -gt "$tries" ]; then
  echo "failed: vxhost watch shows a line of $tries runs $seen times:"
  cat "$work/watched"
  failures=$((failures + 1))
fi
exit $((failures > 0))
