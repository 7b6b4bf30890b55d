#!/bin/bash
# shellcheck disable=SC2016 # the stand-ins are written literally
# packaging/install-update run as root on good and bad update packages. apt-get and
# dpkg-query are stand-ins: apt-get records the file it was asked to install, the installed
# version is 2.1.0.45. Nothing is installed on this machine.
set -u
script=$1
[ "$(id -u)" -eq 0 ] || { echo "SKIP: install-update checks itself as root"; exit 77; }
for tool in openssl dpkg-deb; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir -p "$dir/bin"
printf '#!/bin/sh\nfor last; do :; done\nsha256sum "$last" | cut -c1-64 >"%s/installed"\necho "$last" >>"%s/installed"\n' \
    "$dir" "$dir" >"$dir/bin/apt-get"
printf '#!/bin/sh\nprintf 2.1.0.45\n' >"$dir/bin/dpkg-query"
chmod 755 "$dir/bin/apt-get" "$dir/bin/dpkg-query"
openssl genpkey -algorithm ed25519 -out "$dir/key.pem"
openssl pkey -in "$dir/key.pem" -pubout -out "$dir/public.pem"

package() { # package NAME VERSION -> path
    local root=$dir/$1_$2
    mkdir -p "$root/DEBIAN"
    printf 'Package: %s\nVersion: %s\nArchitecture: all\nMaintainer: t <t@example>\nDescription: t\n' "$1" "$2" \
        >"$root/DEBIAN/control"
    dpkg-deb --root-owner-group --build "$root" "$root.deb" >/dev/null
    echo "$root.deb"
}
sign() { openssl pkeyutl -sign -inkey "$dir/key.pem" -rawin -in "$1" -out "$1.sig"; }

failures=0
fail() { echo "FAIL $*" && failures=$((failures + 1)); }
expect() { # expect CASE STATUS TEXT PACKAGE
    local output status
    output=$(env -u SUDO_UID -u PKEXEC_UID PATH="$dir/bin:$PATH" PELORIN_UPDATE_KEY="$dir/public.pem" \
        PELORIN_UPDATE_RESTART=0 bash "$script" "$4" 2>&1)
    status=$?
    if [ "$status" -ne "$2" ] || ! grep -qF -- "$3" <<<"$output"; then
        fail "$1: status $status, output: $output"
    else
        echo "ok   $1"
    fi
}

good=$(package pelorin-vpn 2.1.1.45) && sign "$good"
expect "signed newer package" 0 "" "$good"
# What apt-get got is root's copy, byte for byte the signed package.
if [ "$(head -n 1 "$dir/installed")" != "$(sha256sum "$good" | cut -c1-64)" ] ||
    [ "$(sed -n 2p "$dir/installed")" = "$good" ]; then
    fail "apt-get did not get root's copy of the checked package: $(cat "$dir/installed")"
fi
tampered=$dir/tampered.deb && cp "$good" "$tampered" && cp "$good.sig" "$tampered.sig" && printf 'x' >>"$tampered"
expect "tampered package" 3 "not signed by the publisher's key" "$tampered"
unsigned=$dir/unsigned.deb && cp "$good" "$unsigned"
expect "unsigned package" 3 "has no signature" "$unsigned"
older=$(package pelorin-vpn 2.0.9.99) && sign "$older"
expect "older package" 3 "version 2.0.9.99 is older than the installed 2.1.0.45" "$older"
foreign=$(package pelorin-vpn-tools 9.0.0.1) && sign "$foreign"
expect "another product's package" 3 "'pelorin-vpn-tools' is not the pelorin-vpn package" "$foreign"
[ "$failures" -eq 0 ]
