#!/bin/bash
# shellcheck disable=SC2016 # dpkg-query formats and the namespace script are meant literally
# Installs the PelorinVPN package in a throw-away Debian 12 root and takes it through its
# life: install (apt resolves the dependencies), checks, the in-app update to a newer
# package served by the development backend, upgrade, removal and purge.
#
#   packaging/test-install.sh [--old DEB --new DEB] [--keep] [--no-update-demo]
#
# Without --old/--new both packages are built with build-deb.sh: the project's version and
# one with the patch number raised. Needs root and the Debian mirror; installs debootstrap when
# it is missing. The base system is cached in build/pkg-chroot/base (delete it to start over),
# each run works on a fresh copy in build/pkg-chroot/run. Takes a few minutes; not part of
# the CTest suite.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
work=$repo/build/pkg-chroot
base=$work/base
target=$work/run
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
old_deb=""
new_deb=""
keep=0
update_demo=1
started=$SECONDS
last=$SECONDS

while [ $# -gt 0 ]; do
    case "$1" in
    --old) old_deb=$(realpath "$2"); shift 2 ;;
    --new) new_deb=$(realpath "$2"); shift 2 ;;
    --keep) keep=1; shift ;;
    --no-update-demo) update_demo=0; shift ;;
    -h | --help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "test-install.sh: unknown argument '$1'" >&2; exit 2 ;;
    esac
