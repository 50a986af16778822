#!/bin/sh
# service_test.sh VXHOST MODULE EMULATOR PREFIX: installs, runs and removes the service under the
# emulator's service manager, as an administrator would. Leaves no service and no data.
set -u
vxhost=$1 module=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
data="$prefix/drive_c/ProgramData/Vx"
name=VxTest$$
install_tool "$name" "$module"

cleanup() {
  run service stop --name "$name" >/dev/null 2>&1
  run service remove --name "$name" >/dev/null 2>&1
  rm -rf "$work" "$place" "$data"
}
trap cleanup EXIT

# logged TEXT: waits up to five seconds until the log files contain TEXT.
logged() {
  tries=0
  until grep -qsF -- "$1" "$data"/Logs/*.log; do
    tries=$((tries + 1))
    if [ $tries = 50 ]; then
      fail "no line of the log has $1"
      return
    fi
    sleep 0.1
  done
}

# The emulator shows a folder's mode as an access list.
mkdir "$place/open"
cp "$module" "$place/open/"
chmod 777 "$place/open"
open="C:\\Program Files\\$name\\open\\OrvaneService.dll"
expect 2 'can be written by S-1-5-21' service install --name "$name"
expect 2 'can be written by S-1-1-0 (Everyone)' --dll "$open" \
  service install --name "$name" --development
expect 2 'only administrators write to' --dll "$open" \
  service install --name "$name" --development
expect 2 "a service's name has" service install --name 'a b' --development
expect 2 'there is no account nobody at all (error 1332: ' service install --name "$name" --development \
  --allow 'nobody at all'
# The creator of a link would choose where the store and the logs are.
for folder in "$data" "$data/SharedServices" "$data/Logs"; do
  rm -rf "$data"
  mkdir -p "$(dirname "$folder")" && ln -s "$work" "$folder"
  expect 2 'is a link; find out who created it' service install --name "$name" --development --repair
done
rm "$data/Logs"
touch "$data/Logs"
expect 2 'Logs is a file; move it away' service install --name "$name" --development --repair
rm -rf "$data"
mkdir -p "$data"
chmod 777 "$data"
expect 2 'install with --repair' service install --name "$name" --development
expect 1 'not installed' service status --name "$name"
expect 0 'may now start any trusted program as SYSTEM' service install --name "$name" \
  --development --repair --start demand --allow S-1-5-21-1-2-3-1001
expect 2 'remove the installed one first' service install --name "$name" --development
expect 2 'can be written by' --dll "$open" \
  service install --name "$name" --development --replace
expect 0 'is installed' service install --name "$name" --development --replace --start auto
expect 1 'auto' service status --name "$name"
expect 0 'is installed' service install --name "$name" --replace --start demand --allow 'BUILTIN\Guests'
expect 0 'S-1-5-32-546 (BUILTIN\Guests) may now' service install --name "$name" --replace
expect 1 'demand' service status --name "$name"
grep -qF 'allow:   S-1-5-32-546 (BUILTIN\Guests)' "$work/output" || fail 'status names no account:' "$work/output"
for folder in "$data" "$data/Logs" "$data/SharedServices"; do
  if [ -n "$(find "$folder" -maxdepth 0 -perm /002)" ]; then
    fail "others may write to $folder"
  fi
done

# A link can be redirected later, so the service is installed with the path that it leads to.
ln -s "$place" "$place/link"
expect 0 'is installed' --dll "C:\\Program Files\\$name\\link\\OrvaneService.dll" \
  service install --name "$name" --development --replace --start demand
expect 1 "module:  C:\\Program Files\\$name\\OrvaneService.dll" service status --name "$name"

expect 2 'is not running' exec 22 --service="$name"
# The rest of the test needs a running service.
if ! run service start --name "$name" >"$work/output" 2>&1; then
  why=$(sed -n 's/.*"message":"\(the service cannot run[^"]*\).*/; \1/p' "$data"/Logs/*.log 2>/dev/null)
  [ -n "$why" ] || why="; its log is empty, so restart the emulator: WINEPREFIX='$prefix' wineserver -k"
  echo "failed: $(head -n 1 "$work/output" | tr -d '\r')$why"
  exit 1
fi
expect 0 '"state":"running"' service status --name "$name" --json
written='C:\\Program Files\\'$name
expect 0 '"account":"LocalSystem","image":"\"'"$written"'\\OrvaneHost.exe\" '"$name"'","module":"'"$written"'\\OrvaneService.dll","allow":["S-1-5-32-546"],"development":true' \
  service status --name "$name" --json
expect 0 '<- {"result":{"getVersion":' exec 22 --service="$name"
# The module terminates the service if a client ID is longer than 64 characters.
client="$work/$(printf '%080d' 0).exe"
cp "$vxhost" "$client"
exits 0 "$emulator" "$prefix" "$client" exec 22 --service="$name"
grep -q getVersion "$work/output" || fail 'a client with a long name gets no result:' "$work/output"
expect 2 'and not to the service, so nothing was sent' exec 22 --service="$name" --process 1
power='{"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\none.exe"}}'
expect 0 'result 0x00000000 (stored)' exec 9 "$power" --service="$name"
expect 1 'result 0x00000000 (stored already)' exec 9 "$power" --service="$name"
expect 1 'stored already' subscriptions add --power 7 --run 'C:\windows\none.exe' --force --service="$name"
expect 0 'added: ' subscriptions add --power 18 --send f --app-service s --service="$name"
expect 0 'removed: ' subscriptions remove 2 --service="$name"
expect 0 'power event 7' service send --name "$name" --power 7 --session 6
logged '"record":{"kind":"power","decision":"refused","reason":"'
logged '"message":"session change 6"'
expect 2 'has its own module and store' --private-store exec 22 --service="$name"
expect 2 'no service OrvaneService is installed' exec 22 --service
printf '{"powerEventType":7,"x":"%070000d"}' 0 >"$work/long.json"
expect 1 'never runs' exec 9 "@$(windows "$work/long.json")" --service="$name"
expect 0 '"omitted":1' exec 20 --service="$name"
run watch --service="$name" --text 'power event' --seconds 3 >"$work/watched" 2>"$work/listening" &
watching=$!
tries=0
until grep -qs 'Listening to process' "$work/listening" || [ $tries = 50 ]; do
  tries=$((tries + 1))
  sleep 0.1
done
expect 0 'power event 18' service send --name "$name" --power 18
wait $watching
if ! grep -q 'power event 18' "$work/watched" || grep -qv 'power event' "$work/watched"; then
  fail "watch --service prints:" "$work/listening" "$work/watched"
fi
expect 2 'is running; stop it first' service remove --name "$name"
expect 0 'is stopped' service stop --name "$name"
logged '"message":"the service is asked to stop"'
logged '"message":"the module is stopped"'
expect 1 'stopped' service status --name "$name"
expect 0 'is stopped' service stop --name "$name"
# A file that is not the module, or that Windows cannot load.
mv "$place/OrvaneService.dll" "$work"
expect 2 'the service cannot run: cannot load ' service start --name "$name"
LC_ALL=C sed 's/ADVAPI32\.dll/ADVAPI3X.dll/' "$module" >"$place/OrvaneService.dll"
why='imports ADVAPI3X.dll, which Windows does not have'
expect 2 "; it $why" service start --name "$name"
expect 2 "OrvaneService.dll $why" service install --name "$name" --development --replace
for other in "$vxhost" "$prefix/drive_c/windows/system32/version.dll"; do
  cp "$other" "$place/OrvaneService.dll"
  expect 2 'does not export VxCreateService' service install --name "$name" --development --replace
done
mv "$work/OrvaneService.dll" "$place"

# A missing folder is created again, but not where another account could redirect it.
rm -rf "$data/Logs"
expect 0 ' runs' service start --name "$name"
logged '"message":"the service runs as process'
expect 0 'is stopped' service stop --name "$name"
mv "$data" "$work/data"
mkdir "$data" && chmod 777 "$data"
expect 0 ' runs' service start --name "$name"
expect 0 'is stopped' service stop --name "$name"
[ ! -e "$data/Logs" ] || fail 'the service makes a folder for its logs in one of another account'
rm -rf "$data"
mv "$work/data" "$data"

# The subscription is still there after a restart.
expect 0 ' runs' service start --name "$name"
expect 0 'none.exe' exec 20 --service="$name"
expect 0 'is removed' service remove --name "$name" --force
expect 0 'is stopped' service stop --name "$name"
expect 1 'not installed' service status --name "$name"

# A service that was not installed for development accepts no events from users.
plain='a code to the service'
expect 2 "$plain" service send --name "$name" --power 7
exit $((failures > 0))
