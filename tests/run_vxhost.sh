# shellcheck shell=sh
# Sourced by the tests that run vxhost, when $vxhost is set and the arguments left are EMULATOR PREFIX.
# Makes the folder $work, which goes with the test, and counts in $failures.
emulator=$1 prefix=${2:-}
umask go-w  # a service cannot be installed where other accounts write
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0

# need PATH...: what the build makes. If something is missing, the test ends with one line.
need() {
  for path; do
    [ -e "$path" ] && continue
    echo "$path is missing: build it with scripts/build"
    exit 1
  done
}
need "$emulator" "$vxhost"

run() { "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@"; }

# What run_program_at and run_at need.
with_data=$(dirname "$vxhost")/../tests/with_data.exe

# windows PATH: the full path as a Windows program names it.
windows() { printf 'Z:%s' "$1" | tr / '\\'; }

# run_program_at FOLDER PROGRAM ARG...: runs a program with FOLDER as %ProgramData%.
run_program_at() {
  data=$(windows "$1")
  shift
  VX_PROGRAM_DATA=$data "$emulator" ${prefix:+"$prefix"} "$with_data" "$@"
}

# run_at FOLDER ARG...: runs vxhost with FOLDER as %ProgramData%.
run_at() {
  at=$1
  shift
  run_program_at "$at" "$vxhost" "$@"
}

# install_tool NAME MODULE: copies the tool, the service's program and a module into the folder $place, C:\Program Files\NAME, which goes
# with the test, and runs the tool from there: a service may not be installed from where the build lies, below
# folders of other accounts.
install_tool() {
  place="$prefix/drive_c/Program Files/$1"
  trap 'rm -rf "$work" "$place"' EXIT
  host=$(dirname "$vxhost")/OrvaneHost.exe
  need "$2" "$host"
  mkdir -p "$place" && cp "$vxhost" "$host" "$2" "$place" || exit 1
  open=$(find "$prefix/drive_c" "$prefix/drive_c/Program Files" -maxdepth 0 -perm /022)
  if [ -n "$open" ]; then
    echo "other accounts may write to $open, so no service can be installed: chmod go-w '$open'"
    exit 1
  fi
  vxhost=$place/vxhost.exe
}

# fail TEXT [FILE...]: reports a failure and what the files hold.
fail() {
  echo "failed: $1"
  shift
  [ $# = 0 ] || cat -v "$@"
  failures=$((failures + 1))
}

# exits CODE COMMAND...: running the command, which is run or one of its kind, exits with CODE. Leaves what
# it prints in $work/output.
exits() {
  code=$1
  shift
  "$@" >"$work/raw" 2>&1
  exit=$?
  tr -d '\r' <"$work/raw" >"$work/output"
  [ "$exit" = "$code" ] || fail "$* exits with $exit, wanted $code; it prints:" "$work/output"
}

# expect CODE TEXT ARG...: running vxhost with the arguments exits with CODE and prints TEXT. Leaves
# what it prints in $work/output.
expect() {
  code=$1 text=$2 before=$failures
  shift 2
  exits "$code" run "$@"
  [ "$failures" != "$before" ] || grep -qF -- "$text" "$work/output" ||
    fail "vxhost $* does not print \"$text\", but:" "$work/output"
}

# same EXPECTED FILE: the files are equal. RECORD=1 prints the difference and writes EXPECTED, unless
# something has failed before. Read a new one line by line before it is kept.
same() {
  diff -uN "$1" "$2" && return
  if [ -z "${RECORD:-}" ]; then
    fail "vxhost does not print what $1 holds"
  elif [ "$failures" = 0 ] && [ -s "$2" ]; then
    cp "$2" "$1"
  else
    fail "$1 is not recorded, since the run failed or prints nothing"
  fi
}
