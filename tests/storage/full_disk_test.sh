#!/bin/sh
# full_disk_test.sh VXHOST WORKER EMULATOR...: the store on a small file system that fills up. No write
# loses a value that was acknowledged before, and once there is space again, the next write succeeds.
# Skipped if this account may not mount.
set -u
vxhost=$1 worker=$2
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
need "$worker" "$with_data"
disk=$work/disk
mkdir "$disk"
if ! mount -t tmpfs -o size=640k tmpfs "$disk" 2>/dev/null; then
  echo "skipped: this account cannot mount a small file system, as root can"
  exit 77
fi
trap 'umount "$disk" && rm -rf "$work"' EXIT

# with_store PROGRAM ARG...: runs a program whose store is on the small disk.
with_store() { run_program_at "$disk" "$@" </dev/null; }

# stored KEY...: returns whether the store can be read and contains the keys.
stored() {
  with_store "$vxhost" store show >"$work/shown" 2>/dev/null || return 1
  for key; do grep -q "\"$key\"" "$work/shown" || return 1; done
}

text=$(head -c 40000 /dev/zero | tr '\0' x)
printf '{"powerEventType":7,"eventAction":2,"commandParams":{"packageFamilyName":"%s",' "$text" \
  >"$disk/request.json"
printf '"appServiceName":"s","payload":{}}}' >>"$disk/request.json"
with_store "$vxhost" exec 9 "@$(windows "$disk/request.json")" >/dev/null 2>&1 ||
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
exit $((failures > 0))
