#!/bin/sh
# validate_test.sh FOLDER VXHOST EMULATOR...: validates every subscription of FOLDER on a simulated
# machine without packages and compares what is printed with FOLDER.txt. RECORD=1 writes it instead.
# Read a new one line by line before it is kept.
set -u
folder=$1 vxhost=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$folder" || exit 1
# shellcheck disable=SC2046
"$@" "$vxhost" --simulate validate $(printf '@%s ' [0-9]*.json) > "$work/raw" 2>&1
code=$?
head -c 1048577 /dev/zero | tr '\0' ' ' > "$work/long"
"$@" "$vxhost" validate "@$work/long" >> "$work/raw" 2>&1
tr -d '\r' < "$work/raw" > "$work/output"
if [ -n "${RECORD:-}" ]; then
  cp "$work/output" "$folder.txt"
elif ! diff -u "$folder.txt" "$work/output" || [ "$code" != 1 ]; then
  echo "failed: validate says something else, or exits with $code and not 1"
  exit 1
fi
