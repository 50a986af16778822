#!/bin/sh
# validate_test.sh FOLDER PKI VXHOST MODULE EMULATOR PREFIX: validates every subscription of FOLDER on a
# simulated machine without packages, and those named signed_* with the keys of MODULE, whose programs
# are the files of PKI. Compares what is printed with FOLDER.txt. RECORD=1 writes it instead. Read a
# new one line by line before it is kept.
set -u
folder=$1 pki=$2 vxhost=$3 module=$4
shift 4
work=$(mktemp -d)
place="$2/drive_c/Program Files/VxSigned"
trap 'rm -rf "$work" "$place"' EXIT
cd "$folder" || exit 1
# shellcheck disable=SC2046
"$@" "$vxhost" --simulate validate $(printf '@%s ' [0-9]*.json) > "$work/raw" 2>&1
code=$?
head -c 1048577 /dev/zero | tr '\0' ' ' > "$work/long"
"$@" "$vxhost" validate "@$work/long" >> "$work/raw" 2>&1
mkdir -p "$place"
cp "$pki"/*.exe "$place"
# shellcheck disable=SC2046
"$@" "$vxhost" --dll "$module" validate $(printf '@%s ' signed_*.json) >> "$work/raw" 2>&1
tr -d '\r' < "$work/raw" > "$work/output"
if [ -n "${RECORD:-}" ]; then
  cp "$work/output" "$folder.txt"
elif ! diff -u "$folder.txt" "$work/output" || [ "$code" != 1 ]; then
  echo "failed: validate says something else, or exits with $code and not 1"
  exit 1
fi

# What is stored is judged with the keys of the module too.
mkdir "$work/store"
stored() { "$@" 2>&1 | tr -d '\r' >> "$work/judged"; }
for program in pinned unpinned; do
  stored "$@" "$vxhost" --dll "$module" --store "$work/store" -q subscriptions add --power 18 \
    --run "C:\\Program Files\\VxSigned\\$program.exe"
done
stored "$@" "$vxhost" --dll "$module" --store "$work/store" explain power 18
if ! grep -q '^added: .*\\pinned' "$work/judged" || ! grep -q '^not added: .*unpinned' "$work/judged" ||
  ! grep -q ' start C:.*\\pinned' "$work/judged" || grep -q 'key' "$work/judged"; then
  echo "failed: stored subscriptions are judged with other keys than the module's:"
  cat "$work/judged"
  exit 1
fi
