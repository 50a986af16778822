#!/bin/sh
# trust_test.sh PKI VXHOST MODULE OTHER PINNED EMULATOR...: shows signatures and pinned keys. MODULE
# and the tool PINNED pin keys of PKI. OTHER and VXHOST pin none.
set -u
pki=$1 vxhost=$2 module=$3 other=$4 pinned=$5
shift 5
. "$(dirname "$0")/../run_vxhost.sh"
need "$pki/pinned.exe" "$module" "$other" "$pinned"
cd "$pki" || exit 1

# The verdict uses the keys of the given module, not of the tool.
expect 1 'verified), key pinned' --dll "$module" trust pinned.exe
expect 1 'verified), key not pinned' --dll "$module" trust general.exe
expect 1 'verified), key pinned' --dll "$module" trust --general general.exe
expect 1 '-  no keys are pinned in this build' --dll "$other" trust pinned.exe
expect 2 'cannot be read: it has no list of pinned keys; name another module' --dll pinned.exe \
  trust pinned.exe
expect 2 'validate and doctor use it' --simulate trust pinned.exe

# A key is shown with its fingerprint and, if a file or a signature has one, its certificate.
fingerprint=$(openssl rsa -in pinned.key -RSAPublicKey_out -outform DER 2> "$work/log" | sha256sum | cut -c 1-64)
expect 0 "  sha256 $fingerprint" --dll "$module" pins
expect 0 '    no certificate was found' --dll "$module" pins
for certificate in pinned.crt pinned.exe; do
  expect 0 'Vx Test Pinned, until 2045-01-01, ' --dll "$module" pins --cert $certificate
done
grep -q ', [0-9]* days left$' "$work/output" || fail 'the days left are missing' "$work/output"
# If two certificates have the same key, the later one is shown.
expect 0 'Vx Test Pinned, until 2045' --dll "$module" pins --cert pinned.crt --cert expired.crt
expect 0 ', until 2016-01-01, expired' --dll "$module" pins --cert expired.crt
expect 0 'restricted: none, so no program is started' --dll "$other" pins
expect 2 'ca.cnf contains neither a certificate nor a signature' --dll "$module" pins --cert ca.cnf
expect 0 '"subject":"' --dll "$module" pins --cert expired.crt --json
grep -qE "\"general\":\[.*\"fingerprint\":\"$fingerprint\",.*\"until\":\"2016-01-01\",\"daysLeft\":-[0-9]+\}" \
  "$work/output" || fail 'pins --json lacks the key or its lifetime' "$work/output"

# A file created by PowerShell keeps its content but becomes UTF-8. Each key is added once, with its
# subject.
list=$work/keys.txt
printf '# B\303\274ro\r\n' | iconv -f UTF-8 -t UTF-16LE | { printf '\377\376'; cat; } > "$list"
expect 0 'keys added: 1' pin pinned.exe --append "Z:$list"
expect 0 'keys added: 0' pin pinned.exe --append "Z:$list"
expect 0 'keys added: 1' pin dual.exe --append "Z:$list"
expect 1 'has no signature that Windows can read' pin unsigned.exe --append "Z:$list"
{
  printf '# B\303\274ro\r\n'
  echo '# C=DE, S=Test State, L=Testtown, O=Vx Test Makers, OU=Vx Test Unit, CN=Vx Test Pinned'
  cat pinned_restricted.txt
  echo '# C=DE, S=Test State, L=Testtown, O=Vx Test Makers, OU=Vx Test Unit, CN=Vx Test Unpinned'
} | grep -v '^# Keys' > "$work/wanted"
head -n -1 "$list" | tr -d '"' | diff "$work/wanted" - > "$work/output" || fail "the key file differs" "$work/output"

# The doctor checks the module's signature against the module's own keys, and its lifetime.
# signed NAME CERTIFICATE KEY FILE: writes a signed copy of FILE.
signed() {
  osslsigncode sign -certs "$2.crt" -key "$3.key" -h sha256 -in "$4" -out "$work/$1" > "$work/log" 2>&1 && return
  echo "cannot sign $1 with osslsigncode, which scripts/build installs: $(tail -n 1 "$work/log")"
  exit 1
}
signed own.dll pinned pinned "$module"
signed foreign.dll unpinned unpinned "$module"
signed over.dll expired pinned "$module"
expect 1 "+  module's key: its signature's key is a restricted one" --dll "Z:$work/own.dll" doctor
expect 1 "+  module's signature: signed by " --dll "Z:$work/own.dll" doctor
expect 1 "-  module's key: its signature's key is not among its pinned keys" --dll "Z:$work/foreign.dll" doctor
expect 1 "-  module's signature: signed by " --dll "Z:$work/over.dll" doctor
grep -qF ', until 2016-01-01, expired' "$work/output" || fail 'the end of the certificate is missing' "$work/output"
expect 1 '+  pinned keys: 2 general, 1 restricted' --dll "$module" doctor

# Only the service's own lines count as power events, not text from clients.
mkdir "$work/log files"
record() { # TIME PROVIDER MESSAGE
  printf '{"time":"%s","level":"INFO","provider":"%s","caller":"","thread":1,"process":2,"message":"%s"}\n' "$@"
}
{
  record 2026-01-01T00:00:00.000Z Vx-Host-Service 'the module is started: Vx-Host-Service'
  record 2026-01-01T00:00:00.000Z Vx-Tessel-Service 'power event 4 Vx-Host-Service'
  record 2026-01-01T00:00:00.000Z Vx-Host-Service 'the service cannot run: no file' | sed 's/INFO/ERROR/'
  printf '{"time":"2026-01-01T00:00:00.000Z","provider":"Vx-Host-Service","messa\n'
} > "$work/log files/vxhost-20260101-0001.log"
expect 1 '-  power events: none in 1 log files' --dll "$module" doctor --log "Z:$work/log files"
grep -qF -- '-  last error: the service cannot run: no file at 2026-01-01' "$work/output" || fail 'no last error' "$work/output"
record 2026-01-02T00:00:00.000Z Vx-Host-Service 'power event 18' > "$work/log files/Other-20260102-0001.log"
record 2026-01-01T00:00:00.000Z Vx-Host-Service 'power event 4' >> "$work/log files/vxhost-20260101-0001.log"
expect 1 '+  power events: 2, the last power event 18 at 2026-01-02' --dll "$module" doctor --log "Z:$work/log files"
expect 1 '-  log folder: cannot list' --dll "$module" doctor --log missing

# A tool signed with a pinned key refuses to run, wherever it is and whatever its arguments.
signed tool-pinned.exe pinned pinned "$pinned"
signed tool-general.exe general general "$pinned"
signed tool-expired.exe expired pinned "$pinned"
signed tool-unpinned.exe unpinned unpinned "$pinned"
for kind in pinned general expired; do
  vxhost=$work/tool-$kind.exe
  for command in --help '--simulate exec 22' 'service status' "store backup $work/made"; do
    # shellcheck disable=SC2086
    expect 2 'is signed with a pinned key' $command
  done
done
vxhost=$work/tool-unpinned.exe
expect 0 '"getVersion"' --simulate exec 22
[ ! -e "$work/made" ] || fail 'a tool that refuses to run makes a file'
vxhost=$pinned
expect 0 '"getVersion"' --simulate exec 22
exit $((failures > 0))
