#!/usr/bin/env bash
# Draws every screen in its states (also with the keyboard focus on each kind of control), in
# English, German and Finnish (or the languages given), into build/gallery (outside git), and
# a keyboard-only journey from start to connected and back, one picture per key, into
# build/gallery/keyboard. Needs a build folder with pelorin_ui_gallery and the journey tests:
#   scripts/gallery.sh [build-folder] [lang ...]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build/ui}"
shift || true
langs=("$@")
[ ${#langs[@]} -gt 0 ] || langs=(en de fi)
out="$root/build/gallery"
mkdir -p "$out"
ninja -C "$build" pelorin_ui_gallery >/dev/null
export PELORIN_RESOURCES_DIR="$root/resources"
home="$(mktemp -d)"
trap 'rm -rf "$home"' EXIT
export HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share"
for lang in "${langs[@]}"; do
  xvfb-run -a -s "-screen 0 1280x800x24" "$build/src/ui/gallery/pelorin_ui_gallery" --out "$out" --lang "$lang"
done
# The real program driven by keys, against the development backend and a stand-in tunnel.
if ninja -C "$build" tst_journey pelorin-devbackend >/dev/null 2>&1; then
  rm -rf "$out/keyboard"
  mkdir -p "$home/run" && chmod 700 "$home/run"
  PELORIN_SCREENSHOT_DIR="$out/keyboard" PELORIN_SOURCE_DIR="$root" PELORIN_BINARY_DIR="$build" \
    PELORIN_SECRET_STORE=file XDG_RUNTIME_DIR="$home/run" \
    xvfb-run -a -s "-screen 0 1280x800x24" "$build/tests/journey/tst_journey" keyboardOnly >/dev/null
fi
echo "gallery: $out"
