#!/bin/bash
# The privilege path for real: an unprivileged member of the group "pelorin-vpn" runs the
# console client, which starts the helper at its installed path through the real /usr/bin/sudo
# and the packaged rule (which grants exactly the helper and the kill by name), carries traffic
# through the real tunnel and disconnects; a user outside the group is refused, with the
# program's message, not a hang. The host is left as it is: users, group and rule exist only in
# a private mount namespace, /usr/lib is an overlay holding the built helper, and the program
# runs in the lab's client network namespace and a pid namespace of its own.
#
#   tests/e2e/sudo_e2e.sh SOURCE_DIR BUILD_DIR    exit 0 passed, 1 failed, 77 cannot run here
set -euo pipefail

src=$(realpath "$1")
build=$(realpath "$2")
# shellcheck source=../../scripts/lab-start.sh
. "$src/scripts/lab-start.sh"
# A connect takes seconds; this only bounds a broken run.
run_limit=120

skip() {
    echo "SKIP: $*"
    exit 77
}
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

rule=$src/packaging/sudoers/pelorin-vpn
grants=$(grep -v '^[[:space:]]*#' "$rule" | grep -v '^[[:space:]]*$')
[ "$grants" = '%pelorin-vpn ALL=(root) NOPASSWD: /usr/lib/pelorin-vpn/ovpncli *, /usr/bin/pkill ovpncli' ] ||
    fail "unexpected grants: $grants"
[ "$(id -u)" -eq 0 ] || skip "needs root (namespaces, mounts, throw-away users)"
[ -u /usr/bin/sudo ] || skip "/usr/bin/sudo is missing or not set-uid"
for tool in unshare setpriv timeout; do command -v "$tool" >/dev/null || skip "$tool is missing"; done
grep -Eq '^[@#]includedir /etc/sudoers.d' /etc/sudoers || skip "/etc/sudoers does not read /etc/sudoers.d"
for built in bin/pelorin-tunnel-lab bin/pelorin-vpn helpers/ovpncli tools/devbackend/pelorin-devbackend; do
    [ -x "$build/$built" ] || fail "$build/$built is not built"
done
lab_check=$("$build/bin/pelorin-tunnel-lab" --check 2>&1) || skip "$lab_check"

work=$(mktemp -d /tmp/pelorin-sudo-e2e.XXXXXX)
chmod 755 "$work"
LAB_PID=""
backend_pid=""
cleanup() {
    local status=$?
    for pid in $backend_pid $LAB_PID; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT

# --- the lab: OpenVPN server, namespaces ---------------------------------------------------
lab_start "$work/lab.out" "$work/lab.log" "$build/bin/pelorin-tunnel-lab" "$build" ||
    { cat "$work/lab.log" >&2; fail "the tunnel lab did not come up"; }
while IFS='=' read -r key value; do
    case "$key" in
    ROOT) lab_root=$value ;; CLIENT_NS) client_ns=$value ;; SERVER_NS) server_ns=$value ;;
    SERVER_LINK_ADDRESS) server_link=$value ;; SERVER_TUNNEL_ADDRESS) server_tunnel=$value ;;
    esac
done <"$work/lab.out"
vpn_port=$(sed -n 's/^port //p' "$lab_root/server.conf")

# The lab's backend listens on the host's loopback, which the client namespace cannot reach.
# This one serves the same accounts (the server checks passwords in that folder) on the link
# between the namespaces.
ip netns exec "$server_ns" "$build/tools/devbackend/pelorin-devbackend" --listen "$server_link" --port 0 \
    --data-dir "$lab_root/backend" --vpn-remote "$server_link" --vpn-port "$vpn_port" --ca "$lab_root/ca.crt" \
    >"$work/backend.out" 2>"$work/backend.log" &
backend_pid=$!
for _ in $(seq 300); do
    grep -q '^listening on ' "$work/backend.out" 2>/dev/null && break
    sleep 0.1
done
backend_url=$(sed -n 's/^listening on //p' "$work/backend.out")
[ -n "$backend_url" ] || { cat "$work/backend.log" >&2; fail "the backend in the server namespace did not start"; }

# --- throw-away users, group and rule (copies; mounted only inside the namespace) -------------
free_id() {
    local id=$1
    while getent passwd "$id" >/dev/null || getent group "$id" >/dev/null; do id=$((id + 1)); done
    echo "$id"
}
member_id=$(free_id 64500)
outsider_id=$(free_id $((member_id + 1)))
group_id=$(free_id $((outsider_id + 1)))
for name in pvsudo-member pvsudo-outsider; do
    ! getent passwd "$name" >/dev/null || skip "a user named $name exists on this machine"
