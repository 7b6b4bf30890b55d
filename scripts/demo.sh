#!/usr/bin/env bash
# PelorinVPN's main job end to end on this machine, against the local development backend and a
# real OpenVPN server in a private network namespace:
#   install packages, build, start the backend and the server, start PelorinVPN for them.
# What runs at the end depends on where you are:
#   a display      the windowed application (falls back to the console when it is not built in)
#   a terminal     the console client connected to the default cluster (type "quit" or Ctrl-C)
#   neither        a scripted session: connect, ping the server through the tunnel, disconnect;
#                  exit 0 only when all of that happened
# Everything it starts or makes is removed when it ends, also on Ctrl-C or a failure.
#
#   scripts/demo.sh [--no-build] [--build-dir DIR] [--gui | --console | --script]
# Exit codes: 0 done, 1 failed, 77 this machine cannot run a tunnel (the reason is printed).
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=lab-start.sh
. "$SRC/scripts/lab-start.sh"
BUILD_DIR=${BUILD_DIR:-$SRC/build/demo-run}
BUILD=1
MODE=""
while [ $# -gt 0 ]; do
  case "$1" in
    --no-build) BUILD=0 ;;
    --build-dir) BUILD_DIR=$2; shift ;;
    --gui) MODE=gui ;;
    --console) MODE=console ;;
    --script) MODE=script ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "[demo] unknown argument: $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

say() { echo "[demo] $*"; }
fail() { echo "[demo] FAILED: $*" >&2; exit 1; }

# Namespaces, tun devices and the OpenVPN server need root.
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "[demo] needs root, and sudo is not installed" >&2; exit 77; }
  say "re-running as root through sudo"
  export XAUTHORITY=${XAUTHORITY:-$HOME/.Xauthority}
  exec sudo --preserve-env=DISPLAY,WAYLAND_DISPLAY,XAUTHORITY,BUILD_DIR -- bash "$0" \
    $([ $BUILD -eq 0 ] && echo --no-build) --build-dir "$BUILD_DIR" ${MODE:+--$MODE}
fi

if [ $BUILD -eq 1 ]; then
  say "installing packages (scripts/setup-deps.sh)..."
  bash "$SRC/scripts/setup-deps.sh"
  say "building into $BUILD_DIR (Release)..."
  launcher=()
  command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake -S "$SRC" -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" >/dev/null
  cmake --build "$BUILD_DIR" -j "$(nproc)" --target pelorin-vpn ovpncli pelorin-devbackend pelorin-tunnel-lab
fi
BUILD_DIR=$(cd "$BUILD_DIR" && pwd)
APP=$BUILD_DIR/bin/pelorin-vpn
LAB=$BUILD_DIR/bin/pelorin-tunnel-lab
for f in "$APP" "$LAB" "$BUILD_DIR/helpers/ovpncli" "$BUILD_DIR/tools/devbackend/pelorin-devbackend"; do
  [ -x "$f" ] || fail "$f is missing: build first (run without --no-build)"
done

set +e
"$LAB" --check
status=$?
set -e
if [ $status -eq 77 ]; then say "skipped: this machine cannot run a real tunnel"; exit 77; fi
[ $status -eq 0 ] || fail "the tunnel lab check failed"

