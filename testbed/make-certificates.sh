#!/usr/bin/env bash
# make-certificates.sh DIR: makes the certificates of the stand-in cloud, good for a few days.
#
#   ca.pem                         the authority that the daemon is given to trust
#   cloud.pem, cloud.key           signed by it, for localhost and 127.0.0.1
#   elsewhere.pem, elsewhere.key   signed by it, for another host
#   stranger.pem, stranger.key     for localhost, signed by another authority
#   strangers-ca.pem               that authority
#   partial.pem, partial.key       signed by an intermediate authority of the first one
#   expired.pem, expired.key       signed by the first authority, for localhost, in the past
set -euo pipefail

readonly days=3
readonly newKey=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -noenc -days "$days")

# makeAuthority NAME SUBJECT [OPTION...]
makeAuthority() {
    openssl req -x509 "${newKey[@]}" -subj "/CN=$2" -keyout "$1.key" -out "$1.pem" \
        -addext keyUsage=critical,keyCertSign "${@:3}"
}

# makeServer NAME AUTHORITY HOSTS
makeServer() {
    openssl req -x509 "${newKey[@]}" -subj /CN=server -CA "$2.pem" -CAkey "$2.key" \
        -keyout "$1.key" -out "$1.pem" -addext "subjectAltName=$3" \
        -addext basicConstraints=critical,CA:FALSE -addext extendedKeyUsage=serverAuth
}

# makeExpired: "openssl req" cannot make a certificate of the past.
makeExpired() {
    touch index.txt
    openssl req -new "${newKey[@]:0:5}" -subj /CN=server -keyout expired.key -out expired.csr
    openssl ca -batch -notext -cert ca.pem -keyfile ca.key -in expired.csr -out expired.pem \
        -startdate 20200101000000Z -enddate 20200201000000Z -extensions names \
        -config <(printf '%s\n' '[ca]' 'default_ca=settings' '[settings]' 'database=index.txt' \
            'new_certs_dir=.' 'rand_serial=yes' 'default_md=sha256' 'policy=any' '[any]' \
            'commonName=supplied' '[names]' 'subjectAltName=DNS:localhost')
}

# The last line: nothing else is ever signed with the authorities' keys.
makeAll() {
    makeAuthority ca "Stand-in cloud authority" &&
        makeAuthority strangers-ca "Unknown authority" &&
        makeServer cloud ca DNS:localhost,IP:127.0.0.1 &&
        makeServer elsewhere ca DNS:elsewhere.example &&
        makeServer stranger strangers-ca DNS:localhost,IP:127.0.0.1 &&
        makeAuthority intermediate "Intermediate authority" -CA ca.pem -CAkey ca.key &&
        makeServer partial intermediate DNS:localhost,IP:127.0.0.1 &&
        makeExpired &&
        rm ca.key strangers-ca.key intermediate.key
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
