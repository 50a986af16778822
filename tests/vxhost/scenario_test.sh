#!/bin/sh
# scenario_test.sh FOLDER VXHOST EMULATOR...: what vxhost reports of scenarios. FOLDER/faults/NAME.txt lists
# the faults of NAME.json, most of which is not even played. FOLDER/reports holds a scenario whose expectations are
# not met, and its reports. RECORD=1 writes lists and reports instead.
set -u
folder=$1 vxhost=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"

# play CODE ARG...: runs vxhost in FOLDER and expects this exit code.
play() {
  wanted=$1
  shift
  (cd "$folder" && run "$@") > "$work/raw" 2> "$work/errors"
  code=$?
  [ "$code" = "$wanted" ] || fail "vxhost $* exits with $code, wanted $wanted:" "$work/raw" "$work/errors"
}

# faults NAME OPTION...: the list of one scenario.
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
# Found when they are played: a refusal of a call that the module never makes.
faults never_made --simulate
faults misspelt --simulate

play 1 --simulate scenario reports/unmet.json --json --junit "Z:$work/unmet.xml"
tr -d '\r' < "$work/raw" | sed 's/"thread":[0-9]*/"thread":0/g' > "$work/unmet.txt"
same "$folder/reports/unmet.txt" "$work/unmet.txt"
same "$folder/reports/unmet.xml" "$work/unmet.xml"

exit $((failures > 0))
