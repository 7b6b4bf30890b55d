#!/bin/sh
# Runs a command against a fresh, unlocked GNOME keyring. Meant to be started inside a
# private session bus:  dbus-run-session -- run-with-keyring.sh <command> [args...]
# The keyring lives in $XDG_DATA_HOME/keyrings (the test's private home), is wiped first,
# and is created unlocked with the password "test". The daemon is stopped afterwards.
set -u
: "${HOME:?HOME must be set}"
XDG_DATA_HOME="${XDG_DATA_HOME:-$HOME/.local/share}"
XDG_RUNTIME_DIR="${XDG_RUNTIME_DIR:-$HOME/run}"
export XDG_DATA_HOME XDG_RUNTIME_DIR
rm -rf "$XDG_DATA_HOME/keyrings"
mkdir -p "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
    echo "run-with-keyring: no session bus; start me with dbus-run-session" >&2
    exit 2
fi

printf '%s' "test" | gnome-keyring-daemon --foreground --unlock --components=secrets >/dev/null 2>&1 &
daemon=$!
trap 'kill "$daemon" 2>/dev/null' EXIT INT TERM

# Wait (bounded) until the daemon owns the Secret Service name on the bus.
tries=0
until dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true; do
    tries=$((tries + 1))
    if [ "$tries" -ge 100 ] || ! kill -0 "$daemon" 2>/dev/null; then
        echo "run-with-keyring: gnome-keyring-daemon did not come up" >&2
        exit 2
    fi
    sleep 0.1
done

"$@"
status=$?
exit "$status"
