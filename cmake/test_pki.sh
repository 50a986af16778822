#!/bin/sh
# A throwaway certificate authority for tests, and programs that it signs.
#
#   test_pki.sh keys DIR            makes the authority, its certificates and its pinned key files
#   test_pki.sh sign DIR PROGRAM LIBRARY
#                                   signs copies of both in every way that tests need
#   test_pki.sh pin DIR PROGRAM OUT signs a copy of the program with a key in both sets
#
# Reads and writes only below DIR. Each build tree has its own keys, which protect nothing.
set -eu
umask 077
mode=$1
mkdir -p "$2"
cd "$2"

# The subject of every signer, without its common name.
subject='/C=DE/ST=Test State/L=Testtown/O=Vx Test Makers/OU=Vx Test Unit'

# issue NAME KEY START END SUBJECT: issues a code-signing certificate from the authority.
issue() {
  openssl req -new -key "$2.key" -config ca.cnf -subj "$5" -out "$1.csr"
  openssl ca -batch -notext -config ca.cnf -in "$1.csr" -startdate "$3" -enddate "$4" -out "$1.crt"
  rm "$1.csr"
}

# Prints a key file's public key in the form in which keys are pinned.
pinned_form() {
  openssl rsa -in "$1.key" -RSAPublicKey_out -outform DER | od -An -v -tx1 | tr -d '\n' |
    sed 's/^ //'
  echo
}

make_keys() {
  rm -rf db ./*.key ./*.crt
  mkdir db
  : > db/index.txt
  echo 1000 > db/serial
  cat > ca.cnf <<'END'
[ca]
default_ca = authority
[authority]
database = db/index.txt
new_certs_dir = db
serial = db/serial
certificate = ca.crt
private_key = ca.key
default_md = sha256
policy = any
unique_subject = no
x509_extensions = signing
[any]
countryName = optional
stateOrProvinceName = optional
localityName = optional
organizationName = optional
organizationalUnitName = optional
commonName = supplied
[req]
distinguished_name = name
prompt = no
[name]
commonName = unused
[root]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[signing]
basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
END
  for name in ca pinned general unpinned; do
    openssl genrsa -out "$name.key" 2048
  done
  openssl req -x509 -new -key ca.key -config ca.cnf -extensions root -days 7300 -sha256 \
    -subj '/C=DE/O=Vx Test Makers/CN=Vx Test Authority' -out ca.crt
  issue pinned pinned 20200101000000Z 20450101000000Z "$subject/CN=Vx Test Pinned"
  issue general general 20200101000000Z 20450101000000Z "$subject/CN=Vx Test General"
  issue unpinned unpinned 20200101000000Z 20450101000000Z "$subject/CN=Vx Test Unpinned"
  issue expired pinned 20150101000000Z 20160101000000Z "$subject/CN=Vx Test Expired"
  issue dropbox unpinned 20200101000000Z 20450101000000Z \
    '/C=US/ST=California/L=San Francisco/O=Dropbox, Inc/CN=Dropbox, Inc'
  openssl req -x509 -new -key pinned.key -config ca.cnf -extensions signing -days 7300 -sha256 \
    -subj "$subject/CN=Vx Test Self-signed" -out self_signed.crt
  {
    echo '# Keys of the test authority: what IsFileTrusted accepts.'
    pinned_form pinned
    pinned_form general
  } > pinned_general.txt
  {
    echo '# Keys of the test authority: what IsFileTrustedRestricted accepts.'
    pinned_form pinned
  } > pinned_restricted.txt
}

# sign CERTIFICATE KEY IN OUT [OPTION...]
sign() {
  certificate=$1 key=$2 from=$3 to=$4
  shift 4
  rm -f "$to"
  osslsigncode sign -certs "$certificate.crt" -ac ca.crt -key "$key.key" -h sha256 \
    -n 'Vx test program' "$@" -in "$from" -out "$to"
}

# Changes one byte in the middle of a file, outside its headers and its signature.
flip_byte() {
  offset=$(($(wc -c < "$1") / 2))
  old=$(od -An -tu1 -j "$offset" -N 1 "$1" | tr -d ' ')
  # shellcheck disable=SC2059  # the format is the byte
  printf "\\$(printf '%03o' $(((old + 1) % 256)))" |
    dd of="$1" bs=1 seek="$offset" conv=notrunc status=none
}

sign_programs() {
  cp "$1" unsigned.exe
  sign pinned pinned unsigned.exe pinned.exe
  sign general general unsigned.exe general.exe
  sign unpinned unpinned unsigned.exe unpinned.exe
  sign expired pinned unsigned.exe expired.exe
  sign self_signed pinned unsigned.exe self_signed.exe
  sign dropbox unpinned unsigned.exe dropbox.exe
  # Two signatures: the first key is not pinned, the second is.
  sign pinned pinned unpinned.exe dual.exe -nest
  cp pinned.exe tampered.exe
  flip_byte tampered.exe
  cp pinned.exe appended.exe
  printf 'more bytes' >> appended.exe
}

sign_libraries() {
  cp "$1" unsigned.dll
  for name in pinned general unpinned; do
    sign "$name" "$name" unsigned.dll "$name.dll"
  done
}

# The tools print a lot, so their output appears only if one fails.
exec 3>&2 > "$mode.log" 2>&1
trap 'status=$?; [ "$status" -eq 0 ] || cat "$mode.log" >&3' EXIT
case $mode in
  keys) make_keys ;;
  sign)
    sign_programs "$3"
    sign_libraries "$4"
    ;;
  pin) sign pinned pinned "$3" "$4" ;;
  *)
    echo "test_pki.sh keys|sign|pin DIR [PROGRAM LIBRARY|OUT]"
    exit 2
    ;;
esac
