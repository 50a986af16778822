#!/bin/sh
# stories_test.sh PAGE VXHOST MODULE UNPINNED EMULATOR PREFIX: plays the stories in PAGE,
# docs/operations.md. Puts the machine into each state, runs the story's command as printed on the
# page, and looks for the cause in its output. If the cause's row names another command, runs that
# too. Leaves no service and no data.
set -u
page=$1 vxhost=$2 module=$3 unpinned=$4
shift 4
. "$(dirname "$0")/../run_vxhost.sh"
need "$page" "$unpinned"
install_tool VxStories "$module"
cd "$place" || exit 1  # so that the page's file names can be used
cp "$unpinned" FILE
data="$prefix/drive_c/ProgramData/Vx" store="$prefix/drive_c/ProgramData/Vx/SharedServices/shared_store.dat"
logs="$(dirname "$0")/history"
cleanup() {
  run service stop
  run service remove --force
  rm -rf "$work" "$place" "$data"
} >/dev/null 2>&1
trap cleanup EXIT
rm -rf "$data"
export TZ=UTC  # for "yesterday"

# log FILE SCRIPT: writes yesterday's log of the service, from FILE edited by the sed script.
log() {
  mkdir -p "$data/Logs"
  sed "$2;s/2026-11-2[56]T/$(date -d yesterday +%F)T/g" "$logs/$1" >"$data/Logs/OrvaneService-20261125-0001.log"
}
only_service='/"kind":/d;/power event/d;/too large/d'
no_event() { log quiet.log "3,\$d;$only_service"; }
service_down() { log quiet.log "$only_service"; }
refused() { log service.log '/db40db6c/!d'; }
not_stored() { log quiet.log '/dddddddd/!d;s/earlier_lines/store_refused/'; }
late() { log rare.log '/"delivery":2\b/!d'; }
nothing_waited() { log quiet.log '3,4d;6,$d'; }
standby() { log rare.log '/"delivery":3\b/!d'; }
ran() { log service.log '/"process":888\b/!d'; }
cut_off() { log rare.log '/"delivery":12\b/!{/is started/!d};/"sent"/d'; }
waits() { log rare.log '/"platform"/!d'; }
no_session() { log rare.log '/no_session/!d'; }
not_sent() { log service.log '/not_sent/!d'; }
not_raised() { log service.log '/not_raised/!d'; }
unreadable() { log quiet.log '/bbbbbbbb/!d'; }
no_thread() { log rare.log '/no_thread/!d'; }
failed_start() { log quiet.log '/cannot run/!d'; }
stored_later() { log quiet.log '/power event 10\|cccccccc/!d'; }
down_later() { log service.log '/"process":888\b/!{/the module is/!d}'; }
stored_unread() { log service.log '/863537c0.*accepted/!d'; }
bad_request() { log service.log '/launched is missing/!{/bad_member/!d}'; }
no_log() { rm -rf "$data/Logs"; }
file_for_log() { no_log && : >"$data/Logs"; }

# The machine's store has one subscription. COPY is a copy of the store.
exits 0 run subscriptions add --power 18 --send f --app-service s --trigger '{01234567-89ab-cdef-0123-456789abcde1}'
exits 0 run store backup COPY
sound() { rm -f "$store"* && cp COPY "$store"; }
empty() { sound && : >"$store"; }
missing() { rm -f "$store"*; }
size() { stat -c %s "$store"; }
cut_short() { sound && truncate -s 30 "$store"; }
zeroed() { sound && head -c "$(size)" /dev/zero >"$work/zero" && cat "$work/zero" >"$store"; }
damaged() { sound && printf XXXXXXXX | dd of="$store" bs=1 seek=$(($(size) - 30)) conv=notrunc 2>/dev/null; }
foreign() { sound && printf '%0200d' 7 >"$store"; }
second_name() { sound && ln "$store" "$data/second"; }
too_large() { sound && truncate -s 65M "$store"; }
list() {  # TEXT: replaces the list of power subscriptions.
  sound
  printf '{"steps":[{"store":{"OrvaneServiceDocument":{"PowerEventSubscriptions":"%s"}}}]}' "$1" >"$work/list.json"
  exits 0 run scenario "$(windows "$work/list.json")"
}
other_list() { list x; }
other_element() { list '[5]'; }

# Installed for development, because this account owns the emulator's folders.
installed() {
  cp "$module" "$place/OrvaneService.dll"
  cp "$host" "$place"
  exits 0 run service install --development --start demand --replace
}
wrong_module() { installed && cp "$prefix/drive_c/windows/system32/version.dll" "$place/OrvaneService.dll"; }
missing_import() { installed && LC_ALL=C sed 's/ADVAPI32\.dll/ADVAPI3X.dll/' "$module" >"$place/OrvaneService.dll"; }
missing_module() { installed && rm "$place/OrvaneService.dll"; }
no_log_folder() {
  missing_import
  rm -r "$data/Logs"
  chmod o+w "$data"  # otherwise the service creates it again
}
no_program() { installed && rm "$place/OrvaneHost.exe"; }
file_for_log_folder() {
  missing_import
  rm -r "$data/Logs" && : >"$data/Logs"
}
log_folder_gone() { rm "$data/Logs" && missing_import && rm -r "$data/Logs"; }
open_folder() {
  installed
  exits 0 run service remove
  chmod o+w "$place"
}

