#!/usr/bin/env bash
# make-certificates.sh DIR: makes the certificates of the stand-in cloud, good for a few days.
#
#   ca.pem                         the authority that the daemon is given to trust
#   cloud.pem, cloud.key           signed by it, for localhost and 127.0.0.1
#   elsewhere.pem, elsewhere.key   signed by it, for another host
#   stranger.pem, stranger.key     for localhost, signed by another authority
#   strangers-ca.pem               that authority
set -euo pipefail

readonly days=3
readonly newKey=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -noenc -days "$days")

# makeAuthority NAME SUBJECT
makeAuthority() {
    openssl req -x509 "${newKey[@]}" -subj "/CN=$2" -keyout "$1.key" -out "$1.pem" \
        -addext keyUsage=critical,keyCertSign
}

# makeServer NAME AUTHORITY HOSTS
makeServer() {
    openssl req -x509 "${newKey[@]}" -subj /CN=server -CA "$2.pem" -CAkey "$2.key" \
        -keyout "$1.key" -out "$1.pem" -addext "subjectAltName=$3" \
        -addext basicConstraints=critical,CA:FALSE -addext extendedKeyUsage=serverAuth
}

# The last line: nothing else is ever signed with the authorities' keys.
makeAll() {
    makeAuthority ca "Stand-in cloud authority" &&
        makeAuthority strangers-ca "Unknown authority" &&
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
# openssl reports every key that it makes on standard error: worth reading only when it fails.
if ! messages=$(makeAll 2>&1); then
    echo "make-certificates.sh: $messages" >&2
    exit 1
fi
