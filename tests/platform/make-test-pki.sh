#!/bin/sh
# Makes a throw-away PKI in DIR: ca.pem, good.pem/.key, revoked.pem/.key and
# expired.pem/.key (for localhost and 127.0.0.1, signed by the CA, the last
# one expired yesterday), crl-empty.pem revoking nothing, crl.pem revoking
# revoked.pem, and hashed/, a hashed certificate directory holding the CA.
# EC keys keep it fast.
set -eu
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
printf '[ca]\ndefault_ca=t\n[t]\ndatabase=index.txt\ncrlnumber=crlnumber\ndefault_md=sha256\ndefault_crl_days=2\n' > ca.cnf
: > index.txt
echo 01 > crlnumber
printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\nbasicConstraints=CA:FALSE\n' > server.ext
key ca.key
openssl req -x509 -new -key ca.key -out ca.pem -days 2 -subj "/CN=nyx test CA" 2>/dev/null
serial=1000
for name in good revoked expired; do
  key "$name.key"
  openssl req -new -key "$name.key" -out "$name.csr" -subj "/CN=localhost" 2>/dev/null
  serial=$((serial + 1))
  days=2
  [ "$name" = expired ] && days=-1
  openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -set_serial "$serial" \
    -days "$days" -extfile server.ext -out "$name.pem" 2>/dev/null
done
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl-empty.pem 2>/dev/null
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -revoke revoked.pem 2>/dev/null
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl.pem 2>/dev/null
mkdir hashed
cp ca.pem hashed/
openssl rehash hashed
