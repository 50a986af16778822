#!/bin/sh
# acceptance_test.sh TREE EMULATOR PREFIX: makes the kit in its own folder, with a space in its path, and runs it
# there: with the good module, with four deliberately broken ones, on a PC that has the maker's software, and after
# Ctrl+C or a kill. Each run must leave the PC unchanged.
set -u
tree=$1 emulator=$2 prefix=$3
work=$(mktemp -d)
disk="$prefix/drive_c"
programs="$disk/Program Files" data="$disk/ProgramData"
kit="$work/a kit"
logons=
# The kit removes at its start what a killed run left.
remove_left() { [ ! -e "$programs/VxAcceptance" ] || run acceptance.exe --yes module; }
cleanup() {
  for logon in $logons; do kill "$logon" 2>/dev/null; done
  remove_left
  rm -rf "$work" "$programs/VxStandIn" "$programs/Vx" "$data/Vx"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0
fail() {
  echo "failed: $*"
  failures=$((failures + 1))
}
run() { "$emulator" "$prefix" "$@" >"$work/output" 2>&1 </dev/null; }
# files: lists every file outside the users' folders, with its size and time.
files() { (cd "$disk" && find . -path ./users -prune -o -type f -printf '%p %s %T@\n' | sort); }
# rows VERDICT: prints the names of the rows with this verdict, on one line.
rows() { sed -n "s/^$1 *\([a-z_]*\):.*/\1/p" "$work/output" | tr '\n' ' ' | sed 's/ $//'; }
# The emulator lacks a real logon process, which the module needs. This one exits after a minute.
stand_in_logon() {
  "$emulator" "$prefix" "$programs/VxStandIn/winlogon.exe" 'C:\Program Files\VxStandIn\winlogon.out' "wait:$$" \
    >/dev/null 2>&1 &
  logons="$logons $!"
}
# accept FAILED ROW...: runs the rows and expects exactly those in FAILED to fail.
accept() {
  expected=$1
  shift
  stand_in_logon
  run acceptance.exe --yes "$@"
  code=$?
  [ "$(rows FAIL)" = "$expected" ] && [ $code = $((${#expected} > 0)) ] && return
  fail "with $* the kit exits with $code and fails in \"$(rows FAIL)\", not in \"$expected\""
  cat "$work/output"
}
thumbprint=$(openssl x509 -in "$tree/tests/pki/ca.crt" -noout -fingerprint -sha1 | sed 's/.*=//; s/://g')
is_trusted() { run reg query "HKLM\\Software\\Microsoft\\SystemCertificates\\ROOT\\Certificates\\$thumbprint"; }

code=$(sed -n 's/.*kUpgradeCode.*{\(.*\)}.*/\1/p' "$(dirname "$0")/installer_rows.cpp")
[ -n "$code" ] && grep -q "UpgradeCode=\"$code\"" "$(dirname "$0")/../packaging/make_msi.sh" ||
  fail 'the kit does not recognize the MSI by its upgrade code'
sh "$(dirname "$0")/make_kit.sh" "$tree" "$kit" || exit 1
cd "$kit" || exit 1
# The kit must not contain a private key, either as text or as bytes.
hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }
find . -type f -exec cat {} + | hex >"$work/kit.hex"
for key in "$tree"/tests/pki/*.key; do
  grep -rqF "$(sed -n 5p "$key")" . && fail "$key is in the kit"
  secret=$(openssl rsa -in "$key" -outform DER 2>/dev/null | tail -c 64 | hex)
  [ ${#secret} = 128 ] || fail "$key cannot be read"
  grep -qF "$secret" "$work/kit.hex" && fail "$key is in the kit as bytes"
done

run cmd /c exit  # creates the disk
remove_left
mkdir -p "$programs/VxStandIn"
cp "$tree/tests/probe.exe" "$programs/VxStandIn/winlogon.exe"
stand_in_logon
until [ -e "$programs/VxStandIn/winlogon.out" ]; do sleep 0.1; done
files >"$work/before"
unchanged() { files | grep -v VxStandIn | diff "$work/now" - || fail "$1 has changed files of the PC"; }
remember() { files | grep -v VxStandIn >"$work/now"; }

remember
accept ''
[ "$(rows PASS)" = 'module microsoft_abi slots subscription trust service console' ] ||
  fail "only these rows pass: $(rows PASS)"
grep -q '^NOTHING FAILED, 7 passed, 11 not tried' "$work/output" || fail 'the verdict is another'
is_trusted && fail 'the test authority is still trusted'
unchanged 'the good module'

cp bin/OrvaneService.dll "$work/good.dll"
# broken NAME FAILED ROW...: runs the rows with this module and expects exactly those in FAILED to fail.
broken() {
  cp "$tree/tests/broken/$1/OrvaneService.dll" bin/
  shift
  accept "$@"
}
broken trusts_everything trust module slots subscription trust service console
broken allows_any_place trust trust
broken drops_subscriptions 'subscription trust console' module slots subscription trust service console
broken stays_loaded slots module slots
unchanged 'a broken module'

# end_by SIGNAL: sends SIGNAL to the kit while it waits for a program that never runs.
end_by() {
  cp "$tree/tests/broken/drops_subscriptions/OrvaneService.dll" bin/
  "$emulator" "$prefix" acceptance.exe --yes console >/dev/null 2>&1 </dev/null &
  kit_process=$!
  tries=0
  until grep -qs 'power event 7' "$data"/Vx/Logs/VxAcceptance-*.log || [ $tries = 900 ]; do
    tries=$((tries + 1))
    sleep 0.1
  done
  is_trusted || fail "$1 comes too early or too late"
  run acceptance.exe --yes module
  grep -q 'already running' "$work/output" || fail 'a second kit runs at the same time'
  kill "-$1" $kit_process
  wait $kit_process 2>/dev/null
}
end_by INT # Ctrl+C
is_trusted && fail 'Ctrl+C leaves the test authority trusted'
grep -q 'ended before its last row' report.txt && ! grep -q '^FAIL' report.txt || fail 'Ctrl+C fails a row'
[ ! -e "$programs/VxAcceptance" ] || fail 'Ctrl+C leaves the folder'
unchanged 'Ctrl+C'
end_by KILL
is_trusted && [ -e "$programs/VxAcceptance" ] && [ -e "$data/Vx" ] || fail 'the kill leaves nothing to remove'
cp "$work/good.dll" bin/OrvaneService.dll
accept '' module
is_trusted && fail 'the next start leaves the test authority trusted'
[ ! -e "$programs/VxAcceptance" ] || fail 'the next start leaves the folder'
unchanged 'a kill'

# On a PC with the maker's software, the kit must not start the module.
for file in 'Program Files/Vx/McAfeePre/DADUpdater.exe' 'ProgramData/Vx/SharedServices/shared_store.dat'; do
  mkdir -p "$(dirname "$disk/$file")"
  echo 'of this PC' >"$disk/$file"
done
remember
accept '' slots service console born_on_date trust
[ "$(rows PASS)" = trust ] || fail "on a PC of the maker these rows are tried: $(rows PASS)"
unchanged 'a run on a PC of the maker'

echo n | "$emulator" "$prefix" acceptance.exe >"$work/output" 2>&1
[ $? = 2 ] && grep -q Continue "$work/output" && [ -z "$(rows PASS)" ] || fail 'it does not ask'
exit $((failures > 0))
