#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes a private CA, a certificate for a target and one for each source. Needs openssl 3.
#
#   make_certificates.sh DIR TARGET-NAME TARGET-ADDRESS SOURCE-NAME...
#
# DIR/ca stays where it is safe: who has its key can make himself any identity. DIR/target goes to
# the target, DIR/SOURCE-NAME to that source; each holds ca.pem, cert.pem and key.pem, as --tls-certs
# takes them. Run it again with more names to add sources; what is there is left alone.
set -eu

if [ $# -lt 4 ]; then
  echo "usage: $0 DIR TARGET-NAME TARGET-ADDRESS SOURCE-NAME..." >&2
  exit 2
fi
dir=$1 target=$2 address=$3
shift 3
days=${DAYS:-365}

umask 077
mkdir -p "$dir/ca"

# The CA: it may sign certificates, and nothing else.
if [ ! -e "$dir/ca/ca.pem" ]; then
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -sha256 -days 3650 \
    -subj "/CN=penstock private CA" \
    -addext "basicConstraints=critical,CA:TRUE,pathlen:0" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -keyout "$dir/ca/key.pem" -out "$dir/ca/ca.pem" 2>/dev/null
fi

# issue FOLDER COMMON-NAME NAMES USAGE: one certificate with its key.
issue() {
  [ -e "$1/cert.pem" ] && return 0
  mkdir -p "$1"
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -sha256 \
    -subj "/CN=$2" -keyout "$1/key.pem" -out "$1/request.pem" 2>/dev/null
  cat > "$1/extensions" <<EXT
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=$4
subjectAltName=$3
EXT
  openssl x509 -req -in "$1/request.pem" -CA "$dir/ca/ca.pem" -CAkey "$dir/ca/key.pem" \
    -days "$days" -sha256 -extfile "$1/extensions" -out "$1/cert.pem" 2>/dev/null
  rm "$1/request.pem" "$1/extensions"
  cp "$dir/ca/ca.pem" "$1/ca.pem"
  echo "made $1"
}

issue "$dir/target" "$target" "DNS:$target,IP:$address" serverAuth
for source in "$@"; do
  issue "$dir/$source" "$source" "DNS:$source" clientAuth
done
