#!/bin/sh
# watch_test.sh VXHOST MODULE EMULATOR...: a watching vxhost shows each line of another one exactly
# once.
set -u
vxhost=$1 module=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$module"

# Does not use run, because ending run would not end the emulator.
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
exit $((failures > 0))