# ---- everything below is undone by demo_cleanup ----
APP_PID="" WATCH_PID="" LAB_PID="" LAB_ROOT="" HELPERS_DIR=""
demo_cleanup() {
  local status=$?
  trap - EXIT INT TERM HUP
  set +e
  say "cleaning up..."
  [ -n "$WATCH_PID" ] && kill "$WATCH_PID" 2>/dev/null && wait "$WATCH_PID" 2>/dev/null
  # The client first, so it disconnects from a server that is still there.
  if [ -n "$APP_PID" ] && kill -0 "$APP_PID" 2>/dev/null; then
    kill -TERM "$APP_PID" 2>/dev/null
    for _ in $(seq 150); do kill -0 "$APP_PID" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$APP_PID" 2>/dev/null
  fi
  if [ -n "$LAB_PID" ]; then
    kill -TERM "$LAB_PID" 2>/dev/null
    for _ in $(seq 200); do kill -0 "$LAB_PID" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$LAB_PID" 2>/dev/null; then
      # The lab did not tear itself down: do it by hand, its names carry its pid.
      kill -KILL "$LAB_PID" 2>/dev/null
      [ -n "$LAB_ROOT" ] && pkill -KILL -f "^$HELPERS_DIR/ovpncli (--kill-switch )?$LAB_ROOT/"
      for ns in "pvc$LAB_PID" "pvs$LAB_PID"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill -KILL
        ip netns del "$ns" 2>/dev/null
      done
      [ -n "$LAB_ROOT" ] && rm -rf "$LAB_ROOT"
    fi
    wait "$LAB_PID" 2>/dev/null
    if ip netns list | grep -Eq "^pv[sc]$LAB_PID\b"; then
      echo "[demo] WARNING: namespaces pvs$LAB_PID/pvc$LAB_PID are still there" >&2; status=1
    fi
  fi
  [ -n "${WORK:-}" ] && rm -rf "$WORK"
  say "cleaned up (exit $status)"
  exit "$status"
}
WORK=$(mktemp -d /tmp/pelorin-demo.XXXXXX)
trap demo_cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

say "starting the backend and the OpenVPN server (network namespaces, test PKI)..."
# Its own session: Ctrl-C reaches the client first, which then disconnects from a live server.
lab_start "$WORK/lab.out" "$WORK/lab.log" setsid "$LAB" "$BUILD_DIR" ||
  { cat "$WORK/lab.log" >&2; fail "the lab did not come up"; }
while IFS='=' read -r key value; do
  case "$key" in
    ROOT) LAB_ROOT=$value ;; BACKEND_URL) BACKEND_URL=$value ;; SUDO) LAB_SUDO=$value ;;
    HELPERS_DIR) HELPERS_DIR=$value ;; CLIENT_TMPDIR) CLIENT_TMPDIR=$value ;;
    CLIENT_NS) CLIENT_NS=$value ;; SERVER_TUNNEL_ADDRESS) SERVER_ADDR=$value ;;
    OUTSIDE_ADDRESS) OUTSIDE_ADDR=$value ;;
  esac
done <"$WORK/lab.out"
say "backend on $BACKEND_URL"
say "OpenVPN server running in its own namespace; the client side runs in namespace $CLIENT_NS"

# PelorinVPN's own folders, all private to this run; the resources point at the local backend.
cp -r "$SRC/resources" "$WORK/resources"
sed -i '/<key>Host URL<\/key>/{n;s|<string>[^<]*</string>|<string>'"$BACKEND_URL"'</string>|}' \
  "$WORK/resources/CommonConfig.plist"
grep -q "<string>$BACKEND_URL</string>" "$WORK/resources/CommonConfig.plist" ||
  fail "could not point resources/CommonConfig.plist at $BACKEND_URL"
mkdir -p "$WORK/home" "$WORK/data" "$WORK/downloads" "$WORK/autostart"
export HOME=$WORK/home XDG_CONFIG_HOME=$WORK/home/.config XDG_DATA_HOME=$WORK/home/.local/share
export XDG_CACHE_HOME=$WORK/home/.cache
export PELORIN_RESOURCES_DIR=$WORK/resources PELORIN_DATA_HOME=$WORK/data PELORIN_TMPDIR=$CLIENT_TMPDIR
export PELORIN_HELPERS_DIR=$HELPERS_DIR PELORIN_SUDO=$LAB_SUDO PELORIN_SECRET_STORE=file
export PELORIN_DOWNLOADS_DIR=$WORK/downloads PELORIN_AUTOSTART_DIR=$WORK/autostart
export PELORIN_EXTENSION_PORT=0 PELORIN_BACKEND_URL=$BACKEND_URL
PING=(ip netns exec "$CLIENT_NS" ping -c 3 -w 10 -q "$SERVER_ADDR")
if ip netns exec "$CLIENT_NS" ping -c 1 -W 1 -q "$SERVER_ADDR" >/dev/null 2>&1; then
  fail "the server's tunnel address $SERVER_ADDR answers before any tunnel exists"
