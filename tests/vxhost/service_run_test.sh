#!/bin/sh
# service_run_test.sh VXHOST MODULE EMULATOR...: a service in a console answers over its pipe and
# logs to the given folder.
set -u
vxhost=$1 module=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$module" "$with_data"
expect 2 'no event to send' service send
expect 2 '--process needs --service' exec 22 --process 1
expect 2 'there is no folder' --dll "$module" service run --seconds 1 --log "$work/missing"
expect 2 'there is no account S-1-nonsense' --dll "$module" service run --seconds 1 --allow S-1-nonsense
! grep -q 'the module is started' "$work/output" || fail "the module runs before its options are read"

mkdir "$work/served"
name=VxTest$$
run_at "$work/served" service run --name $name --seconds 6 --log "$(windows "$work/served")" \
  >"$work/run" 2>"$work/banner" </dev/null &
running=$!
tries=0
until process=$(sed -n 's/.* runs as process \([0-9]*\);.*/\1/p' "$work/banner") &&
  [ -n "$process" ] || [ "$tries" = 50 ]; do
  sleep 0.1
  tries=$((tries + 1))
done
expect 0 '<- {"result":{"getVersion":' exec 22 --service="$name" --process "$process"
expect 1 'no such command' exec 99 --service="$name" --process "$process"
expect 2 'and not to the service, so nothing was sent' exec 22 --service="$name" --process 1
wait $running
exit=$?
if [ $exit != 0 ] || ! grep -q '"message":"Version number is' "$work/served/$name"-*-0001.log; then
  fail "vxhost service run exits with $exit and prints:" "$work/banner" "$work/run" "$work/served"/*.log
fi
exit $((failures > 0))
