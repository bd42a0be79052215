#!/usr/bin/env bash
# Makes the example CA certificates of this folder with the openssl command:
# two self-signed test roots and an issuing CA under the first, all with
# made-up names, and the PEM list file that holds all three. The private keys
# are thrown away; run again to get fresh certificates (new keys, serials and
# dates), then rewrite the CA list file the tests keep of them:
#   QUILLON_REGENERATE_FIXTURES=1 quillon_unit_tests --gtest_filter=CaList.CheckedIn*
set -euo pipefail
cd "$(dirname "$0")"
KEYS=$(mktemp -d)
trap 'rm -rf "$KEYS"' EXIT
DAYS=7300  # twenty years

cat >"$KEYS/ext.cnf" <<'CNF'
[root]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[issuing]
basicConstraints = critical, CA:true, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
crlDistributionPoints = URI:http://crl.example.invalid/quillon-example-root-ca.crl
CNF
{ printf '[req]\ndistinguished_name = dn\n[dn]\n'; cat "$KEYS/ext.cnf"; } >"$KEYS/req.cnf"

# Quillon Example Root CA: RSA 3072, SHA-256.
openssl req -x509 -new -newkey rsa:3072 -nodes -keyout "$KEYS/root.key" -sha256 \
  -days "$DAYS" -subj "/C=IT/O=Quillon Examples/CN=Quillon Example Root CA" \
  -extensions root -config "$KEYS/req.cnf" -out quillon-example-root-ca.pem

# Quillon Example Issuing CA, under the root: EC P-256, SHA-256.
openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$KEYS/issuing.key" \
  -subj "/C=IT/O=Quillon Examples/OU=Issuing/CN=Quillon Example Issuing CA" \
  -out "$KEYS/issuing.csr"
openssl x509 -req -in "$KEYS/issuing.csr" -CA quillon-example-root-ca.pem -CAkey "$KEYS/root.key" \
  -CAcreateserial -CAserial "$KEYS/root.srl" -sha256 -days "$DAYS" \
  -extfile "$KEYS/ext.cnf" -extensions issuing -out quillon-example-issuing-ca.pem

# Quillon Example ECC Root CA: EC P-384, SHA-384, kept in DER.
openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-384 -nodes \
  -keyout "$KEYS/ecc.key" -sha384 -days "$DAYS" \
  -subj "/C=DE/O=Quillon Examples/CN=Quillon Example ECC Root CA" \
  -extensions root -config "$KEYS/req.cnf" \
  -outform DER -out quillon-example-ecc-root-ca.der

# The PEM list file: the three certificates, each under a comment line.
{
  for f in quillon-example-root-ca.pem quillon-example-issuing-ca.pem; do
    openssl x509 -in "$f" -noout -subject | sed 's/^/# /'
    openssl x509 -in "$f"
  done
  openssl x509 -inform DER -in quillon-example-ecc-root-ca.der -noout -subject | sed 's/^/# /'
  openssl x509 -inform DER -in quillon-example-ecc-root-ca.der
} >quillon-example-cas.pem
