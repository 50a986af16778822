#!/bin/sh
# missing_libraries_test.sh VXHOST EMULATOR PREFIX: the module and the tool load without the
# libraries that they import on first call, and whatever needs one fails as documented.
set -u
vxhost=$1
shift
. "$(dirname "$0")/../run_vxhost.sh"
export VX_WITHOUT=bcrypt,crypt32,powrprof,wtsapi32
expect 0 '"getVersion":' --private-store exec 22
expect 1 'refused (function id 9), the store did not accept the change' --private-store exec 9 \
  '{"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\windows\\none.exe"}}'
expect 1 '"launched":false' --private-store exec 11
expect 1 'no signature that Windows can verify' trust 'C:\windows\system32\notepad.exe'
exit $((failures > 0))
