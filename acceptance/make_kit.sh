#!/bin/sh
# make_kit.sh TREE FOLDER: the acceptance kit from a release build tree. It needs nothing else on the
# Windows machine where acceptance.cmd runs. Its module trusts the throwaway test authority.
set -eu
tree=$1 folder=$2
source=$(dirname "$0")
strip=x86_64-w64-mingw32-strip
mkdir -p "$folder/tests/pki" "$folder/scenarios"
cp "$source/acceptance.cmd" "$source/CHECKLIST.md" "$folder/"
sed -i 's/$/\r/' "$folder/acceptance.cmd"  # batch files need the line ends of Windows
$strip -o "$folder/OrvaneService.dll" "$tree/bin/test/OrvaneService.dll"
$strip -o "$folder/vxhost.exe" "$tree/bin/vxhost.exe"
for scenario in first_boot every_command first_light; do
  cp "$source/../vxhost/scenarios/$scenario.json" "$folder/scenarios/"
done
for program in probe store_worker json_test security_test platform_test launch_test storage_test \
  events_test packages_test bod_test service_test standins_test; do
  $strip -o "$folder/tests/$program.exe" "$tree/tests/$program.exe"
done
# Whole: stripping would end their signatures.
cp "$tree"/tests/pki/*.exe "$tree"/tests/pki/*.dll "$tree"/tests/pki/pinned_*.txt "$folder/tests/pki/"
for library in "$tree"/tests/*.dll; do
  if [ -e "$library" ]; then cp "$library" "$folder/tests/"; fi
done
