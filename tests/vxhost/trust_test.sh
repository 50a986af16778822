#!/bin/sh
# trust_test.sh PKI VXHOST MODULE OTHER EMULATOR...: what vxhost shows of signatures and pinned keys.
# MODULE trusts the authority of PKI, OTHER no key.
set -u
pki=$1 vxhost=$2 module=$3 other=$4
shift 4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$pki" || exit 1
failures=0
emulator=$1 prefix=${2:-}

fail() {
  echo "failed: $*; it prints:"
  cat "$work/output"
  failures=$((failures + 1))
}

# expect CODE TEXT ARG...: running vxhost with the arguments exits with CODE and prints TEXT.
expect() {
  code=$1 text=$2
  shift 2
  "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@" > "$work/raw" 2>&1
  exit=$?
  tr -d '\r' < "$work/raw" > "$work/output"
  [ "$exit" = "$code" ] && grep -qF -- "$text" "$work/output" ||
    fail "vxhost $* exits with $exit, wanted $code and \"$text\""
}

# The verdict is that of the named module, not of the tool.
expect 1 'verified), key pinned' --dll "$module" trust pinned.exe
expect 1 'verified), key not pinned' --dll "$module" trust general.exe
expect 1 'verified), key pinned' --dll "$module" trust --general general.exe
expect 1 'no keys are pinned in this build' --dll "$other" trust pinned.exe
expect 2 'cannot be read: it has no list of pinned keys; name another module' --dll pinned.exe \
  trust pinned.exe
expect 2 'trust uses no store' --simulate trust pinned.exe

exit $((failures > 0))
