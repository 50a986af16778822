#!/bin/sh
# scenario_test.sh FOLDER VXHOST EMULATOR...: what vxhost prints for scenarios that claim what it cannot
# check. FOLDER/NAME.txt lists the faults of FOLDER/NAME.json, none of which is played. RECORD=1 writes
# the lists instead. Read a new one line by line before it is kept.
set -u
folder=$1 vxhost=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# faults NAME OPTION...: the list of one scenario.
faults() {
  name=$1
  shift
  (cd "$folder" && "$emulator" ${prefix:+"$prefix"} "$vxhost" scenario "$name.json" "$@") \
    > "$work/raw" 2>&1
  code=$?
  tr -d '\r' < "$work/raw" | sed 's/^vxhost: .*[/\\]/vxhost: /' > "$work/$name.txt"
  if [ -n "${RECORD:-}" ]; then
    cp "$work/$name.txt" "$folder/$name.txt"
  elif [ "$code" != 2 ] || ! diff -u "$folder/$name.txt" "$work/$name.txt"; then
    echo "failed: the faults of $name are not those of its list, or vxhost exits with $code and not 2"
    failures=$((failures + 1))
  fi
}
emulator=$1 prefix=${2:-}
faults simulated --simulate --define place=here
faults no_list --simulate
faults real

exit $((failures > 0))
