#!/bin/sh
# Regenerates the test CA and the loopback server certificate it signs.
# The CA key is thrown away: rerun this script to change anything.
set -eu

out=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
days=36500

openssl ecparam -name prime256v1 -genkey -noout -out "$tmp/ca-key.pem"
openssl req -x509 -new -sha256 -days "$days" -key "$tmp/ca-key.pem" \
  -subj "/CN=quillmarsh sync test CA" \
  -addext "basicConstraints=critical,CA:TRUE" \
  -addext "keyUsage=critical,keyCertSign,cRLSign" \
  -addext "subjectKeyIdentifier=hash" \
  -out "$out/ca.pem"

openssl ecparam -name prime256v1 -genkey -noout -out "$tmp/key.pem"
# PKCS#8, the form every OpenSSL loader accepts.
openssl pkcs8 -topk8 -nocrypt -in "$tmp/key.pem" -out "$out/server-key.pem"
openssl req -new -sha256 -key "$out/server-key.pem" \
  -subj "/CN=localhost" -out "$tmp/server.csr"

cat > "$tmp/ext.cnf" <<'EXT'
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=serverAuth
subjectAltName=IP:127.0.0.1,DNS:localhost
subjectKeyIdentifier=hash
authorityKeyIdentifier=keyid
EXT
openssl x509 -req -sha256 -days "$days" -in "$tmp/server.csr" \
  -CA "$out/ca.pem" -CAkey "$tmp/ca-key.pem" \
  -set_serial "0x$(openssl rand -hex 16)" \
  -extfile "$tmp/ext.cnf" -out "$out/server.pem"

chmod 644 "$out/server-key.pem"
openssl verify -CAfile "$out/ca.pem" "$out/server.pem"
