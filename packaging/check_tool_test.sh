#!/bin/sh
# check_tool_test.sh PKI MODULE OTHER: tests which tools make_msi.sh rejects because of their signature. MODULE
# pins keys of the test authority PKI, OTHER none.
set -u
pki=$1 module=$2 other=$3
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
failures=0
stage() {
  mkdir -p "$work/stage"
  cp "$1" "$work/stage/OrvaneService.dll"
  cp "$2" "$work/stage/vxhost.exe"
}
# refused MODULE PROGRAM TEXT: expects make_msi.sh to reject these two and to print TEXT.
refused() {
  stage "$1" "$2"
  if "$here/make_msi.sh" "$work/stage" 1.2.3.0 "$work/new.msi" >"$work/output" 2>&1 || [ -e "$work/new.msi" ] ||
    ! grep -qF "$3" "$work/output"; then
    echo "failed: $2 beside $1 is not refused, or for another reason:"
    cat "$work/output"
    failures=$((failures + 1))
  fi
}
accepted() {
  stage "$1" "$2"
  "$here/check_tool.sh" "$work/stage" || failures=$((failures + 1))
}

# Only the key matters, not its set or signature, or whether Windows accepts the signature.
for tool in pinned general dual expired self_signed tampered appended; do
  refused "$module" "$pki/$tool.exe" 'is signed with a key that is pinned in the module'
done
for tool in unsigned unpinned dropbox; do accepted "$module" "$pki/$tool.exe"; done
accepted "$other" "$pki/pinned.exe"

# A file that cannot be examined is rejected.
refused "$pki/pinned.dll" "$pki/unsigned.exe" 'has no list of pinned keys'
printf MZ >"$work/no program"
refused "$module" "$work/no program" 'is not a 64-bit program'
exit $((failures > 0))
