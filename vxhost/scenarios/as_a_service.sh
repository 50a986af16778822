#!/bin/sh
# as_a_service.sh VXHOST MODULE PKI PROBE EMULATOR PREFIX: runs the module as a Windows service,
# from installation to removal. A client subscribes a signed program over the pipe, the machine
# resumes and the program runs. Exits with 1 otherwise. Leaves no service and no data.
set -u
umask go-w  # a service cannot be installed where other accounts can write
vxhost=$1 module=$2 pki=$3 probe=$4 emulator=$5 prefix=$6
name=VxSample$$
place="$prefix/drive_c/Program Files/VxSample"
data="$prefix/drive_c/ProgramData/Vx"
started="C:\\\\Program Files\\\\VxSample"

vxhost() { "$emulator" "$prefix" "$vxhost" "$@" || fail "vxhost $*"; }
fail() {
  echo "!! $1"
  exit 1
}

# await FILES TEXT: waits until a line in one of the files contains TEXT, and prints the line.
await() {
  tries=0
  until grep -shF -m 1 -- "$2" "$1"*; do
    tries=$((tries + 1))
    [ $tries -lt 100 ] || fail "$1 does not say $2"
    sleep 0.1
  done
}

cleanup() {
  "$emulator" "$prefix" "$vxhost" service stop --name $name >/dev/null 2>&1
  "$emulator" "$prefix" "$vxhost" service remove --name $name >/dev/null 2>&1
  [ -z "${logon:-}" ] || kill "$logon" 2>/dev/null
  rm -rf "$place" "$data"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
rm -rf "$data"
mkdir -p "$place"
cp "$pki/pinned.exe" "$place/tool.exe"
cp "$probe" "$place/winlogon.exe"
# Not from the build folder, because other accounts may be able to write to a folder above it.
cp "$vxhost" "$(dirname "$vxhost")/OrvaneHost.exe" "$module" "$place"
vxhost=$place/vxhost.exe

echo '== The service is installed and started. It has a folder of its own that users cannot write to'
vxhost service install --name $name --start demand --development
vxhost service start --name $name
vxhost service status --name $name

echo '== A client subscribes a signed program to the machine'"'"'s resume, over the pipe'
"$emulator" "$prefix" "$place/winlogon.exe" 'C:\Program Files\VxSample\winlogon.out' \
  "wait:$name" >/dev/null 2>&1 &
logon=$!
await "$place/winlogon.out" commandLine >/dev/null
vxhost exec 9 "{\"powerEventType\":7,\"eventAction\":1,\"commandParams\":{\"path\":\"$started\\\\tool.exe\",\"arguments\":\"\\\"$started\\\\report.txt\\\" \\\"good morning\\\"\"}}" \
  --service=$name

echo '== The machine resumes, and the program runs'
vxhost service send --name $name --power 7
await "$place/report.txt" 'good morning'

echo '== The log files tell it: the subscription was accepted, and ran'
tries=0
until vxhost history >"$place/history.raw" &&
  tr -d '\r' <"$place/history.raw" >"$place/history.txt" &&
  awk '$2 " " $3 == "command 9" && $7 == "accepted:" { stored = $4 }
    $2 " " $3 == "power 7" && $7 " " $8 == "ran: process" { ran = $4 }
    END { exit stored == "" || ran != stored }' "$place/history.txt"; do
  tries=$((tries + 1))
  [ $tries -lt 20 ] || fail "the log files tell this: $(cat "$place/history.txt")"
  sleep 0.1
done
cat "$place/history.txt"

echo '== The service is stopped and removed'
vxhost service stop --name $name
vxhost service remove --name $name
echo
echo 'Everything that was expected happened.'
