#!/bin/sh
# check_tool.sh FOLDER: fails if vxhost.exe in this staged delivery is signed with a key that is pinned in
# the OrvaneService.dll beside it. Installed, such a tool would be a trusted program in a protected place,
# and any client could subscribe it with arguments of its choice: "--dll" loads a library as SYSTEM, and
# "service install", "store restore" and options that write a file are as dangerous.
set -eu
module=$1/OrvaneService.dll tool=$1/vxhost.exe
keys=$(mktemp)
trap 'rm -f "$keys"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above

refuse() {
  echo "check_tool.sh: $*" >&2
  exit 1
}

# number FILE OFFSET SIZE
number() { od -An --endian=little -tu"$3" -j "$2" -N "$3" "$1" | tr -d ' '; }

# The pinned keys are lines of text in two resources, each of which begins with its name.
for set in GENERAL RESTRICTED; do
  grep -aq "# PINNED_KEYS_$set" "$module" || refuse "$module has no list of pinned keys"
done
LC_ALL=C tr -c '0-9a-f ' '\n' <"$module" | { grep -E '^30 82 01 0a .{797}$' || :; } >"$keys"

# The signatures, including nested ones, start at the certificate table, whose offset is in the header of a
# 64-bit image (https://learn.microsoft.com/windows/win32/debug/pe-format). A certificate contains its key in
# exactly the form in which keys are pinned.
header=$(number "$tool" 60 4)
[ "$(number "$tool" $((header + 24)) 2)" = 523 ] || refuse "$tool is not a 64-bit program"
table=$(number "$tool" $((header + 168)) 4)
[ "$table" != 0 ] || exit 0
if tail -c +$((table + 1)) "$tool" | od -An -v -tx1 | tr -d '\n' | grep -qFf "$keys"; then
  refuse "$tool is signed with a key that is pinned in the module. A client could have it do anything as" \
    "SYSTEM: sign it with another key or not at all"
fi
