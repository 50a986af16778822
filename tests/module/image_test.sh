#!/bin/sh
# image_test.sh OBJDUMP DLL DEFINITION VERSION CONFIG: what the module's file promises to those who load it.
set -u
objdump=$1 dll=$2 definition=$3 version=$4 config=$5
failures=0
fail() {
  echo "failed: $*"
  failures=$((failures + 1))
}
headers=$("$objdump" -p "$dll") || exit 1

# Libraries of Windows itself; anything else would have to be shipped beside the module. Those that only a
# launch or the firmware needs (oleaut32, shell32, userenv, wintrust) are loaded when they are called.
windows='advapi32 bcrypt crypt32 kernel32 msvcrt ntdll ole32 rpcrt4 version wtsapi32'
for import in $(echo "$headers" | sed -n 's/^.*DLL Name: *//p' | tr 'A-Z' 'a-z'); do
  case $import in
    api-ms-win-*.dll) ;;
    *) echo "$windows" | tr ' ' '\n' | grep -qx "${import%.dll}" || fail "imports $import" ;;
  esac
done

# The toolchain's stack protector would open a cryptographic provider under the loader lock.
echo "$headers" | grep -E 'CryptAcquireContext|CryptGenRandom' &&
  fail "a constructor of the toolchain's stack protector is back"

# "[   0] Name", or "[   0] +base[   1]  0000 Name" from later releases of objdump.
found=$(echo "$headers" |
  sed -n '/^\[Ordinal\/Name Pointer\]/,/^$/s/^[[:space:]]*\[ *[0-9]*\] \(.* \)\{0,1\}\([^ ]*\)$/\2/p' | sort)
wanted=$(tr -d '\r' <"$definition" |
  sed -n '/^EXPORTS/,$s/^  \([A-Za-z_][A-Za-z0-9_]*\).*/\1/p' | sort)
[ -n "$wanted" ] && [ "$found" = "$wanted" ] || fail "exports differ from $definition:
$found"

flags=$(echo "$headers" | sed -n 's/^DllCharacteristics[[:space:]]*//p')
for bit in 0x20 0x40 0x100; do # high-entropy addresses, relocatable, no code in data
  [ $((0x$flags & bit)) -ne 0 ] || fail "DllCharacteristics $flags lack $bit"
done

# The version resource is UTF-16; without its zero bytes its texts can be looked for as they are.
for text in "$version" 'Vexmoor Inc.' FileVersion ProductVersion OrvaneService.dll; do
  tr -d '\000' <"$dll" | grep -aqF "$text" || fail "no \"$text\" in the version resource"
done

# A crash dump names the symbols of exactly this build.
echo "$headers" | grep -q 'RSDS signature [0-9a-f]\{32\} .*pdb OrvaneService.pdb' || fail 'names no symbols'

if [ "$config" = Release ]; then
  "$objdump" -t "$dll" 2>&1 | grep -q 'no symbols' || fail "is not stripped"
  size=$(wc -c <"$dll")
  [ "$size" -lt 1048576 ] || fail "has $size bytes, a MiB or more"
fi

[ "$failures" -eq 0 ] && echo passed
exit "$failures"
