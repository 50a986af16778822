#!/bin/sh
# scenario_test.sh FOLDER VXHOST EMULATOR...: what vxhost reports of scenarios. FOLDER/faults/NAME.txt lists
# the faults of NAME.json, none of which is played. FOLDER/reports holds a scenario whose expectations are
# not met, and its reports. RECORD=1 writes lists and reports instead. Read new ones line by line before
# they are kept.
set -u
folder=$1 vxhost=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# same FILE: FILE of the work folder is as in FOLDER.
same() {
  if [ -n "${RECORD:-}" ]; then
    cp "$work/$(basename "$1")" "$folder/$1"
  elif ! diff -u "$folder/$1" "$work/$(basename "$1")"; then
    echo "failed: vxhost reports something else than $1"
    failures=$((failures + 1))
  fi
}

# run CODE ARG...: runs vxhost in FOLDER and expects this exit code.
run() {
  wanted=$1
  shift
  (cd "$folder" && "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@") > "$work/raw" 2> "$work/errors"
  code=$?
  [ "$code" = "$wanted" ] && return
  echo "failed: vxhost $* exits with $code, wanted $wanted:"
  cat "$work/raw" "$work/errors"
  failures=$((failures + 1))
}

# faults NAME OPTION...: the list of one scenario.
faults() {
  name=$1
  shift
  run 2 scenario "faults/$name.json" "$@"
  tr -d '\r' < "$work/errors" | sed 's/^vxhost: .*[/\\]/vxhost: /' > "$work/$name.txt"
  same "faults/$name.txt"
}
emulator=$1 prefix=${2:-}
faults simulated --simulate --define place=here
faults no_list --simulate
faults real

run 1 --simulate scenario reports/unmet.json --json --junit "Z:$work/unmet.xml"
tr -d '\r' < "$work/raw" | sed 's/"thread":[0-9]*/"thread":0/g' > "$work/unmet.txt"
same reports/unmet.txt
same reports/unmet.xml

exit $((failures > 0))
