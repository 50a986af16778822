# shellcheck shell=sh
# Tests that run vxhost source this file after setting $vxhost, with the arguments EMULATOR PREFIX.
# Creates the folder $work, which is deleted at the end, and counts failures in $failures.
emulator=$1 prefix=${2:-}
umask go-w  # a service cannot be installed where other accounts can write
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0

# need PATH...: prints one line and ends the test if a build product is missing.
need() {
  for path; do
    [ -e "$path" ] && continue
    echo "$path is missing: build it with scripts/build"
    exit 1
  done
}
need "$emulator" "$vxhost"

run() { "$emulator" ${prefix:+"$prefix"} "$vxhost" "$@"; }

# Used by run_program_at and run_at.
with_data=$(dirname "$vxhost")/../tests/with_data.exe

# windows PATH: prints the full path in Windows form.
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

# install_tool NAME MODULE: copies the tool, the service's program and a module into $place,
# C:\Program Files\NAME, which is deleted at the end, and runs the tool from there. A service cannot
# be installed from the build folder, because other accounts own folders above it.
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

# fail TEXT [FILE...]: reports a failure and prints the files.
fail() {
  echo "failed: $1"
  shift
  [ $# = 0 ] || cat -v "$@"
  failures=$((failures + 1))
}

# exits CODE COMMAND...: expects this exit code from a command such as run, and leaves its output in
# $work/output.
exits() {
  code=$1
  shift
  "$@" >"$work/raw" 2>&1
  exit=$?
  tr -d '\r' <"$work/raw" >"$work/output"
  [ "$exit" = "$code" ] || fail "$* exits with $exit, wanted $code; it prints:" "$work/output"
}

# expect CODE TEXT ARG...: expects this exit code and TEXT in the output from vxhost, and leaves the
# output in $work/output.
expect() {
  code=$1 text=$2 before=$failures
  shift 2
  exits "$code" run "$@"
  [ "$failures" != "$before" ] || grep -qF -- "$text" "$work/output" ||
    fail "vxhost $* does not print \"$text\", but:" "$work/output"
}

# same EXPECTED FILE: expects equal files. With RECORD=1, prints the difference and, unless
# something has failed, writes EXPECTED. Read a new transcript line by line before you commit it.
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
