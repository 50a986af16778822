#!/bin/sh
# same_imports.sh OBJDUMP DLLTOOL COMPILER MODULE SOURCE DLL: builds SOURCE as a library that imports one
# function from each library that MODULE imports from.
set -eu
objdump=$1 dlltool=$2 compiler=$3 module=$4 source=$5 dll=$6
work=$dll.imports
rm -rf "$work"
mkdir -p "$work"

# Lists each imported library with its first function, "KERNEL32.dll CloseHandle". A function's row ends
# with its hint and its name. Newer releases of objdump print an ordinal before them.
"$objdump" -p "$module" | awk '
  /DLL Name:/ { library = $3; next }
  library != "" && NF > 2 && $(NF - 1) ~ /^[0-9a-f]+$/ { print library, $NF; library = "" }' >"$work/list"

{
  cat "$source"
  echo 'extern "C" {'
  while read -r _ function; do echo "__declspec(dllimport) void $function();"; done <"$work/list"
  echo '__declspec(dllexport) void (*const* Imported(int i))();'
  echo '}'
  echo 'void (*const* Imported(int i))() {'
  echo '  static void (*const functions[])() = {'
  while read -r _ function; do echo "    &$function,"; done <"$work/list"
  echo '  };'
  echo '  return &functions[i];'
  echo '}'
} >"$work/library.cpp"

while read -r library function; do
  printf 'LIBRARY "%s"\nEXPORTS\n  %s\n' "$library" "$function" >"$work/$library.def"
  "$dlltool" -d "$work/$library.def" -l "$work/$library.a"
done <"$work/list"
"$compiler" -shared -s -fno-builtin -o "$dll" "$work/library.cpp" "$work"/*.a
