#!/bin/sh
# image_test.sh OBJDUMP FILE VERSION CONFIG [DEFINITION]: checks the image of a program, or of the
# module with its definition: imports, exports, symbols, flags and version.
set -u
objdump=$1 file=$2 version=$3 config=$4 definition=${5-}
failures=0
fail() {
  echo "failed: $*"
  failures=$((failures + 1))
}
headers=$("$objdump" -p "$file") || exit 1

# Allows only imports that Windows never takes from the program's folder: known DLLs and API sets.
# Any client could put a copy of a signed program into a world-writable folder, and a library beside
# it: https://learn.microsoft.com/windows/win32/dlls/dynamic-link-library-search-order
windows='advapi32 kernel32 msvcrt ntdll ole32 oleaut32 rpcrt4 shell32 user32'
for import in $(echo "$headers" | sed -n 's/^.*DLL Name: *//p' | tr 'A-Z' 'a-z'); do
  case $import in
    api-ms-win-*.dll) ;;
    *) echo "$windows" | tr ' ' '\n' | grep -qx "${import%.dll}" || fail "imports $import" ;;
  esac
done

# The toolchain's stack protector would open a cryptographic provider under the loader lock.
echo "$headers" | grep -E 'CryptAcquireContext|CryptGenRandom' &&
  fail "a constructor of the toolchain's stack protector is back"

if [ -n "$definition" ]; then
  # "[   0] Name" or, in later releases of objdump, "[   0] +base[   1]  0000 Name".
  found=$(echo "$headers" |
    sed -n '/^\[Ordinal\/Name Pointer\]/,/^$/s/^[[:space:]]*\[ *[0-9]*\] \(.* \)\{0,1\}\([^ ]*\)$/\2/p' | sort)
  wanted=$(tr -d '\r' <"$definition" |
    sed -n '/^EXPORTS/,$s/^  \([A-Za-z_][A-Za-z0-9_]*\).*/\1/p' | sort)
  [ -n "$wanted" ] && [ "$found" = "$wanted" ] || fail "exports differ from $definition:
$found"
  # A crash dump names the symbols of exactly this build.
  echo "$headers" | grep -q 'RSDS signature [0-9a-f]\{32\} .*pdb OrvaneService.pdb' || fail 'names no symbols'
  if [ "$config" = Release ]; then
    "$objdump" -t "$file" 2>&1 | grep -q 'no symbols' || fail "is not stripped"
    size=$(wc -c <"$file")
    [ "$size" -lt 1048576 ] || fail "has $size bytes, a MiB or more"
  fi
else
  # Without a manifest, files beside the program could make Windows load known DLLs from its folder.
  grep -qaF '<assembly xmlns="urn:schemas-microsoft-com:asm.v1"' "$file" || fail 'has no manifest'
fi

flags=$(echo "$headers" | sed -n 's/^DllCharacteristics[[:space:]]*//p')
for bit in 0x20 0x40 0x100; do # high-entropy addresses, relocatable, no code in data
  [ $((0x$flags & bit)) -ne 0 ] || fail "DllCharacteristics $flags lack $bit"
done

# The version resource is UTF-16. Without its zero bytes, grep finds its ASCII texts.
for text in "$version" 'Vexmoor Inc.' FileVersion ProductVersion "$(basename "$file")"; do
  tr -d '\000' <"$file" | grep -aqF "$text" || fail "no \"$text\" in the version resource"
done

[ "$failures" -eq 0 ] && echo passed
exit "$failures"
