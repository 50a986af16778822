#!/bin/sh
# validate_test.sh FOLDER PKI VXHOST MODULE EMULATOR PREFIX: validates every subscription of FOLDER on a
# simulated machine without packages, and those named signed_* with the keys of MODULE, whose programs
# are the files of PKI. Compares what is printed with FOLDER.txt. RECORD=1 writes it instead.
set -u
folder=$1 pki=$2 vxhost=$3 module=$4
shift 4
. "$(dirname "$0")/../run_vxhost.sh"
place="$prefix/drive_c/Program Files/VxSigned"
trap 'rm -rf "$work" "$place"' EXIT
cd "$folder" || exit 1
# shellcheck disable=SC2046
run --simulate validate $(printf '@%s ' [0-9]*.json) > "$work/raw" 2>&1
code=$?
head -c 1048577 /dev/zero | tr '\0' ' ' > "$work/long"
run validate "@$work/long" >> "$work/raw" 2>&1
mkdir -p "$place"
cp "$pki"/*.exe "$place"
# shellcheck disable=SC2046
run --dll "$module" validate $(printf '@%s ' signed_*.json) >> "$work/raw" 2>&1
tr -d '\r' < "$work/raw" > "$work/output"
same "$folder.txt" "$work/output"
[ "$code" = 1 ] || fail "validate exits with $code and not 1"

# What is stored is judged with the keys of the module too.
mkdir "$work/store"
stored() { run "$@" 2>&1 | tr -d '\r' >> "$work/judged"; }
for program in pinned unpinned; do
  stored --dll "$module" --store "$work/store" -q subscriptions add --power 18 \
    --run "C:\\Program Files\\VxSigned\\$program.exe"
done
stored --dll "$module" --store "$work/store" explain power 18
if ! grep -q '^added: .*\\pinned' "$work/judged" || ! grep -q '^not added: .*unpinned' "$work/judged" ||
  ! grep -q ' start C:.*\\pinned' "$work/judged" || grep -q 'key' "$work/judged"; then
  fail "stored subscriptions are judged with other keys than the module's:" "$work/judged"
fi
exit $((failures > 0))
