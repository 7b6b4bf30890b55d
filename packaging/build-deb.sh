#!/bin/bash
# Builds the Debian package of PelorinVPN into build/pkg (Release), signs it, and prints its
# path as the last line; the detached signature is written beside it as PACKAGE.deb.sig.
#
#   packaging/build-deb.sh [--version X.Y.Z] [--build N] [--signing-key KEY.pem]
#
# --version and --build replace the version from the root CMakeLists.txt and the build number
# (the package version is X.Y.Z.N), e.g. to make a newer package for the update path. Without
# them the build folder goes back to the project's own version.
# --signing-key (or PELORIN_SIGNING_KEY) is the publisher's Ed25519 private key; its public
# half is shipped in the package, and updates must be signed by it. Without one, a throw-away
# key is made once in build/throwaway-update-key.pem (for tests and the demo only).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${PELORIN_PKG_BUILD_DIR:-$root/build/pkg}
jobs=${JOBS:-2}
version=""
build_number=""
signing_key=${PELORIN_SIGNING_KEY:-}

while [ $# -gt 0 ]; do
    case "$1" in
    --version) version=${2:?--version needs X.Y.Z}; shift 2 ;;
    --version=*) version=${1#*=}; shift ;;
    --build) build_number=${2:?--build needs a number}; shift 2 ;;
    --build=*) build_number=${1#*=}; shift ;;
    --signing-key) signing_key=${2:?--signing-key needs a file}; shift 2 ;;
    --signing-key=*) signing_key=${1#*=}; shift ;;
    -h | --help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "build-deb.sh: unknown argument '$1'" >&2; exit 2 ;;
    esac
done
if [ -n "$build_number" ] && ! [[ "$build_number" =~ ^[0-9]+$ ]]; then
    echo "build-deb.sh: --build must be a number, not '$build_number'" >&2
    exit 2
fi

for tool in cmake ninja cpack dpkg-shlibdeps visudo openssl; do
    if ! command -v "$tool" >/dev/null; then
        echo "build-deb.sh: '$tool' is missing (apt-get install cmake ninja-build dpkg-dev sudo openssl)" >&2
        exit 1
    fi
done
command -v rsvg-convert >/dev/null ||
    echo "build-deb.sh: rsvg-convert missing (apt-get install librsvg2-bin): shipping the SVG icon only" >&2

# The build folder's parent may not exist yet in a fresh clone; the configure log goes there.
mkdir -p "$build"
if [ -z "$signing_key" ]; then
    signing_key=$(dirname "$build")/throwaway-update-key.pem
    if [ ! -f "$signing_key" ]; then
        (umask 077 && openssl genpkey -algorithm ed25519 -out "$signing_key")
    fi
    echo "build-deb.sh: signing with the throw-away key $signing_key (tests and demo only)" >&2
fi
openssl pkey -in "$signing_key" -noout -text 2>/dev/null | grep -q '^ED25519 Private-Key' || {
    echo "build-deb.sh: $signing_key is not an Ed25519 private key (openssl genpkey -algorithm ed25519)" >&2
    exit 1
}
openssl pkey -in "$signing_key" -pubout -out "$build/update-key.pem"

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
build_arg=(-UPELORIN_BUILD_NUMBER)
[ -n "$build_number" ] && build_arg=(-DPELORIN_BUILD_NUMBER="$build_number")

# Only what the package holds is built (no tests, benchmarks or fuzz targets), so
# installing must not first build everything.
cmake -S "$root" -B "$build" -G Ninja "${launcher[@]}" "${build_arg[@]}" \
    -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON \
    -DPELORIN_EXTRAS=OFF \
    -DCMAKE_PROJECT_PelorinVPN_INCLUDE="$root/packaging/VersionOverride.cmake" \
    -DPELORIN_VERSION_OVERRIDE="$version" \
    -DPELORIN_UPDATE_PUBLIC_KEY="$build/update-key.pem" >"$build.configure.log" ||
    { cat "$build.configure.log" >&2; exit 1; }
ninja -C "$build" -j"$jobs" pelorin-vpn ovpncli vpnctrl_launcher pelorin-keyring packaging/all

# Checks that need no network: a broken rule would lock users out of sudo, a broken
# desktop entry or metainfo would hide the program from menus and software centres.
visudo -cqf "$root/packaging/sudoers/pelorin-vpn"
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$root/packaging/linux/com.pelorin.PelorinVPN.desktop"
fi
if command -v appstreamcli >/dev/null; then
    appstreamcli validate --no-net --pedantic "$build/packaging/com.pelorin.PelorinVPN.metainfo.xml" >&2
fi

out=$build/deb
rm -rf "$out"
cpack --config "$build/CPackConfig.cmake" -B "$out" >"$out.log" 2>&1 || { cat "$out.log" >&2; exit 1; }
deb=$(ls "$out"/pelorin-vpn_*.deb)
openssl pkeyutl -sign -inkey "$signing_key" -rawin -in "$deb" -out "$deb.sig"
openssl pkeyutl -verify -pubin -inkey "$build/update-key.pem" -rawin -in "$deb" -sigfile "$deb.sig" >/dev/null
dpkg-deb --field "$deb" Package Version Depends Recommends >&2
echo "$deb"
