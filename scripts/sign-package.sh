#!/bin/bash
# Copies the package for Windows and test-signs the drivers in the copy, with a certificate that is
# made for it on the spot. Each signature is verified. The key is thrown away: a certificate that
# machines were told to trust is of no more use to anyone.
#
# usage: sign-package.sh PACKAGE SIGNED-PACKAGE
set -euo pipefail

[ $# = 2 ] || {
    sed -n 's/^# \{0,1\}//; 2,6p' "$0" >&2
    exit 2
}
readonly package=$1 signed=$2
[ -f "$package/NETSIEVE.sys" ] || {
    echo "sign-package: there is no $package/NETSIEVE.sys; run 'make image' first" >&2
    exit 2
}

scratch=$(mktemp -d)
readonly scratch
trap 'rm -rf "$scratch"' EXIT

quietly() { # COMMAND...
    "$@" >"$scratch/words" 2>&1 || {
        cat "$scratch/words" >&2
        echo "sign-package: '$1' failed" >&2
        exit 1
    }
}

quietly openssl req -x509 -newkey rsa:2048 -sha256 -days 365 -noenc -subj '/CN=NetSieve test' \
    -addext 'keyUsage=critical,digitalSignature' -addext 'extendedKeyUsage=codeSigning' \
    -addext 'basicConstraints=critical,CA:false' -keyout "$scratch/key" -out "$scratch/cert"

rm -rf "$signed"
cp -r "$package" "$signed"
openssl x509 -in "$scratch/cert" -outform DER -out "$signed/netsieve-test.cer"

for driver in "$signed"/*.sys "$signed"/samples/*.sys; do
    # The name is what Windows shows when it asks whether to trust the driver.
    quietly osslsigncode sign -h sha256 -n "NetSieve ${driver##*/}" -certs "$scratch/cert" \
        -key "$scratch/key" -in "$driver" -out "$scratch/signed"
    mv "$scratch/signed" "$driver"
    quietly osslsigncode verify -CAfile "$scratch/cert" -in "$driver"
    echo "signed and verified: ${driver#"$signed"/}"
done
