#!/bin/sh
# exec_test.sh VXHOST MODULE EMULATOR...: runs commands in the module, and tests command-line
# errors.
set -u
vxhost=$1 module=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$module"

expect 0 'log INFO [vxhost]: Version number is' --dll "$module" --private-store exec 22
expect 1 'no such command' --dll "$module" --private-store exec 99
printf '\357\273\277{}' > "$work/utf8"
expect 0 '-> 22 {}' --simulate exec 22 @- < "$work/utf8"
printf '\377\376{\0"\0\032\001"\0:\0001\0}\0' > "$work/utf16"
expect 0 '-> 22 {"Ě":1}' --simulate exec 22 @- < "$work/utf16"
expect 0 "$(printf '\033[2m')" --simulate --color always exec 22

# On standard output, exec writes one line for scripts, whatever the module logs.
run --simulate exec 99 --json > "$work/raw" 2> "$work/errors"
if [ $? != 1 ] || [ "$(tr -d '\r' < "$work/raw")" != \
  '{"id":99,"code":"0x20000001","meaning":"no such command","answer":{},"decision":"refused","reason":"unknown_command"}' ] ||
  ! grep -q '"level":"ERROR"' "$work/errors"; then
  fail "exec --json mixes its result with the log:" "$work/raw" "$work/errors"
fi

# The command-line library prints the help, but the names of nested commands come from the tool.
expect 0 'Usage: vxhost store restore' store restore --help
# An error's text depends on the language of Windows, so it is not part of the output for programs.
expect 2 '(error 126: ' --dll "$work/missing.dll" exec 22
expect 2 '(error 126); it is missing or not a program, error 2","exitCode":2}' --dll "$work/missing.dll" exec 22 --json
expect 0 'vxhost doctor '
expect 2 'use it' --private-store
expect 2 'unknown subcommand "exce"; did you mean "exec"?' exce 22
expect 2 'unknown subcommand "stat"; did you mean "start"?' service stat
expect 2 'unknown subcommand "shw"; did you mean "show"?' store shw
expect 2 'use @FILE or @-' --simulate exec 9 '{powerEventType:18}'
expect 2 'use @FILE or @-' validate "'{\"powerEventType\":18}'"
expect 2 'use only one' --simulate --private-store exec 22
expect 2 'use only one' --simulate --store "$work" exec 22
expect 0 'starting point: ' explain resume
expect 2 'at most 64 characters' --dll "$module" --private-store exec 22 --caller "$(printf '%065d' 1)"
expect 2 'only exec, scenario and events use it; --store names a store that is kept' \
  --private-store store show
expect 2 'no event to send' events
expect 2 '--seconds' --simulate events --power 7 --seconds -1
expect 2 'there is no file' trust "$work/missing.exe"
expect 1 'line 1, column 13: ' validate '{"a":"\udc00"}'
expect 1 'NEVER  powerEventType: power event 99 never occurs' validate '{"powerEventType":99,"eventAction":2,
  "commandParams":{"packageFamilyName":"a","appServiceName":"b","payload":{}}}'
exit $((failures > 0))
