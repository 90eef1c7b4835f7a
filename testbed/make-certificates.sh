#!/usr/bin/env bash
# make-certificates.sh DIR: creates the certificates of the mock cloud, valid for a few days.
#
#   ca.pem                         the CA certificate that the daemon trusts
#   cloud.pem, cloud.key           signed by ca.pem, for localhost and 127.0.0.1
#   elsewhere.pem, elsewhere.key   signed by ca.pem, for another host
#   client.pem, client.key         signed by ca.pem, for localhost, but not for servers
#   strangers-ca.pem               a CA certificate that the daemon does not trust
#   stranger.pem, stranger.key     signed by strangers-ca.pem, for localhost
#   partial.pem, partial.key       signed by an intermediate CA, which ca.pem signed
#   chain.pem, chain.key           the same, with the certificate of the intermediate CA
#   expired.pem, expired.key       signed by ca.pem, for localhost, expired
#   future.pem, future.key         signed by ca.pem, for localhost, not yet valid
#   alone.pem, alone.key           signed by its own key
#   expired-ca.pem                 like ca.pem, with the same key, but expired
#   impostor.pem                   like ca.pem, but with another key
set -euo pipefail

readonly days=3
readonly newKey=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -noenc -days "$days")

# makeCa NAME SUBJECT [OPTION...]
makeCa() {
    openssl req -utf8 -x509 "${newKey[@]}" -subj "/CN=$2" -keyout "$1.key" -out "$1.pem" \
        -addext keyUsage=critical,keyCertSign "${@:3}"
}

# makeServer NAME CA HOSTS [PURPOSE]
makeServer() {
    openssl req -x509 "${newKey[@]}" -subj /CN=server -CA "$2.pem" -CAkey "$2.key" \
        -keyout "$1.key" -out "$1.pem" -addext "subjectAltName=$3" \
        -addext basicConstraints=critical,CA:FALSE -addext extendedKeyUsage="${4:-serverAuth}"
}

# makeDated NAME YEAR [OPTION...]: valid in January of that year. "openssl req" cannot do this.
makeDated() {
    : >index.txt
    openssl ca -batch -notext -keyfile ca.key -in "$1.csr" -out "$1.pem" \
        -startdate "${2}0101000000Z" -enddate "${2}0201000000Z" "${@:3}" \
        -config <(printf '%s\n' '[ca]' 'default_ca=settings' '[settings]' 'database=index.txt' \
            'new_certs_dir=.' 'rand_serial=yes' 'default_md=sha256' 'policy=any' '[any]' \
            'commonName=supplied' '[server]' 'subjectAltName=DNS:localhost' \
            '[authority]' 'keyUsage=critical,keyCertSign' 'basicConstraints=critical,CA:TRUE')
}

# makeDatedServer NAME YEAR
makeDatedServer() {
    openssl req -new "${newKey[@]:0:5}" -subj /CN=server -keyout "$1.key" -out "$1.csr"
    makeDated "$1" "$2" -cert ca.pem -extensions server
}

# Finally deletes the CA keys, so that nothing else can be signed with them.
makeAll() {
    makeCa ca "Mock cloud CA" &&
        makeCa strangers-ca "Fake DigiCert Global Root CA Zürich" &&
        makeServer cloud ca DNS:localhost,IP:127.0.0.1 &&
        makeServer elsewhere ca DNS:elsewhere.example,DNS:other.example &&
        makeServer client ca DNS:localhost clientAuth &&
        makeServer stranger strangers-ca DNS:localhost,IP:127.0.0.1 &&
        makeCa intermediate "Intermediate authority" -CA ca.pem -CAkey ca.key &&
        makeServer partial intermediate DNS:localhost,IP:127.0.0.1 &&
        cat partial.pem intermediate.pem >chain.pem && cp partial.key chain.key &&
        makeDatedServer expired 2020 &&
        makeDatedServer future 2099 &&
        makeCa alone localhost -addext subjectAltName=DNS:localhost &&
        openssl req -new -key ca.key -subj "/CN=Mock cloud CA" -out expired-ca.csr &&
        makeDated expired-ca 2020 -selfsign -extensions authority &&
        makeCa impostor "Mock cloud CA" &&
        rm ca.key strangers-ca.key intermediate.key impostor.key
}

if [[ $# -ne 1 ]]; then
    echo "usage: make-certificates.sh DIR" >&2
    exit 2
fi
umask 077
mkdir -p "$1"
cd "$1"
# openssl reports every new key on standard error. This output is shown only if a command fails.
if ! messages=$(makeAll 2>&1); then
    echo "make-certificates.sh: $messages" >&2
    exit 1
fi
