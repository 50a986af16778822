#!/bin/sh
# wine-run.sh PREFIX PROGRAM [ARG...]: runs a Windows program under Wine in PREFIX, which it creates
# on first use. VX_WITHOUT lists Windows libraries, separated by commas, that the program cannot
# load.
set -u
export WINEPREFIX="$1"
shift
export LC_ALL=C.UTF-8 WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all}
# The first two keep prefix creation from asking for Mono and Gecko. Without the debugger, a program
# that crashes exits at once with the exception's code. With it, some exited with 0. The first
# program with a message window would start the desktop, which shows nothing here and keeps that
# program's output open until the server ends.
export WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=d;winedbg.exe=d;explorer.exe=d'
unset DISPLAY
# Windows has its shared data at a fixed address, where Linux puts the heap of about one program in
# 5,000. Wine then exits without a message. Some containers do not allow fixed addresses.
if [ -z "${VX_FIXED_ADDRESSES:-}" ] && setarch -R true 2>/dev/null; then
  VX_FIXED_ADDRESSES=1 exec setarch -R "$0" "$WINEPREFIX" "$@"
fi
umask go-w  # a service cannot be installed where other accounts can write
mkdir -p "$WINEPREFIX"
# Wine's background services inherit the first client's open files. Starting the server here, with
# all output redirected and the lock closed, keeps a test's pipes and the lock from them. The server
# stays for longer than a prefix is idle between two tests. A program that starts while the server
# ends is killed, or starts a server of its own, which ends with it and stops every service.
(
  flock 9
  {
    if [ ! -f "$WINEPREFIX/.ready" ]; then
      wineboot -i && wine winecfg -v win10 && { wineserver -k || :; } && touch "$WINEPREFIX/.ready"
    fi
    if wineserver -p300; then wine cmd /c exit; fi
  } 9>&-
) 9>"$WINEPREFIX/.lock" >/dev/null 2>&1 </dev/null
# Set only here, because the services that Wine starts above need these libraries.
exec env ${VX_WITHOUT:+"WINEDLLOVERRIDES=$WINEDLLOVERRIDES;$VX_WITHOUT="} wine "$@"
