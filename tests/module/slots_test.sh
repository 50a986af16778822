#!/bin/sh
# slots_test.sh PROGRAM WITH_DATA EMULATOR...: runs the program with its own store and checks that
# it leaves no other file.
set -u
program=$1 with_data=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
VX_PROGRAM_DATA=$(printf 'Z:%s' "$work" | tr / '\\')
export VX_PROGRAM_DATA
"$@" "$with_data" "$program" || exit 1
left=$(find "$work" -type f)
[ "$left" = "$work/Vx/SharedServices/shared_store.dat" ] && exit 0
printf 'beside the store is left: %s\n' "$left"
exit 1
