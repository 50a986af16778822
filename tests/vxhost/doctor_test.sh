#!/bin/sh
# doctor_test.sh VXHOST WORKER EMULATOR...: the doctor changes nothing and does not even create the
# store's folders.
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

# examines TEXT: expects the doctor to report TEXT for $work/data.
examines() {
  exits 1 run_at "$work/data" doctor --timeout 1
  grep -q -e "$1" "$work/output" || fail "doctor does not find '$1'; it prints:" "$work/output"
}
# This account created the folder, which "service install" would not accept.
mkdir -p "$work/data/Vx/SharedServices"
examines '-  folder: .* can be written by S-1-5-'
printf 'x' >"$work/data/Vx/SharedServices/shared_store.dat"
examines '-  store: .*cut short: 1 bytes'
ln "$work/data/Vx/SharedServices/shared_store.dat" "$work/second"
examines 'do: delete the link or the second name: fsutil hardlink list .*shared_store.dat'
# Without arguments, each line says what to do in this state.
exits 0 run_at "$work/data"
grep -q '^service .*: vxhost service install' "$work/output" && grep -q '^store .*: vxhost store verify' "$work/output" &&
  grep -q '^subscriptions .*; see "The store looks broken"' "$work/output" || fail 'vxhost advises otherwise:' "$work/output"
rm "$work/second"
held=$work/held
run_program_at "$work/data" "$worker" "$(windows "$held")" </dev/null >/dev/null 2>&1 &
for _ in $(seq 100); do [ -e "$held" ] || sleep 0.1; done
examines '-  store: not read while its mutex is taken'
rm "$held"
wait

# Each stored subscription is judged by what it would run. A copy kept by "store restore" is not a
# finding.
rm "$work/data/Vx/SharedServices/shared_store.dat"
for target in '"eventAction":1,"commandParams":{"path":"C:\\Missing\\a.exe"' \
  '"eventAction":2,"commandParams":{"packageFamilyName":"f","appServiceName":"s","payload":{"customTriggerGUID":"{01234567-89ab-cdef-0123-456789abcdef}"}'; do
  exits 0 run_at "$work/data" exec 9 "{\"powerEventType\":18,$target}}"
done
exits 0 run_at "$work/data" store backup "$(windows "$work/copy")"
exits 0 run_at "$work/data" store restore "$(windows "$work/copy")"
examines '+  store: .*: sound'
grep -q '^  -  subscription: 1 [0-9a-f]* power 18 start C:.Missing.a.exe; .' "$work/output" &&
  grep -q '^       do: .*vxhost subscriptions remove 1$' "$work/output" &&
  grep -q '^  -  subscription: 2 [0-9a-f]* power 18 raise the trigger .*; this Windows has no custom triggers' \
    "$work/output" ||
  fail 'doctor does not judge the subscriptions:' "$work/output"

expect 2 'is missing or has no version' --dll missing.dll doctor
expect 1 '+  first-run set-up: complete' --simulate doctor
expect 1 '{"check":"logon process","health":"ok"' --simulate doctor --json

# If the host logs no events, a delivery still shows that its event occurred.
mkdir "$work/logs"
cp "$(dirname "$0")/history/rare.log" "$work/logs/Vx-20261125-0001.log"
expect 1 '+  power events: shown by the delivery at 2026-11-25T' doctor --log "$work/logs"

# The service: what Windows reports about it, whether its pipe answers, and what its log contains.
examines '-  service: OrvaneService is not installed'
install_tool VxDoctor "$(dirname "$vxhost")/OrvaneService.dll"
name=VxDoctor$$
trap 'run service stop --name $name; run service remove --name $name; rm -rf "$work" "$place" "$prefix/drive_c/ProgramData/Vx"' EXIT
exits 0 run service install --name $name --start demand --development --repair
expect 1 "-  service: $name is not running, error" doctor --name $name
expect 1 "       do: vxhost service start --name $name" doctor --name $name
exits 0 run service start --name $name
expect 1 "+  service: $name runs as process " doctor --name $name
for wanted in 'pipe: answers {"result":{"getVersion":' 'module: C:\\Program Files\\VxDoctor\\OrvaneService.dll, version 1\.' ; do
  grep -q "^  +  service's $wanted" "$work/output" || fail "doctor does not find $wanted" "$work/output"
done
grep -q "^  +  service's folder: " "$work/output" || fail 'doctor finds the folder of the service open:' "$work/output"
chmod o+w "$place"
expect 1 "-  service's folder: C:\\Program Files\\VxDoctor can be written by S-1-1-0" doctor --name $name
chmod o-w "$place"
grep -q '^  +  log folder: C:.ProgramData.Vx.Logs, ' "$work/output" || fail 'doctor does not find the logs:' "$work/output"

exit $((failures > 0))
