#!/usr/bin/env bash
# Builds the fuzz targets with clang (build/fuzz) and runs each in turn for a fixed time on
# its committed seeds (fuzz/corpus/<name>/, read only). New inputs go to build/fuzz-corpus/<name>/
# and failing inputs to build/fuzz-artifacts/, both outside git. Prints one row per target
# (executions, speed, coverage, failures) and exits non-zero when any target crashed, leaked,
# hung or ran out of memory.
#
#   fuzz/run.sh [--time SECONDS] [--only NAME[,NAME...]] [--no-build] [--list]
#
# NAME is a target with or without its "fuzz_" prefix. FUZZ_BUILD_DIR overrides build/fuzz.
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(dirname "$here")"
build="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
corpora="$root/build/fuzz-corpus"
artifacts="$root/build/fuzz-artifacts"
seconds=600
only=""
do_build=1

# Target -> largest input worth trying. Each covers what its parser can meet in one message
# or file, with room for the length fields and limits near it.
declare -A max_len=(
  [handshake]=8192          # an HTTP upgrade request
  [frame_decoder]=70000     # past the 16-bit length form of a frame
  [extension_dispatch]=16384
  [property_list]=65536     # configuration files are a few kilobytes
  [keyed_archive]=16384
  [backend_answers]=16384
  [vpn_answers]=32768       # a profile with inline certificates
  [tunnel_output]=16384
)
targets=(handshake frame_decoder extension_dispatch property_list keyed_archive backend_answers vpn_answers tunnel_output)

usage() { sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; }
while [ $# -gt 0 ]; do
  case "$1" in
    --time) seconds="${2:?--time needs a number of seconds}"; shift 2 ;;
    --time=*) seconds="${1#--time=}"; shift ;;
    --only) only="${2:?--only needs a target name}"; shift 2 ;;
    --only=*) only="${1#--only=}"; shift ;;
    --no-build) do_build=0; shift ;;
    --list) printf '%s\n' "${targets[@]}"; exit 0 ;;
    -h|--help) usage; exit 0 ;;
    *) echo "unknown argument: $1" >&2; usage >&2; exit 2 ;;
  esac
done
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "--time wants a whole number of seconds, got '$seconds'" >&2
  exit 2
fi
if [ -n "$only" ]; then
  selected=()
  IFS=',' read -ra wanted <<<"$only"
  for name in "${wanted[@]}"; do
    name="${name#fuzz_}"
    if [ -z "${max_len[$name]:-}" ]; then
      echo "no fuzz target '$name'; known: ${targets[*]}" >&2
      exit 2
    fi
    selected+=("$name")
  done
  targets=("${selected[@]}")
fi

if [ "$do_build" = 1 ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined" >/dev/null || exit 2
  ninja -C "$build" -j2 $(printf 'fuzz_%s ' "${targets[@]}") || exit 2
fi

# Undefined behaviour is a failure, not a warning; any default location a parser might
# touch points into a scratch folder that is removed afterwards.
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export HOME="$scratch/home" TMPDIR="$scratch/tmp" XDG_CONFIG_HOME="$scratch/home/.config" \
  XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache" \
  XDG_RUNTIME_DIR="$scratch/run" QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME" "$TMPDIR" "$XDG_RUNTIME_DIR" "$artifacts"
chmod 700 "$XDG_RUNTIME_DIR"

# The value after `key` on libFuzzer's last status line ("#123 DONE cov: 45 ft: 67 ...").
last_status() { grep -E '^#[0-9]+' "$1" | tail -1 | grep -oE "$2: [0-9]+" | grep -oE '[0-9]+$'; }
final_stat() { grep -E "^stat::$2:" "$1" | tail -1 | grep -oE '[0-9]+$'; }

status=0
rows=()
for name in "${targets[@]}"; do
  target="fuzz_$name"
  work="$corpora/$name"
  log="$artifacts/$target.log"
  mkdir -p "$work"
  rm -f "$artifacts/$target-"*
  echo "== $target for ${seconds}s (max_len ${max_len[$name]})"
  "$build/fuzz/$target" "$work" "$here/corpus/$name" \
    -max_total_time="$seconds" -max_len="${max_len[$name]}" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/$target-" >"$log" 2>&1
  rc=$?
  execs="$(final_stat "$log" number_of_executed_units)"
  speed="$(final_stat "$log" average_exec_per_sec)"
  cov="$(last_status "$log" cov)"
  ft="$(last_status "$log" ft)"
  count() { find "$artifacts" -maxdepth 1 -name "$target-$1-*" | wc -l; }
  crashes=$(($(count crash) + $(count deadly_signal)))
  leaks=$(count leak)
  timeouts=$(count timeout)
  ooms=$(count oom)
  verdict=ok
  if [ "$rc" != 0 ] || [ $((crashes + leaks + timeouts + ooms)) -gt 0 ]; then
    verdict="FAILED (exit $rc), see $log"
    status=1
    grep -E "ERROR: |fuzz check failed|runtime error|SUMMARY" "$log" | head -5 | sed 's/^/   /'
  fi
  rows+=("$(printf '| %-23s | %12s | %8s | %6s | %7s | %7s | %5s | %8s | %4s | %s |' "$target" "${execs:-?}" \
    "${speed:-?}" "${cov:-?}" "${ft:-?}" "$crashes" "$leaks" "$timeouts" "$ooms" "$verdict")")
done

echo
echo "fuzzing for ${seconds}s per target"
printf '| %-23s | %12s | %8s | %6s | %7s | %7s | %5s | %8s | %4s | %s |\n' target executions exec/s cov ft \
  crashes leaks timeouts ooms result
echo "|-------------------------|--------------|----------|--------|---------|---------|-------|----------|------|--------|"
printf '%s\n' "${rows[@]}"
exit $status
