#!/bin/sh
# help_test.sh VXHOST MODULE EMULATOR...: each subcommand accepts every option that its help shows,
# and rejects those that may precede it but that its help does not show.
set -u
vxhost=$1
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
leading='--dll --private-store --simulate --store'

# help OF...: leaves the help of a command, or of vxhost, in $work/help.
help() {
  exits 0 run "$@" --help
  cp "$work/output" "$work/help"
}

# subcommands: prints the names of the subcommands in $work/help.
subcommands() { sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p' "$work/help"; }

# accepts OPTIONS ARG...: expects that only an unknown option after the arguments ARG is rejected.
accepts() {
  options=$1
  shift
  exits 2 run "$@" --bogus
  grep -q 'not expected: --bogus\("\|$\)' "$work/output" || fail "$* is refused, but its help shows $options:" "$work/output"
}

# check COMMAND...: passes each option in $work/help with its value and the command's required arguments.
# shellcheck disable=SC2086 # words
check() {
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
  unwanted=
  for option in $leading; do
    case " $(echo $shown) " in *" $option "*) ;; *) unwanted="$unwanted$option " ;; esac
  done
  exits 2 run --dll "$work/none" --private-store --simulate --store "$work/none" "$@" $needed
  [ -n "$unwanted" ] || grep -q 'use only one' "$work/output" || fail "$* does not accept each option:" "$work/output"
  refused=$(sed -n 's/^\(--[a-z-]*\): only .* use it.*/\1/p' "$work/output" | tr '\n' ' ')
  [ "$refused" = "$unwanted" ] || fail "$* refuses \"$refused\", but its help does not show \"$unwanted\""
}

count=0
help
for command in $(subcommands); do
  help "$command"
  nested=$(subcommands)
  [ -n "$nested" ] && [ "$command" != subscriptions ] || check "$command"
  for name in $nested; do
    help "$command" "$name"
    check "$command" "$name"
    count=$((count + 1))
  done
done
[ $count -gt 10 ] || fail "only $count nested commands are found"
exit $((failures > 0))
