#!/bin/sh
# Makes a throw-away PKI in DIR: ca.pem, good.pem/.key, revoked.pem/.key and
# expired.pem/.key (for 127.0.0.1 only, signed by the CA, the last one
# expired yesterday), crl-empty.pem revoking nothing, crl.pem revoking
# revoked.pem, and hashed/, a hashed certificate directory holding the CA.
# EC keys keep it fast.
set -eu
cd "$1"
ec="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc"
printf '[ca]\ndefault_ca=t\n[t]\ndatabase=index.txt\ncrlnumber=crlnumber\ndefault_md=sha256\ndefault_crl_days=2\n' > ca.cnf
: > index.txt
echo 01 > crlnumber
openssl req -x509 $ec -keyout ca.key -out ca.pem -days 2 -subj "/CN=nyx test CA" 2>/dev/null
for name in good revoked expired; do
  openssl req -new $ec -keyout "$name.key" -out "$name.csr" -subj "/CN=nyx test server" \
    -addext subjectAltName=IP:127.0.0.1 -addext basicConstraints=CA:FALSE 2>/dev/null
  days=2
  [ "$name" = expired ] && days=-1
  openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days "$days" \
    -copy_extensions copy -out "$name.pem" 2>/dev/null
done
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl-empty.pem 2>/dev/null
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -revoke revoked.pem 2>/dev/null
openssl ca -config ca.cnf -keyfile ca.key -cert ca.pem -gencrl -out crl.pem 2>/dev/null
mkdir hashed
cp ca.pem hashed/
openssl rehash hashed
