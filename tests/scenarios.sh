#!/bin/sh
# scenarios.sh FOLDER VXHOST EMULATOR...: plays every scenario in FOLDER, each on a fresh simulated
# machine, and compares the output of NAME.json with the transcript NAME.txt beside it. RECORD=1
# writes the transcripts instead, if every expectation was met. NAMES, if set, selects scenarios.
# Lines that match DROP are ignored, for example those of a thread whose timing is not fixed.
set -u
folder=$1 vxhost=$2
shift 2
. "$(dirname "$0")/run_vxhost.sh"

set --
for scenario in "$folder"/*.json; do
  case " ${NAMES:-$(basename "$scenario" .json)} " in
    *" $(basename "$scenario" .json) "*) set -- "$@" "$scenario" ;;
  esac
done
if [ $# = 0 ]; then
  echo "no scenario in $folder: name one of its files without .json in NAMES"
  exit 1
fi

run --simulate scenario "$@" >"$work/raw" 2>&1
exit=$?
if [ $exit != 0 ]; then
  grep -a '^!!' "$work/raw" >"$work/end" || tail -n 5 "$work/raw" >"$work/end"
  fail "vxhost exits with $exit. Its unmet expectations or last lines:" "$work/end"
fi

# The store's path depends on the process and user. What Windows reports about libraries other than
# this project's depends on the system. Omits the result of a successful command, and merges
# repeated lines into one.
tr -d "\r" <"$work/raw" |
  sed -e 's/C:.users.[^ ]*.Temp.vxhost-[0-9]*/TEMP/g' -e "/Security - GetSecurityCatalogInfo/d" \
    -e "/^   result 0x00000000 (done)$/d" -e "/${DROP:-^$}/d" \
    -e "/^Everything that was expected/d" -e "/^$/d" |
  awk -v work="$work" -v file="$work/$(basename "$1" .json).txt" '
    function put() { if (times) print line (times > 1 ? " (" times " times)" : "") > file; times = 0 }
    /^==== / { put(); sub(/.*[\/\\]/, ""); sub(/\.json$/, ""); file = work "/" $0 ".txt"; next }
    $0 != line { put(); line = $0 }
    { ++times }
    END { put() }'

for scenario; do
  same "${scenario%.json}.txt" "$work/$(basename "$scenario" .json).txt"
done
exit $((failures > 0))
