#!/bin/sh
# full_disk_test.sh VXHOST WORKER EMULATOR...: the store on a small file system that fills up. No write
# loses a value that was acknowledged before, and with space again the next write succeeds. Skipped
# where this account may not mount.
set -u
vxhost=$1 worker=$2
shift 2
disk=$(mktemp -d)
if ! mount -t tmpfs -o size=640k tmpfs "$disk" 2>/dev/null; then
  rmdir "$disk"
  echo "skipped: cannot mount a small file system"
  exit 77
fi
trap 'umount "$disk" && rmdir "$disk"' EXIT
trap 'exit 1' HUP INT TERM  # otherwise a signal skips the trap above
VX_PROGRAM_DATA=Z:$(printf %s "$disk" | tr / '\\')
export VX_PROGRAM_DATA
failures=0
fail() { echo "failed: $*"; failures=$((failures + 1)); }

# with_store PROGRAM ARG...: runs a program whose store is on the small disk.
with_store() { "$emulator" ${prefix:+"$prefix"} "$(dirname "$worker")/with_data.exe" "$@" </dev/null; }
emulator=$1 prefix=${2:-}

# stored KEY: the store can be read and holds the key.
stored() {
  with_store "$vxhost" store show >"$disk/../full-disk-$$" 2>/dev/null
  shown=$?
  found=0
  for key; do grep -q "\"$key\"" "$disk/../full-disk-$$" || found=1; done
  rm -f "$disk/../full-disk-$$"
  [ $shown = 0 ] && [ $found = 0 ]
}

text=$(head -c 40000 /dev/zero | tr '\0' x)
printf '{"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"%s",' "$text" \
  >"$disk/request.json"
printf '"appServiceName":"s","payload":{}}}' >>"$disk/request.json"
with_store "$vxhost" exec 9 "@Z:$(printf %s "$disk/request.json" | tr / '\\')" >/dev/null 2>&1 ||
  fail "the first subscription"
rm "$disk/request.json"

acknowledged= accepted=0 refused=0
for free in 0 4 12 20 28 36 44 64 96 160; do
  rm -f "$disk/filler"
  space=$(df --output=avail -k "$disk" | tail -1)
  dd if=/dev/zero of="$disk/filler" bs=1k count=$((space - free)) 2>/dev/null
  with_store "$worker" "key$free" 1 9999 >/dev/null 2>&1
  case $? in
    0) accepted=$((accepted + 1)) acknowledged="$acknowledged key$free" ;;
    3) refused=$((refused + 1)) ;;
    *) fail "the writer with $free KiB of space" ;;
  esac
  # shellcheck disable=SC2086 # one argument per key
  stored PowerEventSubscriptions $acknowledged || fail "a stored value is gone with $free KiB of space"
done
[ $accepted -gt 0 ] && [ $refused -gt 0 ] || fail "$accepted writes succeed, $refused are refused"
rm -f "$disk/filler"
with_store "$worker" last 1 9999 >/dev/null 2>&1 || fail "a write with space again"
# shellcheck disable=SC2086
stored last $acknowledged || fail "a value is gone at the end"
ls "$disk/Vx/SharedServices" | grep -qv '^shared_store.dat$' && fail "files are left beside the store"
echo "$accepted writes succeeded, $refused were refused"
exit $failures
