#!/bin/sh
# help_test.sh VXHOST MODULE EMULATOR...: each subcommand accepts every option that its help shows,
# and rejects those that may precede it but that its help does not show.
set -u
vxhost=$1
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
leading='--dll --private-store --simulate --store'

# subcommands OF...: prints the names of the subcommands in the help of OF.
subcommands() {
  exits 0 run "$@" --help
  sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p' "$work/output"
}

# accepts OPTIONS ARG...: expects that only an unknown option after the arguments ARG is rejected.
accepts() {
  options=$1
  shift
  exits 2 run "$@" --bogus
  grep -q 'not expected: --bogus\("\|$\)' "$work/output" || fail "$* is refused, but its help shows $options:" "$work/output"
}

# check COMMAND...: passes each option with its value and the command's required arguments.
# shellcheck disable=SC2086 # words
check() {
  exits 0 run "$@" --help
  cp "$work/output" "$work/help"
  needed=$(sed -n 's/^Usage: .*\[OPTIONS\]//p' "$work/help" | sed 's/\[[^]]*\]//g; s/[a-z.]\{1,\}/1/g')
  shown=$(sed -n 's/^  -[a-z,]*\(--[a-z-]*\).*/\1/p; s/^  \(--[a-z-]*\).*/\1/p' "$work/help")
  [ -n "$shown" ] || fail "the help of $* shows no option"
  together=
  for option in $shown; do
    value=$(sed -n "s/^  $option TEXT:{\([a-z]*\).*/\1/p; s/^  $option \(TEXT\|UINT\|INT\).*/1/p" "$work/help" | head -n 1)
    if grep -q "^  $option .*Excludes:" "$work/help"; then
      accepts "$option" "$@" $needed "$option" $value
    elif [ "$option" != --help ]; then
      together="$together $option $value"
    fi
  done
  accepts "$together" "$@" $needed $together
  for option in $leading; do
    value=
    case $option in --dll | --store) value="$work/none" ;; esac
    run $option $value "$@" $needed >"$work/output" 2>&1 </dev/null
    accepted=yes
    ! grep -q 'use it' "$work/output" || accepted=no
    case " $(echo $shown) " in *" $option "*) wanted=yes ;; *) wanted=no ;; esac
    [ $accepted = $wanted ] || fail "$* accepts $option: $accepted, and its help shows it: $wanted"
  done
}

count=0
for command in $(subcommands); do
  nested=$(subcommands "$command")
  for name in $nested; do
    check "$command" "$name"
    count=$((count + 1))
  done
  [ -n "$nested" ] && [ "$command" != subscriptions ] || check "$command"
done
[ $count -gt 10 ] || fail "only $count nested commands are found"
exit $((failures > 0))
