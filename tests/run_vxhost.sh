# shellcheck shell=sh
# Sourced by the tests that run vxhost, when $vxhost is set and the arguments left are EMULATOR PREFIX.
# Makes the folder $work, which goes with the test, and counts in $failures.
emulator=$1 prefix=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

run() { "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@"; }

# fail TEXT [FILE...]: reports a failure and what the files hold.
fail() {
  echo "failed: $1"
  shift
  [ $# = 0 ] || cat -v "$@"
  failures=$((failures + 1))
}

# expect CODE TEXT ARG...: running vxhost with the arguments exits with CODE and prints TEXT. Leaves
# what it prints in $work/output.
expect() {
  code=$1 text=$2
  shift 2
  run "$@" >"$work/raw" 2>&1
  exit=$?
  tr -d '\r' <"$work/raw" >"$work/output"
  [ "$exit" = "$code" ] && grep -qF -- "$text" "$work/output" ||
    fail "vxhost $* exits with $exit, wanted $code and \"$text\"; it prints:" "$work/output"
}

# same EXPECTED FILE: the files are equal. RECORD=1 writes EXPECTED instead. Read a new one line by line
# before it is kept.
same() {
  if [ -n "${RECORD:-}" ]; then
    cp "$2" "$1"
  elif ! diff -u "$1" "$2"; then
    fail "vxhost does not print what $1 holds"
  fi
}
