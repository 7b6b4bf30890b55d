# Sourced by the scripts that need the tunnel lab (the demo, the sudo end-to-end test).
# lab_start OUT LOG COMMAND...: runs COMMAND (the lab, perhaps behind setsid) in the background
# with its output in OUT and LOG, sets LAB_PID, and waits until the lab prints READY. Fails when
# it ended first or did not get there within a minute; LOG then says why.
lab_start() {
  local out=$1 log=$2
  shift 2
  "$@" >"$out" 2>"$log" &
  LAB_PID=$!
  for _ in $(seq 600); do
    grep -q '^READY$' "$out" 2>/dev/null && return 0
    kill -0 "$LAB_PID" 2>/dev/null || break
    sleep 0.1
  done
  grep -q '^READY$' "$out"
}