# section TITLE: prints the lines of the page under a heading.
section() { awk -v title="### $1" '$0 == title { on = 1; next } /^##/ { on = 0 } on' "$page"; }

# tell: reads lines TITLE|STATE|CODE|CAUSE|NEXT|CODE|WHY. In the state, the section's command exits
# with CODE and prints CAUSE, which is quoted in a row of the section's table. If there is a NEXT,
# that row contains it, and it exits with CODE and prints WHY.
tell() {
  while IFS='|' read -r title state wanted cause next ends why; do
    section "$title" >"$work/section"
    first=$(sed -n '/^```bat story$/{n;s/^vxhost //p}' "$work/section")
    row=$(grep -F "| \`$cause\`" "$work/section")
    if [ -z "$first" ] || [ -z "$row" ]; then
      fail "the page has no story \"$title\", or no row for \"$cause\""
    fi
    "$state"
    # shellcheck disable=SC2086 # words of a command line
    expect "$wanted" "$cause" $first
    [ -n "$next" ] || continue
    case $row in
      *"\`vxhost $next\`"*) ;;
      *) fail "the row of \"$cause\" does not lead to vxhost $next" ;;
    esac
    # shellcheck disable=SC2086
    expect "$ends" "$why" $next
  done
}

tell <<'END'
A tool did not run last night|no_event|0|Nothing was delivered: no power event came|doctor|1|standby: no Modern Standby
A tool did not run last night|ran|0|ran: |||
A tool did not run last night|cut_off|0|dropped: its service ended before it did|||
A tool did not run last night|waits|0|waiting: |||
A tool did not run last night|no_session|0|not started: |doctor|1|console:
A tool did not run last night|not_sent|0|not sent: |||
A tool did not run last night|not_raised|0|not raised: |doctor|1|custom triggers: absent
A tool did not run last night|unreadable|0|failed: its text cannot be read|||
A tool did not run last night|no_thread|0|failed: |||
A tool did not run last night|failed_start|0|not started: |||
A tool did not run last night|stored_later|0|the subscription was stored later|||
A tool did not run last night|file_for_log|2|cannot list |||
A tool did not run last night|no_log|2|cannot list |service start|2|it is not installed
A tool did not run last night|down_later|0|the service did not run from|||
A tool did not run last night|bad_request|0|refused: |||
A tool did not run last night|stored_unread|0|accepted: its text cannot be read|||
A tool did not run last night|service_down|0|the service did not run from|||
A tool did not run last night|refused|0|refused: it was not signed with a pinned key|trust FILE|1|key not pinned
A tool did not run last night|not_stored|0|refused: the store did not accept the change|||
A tool did not run last night|late|0|dropped: too late|||
A tool did not run last night|standby|0|dropped: Modern Standby ended its wait too early|||
A tool did not run last night|nothing_waited|0|nothing waited for the last event|explain power 18|0|raise the trigger
The store looks broken|sound|0|sound|subscriptions|0|raise the trigger
The store looks broken|other_element|0|sound|subscriptions|0|the stored element is not an object
The store looks broken|empty|0|sound, and empty|store restore COPY|0|is kept as
The store looks broken|missing|1|there is no file|store restore COPY|0|there was no store before
The store looks broken|cut_short|1|cut short: |store restore COPY|0|is kept as
The store looks broken|zeroed|1|zeroed: |store restore COPY|0|is kept as
The store looks broken|damaged|1|damaged: |store restore COPY|0|is kept as
The store looks broken|foreign|1|not a store: |store restore COPY|0|is kept as
The store looks broken|other_list|1|is not a JSON array|store restore COPY|0|is kept as
The store looks broken|second_name|1|linked: the file has a second name|||
The store looks broken|too_large|1|too large: |||
The service does not start|wrong_module|2|is not a service module|||
The service does not start|missing_import|2|cannot load |doctor|2|-  service's module: C:\Program Files\VxStories\OrvaneService.dll imports ADVAPI3X.dll
The service does not start|missing_module|2|cannot load |doctor|2|-  service's module: C:\Program Files\VxStories\OrvaneService.dll is missing
The service does not start|no_log_folder|2|cannot list |service install --replace --repair|2|imports ADVAPI3X.dll
The service does not start|no_program|2|cannot start the service |||
The service does not start|file_for_log_folder|2|cannot list |||
The service does not start|log_folder_gone|2|cannot load |||
The service does not start|open_folder|2|it is not installed|service install|2|can be written by
END
exit $((failures > 0))
