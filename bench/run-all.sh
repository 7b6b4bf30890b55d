#!/usr/bin/env bash
# Builds what the benchmarks need (Release), runs every one of them and writes a markdown
# table of the results to <build dir>/results.md and to standard output.
#
#   bench/run-all.sh [--build-dir DIR] [--no-build] [--quick]
#
# --build-dir DIR  build folder (default build/bench, configured Release if new)
# --no-build       use what DIR already holds
# --quick          fewer repetitions (a smoke run, not numbers to quote)
set -uo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=$SRC/build/bench
BUILD=1
QUICK=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) BUILD_DIR=$2; shift ;;
    --build-dir=*) BUILD_DIR=${1#*=} ;;
    --no-build) BUILD=0 ;;
    --quick) QUICK=1 ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "run-all: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
say() { echo "[bench] $*" >&2; }

# Tunnels (connect_latency) need root, /dev/net/tun and network namespaces.
TUNNEL_REASON=""
if [ "$(id -u)" -ne 0 ]; then TUNNEL_REASON="not root"
elif [ ! -c /dev/net/tun ]; then TUNNEL_REASON="no /dev/net/tun"
elif ! command -v ip >/dev/null || ! ip netns list >/dev/null 2>&1; then TUNNEL_REASON="no ip netns"
elif ! command -v openvpn >/dev/null; then TUNNEL_REASON="no openvpn"
fi

TARGETS=(pelorin-vpn pelorin-devbackend vpnctrl_launcher bench_bare_window bench_startup bench_memory bench_wakeups
  bridge_bench)
[ -z "$TUNNEL_REASON" ] && TARGETS+=(bench_connect_latency ovpncli pelorin-tunnel-lab)
if [ $BUILD -eq 1 ]; then
  if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
    launcher=()
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    say "configuring $BUILD_DIR (Release)"
    cmake -S "$SRC" -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" >/dev/null || exit 1
  fi
  say "building ${TARGETS[*]}"
  cmake --build "$BUILD_DIR" -j 2 --target "${TARGETS[@]}" >"$BUILD_DIR/bench-build.log" 2>&1 ||
    { tail -30 "$BUILD_DIR/bench-build.log" >&2; exit 1; }