fi

if [ -z "$MODE" ]; then
  if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then MODE=gui
  elif [ -t 0 ] && [ -t 1 ]; then MODE=console
  else MODE=script
  fi
fi
if [ "$MODE" = gui ] && grep -q "windowed interface is not part of this build" "$APP"; then
  say "this build has no windowed interface yet; using the console client instead"
  MODE=console
  [ -t 0 ] || MODE=script
fi

# Interactive runs: say so once traffic really flows through the tunnel.
watch_traffic() {
  until ip netns exec "$CLIENT_NS" ping -c 1 -W 1 -q "$SERVER_ADDR" >/dev/null 2>&1; do sleep 1; done
  say "connected, traffic flows through the tunnel (ping $SERVER_ADDR from the client side answers)"
}

# PelorinVPN runs in the background and we wait for it, so a signal reaches our trap at once;
# its standard input is the demo's own (file descriptor 3).
exec 3<&0
run_app() {
  "$APP" "$@" <&3 2>>"$WORK/app.log" &
  APP_PID=$!
  local code=0
  wait "$APP_PID" || code=$?
  APP_PID=""
  return $code
}

status=0
case "$MODE" in
  gui)
    say "starting PelorinVPN (window); connect from it, quit it to end the demo"
    say "check the tunnel yourself: sudo ip netns exec $CLIENT_NS ping $SERVER_ADDR"
    say "and a host outside it, blocked while Settings > Block traffic outside the VPN holds:" \
      "sudo ip netns exec $CLIENT_NS ping $OUTSIDE_ADDR"
    watch_traffic & WATCH_PID=$!
    run_app || status=$?
    say "PelorinVPN ended (exit $status)"
    ;;
  console)
    default=$("$APP" --headless --list </dev/null 2>>"$WORK/app.log" | awk -F'\t' '/\(default\)/ {print $1; exit}')
    [ -n "$default" ] || { tail -n 30 "$WORK/app.log" >&2; fail "the backend offers no default cluster"; }
    say "starting PelorinVPN on the console, connecting to $default"
    say "type: status, disconnect or quit (or press Ctrl-C)"
    watch_traffic & WATCH_PID=$!
    run_app --headless --connect "$default" || status=$?
    say "PelorinVPN ended (exit $status)"
    ;;
  script)
    say "starting PelorinVPN (scripted session): connect to the default cluster, ping $SERVER_ADDR, disconnect"
    exec 3</dev/null
    run_app --headless --script --on-connected "${PING[*]}" > >(tee "$WORK/session.log") || status=$?
    sleep 0.2 # let tee write the last lines
    grep -q '^Traffic check passed' "$WORK/session.log" ||
      { tail -n 30 "$WORK/app.log" >&2; fail "no traffic went through the tunnel (exit $status)"; }
    say "connected, traffic flows through the tunnel"
    [ $status -eq 0 ] || { tail -n 30 "$WORK/app.log" >&2; fail "PelorinVPN exited with $status"; }
    # Disconnected for real: no client process, and the tunnel address is unreachable again.
    for _ in $(seq 50); do
      pgrep -f "^$HELPERS_DIR/ovpncli $LAB_ROOT/" >/dev/null || break
      sleep 0.1
    done
    pgrep -af "^$HELPERS_DIR/ovpncli $LAB_ROOT/" && fail "the tunnel client still runs after the disconnect"
    if ip netns exec "$CLIENT_NS" ping -c 1 -W 1 -q "$SERVER_ADDR" >/dev/null 2>&1; then
      fail "the server still answers after the disconnect"
    fi
    say "disconnected, the tunnel is gone"
    ;;
esac
say "done"
