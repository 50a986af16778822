#!/bin/sh
# make_kit.sh TREE FOLDER: the acceptance kit from a release build tree. It needs nothing else on the
# Windows machine where acceptance.cmd runs. Its module trusts the throwaway test authority.
#
# Left out is what must not run on a real PC. service_test overwrites and deletes the maker's switch
# software. bod_test writes a born-on date through COM, to the PC's firmware should Windows prefer its own
# class to the one that the test registers, and a module that starts or gets command 18 writes it too.
set -eu
tree=$1 folder=$2
source=$(dirname "$0")
strip=x86_64-w64-mingw32-strip
mkdir -p "$folder/tests/pki" "$folder/scenarios"
cp "$source/acceptance.cmd" "$source/CHECKLIST.md" "$folder/"
sed -i 's/$/\r/' "$folder/acceptance.cmd"  # batch files need the line ends of Windows
$strip -o "$folder/OrvaneService.dll" "$tree/bin/test/OrvaneService.dll"
$strip -o "$folder/vxhost.exe" "$tree/bin/vxhost.exe"
cp "$source/../vxhost/scenarios/first_boot.json" "$folder/scenarios/"
for program in probe store_worker json_test security_test platform_test launch_test storage_test \
  events_test packages_test standins_test; do
  $strip -o "$folder/tests/$program.exe" "$tree/tests/$program.exe"
done
# Whole: stripping would end their signatures.
cp "$tree"/tests/pki/*.exe "$tree"/tests/pki/*.dll "$tree"/tests/pki/pinned_*.txt "$folder/tests/pki/"
for library in "$tree"/tests/*.dll; do
  if [ -e "$library" ]; then cp "$library" "$folder/tests/"; fi
done
