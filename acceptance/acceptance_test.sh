#!/bin/sh
# acceptance_test.sh TREE EMULATOR...: makes the kit in a folder of its own, with a blank in its path,
# and runs its quick part there, as its user does.
set -u
tree=$1 emulator=$2 prefix=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work" "$prefix"/drive_c/users/*/Temp/OrvaneAcceptance' EXIT
kit="$work/a kit"
sh "$(dirname "$0")/make_kit.sh" "$tree" "$kit" || exit 1
cd "$kit" || exit 1
"$emulator" ${prefix:+"$prefix"} cmd /c acceptance.cmd QUICK >"$work/output" 2>&1 </dev/null
code=$?
passed=$(grep -c ' ends with ' "$work/output")
echo "$passed parts ran, exit code $code"
cat "$work/output"
[ $code = 0 ] && [ "$passed" = 9 ]