fi
BUILD_DIR=$(cd "$BUILD_DIR" && pwd)
TYPE=$(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$BUILD_DIR/CMakeCache.txt")
[ "$TYPE" = Release ] || say "warning: $BUILD_DIR is a $TYPE build; numbers are for Release builds"
BIN=$BUILD_DIR/bench/bin
LOG=$BUILD_DIR/bench-logs
mkdir -p "$LOG"

ROWS=()
row() { ROWS+=("| $1 | $2 | $3 | $4 | $5 | $6 |"); }
skip() { row "$1" "skipped: $2" "-" "-" "$3" "-"; }
# Runs one benchmark, keeps its output in $LOG/<name>.log and takes its RESULT lines.
run() {
  local name=$1; shift
  say "running $name: $*"
  "$@" >"$LOG/$name.log" 2>"$LOG/$name.err"
  local code=$?
  cat "$LOG/$name.log" >&2
  while IFS=$'\t' read -r _ n o p r g m; do row "$n" "$o" "$p" "$r" "$g" "$m"; done < <(grep '^RESULT' "$LOG/$name.log")
  if [ $code -ne 0 ]; then
    cat "$LOG/$name.err" >&2
    return $code
  fi
}

# One X server for the windowed benchmarks (the program shows no window on the offscreen
# platform). Xvfb keeps the real xcb path: X connection, expose round trip, shared memory.
XVFB_PID=""
cleanup() { [ -n "$XVFB_PID" ] && kill "$XVFB_PID" 2>/dev/null; }
trap cleanup EXIT
if [ -z "${DISPLAY:-}" ]; then
  if command -v Xvfb >/dev/null; then
    Xvfb -displayfd 6 -screen 0 1280x800x24 -nolisten tcp 6>"$LOG/xvfb.display" 2>"$LOG/xvfb.err" &
    XVFB_PID=$!
    for _ in $(seq 50); do [ -s "$LOG/xvfb.display" ] && break; sleep 0.1; done
    [ -s "$LOG/xvfb.display" ] && export DISPLAY=:$(head -1 "$LOG/xvfb.display")
  fi
  [ -n "${DISPLAY:-}" ] || say "no X server (install xvfb: scripts/setup-deps.sh): window benchmarks skipped"
fi
unset WAYLAND_DISPLAY QT_QPA_PLATFORM
export DISPLAY=${DISPLAY:-}

STARTUP_RUNS=25 MEMORY_LAUNCHES=3 WAKE_SECONDS=10 BRIDGE=(50 20000 64)
[ $QUICK -eq 1 ] && STARTUP_RUNS=5 MEMORY_LAUNCHES=1 WAKE_SECONDS=5 BRIDGE=(10 500 64)

if [ -n "$DISPLAY" ]; then
  run startup "$BIN/bench_startup" "$STARTUP_RUNS"
else
  skip "startup to first frame" "no X server" "<= 1.3x"
fi
run memory "$BIN/bench_memory" "$MEMORY_LAUNCHES"
run wakeups "$BIN/bench_wakeups" "$WAKE_SECONDS"

# The bridge: our WebSocket server against QWebSocketServer and Node's ws, under the same two loads.
if ! command -v node >/dev/null; then
  skip "bridge throughput" "node not installed" "-"
elif [ ! -x "$BIN/../bridge/bridge_bench" ]; then
  skip "bridge throughput" "bridge_bench not built (needs QtWebSockets)" "-"
else
  [ -d "$SRC/bench/bridge/node_modules/ws" ] || (cd "$SRC/bench/bridge" && npm install --no-audit --no-fund >&2)
  if run bridge "$BIN/../bridge/bridge_bench" "${BRIDGE[@]}"; then
    # One section per load generator: "load: <name>" then the three rates and the ratios.
    section() { awk -v l="load: $1" '/^load: / { on = ($0 == l) } on' "$LOG/bridge.log"; }
    for load in "frame_blaster" "node ws client"; do
      # The field before "msg/s", or before "us" for the CPU spent per message.
      field() { section "$load" | awk -v k="$1" -v u="$2" 'index($0, k) == 3 { for (i = 2; i <= NF; i++) if ($i == u) print $(i-1) }'; }
      rate() { field "$1" msg/s; }
      ours=$(rate CVWebSocketServer) qt=$(rate QWebSocketServer) nodews=$(rate "node ws")
      cpu_ours=$(field CVWebSocketServer us) cpu_qt=$(field QWebSocketServer us)
      ratio_qt=$(section "$load" | sed -n 's/.*ours \/ Qt = \([0-9.]*\).*/\1/p')
      ratio_node=$(section "$load" | sed -n 's/.*ours \/ node ws = \([0-9.]*\).*/\1/p')
      met_qt=$(awk -v r="$ratio_qt" 'BEGIN { print (r >= 2) ? "yes" : "NO" }')
      met_node=$(awk -v r="$ratio_node" 'BEGIN { print (r >= 1) ? "yes" : "NO" }')
      row "bridge throughput vs QWebSocketServer ($load load)" "$ours msg/s" "$qt msg/s" "${ratio_qt}x" ">= 2x" "$met_qt"
      row "bridge throughput vs node ws ($load load)" "$ours msg/s" "$nodews msg/s" "${ratio_node}x" ">= 1x" "$met_node"
      cpu_ratio=$(awk -v a="$cpu_ours" -v b="$cpu_qt" 'BEGIN { if (b > 0) printf "%.2f", a / b }')
      row "bridge CPU per message vs QWebSocketServer ($load load)" "$cpu_ours us" "$cpu_qt us" "${cpu_ratio}x" "-" "-"
    done
    cookie=$(sed -n 's/.*(ratio \([0-9.]*\)).*/\1/p' "$LOG/bridge.log")
    row "blocked-domain handler, 10 000 stored vs empty map" "see log" "-" "${cookie}x" "-" "-"
  else
    skip "bridge throughput" "bridge_bench failed (see $LOG/bridge.err)" "-"
  fi
fi

if [ -n "$TUNNEL_REASON" ]; then
  skip "connect latency vs raw openvpn" "$TUNNEL_REASON" "<= 1.05x"
elif "$BUILD_DIR/bench/connect_latency/bench_connect_latency" >"$LOG/connect_latency.log" 2>"$LOG/connect_latency.err"; then
  line=$(grep '^median over' "$LOG/connect_latency.log")
  ours=$(sed -n 's/.*ours \([0-9.]*\) ms.*/\1/p' <<<"$line")
  raw=$(sed -n 's/.*raw openvpn \([0-9.]*\) ms.*/\1/p' <<<"$line")
  ratio=$(sed -n 's/.*ratio \([0-9.]*\).*/\1/p' <<<"$line")
  met=$(awk -v r="$ratio" 'BEGIN { print (r <= 1.05) ? "yes" : "NO" }')
  row "connect latency vs raw openvpn, median" "$ours ms" "$raw ms" "${ratio}x" "<= 1.05x" "$met"
else
  row "connect latency vs raw openvpn" "FAILED: $(tail -1 "$LOG/connect_latency.err")" "-" "-" "<= 1.05x" "-"
fi

{
  echo "# Benchmark results"
  echo
  echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(git -C "$SRC" rev-parse --short HEAD 2>/dev/null), $TYPE build," \
    "$(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg), DISPLAY=${DISPLAY:-none} ($([ -n "$XVFB_PID" ] && echo Xvfb || echo given))"
  echo
  echo "| name | ours | peer | ratio | goal | met? |"
  echo "|---|---|---|---|---|---|"
  printf '%s\n' "${ROWS[@]}"
  echo
  echo "Full output of each benchmark: $LOG/"
} | tee "$BUILD_DIR/results.md"
