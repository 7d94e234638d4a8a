#!/usr/bin/env bash
# Makes the seeds of PemFuzz and CrlFuzz out of the certificates of the tests.
#   make_certificate_seeds.sh <folder of certificates> <folder of corpora>
set -euo pipefail
made=$1
pem=$2/PemFuzz
crl=$2/CrlFuzz
rm -rf "$pem" "$crl"
mkdir -p "$pem" "$crl"

# seed <kind as PemFuzz.cpp counts them> <name>: standard input behind the kind's byte.
seed() {
    printf '%b' "\\x0$1" >"$pem/$2"
    cat >>"$pem/$2"
}
# The contents of a file's first PEM block, without its armour.
bare() { sed -n '/-----BEGIN/,/-----END/{/-----/!p}; /-----END/q' "$1" | base64 -d; }

for name in server_key server_key_encrypted server_key_legacy server_rsa_key trust server_chain; do
    seed 0 "$name.pem" <"$made/$name.pem"
done
cat "$made/server.pem" "$made/server_key.pem" | seed 0 pair.pem
for name in server root_ca server_rsa; do bare "$made/$name.pem" | seed 1 "$name.der"; done
for name in server_key server_rsa_key; do bare "$made/$name.pem" | seed 2 "$name.der"; done
bare "$made/server_key_encrypted.pem" | seed 3 server_key_encrypted.der
openssl ec -in "$made/server_key.pem" -outform DER 2>/dev/null | seed 4 server_ec_key.der
openssl rsa -in "$made/server_rsa_key.pem" -traditional -outform DER 2>/dev/null | seed 5 server_rsa_key_old.der

cp "$made"/crl.der "$made"/crl.pem "$made"/empty_crl.pem "$made"/other_crl.pem "$crl"
