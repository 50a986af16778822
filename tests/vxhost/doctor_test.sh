#!/bin/sh
# doctor_test.sh VXHOST WORKER EMULATOR...: the examination changes nothing: not even the folders of the store are made.
set -u
vxhost=$1 worker=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$worker" "$with_data"
mkdir "$work/data"
exits 1 run_at "$work/data" doctor
if ! grep -q 'do: create it at installation' "$work/output" ||
  ! grep -q '+  store: .*there is no file' "$work/output" || [ -n "$(ls -A "$work/data")" ]; then
  fail "doctor does not report the missing folder, or makes one; it prints:" "$work/output"
fi

# examines TEXT: the examination of $work/data finds TEXT.
examines() {
  exits 1 run_at "$work/data" doctor --timeout 1
  grep -q -e "$1" "$work/output" || fail "doctor does not find '$1'; it prints:" "$work/output"
}
# The account that runs the test made the folder, which "service install" would not accept.
mkdir -p "$work/data/Vx/SharedServices"
examines '-  folder: .* can be written by S-1-5-'
printf 'x' >"$work/data/Vx/SharedServices/shared_store.dat"
examines '-  store: .*cut short: 1 bytes'
held=$work/held
run_program_at "$work/data" "$worker" "$(windows "$held")" </dev/null >/dev/null 2>&1 &
for _ in $(seq 100); do [ -e "$held" ] || sleep 0.1; done
examines '-  store: not read while its mutex is taken'
rm "$held"
wait

expect 2 'is missing or has no version' --dll missing.dll doctor
expect 1 '+  first-run set-up: complete' --simulate doctor
expect 1 '{"check":"logon process","health":"ok"' --simulate doctor --json
expect 2 'doctor examines the store of the machine' --private-store doctor
exit $((failures > 0))
