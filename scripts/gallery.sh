#!/usr/bin/env bash
# Draws every screen in its states, in English, German and Finnish (or the languages given),
# into build/gallery (outside git). Needs a build folder with pelorin_ui_gallery:
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
echo "gallery: $out"
