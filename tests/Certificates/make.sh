#!/usr/bin/env bash
# Makes the certificates of the tests in the folder given: nothing in them expires or depends on the day they
# are made, but for what is meant to have expired.
#
#   root_ca ── intermediate_1 ─┬─ server, server_rsa, client, expired, revoked
#                              └─ intermediate_2 ── intermediate_3 ── deep
#   other_ca ── other_server                       (of no relation to the above)
#
# <name>.pem is a certificate, <name>_key.pem its key. Besides:
#   server_chain.pem             server and intermediate_1, as servers send them
#   trust.pem                    root_ca and other_ca in one file
#   crl.pem, crl.der             of intermediate_1: revokes `revoked`
#   empty_crl.pem, other_crl.pem of intermediate_1, revoking none; of other_ca, revoking the serial of `revoked`
#   server_key_encrypted.pem     PKCS#8, password "secret"; server_key_legacy.pem: the older form of it
set -euo pipefail

out=$1
work=$(mktemp -d)
mkdir -p "$out"
exec 3>&2 >"$work/log" 2>&1

# Shows what the commands said only if one of them failed.
clean_up() {
    local status=$?
    [[ $status == 0 ]] || cat "$work/log" >&3
    rm -rf "$work"
}
trap clean_up EXIT

subject_of() { echo "/C=GB/ST=England/L=London/O=Ravelo Tests/OU=Sockets/CN=$1"; }

cat >"$work/ca.conf" <<'CONFIG'
[any]
countryName = optional
stateOrProvinceName = optional
localityName = optional
organizationName = optional
organizationalUnitName = optional
commonName = supplied
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[peer]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth, clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:localhost, DNS:ravelo.test, IP:127.0.0.1, IP:::1
[request]
distinguished_name = nothing
[nothing]
CONFIG

# Each authority has a database of its own for `openssl ca`.
prepare_authority() {
    mkdir -p "$work/$1"
    : >"$work/$1/index"
    echo 1000 >"$work/$1/crlnumber"
    cat "$work/ca.conf" - >"$work/$1.conf" <<CONFIG
[ca]
default_ca = this
[this]
database = $work/$1/index
serial = $work/$1/serial
crlnumber = $work/$1/crlnumber
new_certs_dir = $work/$1
default_md = sha256
policy = any
unique_subject = no
email_in_dn = no
CONFIG
}

make_key() {
    case $2 in
        ec) openssl genpkey -quiet -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$out/$1_key.pem" ;;
        rsa) openssl genpkey -quiet -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$out/$1_key.pem" ;;
    esac
}

# issue <authority> <name> <section> <serial, hexadecimal> [<ec|rsa>] [<last day, YYYYMMDD>]
issue() {
    local authority=$1 name=$2 section=$3 serial=$4 kind=${5:-ec} end=${6:-21200101}
    local issuer=(-cert "$out/$authority.pem")
    make_key "$name" "$kind"
    openssl req -new -config "$work/ca.conf" -key "$out/${name}_key.pem" -subj "$(subject_of "$name")" \
        -out "$work/request.pem"
    [[ $section == authority ]] && prepare_authority "$name"
    [[ $authority == "$name" ]] && issuer=(-selfsign)
    echo "$serial" >"$work/$authority/serial"
    openssl ca -batch -notext -config "$work/$authority.conf" -name this -extensions "$section" -preserveDN \
        -startdate 20200101000000Z -enddate "${end}000000Z" \
        "${issuer[@]}" -keyfile "$out/${authority}_key.pem" -in "$work/request.pem" -out "$out/$name.pem"
}

# make_crl <authority> <name>
make_crl() {
    openssl ca -gencrl -config "$work/$1.conf" -name this -cert "$out/$1.pem" -keyfile "$out/$1_key.pem" \
        -crl_lastupdate 20200101000000Z -crl_nextupdate 21200101000000Z -out "$out/$2.pem"
}

issue root_ca root_ca authority 01
issue root_ca intermediate_1 authority 02
issue intermediate_1 intermediate_2 authority 03
issue intermediate_2 intermediate_3 authority 04
issue intermediate_3 deep peer 05
issue intermediate_1 server peer 1234567890ABCDEF1234567890ABCDEF
issue intermediate_1 server_rsa peer 10 rsa
issue intermediate_1 client peer 11
issue intermediate_1 expired peer 12 ec 20210101
make_crl intermediate_1 empty_crl
issue intermediate_1 revoked peer 13
openssl ca -config "$work/intermediate_1.conf" -name this -cert "$out/intermediate_1.pem" \
    -keyfile "$out/intermediate_1_key.pem" -revoke "$out/revoked.pem"
make_crl intermediate_1 crl
openssl crl -in "$out/crl.pem" -outform DER -out "$out/crl.der"
issue other_ca other_ca authority 01
issue other_ca other_server peer 13
openssl ca -config "$work/other_ca.conf" -name this -cert "$out/other_ca.pem" \
    -keyfile "$out/other_ca_key.pem" -revoke "$out/other_server.pem"
make_crl other_ca other_crl

cat "$out/server.pem" "$out/intermediate_1.pem" >"$out/server_chain.pem"
cat "$out/root_ca.pem" "$out/other_ca.pem" >"$out/trust.pem"
openssl pkcs8 -topk8 -v2 aes-256-cbc -passout pass:secret -in "$out/server_key.pem" \
    -out "$out/server_key_encrypted.pem"
openssl ec -aes256 -passout pass:secret -in "$out/server_key.pem" -out "$out/server_key_legacy.pem"
