#!/usr/bin/env bash
# make-certificates.sh DIR: creates the certificates of the mock cloud, valid for a few days.
#
#   ca.pem                         the CA certificate that the daemon trusts
#   cloud.pem, cloud.key           signed by ca.pem, for localhost and 127.0.0.1
#   elsewhere.pem, elsewhere.key   signed by ca.pem, for another host
#   strangers-ca.pem               a CA certificate that the daemon does not trust
#   stranger.pem, stranger.key     signed by strangers-ca.pem, for localhost
set -euo pipefail

readonly days=3
readonly newKey=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -noenc -days "$days")

# makeCa NAME SUBJECT
makeCa() {
    openssl req -x509 "${newKey[@]}" -subj "/CN=$2" -keyout "$1.key" -out "$1.pem" \
        -addext keyUsage=critical,keyCertSign
}

# makeServer NAME CA HOSTS
makeServer() {
    openssl req -x509 "${newKey[@]}" -subj /CN=server -CA "$2.pem" -CAkey "$2.key" \
        -keyout "$1.key" -out "$1.pem" -addext "subjectAltName=$3" \
        -addext basicConstraints=critical,CA:FALSE -addext extendedKeyUsage=serverAuth
}

# Finally deletes the CA keys, so that nothing else can be signed with them.
makeAll() {
    makeCa ca "Mock cloud CA" &&
        makeCa strangers-ca "Unknown authority" &&
        makeServer cloud ca DNS:localhost,IP:127.0.0.1 &&
        makeServer elsewhere ca DNS:elsewhere.example &&
        makeServer stranger strangers-ca DNS:localhost,IP:127.0.0.1 &&
        rm ca.key strangers-ca.key
}

if [[ $# -ne 1 ]]; then
    echo "usage: make-certificates.sh DIR" >&2
    exit 2
fi
umask 077
mkdir -p "$1"
cd "$1"
# openssl reports every new key on standard error. Show that only if a command fails.
if ! messages=$(makeAll 2>&1); then
    echo "make-certificates.sh: $messages" >&2
    exit 1
fi
