#!/bin/sh
# msi_test.sh OLD NEW EMULATOR PREFIX: the emulator's installer installs the package OLD without and with
# the service, upgrades it to NEW and removes it. The subscription that a client stored stays throughout.
set -u
old=$1 new=$2 emulator=$3 prefix=$4
place="$prefix/drive_c/Program Files/Vx/OrvaneService"
data="$prefix/drive_c/ProgramData/Vx"
vxhost='C:\Program Files\Vx\OrvaneService\vxhost.exe'
failures=0
fail() { echo "failed: $*"; failures=$((failures + 1)); }
windows() { printf 'Z:%s' "$(printf %s "$(realpath "$1")" | tr / '\\')"; }
install() { "$emulator" "$prefix" msiexec "$@" /qn >/dev/null 2>&1; }
run() { "$emulator" "$prefix" "$vxhost" "$@" 2>&1; }
cleanup() {
  install /x "$(windows "$new")"
  install /x "$(windows "$old")"
  rm -rf "$data"
}
trap cleanup EXIT

# The service account of the emulator also owns the program folder, which is for developers only.
options='SERVICEOPTIONS=--development --start demand'

rm -rf "$data"
install /i "$(windows "$old")" || fail "the installation exits with $?"
[ -f "$place/OrvaneService.dll" ] && [ -f "$place/docs/operations.md" ] || fail 'no module or no manual'
run service status | grep -q 'not installed' || fail 'a service that was not asked for'
[ -e "$place/clients" ] && fail 'clients that were not asked for'
install /x "$(windows "$old")" || fail "the removal exits with $?"
[ -e "$place/vxhost.exe" ] && fail 'the removal leaves the tool'

install /i "$(windows "$old")" ADDLOCAL=ALL "$options" || fail "the installation exits with $?"
run service status | grep -q running || fail 'the service does not run'
run service exec 9 '{"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\kept.exe"}}' |
  grep -q 00000000 || fail 'no subscription is stored'
first=$(run service status --json | grep -o '"process": *[0-9]*')

install /i "$(windows "$new")" ADDLOCAL=ALL "$options" || fail "the upgrade exits with $?"
run service status | grep -q running || fail 'the service does not run after the upgrade'
[ "$(run service status --json | grep -o '"process": *[0-9]*')" != "$first" ] ||
  fail 'the service of the old version runs on'
install /i "$(windows "$old")" && fail 'the older version replaces the newer one'

cp "$place/vxhost.exe" "$place/OrvaneService.dll" "$prefix/drive_c/"
install /x "$(windows "$new")" || fail "the removal exits with $?"
vxhost='C:\vxhost.exe'
[ -e "$place/vxhost.exe" ] && fail 'the removal leaves the tool'
run service status | grep -q 'not installed' || fail 'the removal leaves the service'
run subscriptions | grep -q 'kept.exe' || fail 'the subscription is gone'
rm -f "$prefix/drive_c/vxhost.exe" "$prefix/drive_c/OrvaneService.dll"
[ $failures = 0 ] && echo passed
exit $failures
