#!/bin/sh
# acceptance_test.sh TREE EMULATOR PREFIX: makes the kit in a folder of its own, with a blank in its path,
# and runs its quick part there, as its user does. The kit must not harm the PC: above all, a module that
# starts or gets command 18 sets the born-on date, once in the machine's life.
set -u
tree=$1 emulator=$2 prefix=$3
work=$(mktemp -d)
disk="$prefix/drive_c"
trap 'rm -rf "$work" "$disk"/users/*/Temp/OrvaneAcceptance "$disk/Program Files/Vx" "$disk/ProgramData/Vx"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0
fail() {
  echo "failed: $*"
  failures=$((failures + 1))
}
run() { "$emulator" "$prefix" "$@" >"$work/output" 2>&1 </dev/null; }
# files: every file outside the users' folders, with its size and time.
files() { (cd "$disk" && find . -path ./users -prune -o -type f -printf '%p %s %T@\n' | sort); }

kit="$work/a kit"
sh "$(dirname "$0")/make_kit.sh" "$tree" "$kit" || exit 1
cd "$kit" || exit 1

# What a PC of the maker has, and its store.
run cmd /c exit  # makes the disk
for file in 'Program Files/Vx/McAfeePre/DADUpdater.exe' 'Program Files/Vx/McAfeePre/McAfeePar.txt' \
  'ProgramData/Vx/SharedServices/shared_store.dat'; do
  mkdir -p "$(dirname "$disk/$file")"
  echo 'of this PC' >"$disk/$file"
done
files >"$work/before"
run cmd /c acceptance.cmd QUICK || fail "exit code $?"
[ "$(grep -c ' ends with ' "$work/output")" = 7 ] || fail 'not all parts ran'
[ $failures = 0 ] || cat "$work/output" "$disk"/users/*/Temp/OrvaneAcceptance/report.txt
files | diff "$work/before" - || fail 'files of the PC have changed'

# The module is given nothing but the request for its version.
tr -d '\r' <acceptance.cmd | grep vxhost |
  grep -vE -e ' doctor$' -e ' --private-store exec 22$' -e ' --simulate scenario ' && fail 'acceptance.cmd does more'
# Other commands act on the PC too: they copy registration data, and register or start the user's apps.
for scenario in scenarios/*; do
  run vxhost.exe --dll OrvaneService.dll --private-store scenario "$scenario"
  grep -q 'needs a simulated machine' "$work/output" || fail "$scenario can be played on the PC itself"
done
# The path of the switch software, and the firmware's class as only the module's own channel spells it.
for text in 'D\0A\0D\0U\0p\0d\0a\0t\0e\0r' 'Z\0r\0k\0B\0I\0n\0t\0M'; do
  LC_ALL=C grep -laP "$text" tests/*.exe && fail 'these programs reach what is on the PC only'
done
exit $((failures > 0))
