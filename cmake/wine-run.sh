#!/bin/sh
# wine-run.sh PREFIX PROGRAM [ARG...]: runs a Windows program under Wine in a prefix of its own,
# which is made on first use.
set -u
export WINEPREFIX="$1"
shift
export LC_ALL=C.UTF-8 WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all}
# The first two keep prefix creation from asking for Mono and Gecko. Without the debugger a program
# that crashes ends with the exception's code at once; with it, some ended with 0, a success. The
# desktop, which has nothing to show, would be started by the first program with a message window,
# and keep that one's output open until the server goes.
export WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=d;winedbg.exe=d;explorer.exe=d'
unset DISPLAY
mkdir -p "$WINEPREFIX"
# Wine's background services inherit the first client's open files. Warming the server here, with
# everything redirected and the lock closed, keeps a test's pipes and the lock out of their hands.
(
  flock 9
  {
    if [ ! -f "$WINEPREFIX/.ready" ]; then
      wineboot -i && wine winecfg -v win10 && { wineserver -k || :; } && touch "$WINEPREFIX/.ready"
    fi
    if wineserver -p30; then wine cmd /c exit; fi
  } 9>&-
) 9>"$WINEPREFIX/.lock" >/dev/null 2>&1 </dev/null
exec wine "$@"
