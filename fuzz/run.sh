#!/usr/bin/env bash
# Builds the fuzz targets with clang and runs each for FUZZ_SECONDS (default 600) on the
# committed corpus (copied, so new inputs stay out of the repository).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(dirname "$here")"
build="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
seconds="${FUZZ_SECONDS:-600}"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined" >/dev/null
ninja -C "$build" -j2 fuzz_handshake fuzz_frame_decoder fuzz_extension_dispatch

declare -A corpus=([fuzz_handshake]=handshake [fuzz_frame_decoder]=frames [fuzz_extension_dispatch]=dispatch)
status=0
for target in fuzz_handshake fuzz_frame_decoder fuzz_extension_dispatch; do
  work="$build/fuzz-corpus/${corpus[$target]}"
  mkdir -p "$work"
  cp -n "$here/corpus/${corpus[$target]}/"* "$work/" 2>/dev/null || true
  echo "== $target for ${seconds}s"
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -max_len=70000 -print_final_stats=1 \
      -artifact_prefix="$build/$target-" "$work" 2>"$build/$target.log"; then
    echo "!! $target found a failure, see $build/$target.log"
    status=1
  fi
  grep -E "stat::number_of_executed_units|cov:" "$build/$target.log" | tail -2 || true
done
exit $status
