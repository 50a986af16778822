#!/bin/sh
# make_kit.sh TREE FOLDER [MSI [PREVIOUS-MSI]]: makes the acceptance kit from a release build tree. The Windows
# machine where acceptance.exe runs needs nothing else. The kit's module trusts the throwaway test authority of the
# tree, whose keys stay in the tree. Without an MSI, the rows about it are not run.
set -eu
tree=$1 folder=$2 msi=${3:-} previous=${4:-}
source=$(dirname "$0")
strip=x86_64-w64-mingw32-strip
mkdir -p "$folder/bin" "$folder/tests" "$folder/pki" "$folder/clients" "$folder/msi"
cp "$source/CHECKLIST.md" "$folder/"
$strip -o "$folder/acceptance.exe" "$tree/bin/acceptance.exe"
$strip -o "$folder/bin/OrvaneService.dll" "$tree/bin/test/OrvaneService.dll"
for program in bin/vxhost bin/OrvaneHost bin/msvc_host tests/slots_test; do
  $strip -o "$folder/$program.exe" "$tree/$program.exe"
done
# Not stripped, because that would invalidate their signatures.
for program in pinned unpinned tampered unsigned; do cp "$tree/tests/pki/$program.exe" "$folder/pki/"; done
openssl x509 -in "$tree/tests/pki/ca.crt" -outform DER -out "$folder/pki/authority.cer"
cp "$source/../samples/pipe/vx_client.ps1" "$folder/clients/"
[ -z "$msi" ] || cp "$msi" "$folder/msi/OrvaneService.msi"
[ -z "$previous" ] || cp "$previous" "$folder/msi/previous.msi"
