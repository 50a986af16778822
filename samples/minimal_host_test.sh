#!/bin/sh
# minimal_host_test.sh SAMPLE MODULE VERSION EMULATOR PREFIX: checks that the sample runs the module from
# loading to unloading, with its own store, and prints each step. If there is no module, it must fail and
# print the reason.
set -u
sample=$1 module=$2 version=$3 emulator=$4 prefix=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0
windows() { printf 'Z:%s' "$1" | tr / '\\'; }
VX_PROGRAM_DATA=$(windows "$work")
export VX_PROGRAM_DATA

# expect CODE MODULE: checks that the sample exits with CODE and prints what standard input contains.
expect() {
  "$emulator" "$prefix" "$(dirname "$sample")/../tests/with_data.exe" "$sample" "$2" >"$work/raw"
  code=$?
  tr -d '\r' <"$work/raw" >"$work/output"
  if [ $code != "$1" ] || ! diff - "$work/output"; then
    printf '%s\n' "failed: with $2 the sample exits with $code"
    failures=1
  fi
}

expect 0 "$(windows "$module")" <<END
started
command 22: result 0x00000000, response {"result":{"getVersion":"$version"}}
forwarded power code 18
destroyed
freed
END
expect 1 'Z:\no such folder\OrvaneService.dll' <<END
the module cannot be loaded: error 126
END
[ $failures = 0 ] && echo passed
exit $failures
