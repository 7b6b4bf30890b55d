#!/usr/bin/env bash
# Installs every Debian 12 package that building, running and testing PelorinVPN needs.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

PACKAGES=(
  # build
  cmake ninja-build g++ clang ccache pkg-config clang-format
  qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  qt6-svg-dev qt6-httpserver-dev qt6-websockets-dev libqt6svg6 qt6-qpa-plugins
  libsecret-1-dev libplist-dev libssl-dev libglib2.0-dev libicu-dev
  # runtime of the tunnel and its helpers
  openvpn sudo iproute2 iputils-ping procps psmisc openssl easy-rsa nftables
  # tests: secret service, independent WebSocket clients, a display for screenshots
  gnome-keyring dbus dbus-x11 libsecret-tools libgcr-3-dev python3 python3-websockets
  chromium
  xvfb xauth fonts-dejavu-core
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup-deps: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "setup-deps: all packages present"
fi
