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

expect 0 'Everything that was expected happened.' \
  --simulate scenario "$scenarios/first_boot.json"
expect 0 '3671.000 ann starts' --simulate scenario "$scenarios/first_boot.json"
expect 0 'Everything that was expected happened.' --simulate scenario "$scenarios/packages.json"

scenario code '{"exec": 22, "expect": {"code": "20000002"}}'
scenario answer '{"exec": 22, "expect": {"answer": {"result": {}}}}'
scenario log '{"exec": 22, "expect": {"log": "never said"}}'
scenario event '{"logOn": "ann", "expect": {"event": "bob logs on"}}'
for unmet in code answer log event; do
  expect 1 '!! ' --simulate scenario "$work/$unmet.json"
done

scenario slip '{"exce": 22}'
expect 2 'unknown part of a step: exce' --simulate scenario "$work/slip.json"
expect 2 '"logOn" needs a simulated machine' --dll "$module" --private-store \
  scenario "$work/event.json"
scenario type '{"advance": "a while"}'
expect 2 'a value is of the wrong type' --simulate scenario "$work/type.json"
printf '{"steps": [' > "$work/broken.json"
expect 2 'is not valid JSON' --simulate scenario "$work/broken.json"
expect 2 'cannot read' --simulate scenario "$work/missing.json"

expect 0 'log INFO [vxhost]: Version number is' --dll "$module" --private-store exec 22
expect 1 'no such command' --dll "$module" --private-store exec 99
expect 2 'build it with scripts/build' --dll "$work/missing.dll" exec 22
exit $((failures > 0))
