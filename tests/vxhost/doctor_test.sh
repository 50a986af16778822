#!/bin/sh
# doctor_test.sh VXHOST EMULATOR...: the examination changes nothing: not even the folders of the store are made.
set -u
vxhost=$1
shift
. "$(dirname "$0")/../run_vxhost.sh"
need "$with_data"
mkdir "$work/data"
exits 1 run_at "$work/data" doctor
if ! grep -q 'do: create it at installation' "$work/output" ||
  ! grep -q '+  store: .* does not exist yet' "$work/output" || [ -n "$(ls -A "$work/data")" ]; then
  fail "doctor does not report the missing folder, or makes one; it prints:" "$work/output"
fi
expect 2 'is missing or has no version' --dll missing.dll doctor
expect 1 '+  first-run set-up: complete' --simulate doctor
expect 1 '{"check":"logon process","health":"ok"' --simulate doctor --json
expect 2 'doctor examines the store of the machine' --private-store doctor
exit $((failures > 0))
