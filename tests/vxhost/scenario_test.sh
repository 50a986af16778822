#!/bin/sh
# scenario_test.sh FOLDER VXHOST MODULE SAMPLES EMULATOR...: plays scenarios. Those in SAMPLES meet
# their expectations. FOLDER/faults/NAME.txt lists the faults of NAME.json, which in most cases
# prevent it from being played. FOLDER/reports contains a scenario that does not meet its
# expectations, and its reports. RECORD=1 writes the lists and reports instead.
set -u
folder=$1 vxhost=$2 module=$3 samples=$4
shift 4
. "$(dirname "$0")/../run_vxhost.sh"
need "$module"

for sample in first_boot packages born_on_date consent; do
  expect 0 'Everything that was expected happened.' --simulate scenario "$samples/$sample.json"
done
# Two threads of this scenario log at the same time, so it has no transcript.
expect 0 'Everything that was expected happened.' --simulate scenario "$folder/switch_software.json"
expect 0 'Everything that was expected happened.' --dll "$module" --private-store \
  scenario "$samples/every_command.json"

# scenario NAME STEP...: writes a scenario with these steps.
scenario() {
  name=$1
  shift
  printf '{"steps": [%s]}' "$*" > "$work/$name.json"
}
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
printf '{"steps": []}\n\0' > "$work/longer.json"
expect 2 'line 2, column 1: The document root must not be followed' --simulate scenario "$work/longer.json"
expect 2 'cannot read' --simulate scenario "$work/missing.json"
# When a scenario ends, a worker may still have to wait for more than a day.
scenario long '{"install": {"family": "a", "fullName": "a_1", "user": "ann"}},
  {"uninstall": {"family": "a", "user": "ann", "seconds": 100000}}'
expect 0 'Everything that was expected happened.' --simulate scenario "$work/long.json"

# play CODE ARG...: runs vxhost in FOLDER and expects exit code CODE.
play() {
  wanted=$1
  shift
  (cd "$folder" && run "$@") > "$work/raw" 2> "$work/errors"
  code=$?
  [ "$code" = "$wanted" ] || fail "vxhost $* exits with $code, wanted $wanted:" "$work/raw" "$work/errors"
}

# faults NAME OPTION...: compares the faults of a scenario with its list.
faults() {
  name=$1
  shift
  play 2 scenario "faults/$name.json" "$@"
  tr -d '\r' < "$work/errors" | sed 's/^vxhost: .*[/\\]/vxhost: /' > "$work/$name.txt"
  same "$folder/faults/$name.txt" "$work/$name.txt"
}
faults simulated --simulate --define place=here
faults no_list --simulate
faults real
# Some faults are found only during play, such as a refusal of a call that the module never makes.
faults never_made --simulate
faults misspelt --simulate

play 1 --simulate scenario reports/unmet.json --json --junit "Z:$work/unmet.xml"
tr -d '\r' < "$work/raw" | sed 's/"thread":[0-9]*/"thread":0/g' > "$work/unmet.txt"
same "$folder/reports/unmet.txt" "$work/unmet.txt"
same "$folder/reports/unmet.xml" "$work/unmet.xml"

exit $((failures > 0))