done
etc=$work/etc
mkdir -p "$etc/sudoers.d"
cp -p /etc/passwd /etc/shadow "$etc/"
grep -v '^pelorin-vpn:' /etc/group >"$etc/group"
for user in "pvsudo-member:$member_id" "pvsudo-outsider:$outsider_id"; do
    name=${user%%:*} id=${user##*:}
    echo "$name:x:$id:$id::$work/home-$name:/bin/sh" >>"$etc/passwd"
    echo "$name:!:20000:0:99999:7:::" >>"$etc/shadow"
    echo "$name:x:$id:" >>"$etc/group"
    mkdir -p "$work/home-$name" "$work/run-$name"
    chown "$id:$id" "$work/home-$name" "$work/run-$name"
    chmod 700 "$work/home-$name" "$work/run-$name"
done
echo "pelorin-vpn:x:$group_id:pvsudo-member" >>"$etc/group"
chmod 644 "$etc/group"
install -m 0440 "$rule" "$etc/sudoers.d/pelorin-vpn"

cp -r "$src/resources" "$work/resources"
sed -i '/<key>Host URL<\/key>/{n;s|<string>[^<]*</string>|<string>'"$backend_url"'</string>|}' \
    "$work/resources/CommonConfig.plist"
chmod -R a+rX "$work/resources"

# Runs in the private mount and pid namespaces, as root until setpriv.
cat >"$work/inside.sh" <<'EOF'
set -eu
mount --bind "$etc/passwd" /etc/passwd
mount --bind "$etc/group" /etc/group
mount --bind "$etc/shadow" /etc/shadow
mount --bind "$etc/sudoers.d" /etc/sudoers.d
# sudo's own state stays in the namespace too.
if [ -d /run/sudo ]; then mount -t tmpfs -o mode=711 pelorin-sudo /run/sudo; fi
mkdir -p "$work/lib"
mount -t tmpfs -o mode=755 pelorin-lib "$work/lib"
mkdir -p "$work/lib/upper/pelorin-vpn" "$work/lib/scratch"
install -m 0755 "$build/helpers/ovpncli" "$work/lib/upper/pelorin-vpn/ovpncli"
mount -t overlay pelorin-usr-lib -o "lowerdir=/usr/lib,upperdir=$work/lib/upper,workdir=$work/lib/scratch" /usr/lib ||
    { echo "SKIP: no overlay mounts here, so the helper cannot sit at its installed path"; exit 77; }
home=$work/home-$name
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME="$home" USER="$name" LOGNAME="$name" \
    XDG_RUNTIME_DIR="$work/run-$name" XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share" \
    XDG_CACHE_HOME="$home/.cache" PELORIN_RESOURCES_DIR="$work/resources" PELORIN_BACKEND_URL="$backend_url" \
    PELORIN_HELPERS_DIR=/usr/lib/pelorin-vpn PELORIN_SECRET_STORE=file PELORIN_EXTENSION_PORT=0 \
    setpriv --reuid="$id" --regid="$id" --init-groups -- \
    "$build/bin/pelorin-vpn" --script --on-connected "ping -c 3 -w 10 -q $server_tunnel" </dev/null
EOF

# run_as NAME ID: the console client's exit code; its output in $work/NAME.out.
run_as() {
    local status=0
    env work="$work" etc="$etc" build="$build" name="$1" id="$2" backend_url="$backend_url" \
        server_tunnel="$server_tunnel" timeout -k 5 "$run_limit" ip netns exec "$client_ns" \
        unshare --mount --propagation private --pid --fork --mount-proc bash "$work/inside.sh" \
        >"$work/$1.out" 2>&1 || status=$?
    echo "$status"
}
# The program's own log (standard error goes there when it is not a terminal).
log_of() { echo "$work/home-$1/.local/share/com.pelorin.vpn.mac/app_mac_logs.log"; }
show() {
    echo "--- $1's run ---"
    tail -n 20 "$work/$1.out"
    echo "--- $1's log ---"
    tail -n 40 "$(log_of "$1")" 2>/dev/null || true
}

# --- the member connects, carries traffic, disconnects ---------------------------------------
status=$(run_as pvsudo-member "$member_id")
[ "$status" -ne 77 ] || { show pvsudo-member; skip "$(grep -m1 '^SKIP' "$work/pvsudo-member.out")"; }
[ "$status" -eq 0 ] || { show pvsudo-member; fail "the group member's connect, ping and disconnect ended with $status"; }
grep -q 'OpenVPN process started with sudo' "$(log_of pvsudo-member)" ||
    { show pvsudo-member; fail "the member's run never started the helper through sudo"; }
! ip netns exec "$client_ns" ping -c 1 -W 1 -q "$server_tunnel" >/dev/null 2>&1 ||
    fail "the tunnel is still up after the member's disconnect"
echo "ok   a member of pelorin-vpn connected through /usr/bin/sudo, pinged through the tunnel, disconnected"

# --- a user outside the group is refused, with the message, at once -------------------------
started=$SECONDS
status=$(run_as pvsudo-outsider "$outsider_id")
[ "$status" -eq 4 ] || { show pvsudo-outsider; fail "the outsider's run ended with $status, not 4 (could not connect)"; }
grep -q 'may not start its tunnel helper with administrator rights' "$work/pvsudo-outsider.out" "$(log_of pvsudo-outsider)" ||
    { show pvsudo-outsider; fail "the outsider was not told why"; }
[ $((SECONDS - started)) -lt 60 ] || fail "the refusal took $((SECONDS - started)) s"
echo "ok   a user outside pelorin-vpn was refused by sudo and told so"