done
[ "$(id -u)" -eq 0 ] || { echo "test-install.sh: run as root (chroot, mounts)" >&2; exit 1; }
# What this script needs beyond the build's own dependencies (scripts/setup-deps.sh), installed
# here because only this script needs it.
tools_missing=()
command -v debootstrap >/dev/null || tools_missing+=(debootstrap)
if [ ${#tools_missing[@]} -gt 0 ]; then
    echo "== installing ${tools_missing[*]}"
    { apt-get install -y -qq --no-install-recommends "${tools_missing[@]}" ||
        { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${tools_missing[@]}"; }; } ||
        { echo "test-install.sh: could not install ${tools_missing[*]}" >&2; exit 1; }
fi

step() {
    echo "== [+$((SECONDS - last))s, total $((SECONDS - started))s] $*"
    last=$SECONDS
}
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
in_root() { chroot "$target" "$@"; }
check() { # check DESCRIPTION COMMAND...
    local what=$1
    shift
    "$@" >/dev/null 2>&1 || fail "$what"
    echo "ok   $what"
}

# Processes whose root is our chroot are ours, whatever they are called.
ours() {
    local link
    for link in /proc/[0-9]*/root; do
        [ "$(readlink "$link" 2>/dev/null)" = "$target" ] && basename "$(dirname "$link")"
    done
    return 0
}
mounted=0
cleanup() {
    local pid
    for pid in $(ours); do kill "$pid" 2>/dev/null || true; done
    if [ "$mounted" -eq 1 ]; then
        umount -l "$target/dev/pts" 2>/dev/null || true
        umount -l "$target/proc" 2>/dev/null || true
        umount -l "$target/var/cache/apt/archives" 2>/dev/null || true
    fi
    if [ "$keep" -eq 0 ] && [ -d "$target" ]; then rm -rf "$target"; fi
}
trap cleanup EXIT

# --- packages -------------------------------------------------------------------------
mkdir -p "$work/debs"
if [ -z "$old_deb" ] || [ -z "$new_deb" ]; then
    project_version=$(sed -n 's/^project(PelorinVPN VERSION \([0-9.]*\).*/\1/p' "$repo/CMakeLists.txt")
    IFS=. read -r major minor patch <<<"$project_version"
    newer="$major.$minor.$((patch + 1))"
    # The newer one first, so the build folder ends on the project's own version.
    new_deb="$work/debs/$(basename "$("$repo/packaging/build-deb.sh" --version "$newer" | tail -n 1)")"
    cp "$repo/build/pkg/deb/$(basename "$new_deb")" "$new_deb"
    cp "$repo/build/pkg/deb/$(basename "$new_deb").sig" "$new_deb.sig"
    old_deb="$work/debs/$(basename "$("$repo/packaging/build-deb.sh" | tail -n 1)")"
    cp "$repo/build/pkg/deb/$(basename "$old_deb")" "$old_deb"
    cp "$repo/build/pkg/deb/$(basename "$old_deb").sig" "$old_deb.sig"
    step "built $(basename "$old_deb") and $(basename "$new_deb")"
fi
for deb in "$old_deb" "$new_deb"; do
    [ -f "$deb.sig" ] || fail "no signature $deb.sig beside the package (build-deb.sh writes it)"
done
old_version=$(dpkg-deb -f "$old_deb" Version)
new_version=$(dpkg-deb -f "$new_deb" Version)
dpkg --compare-versions "$new_version" gt "$old_version" || fail "$new_version is not newer than $old_version"

# --- base system (cached) -------------------------------------------------------------
if [ ! -f "$base/.complete" ]; then
    rm -rf "$base" "$base.partial"
    debootstrap --variant=minbase bookworm "$base.partial" "$mirror"
    mv "$base.partial" "$base"
fi
if [ ! -f "$base/.complete" ] || [ -n "$(find "$base/.complete" -mmin +1440)" ]; then
    cat >"$base/etc/apt/sources.list" <<EOF
deb $mirror bookworm main
deb $mirror bookworm-updates main
deb ${mirror%/debian}/debian-security bookworm-security main
EOF
    # No services start inside the chroot.
    printf '#!/bin/sh\nexit 101\n' >"$base/usr/sbin/policy-rc.d"
    chmod 755 "$base/usr/sbin/policy-rc.d"
    cp /etc/resolv.conf "$base/etc/resolv.conf"
    chroot "$base" apt-get update -qq
    touch "$base/.complete"
fi
if [ ! -f "$base/.tuned" ]; then
    # Speed only: no fsync for every unpacked file, no manual page index.
    chroot "$base" apt-get install -y -qq eatmydata >/dev/null 2>&1 || fail "eatmydata in the base system"
    echo 'man-db man-db/auto-update boolean false' | chroot "$base" debconf-set-selections
    touch "$base/.tuned"
fi
step "base system ready ($base)"

rm -rf "$target"
cp -a "$base" "$target"
cp /etc/resolv.conf /etc/hosts /etc/hostname "$target/etc/"
# Downloaded packages are kept between runs; apt still resolves everything each time.
mkdir -p "$work/apt-archives/partial"
mounted=1
mount --bind "$work/apt-archives" "$target/var/cache/apt/archives"
mount -t proc proc "$target/proc"
mount -t devpts devpts "$target/dev/pts" -o newinstance,ptmxmode=0666 || true
cp "$old_deb" "$new_deb" "$target/tmp/"
old_in=/tmp/$(basename "$old_deb")
new_in=/tmp/$(basename "$new_deb")
# A desktop user who installs with sudo, and a second one with a hostile marker.
in_root useradd -m -u 1000 -s /bin/bash alice
in_root useradd -m -u 1001 -s /bin/bash mallory
step "fresh root copied"

# --- install --------------------------------------------------------------------------
in_root env SUDO_USER=alice DEBIAN_FRONTEND=noninteractive eatmydata apt-get install -y -q "$old_in" >"$work/install.log" 2>&1 ||
    { tail -n 40 "$work/install.log"; fail "apt-get install"; }
step "installed $old_version with its dependencies (log: $work/install.log)"

check "version $old_version installed" test "$(in_root dpkg-query -W -f '${Version}' pelorin-vpn)" = "$old_version"
for f in /usr/bin/pelorin-vpn /usr/lib/pelorin-vpn/ovpncli /usr/lib/pelorin-vpn/vpnctrl_launcher \
    /usr/lib/pelorin-vpn/pelorin-keyring /usr/lib/pelorin-vpn/install-update; do
    check "$f is a program" test -x "$target$f"
done
for f in /usr/share/pelorin-vpn/CommonConfig.plist /usr/share/pelorin-vpn/ReleaseConfig.plist \
    /usr/share/pelorin-vpn/flags/de.svg /usr/share/pelorin-vpn/flags/LICENSE.flag-icons \
    /usr/share/pelorin-vpn/images/AppIcon.svg /usr/share/pelorin-vpn/images/world_map.svg \
    /usr/share/applications/com.pelorin.PelorinVPN.desktop \
    /usr/share/metainfo/com.pelorin.PelorinVPN.metainfo.xml \
    /usr/share/icons/hicolor/scalable/apps/com.pelorin.PelorinVPN.svg \
    /usr/share/doc/pelorin-vpn/copyright /usr/lib/pelorin-vpn/libpelorin-gui.so \
    /usr/lib/pelorin-vpn/libpelorin-notify.so; do
    check "$f is there" test -s "$target$f"
done
if command -v rsvg-convert >/dev/null; then
    check "48x48 icon is there" test -s "$target/usr/share/icons/hicolor/48x48/apps/com.pelorin.PelorinVPN.png"
fi
check "no autostart entry is installed" test -z "$(in_root dpkg -L pelorin-vpn | grep -i autostart)"
check "every library resolves" test -z "$(in_root ldd /usr/bin/pelorin-vpn | grep 'not found')"
for module in gui notify; do
    check "every library of the $module module resolves" \
        test -z "$(in_root ldd /usr/lib/pelorin-vpn/libpelorin-$module.so | grep 'not found')"
done
check "every library of the keyring helper resolves" \
    test -z "$(in_root ldd /usr/lib/pelorin-vpn/pelorin-keyring | grep 'not found')"
check "port 80 capability on the program" sh -c "chroot '$target' getcap /usr/bin/pelorin-vpn | grep -q cap_net_bind_service=ep"
check "sudo rule in place, mode 0440" test "$(stat -c %a "$target/etc/sudoers.d/pelorin-vpn")" = 440
check "sudo configuration parses" in_root visudo -c
check "group pelorin-vpn exists" in_root getent group pelorin-vpn
check "the installing user joined the group" sh -c "chroot '$target' id -nG alice | grep -qw pelorin-vpn"
check "the other user did not" sh -c "! chroot '$target' id -nG mallory | grep -qw pelorin-vpn"
rules=$(in_root sudo -l -U alice)
check "alice may run the tunnel client" grep -q "NOPASSWD: /usr/lib/pelorin-vpn/ovpncli \*" <<<"$rules"
check "alice may stop it" grep -q "/usr/bin/pkill ovpncli" <<<"$rules"
check "mallory may run nothing" sh -c "! chroot '$target' sudo -l -U mallory | grep -q pelorin"
help=$(in_root runuser -u alice -- env QT_QPA_PLATFORM=offscreen pelorin-vpn --headless --help 2>&1) ||
    { echo "$help"; fail "pelorin-vpn --headless --help"; }
check "pelorin-vpn --headless --help runs as a user" grep -q -- "--connect" <<<"$help"
step "checks after install"

# --- in-app update --------------------------------------------------------------------
if [ "$update_demo" -eq 1 ]; then
    backend=$(ls "$repo"/build/pkg/tools/devbackend/pelorin-devbackend "$repo"/build/*/tools/devbackend/pelorin-devbackend 2>/dev/null | head -n 1 || true)
    [ -n "$backend" ] || fail "no pelorin-devbackend built (ninja -C build/pkg pelorin-devbackend)"
    # The application checks at start-up when it is not its first run and automatic updates
    # are on. Everything runs in a private network namespace: the backend on 127.0.0.1:8765
    # and the extension bridge on port 80 stay away from the machine's own.
    mkdir -p "$target/root/.config"
    printf '[General]\nNotFirstRun=true\nUDAutoUpdate=true\n' >"$target/root/.config/com.pelorin.vpn.mac.conf"
    # The shipped configuration asks the publisher; this run asks the local backend.
    cp -a "$target/usr/share/pelorin-vpn" "$target/root/update-resources"
    cat >"$target/root/update-resources/ReleaseConfig.plist" <<'EOF'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>Update Url Direct</key><string>http://127.0.0.1:8765/update/PelorinVPN.deb</string>
<key>UpdateUrlLatestVersion</key><string>http://127.0.0.1:8765/update/latest</string>
</dict></plist>
EOF
    rm -rf "$work/backend" && mkdir -p "$work/backend"
    unshare --net bash -c '
        ip link set lo up
        "$1" --data-dir "$2/backend" --latest-version "$3" --update-package "$4" >"$2/backend.log" 2>&1 &
        backend=$!
        for _ in $(seq 50); do grep -q "listening on" "$2/backend.log" && break; sleep 0.1; done
        chroot "$5" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin PELORIN_SECRET_STORE=file \
            PELORIN_RESOURCES_DIR=/root/update-resources \
            QT_QPA_PLATFORM=offscreen pelorin-vpn --headless </dev/null >"$2/update-app.log" 2>&1 &
        # Wait for the restarted program: its marker carries the version it runs as.
        marker="$5/root/.local/share/com.pelorin.vpn.mac/nqpostuninstall"
        for _ in $(seq 1200); do
            grep -q ",$3\$" "$marker" 2>/dev/null && break
            sleep 0.1
        done
        kill "$backend"
    ' update-demo "$backend" "$work" "$new_version" "$new_deb" "$target"
    # The old version's own log is gone: each launch starts a fresh one. What it ran shows in
    # its output (the installer's), the backend's log and what runs now.
    check "the application downloaded the package" grep -q "GET /update/PelorinVPN.deb -> 200" "$work/backend.log"
    check "and its signature" grep -q "GET /update/PelorinVPN.deb.sig -> 200" "$work/backend.log"
    check "its installer set up $new_version" grep -q "Setting up pelorin-vpn ($new_version)" "$work/update-app.log"
    check "it quit and was started again" grep -q "starts again once process" "$work/update-app.log"
    check "package $new_version installed by the application" test "$(in_root dpkg-query -W -f '${Version}' pelorin-vpn)" = "$new_version"
    check "the application started again as $new_version" grep -q ",$new_version\$" "$target/root/.local/share/com.pelorin.vpn.mac/nqpostuninstall"
    check "the restarted application is running" test -n "$(ours)"
    check "port 80 capability kept over the update" sh -c "chroot '$target' getcap /usr/bin/pelorin-vpn | grep -q cap_net_bind_service=ep"
    for pid in $(ours); do kill "$pid" 2>/dev/null || true; done
    step "in-app update $old_version -> $new_version (logs: $work/update-app.log, $work/backend.log)"
    in_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --allow-downgrades "$old_in" >>"$work/install.log" 2>&1 ||
        fail "going back to $old_version"
fi

# --- upgrade --------------------------------------------------------------------------
in_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "$new_in" >"$work/upgrade.log" 2>&1 ||
    { tail -n 40 "$work/upgrade.log"; fail "upgrade"; }
check "upgraded to $new_version" test "$(in_root dpkg-query -W -f '${Version}' pelorin-vpn)" = "$new_version"
check "port 80 capability set again after the upgrade" sh -c "chroot '$target' getcap /usr/bin/pelorin-vpn | grep -q cap_net_bind_service=ep"
check "sudo configuration still parses" in_root visudo -c
check "pelorin-vpn --help after the upgrade" in_root pelorin-vpn --headless --help
step "upgrade with apt"

# --- refused updates ------------------------------------------------------------------
# install-update as root on packages that are not the publisher's newer package: each is
# refused with its reason and nothing is installed.
bad=$work/bad
rm -rf "$bad" && mkdir -p "$bad"
openssl genpkey -algorithm ed25519 -out "$bad/other.pem" 2>/dev/null
cp "$new_deb" "$bad/tampered.deb" && cp "$new_deb.sig" "$bad/tampered.deb.sig" && printf x >>"$bad/tampered.deb"
cp "$new_deb" "$bad/stranger.deb"
openssl pkeyutl -sign -inkey "$bad/other.pem" -rawin -in "$bad/stranger.deb" -out "$bad/stranger.deb.sig"
cp "$new_deb" "$bad/unsigned.deb"
cp "$old_deb" "$bad/older.deb" && cp "$old_deb.sig" "$bad/older.deb.sig"
rm -rf "$target/tmp/bad" && cp -r "$bad" "$target/tmp/bad"
refused() { # refused PACKAGE REASON
    local out status=0
    out=$(in_root env PELORIN_UPDATE_RESTART=0 /usr/lib/pelorin-vpn/install-update "$1" 2>&1) || status=$?
    echo "$out" >>"$work/refused.log"
    [ "$status" -eq 3 ] && grep -qF -- "$2" <<<"$out" &&
        test "$(in_root dpkg-query -W -f '${Version}' pelorin-vpn)" = "$new_version"
}
check "a tampered package is refused" refused /tmp/bad/tampered.deb "not signed by the publisher's key"
check "a package signed by another key is refused" refused /tmp/bad/stranger.deb "not signed by the publisher's key"
check "an unsigned package is refused" refused /tmp/bad/unsigned.deb "has no signature"
check "an older package is refused" refused /tmp/bad/older.deb "is older than the installed $new_version"
step "refused updates (log: $work/refused.log)"

# --- the privilege path through the real sudo -------------------------------------------
# alice (in the group) runs the installed tunnel client through /usr/bin/sudo and the
# packaged rule; mallory (not in it) is told no at once. No network: the client only shows
# what it accepts and that it gives up.
private=/run/user/1000/com.pelorin.vpn.mac
in_root install -d -m 0700 -o alice -g alice /run/user/1000 "$private"
printf 'client\ndev tun\nproto tcp-client\nremote 127.0.0.1 1194\nconnect-retry-max 1\nverb 3\n' |
    in_root runuser -u alice -- sh -c "umask 077; cat >$private/good.ovpn"
printf 'client\nscript-security 2\nup /bin/true\n' | in_root runuser -u alice -- sh -c "umask 077; cat >$private/up.ovpn"
through_sudo() { # through_sudo USER PROFILE -> the client's output
    timeout 60 unshare --net chroot "$target" runuser -u "$1" -- sudo -n /usr/lib/pelorin-vpn/ovpncli "$2" 2>&1 || true
}
out=$(through_sudo alice "$private/up.ovpn")
echo "$out" >"$work/sudo-path.log"
check "alice's profile with an up script is refused" grep -q "refused the profile: 'script-security' above 1" <<<"$out"
check "and ends with the disconnect marker" grep -q "state DISCONNECTED" <<<"$out"
out=$(through_sudo alice /etc/shadow)
echo "$out" >>"$work/sudo-path.log"
check "a root file as profile is refused" grep -q "refused the profile: the profile's folder does not belong" <<<"$out"
out=$(through_sudo alice "$private/good.ovpn")
echo "$out" >>"$work/sudo-path.log"
check "alice's own profile reaches openvpn through sudo" grep -q "ovpncli: running /usr/sbin/openvpn" <<<"$out"
check "which gives up with the connect error marker" grep -q "ovpncli: connect error" <<<"$out"
started_at=$SECONDS
out=$(through_sudo mallory "$private/good.ovpn")
echo "$out" >>"$work/sudo-path.log"
check "mallory is refused by sudo" grep -q "password is required" <<<"$out"
check "at once, without a hang" test $((SECONDS - started_at)) -lt 10
check "openvpn's copies of the profile are gone" test -z "$(ls -d "$target"/run/pelorin-ovpncli.* 2>/dev/null)"
rm -rf "$target/run/user/1000"
step "tunnel client through the real sudo (log: $work/sudo-path.log)"

# --- remove ---------------------------------------------------------------------------
data=/home/alice/.local/share/com.pelorin.vpn.mac
in_root runuser -u alice -- mkdir -p "$data" /home/alice/.config/autostart
in_root runuser -u mallory -- mkdir -p /home/mallory/.local/share/com.pelorin.vpn.mac
printf 'https://pelorinvpn.example/goodbye,DEVICE-1,%s' "$new_version" >"$target$data/nqpostuninstall"
printf '[Desktop Entry]\nType=Application\nName=PelorinVPN\nExec="/usr/bin/pelorin-vpn" --login-item\n' \
    >"$target/home/alice/.config/autostart/PelorinVPN.desktop"
printf '[Desktop Entry]\nType=Application\nName=Other\nExec=other\n' >"$target/home/alice/.config/autostart/other.desktop"
in_root chown -R alice: /home/alice
# A marker that points at a file only root may read must not be read as root.
ln -s /etc/shadow "$target/home/mallory/.local/share/com.pelorin.vpn.mac/nqpostuninstall"
in_root chown -R mallory: /home/mallory
removal=$(in_root env SUDO_USER=alice DEBIAN_FRONTEND=noninteractive apt-get remove -y -q pelorin-vpn 2>&1) ||
    { echo "$removal"; fail "apt-get remove"; }
echo "$removal" >"$work/remove.log"
check "the uninstall page is shown with device and version" \
    grep -qF "https://pelorinvpn.example/goodbye?device=DEVICE-1&version=$new_version" <<<"$removal"
check "the marker is consumed" test ! -e "$target$data/nqpostuninstall"
check "our autostart entry is gone" test ! -e "$target/home/alice/.config/autostart/PelorinVPN.desktop"
check "another autostart entry stays" test -e "$target/home/alice/.config/autostart/other.desktop"
check "nothing was read through a planted link" sh -c "! grep -q 'root:' '$work/remove.log'"
check "the program is gone" test ! -e "$target/usr/bin/pelorin-vpn"
check "the sudo rule stays until purge" test -e "$target/etc/sudoers.d/pelorin-vpn"
step "remove"

# --- purge ----------------------------------------------------------------------------
in_root env DEBIAN_FRONTEND=noninteractive apt-get purge -y -q pelorin-vpn >"$work/purge.log" 2>&1 ||
    { cat "$work/purge.log"; fail "apt-get purge"; }
check "the sudo rule is gone" test ! -e "$target/etc/sudoers.d/pelorin-vpn"
check "sudo configuration parses" in_root visudo -c
check "the group is gone" sh -c "! chroot '$target' getent group pelorin-vpn"
check "dpkg forgot the package" sh -c "! chroot '$target' dpkg-query -W -f '\${Status}' pelorin-vpn 2>/dev/null | grep -q ."
leftovers=$(cd "$target" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./home -o -path ./root -o -path ./var/cache/apt -o -path ./var/lib/apt -o -path ./var/log \) -prune -o -iname '*pelorin*' -print)
[ -z "$leftovers" ] || echo "$leftovers"
check "no file named after the package is left" test -z "$leftovers"
step "purge"

echo "PASS: install, update, upgrade, remove and purge of pelorin-vpn in $((SECONDS - started))s"
