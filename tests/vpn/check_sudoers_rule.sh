#!/bin/bash
# The sudoers rule parses, and grants exactly the tunnel client and the kill by name.
set -euo pipefail
rule="$1"
visudo=$(command -v visudo || echo /usr/sbin/visudo)
"$visudo" -cf "$rule"
grants=$(grep -v '^[[:space:]]*#' "$rule" | grep -v '^[[:space:]]*$')
expected='%pelorin-vpn ALL=(root) NOPASSWD: /usr/lib/pelorin-vpn/ovpncli *, /usr/bin/pkill ovpncli'
if [ "$grants" != "$expected" ]; then
  echo "unexpected grants: $grants" >&2
  exit 1
fi
# A broken copy must be refused by the same check, or the check proves nothing.
broken=$(mktemp)
trap 'rm -f "$broken"' EXIT
sed 's/NOPASSWD:/NOPASSWD/' "$rule" > "$broken"
if "$visudo" -cf "$broken" >/dev/null 2>&1; then
  echo "visudo accepted a broken rule" >&2
  exit 1
fi
echo "sudoers rule OK"
