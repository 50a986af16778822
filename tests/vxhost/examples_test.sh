#!/bin/sh
# examples_test.sh ROOT BUILD EMULATOR PREFIX: runs the commands on the documentation pages. The
# words after the language of a fenced block say how the test uses it:
#   example           run as printed: "bat" by the emulator's cmd in C:\Program Files\Maker, "sh" in
#                     a folder laid out like the sources. Both paths contain a space, and each
#                     command must succeed
#   output            lines that the example before it prints, in order; "..." stands for anything
#   file NAME         a file that a later example reads
#   story             run by stories_test.sh
#   not-here: REASON  not run
# A block of commands without such words fails the test. The service runs and trusts the keys of the
# test authority. Tool.exe and SIGNED.exe are signed with one of them.
set -u
root=$1 build=$2 vxhost=$2/bin/vxhost.exe
shift 2
. "$(dirname "$0")/../run_vxhost.sh"
pki=$build/tests/pki
need "$pki/pinned.exe" "$build/tests/probe.exe"
install_tool Maker "$build/bin/test/OrvaneService.dll"
data="$prefix/drive_c/ProgramData/Vx" logon=
cleanup() {
  run service stop
  run service remove --force
  [ -z "$logon" ] || kill "$logon"
  rm -rf "$work" "$place" "$data"
} >/dev/null 2>&1
trap cleanup EXIT
rm -rf "$data"
cp "$pki/pinned.exe" "$place/Tool.exe"
cp "$pki/pinned.exe" "$place/SIGNED.exe"
cp "$build/tests/probe.exe" "$place/winlogon.exe"
exits 0 run service install --development --start demand --repair
exits 0 run service start
# A program started for a subscription uses the session and token of this one.
"$emulator" "$prefix" "$place/winlogon.exe" 'C:\Program Files\Maker\winlogon.out' wait:OrvaneService >/dev/null 2>&1 &
logon=$!
sources="$work/the sources"
mkdir -p "$sources/build"
ln -s "$root/cmake" "$root/vxhost" "$sources"
ln -s "$build" "$sources/build/release"

# Splits the pages into $work/NUMBER.block files, each starting with the line PAGE:LINE INFO.
(cd "$root" && awk -v work="$work" '
  FNR == 1 { inside = 0 }
  /^ *```/ && inside { inside = 0; close(file); next }
  /^ *```/ { inside = 1; file = sprintf("%s/%03d.block", work, ++n); sub(/^ *```/, ""); print FILENAME ":" FNR " " $0 > file; next }
  inside { print > file }' README.md packaging/README.md CONTRIBUTING.md ARCHITECTURE.md docs/*.md)

# delivered: waits until the log contains the end of a delivery, which comes after its event.
delivered() {
  for _ in $(seq 50); do
    grep -qs '"kind":"power","decision":"[^w]' "$data"/Logs/*.log && return
    sleep 0.1
  done
}

# prints LINES OUTPUT: returns whether the output contains the lines, in this order.
prints() {
  awk 'NR == FNR { want[++n] = $0; next }
    function fits(line, text, pieces, i, at) {
      for (i = 1; i <= split(text, pieces, /\.\.\. */); ++i) {
        sub(/ +$/, "", pieces[i])
        if (!(at = index(line, pieces[i])) && pieces[i] != "") return 0
        line = substr(line, at + length(pieces[i]))
      }
      return 1
    }
    found < n && fits($0, want[found + 1]) { ++found }
    END { exit found < n }' "$1" "$2"
}

played=0
for block in "$work"/*.block; do
  read -r where language mark <"$block"
  sed 1d "$block" >"$work/body"
  case "$language $mark" in
    'sh example')
      played=$((played + 1))
      (cd "$sources" && sh -e "$work/body") >"$work/output" 2>&1 || fail "$where: an example fails:" "$work/output"
      ;;
    'bat example')
      played=$((played + 1))
      : >"$work/all"
      while IFS= read -r line; do
        printf '%s\r\n' "$line" >"$place/example.bat"
        (cd "$place" && "$emulator" "$prefix" cmd /q /c example.bat) </dev/null >"$work/raw" 2>&1 ||
          fail "$where: \"$line\" fails:" "$work/raw"
        tr -d '\r' <"$work/raw" >>"$work/all"
        case $line in *'service send'*) delivered ;; esac
      done <"$work/body"
      mv "$work/all" "$work/output"
      ;;
    *' output') prints "$work/body" "$work/output" || fail "$where: the example before it prints:" "$work/output" ;;
    *' file '*) cp "$work/body" "$place/${mark#file }" ;;
    *' story' | *' not-here: '?*) ;;
    'json ' | 'mermaid ' | 'text ')
      ! grep -qE '^(\.\\)?vxhost [^ ]' "$work/body" || fail "$where: a block of commands needs a mark"
      ;;
    *) fail "$where: a block of commands needs one of the marks of $0, not \"$language $mark\"" ;;
  esac
done
[ "$played" -ge 4 ] || fail "only $played examples found"
exit $((failures > 0))
