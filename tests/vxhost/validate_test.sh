#!/bin/sh
# validate_test.sh FOLDER PKI VXHOST MODULE EMULATOR PREFIX: validates every subscription in FOLDER
# on a simulated machine without packages. Those named signed_* refer to programs in PKI and are
# checked with the keys of MODULE. Compares the output with FOLDER.txt. RECORD=1 writes that file
# instead.
set -u
folder=$1 pki=$2 vxhost=$3 module=$4
shift 4
. "$(dirname "$0")/../run_vxhost.sh"
need "$pki/pinned.exe" "$module"
place="$prefix/drive_c/Program Files/VxSigned"
trap 'rm -rf "$work" "$place"' EXIT
cd "$folder" || exit 1
# shellcheck disable=SC2046
exits 1 run --simulate validate $(printf '@%s ' [0-9]*.json)
cp "$work/output" "$work/verdicts"
head -c 1048577 /dev/zero | tr '\0' ' ' > "$work/long"
exits 1 run validate "@$work/long"
cat "$work/output" >> "$work/verdicts"
mkdir -p "$place"
cp "$pki"/*.exe "$place"
# shellcheck disable=SC2046
exits 1 run --dll "$module" validate $(printf '@%s ' signed_*.json)
cat "$work/output" >> "$work/verdicts"
same "$folder.txt" "$work/verdicts"

# Stored subscriptions are also judged with the module's keys.
mkdir "$work/store"
add() { # CODE TEXT PROGRAM
  expect "$1" "$2" --dll "$module" --store "$work/store" -q subscriptions add --power 18 \
    --run "C:\\Program Files\\VxSigned\\$3.exe"
}
add 0 'added: ' pinned
add 1 'not added: ' unpinned
expect 0 'start C:\Program Files\VxSigned\pinned' --dll "$module" --store "$work/store" explain power 18
! grep -q 'key' "$work/output" || fail "explain judges with other keys than the module's:" "$work/output"
exit $((failures > 0))
