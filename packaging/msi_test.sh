#!/bin/sh
# msi_test.sh OLD NEW BROKEN EMULATOR PREFIX: the emulator's installer installs the package OLD without and with
# the service, fails to upgrade it, upgrades it to NEW and removes it. A subscription that a client stored must
# survive all of this. BROKEN is a repair of OLD whose module does not load, so that its service cannot start. Also
# checks the tables for upgrades. With wrong ones, Windows Installer deletes the module, but the emulator keeps it.
set -u
old=$1 new=$2 broken=$3 emulator=$4 prefix=$5
place="$prefix/drive_c/Program Files/Vx/OrvaneService"
data="$prefix/drive_c/ProgramData/Vx"
vxhost='C:\vxhost.exe'  # a copy, which stays
failures=0
fail() { echo "failed: $*"; failures=$((failures + 1)); }
windows() { printf 'Z:%s' "$(printf %s "$(realpath "$1")" | tr / '\\')"; }
install() { "$emulator" "$prefix" msiexec "$@" /qn >/dev/null 2>&1; }
run() { "$emulator" "$prefix" "$vxhost" "$@" 2>&1; }
# eventually COMMAND...: repeats the command until it succeeds, for up to ten seconds.
eventually() {
  tries=0
  until "$@"; do
    tries=$((tries + 1))
    [ $tries -lt 100 ] || return 1
    sleep 0.1
  done
}
# For a moment, Windows may still lock the files of an exited program and list its service.
tool_is_gone() { [ ! -e "$place/vxhost.exe" ]; }
service_is_gone() { run service status | grep -q 'not installed'; }
# rows MSI TABLE: prints the table without its three header lines.
rows() { msiinfo export "$1" "$2" | tr -d '\r' | tail -n +4; }
cleanup() {
  install /x "$(windows "$new")"
  install /x "$(windows "$old")"
  install /x "$(windows "$broken")"
  run service remove --force >/dev/null
  rm -rf "$data" "$prefix/drive_c/vxhost.exe" "$prefix/drive_c/OrvaneService.dll" \
    "$prefix/drive_c/version.js"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above

# In the emulator, the service's account owns the program folder, which needs --development.
options='SERVICEOPTIONS=--development --start demand --allow S-1-5-32-546'

rm -rf "$data"
install /i "$(windows "$old")" || fail "the installation exits with $?"
[ -f "$place/OrvaneService.dll" ] && [ -f "$place/docs/operations.md" ] || fail 'no module or no manual'
cp "$place/vxhost.exe" "$place/OrvaneService.dll" "$prefix/drive_c/"
service_is_gone || fail 'a service that was not asked for'
[ -e "$place/clients" ] && fail 'clients that were not asked for'

# Each version of the package has its own components, and a file that has a version resource has the same
# version and language in the table, and no hash.
components=$(rows "$old" Component | wc -l)
[ "$components" -gt 9 ] && [ "$(rows "$new" Component | wc -l)" = "$components" ] || fail 'components are missing'
shared=$({ rows "$old" Component; rows "$new" Component; } | cut -f 2 | sort | uniq -d)
[ -z "$shared" ] || fail "both versions have the components $shared"
product() { rows "$1" Property | grep '^ProductCode'; }
[ "$(product "$broken")" = "$(product "$old")" ] || fail 'a repair of a build is installed beside it'
[ "$(product "$new")" != "$(product "$old")" ] || fail 'a newer build does not replace the older one'
# The emulator passes on every property, but Windows only these.
[ "$(rows "$new" Property | sed -n 's/^SecureCustomProperties\t//p' | tr ';' '\n' | sort | tr '\n' ' ')" = \
  'SERVICESTART WIX_DOWNGRADE_DETECTED WIX_UPGRADE_DETECTED ' ] || fail 'the secure properties are others'
echo 'WScript.Echo(new ActiveXObject("Scripting.FileSystemObject").GetFileVersion(WScript.Arguments(0)));' \
  >"$prefix/drive_c/version.js"
for file in OrvaneService.dll OrvaneHost.exe vxhost.exe; do
  version=$("$emulator" "$prefix" cscript //nologo 'C:\version.js' "C:\\Program Files\\Vx\\OrvaneService\\$file" | tr -d '\r\n')
  [ -n "$version" ] || [ $file = vxhost.exe ] || fail "$file has no version"
  for msi in "$old" "$new"; do
    row=$(rows "$msi" File | grep "	$file	")
    stated=$(printf %s "$row" | cut -f 5,6)
    [ "$stated" = "$(printf '%s\t%s' "$version" "${version:+1033}")" ] ||
      fail "$msi states the version and language \"$stated\" for $file, which has \"$version\""
    hash=$(rows "$msi" MsiFileHash | grep "^${row%%	*}	")
    case ${version:+version}${hash:+hash} in
      version | hash) ;;
      *) fail "$msi has the hash \"$hash\" for $file of version \"$version\"" ;;
    esac
  done
