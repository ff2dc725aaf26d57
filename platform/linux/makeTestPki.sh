#!/bin/sh
# Generates the test signing authority: makeTestPki.sh OPENSSL DIR
set -e
openssl=$1
dir=$2
mkdir -p "$dir"
cd "$dir"
ext_leaf="basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=codeSigning"
printf '%s\n' "$ext_leaf" > leaf.ext
ca() { # name subject
   "$openssl" req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" \
      -out "$1.pem" -days 3650 -subj "$2" -addext "basicConstraints=critical,CA:TRUE" \
      -addext "keyUsage=critical,keyCertSign,cRLSign"
}
leaf() { # name subject ca
   "$openssl" req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" \
      -out "$1.csr" -subj "$2"
   "$openssl" x509 -req -in "$1.csr" -CA "$3.pem" -CAkey "$3.key" -CAcreateserial \
      -out "$1.pem" -days 3650 -extfile leaf.ext
}
ca ca "/O=Tesmar Test/CN=Tesmar Test Code Signing Root"
ca untrusted-ca "/O=Elsewhere/CN=Untrusted Code Signing Root"
leaf leaf "/O=Tesmar, Inc./CN=Developer ID Application: Tesmar, Inc. (TEST)" ca
leaf foreign "/O=Other Maker/CN=Developer ID Application: Other Maker" ca
leaf untrusted "/O=Tesmar, Inc./CN=Developer ID Application: Tesmar, Inc. (TEST)" untrusted-ca
touch done