done
install /x "$(windows "$old")" || fail "the removal exits with $?"
eventually tool_is_gone || fail 'the removal leaves the tool'

install /i "$(windows "$old")" ADDLOCAL=ALL "$options --name Other" && fail 'another name is accepted'
[ ! -e "$place" ] || fail 'another name is noticed too late'
install /i "$(windows "$broken")" ADDLOCAL=ALL "$options" && fail 'a service that cannot start is accepted'
service_is_gone || fail 'a service that cannot start stays registered'
eventually tool_is_gone || fail 'an installation that fails leaves the tool'

install /i "$(windows "$old")" ADDLOCAL=ALL "$options" || fail "the installation exits with $?"
run service status | grep -q running || fail 'the service does not run'
run exec --service 9 '{"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\kept.exe"}}' |
  grep -q 00000000 || fail 'no subscription is stored'

# A failed upgrade leaves the older service registered. The emulator neither marks a removal as part of
# an upgrade, as Windows does, nor restores the older files.
registered() { run service status | grep -E 'demand|image|allow|development'; }
before=$(registered)
install /x "$(windows "$old")" UPGRADINGPRODUCTCODE=newer || fail "the removal exits with $?"
eventually tool_is_gone || fail 'the removal for an upgrade leaves the tool'
install /i "$(windows "$new")" ADDLOCAL=ALL SERVICEOPTIONS=--none && fail 'wrong options are accepted'
[ -n "$before" ] && [ "$(registered)" = "$before" ] ||
  fail 'an upgrade that fails does not leave the older service as it was'
install /i "$(windows "$old")" ADDLOCAL=ALL || fail "the installation over a registered service exits with $?"
[ "$(registered)" = "$before" ] || fail 'an installation without options changes those of the service'
run service status | grep -q running || fail 'the service that was registered does not run again'
process() { run service status --json | grep -o '"process": *[0-9]*'; }
first=$(process)
install /i "$(windows "$old")" REINSTALL=ALL || fail "the repair exits with $?"
[ -n "$(process)" ] && [ "$(process)" != "$first" ] || fail 'a repair does not start the service again'
first=$(process)

install /i "$(windows "$new")" ADDLOCAL=ALL "$options" || fail "the upgrade exits with $?"
run service status | grep -q running || fail 'the service does not run after the upgrade'
[ "$(process)" != "$first" ] ||
  fail 'the service of the old version runs on'
install /i "$(windows "$old")" && fail 'the older version replaces the newer one'

install /x "$(windows "$new")" || fail "the removal exits with $?"
eventually tool_is_gone || fail 'the removal leaves the tool'
eventually service_is_gone || fail 'the removal leaves the service'
run subscriptions | grep -q 'kept.exe' || fail 'the subscription is gone'

# An upgrade to the newer version without the service. Windows sets both properties itself.
install /i "$(windows "$old")" ADDLOCAL=ALL "$options" || fail "the installation exits with $?"
install /x "$(windows "$old")" UPGRADINGPRODUCTCODE=newer || fail "the removal exits with $?"
install /i "$(windows "$new")" WIX_UPGRADE_DETECTED=older || fail "the installation exits with $?"
eventually service_is_gone || fail 'an upgrade without the service leaves it'
[ $failures = 0 ] && echo passed
exit $failures
