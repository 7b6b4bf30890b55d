#!/usr/bin/env bash
# Installs what is needed, builds from scratch and runs every test, in three stages:
#   release  the plain optimised build (RelWithDebInfo), warnings as errors, every test;
#   asan     every target with warnings as errors under AddressSanitizer and
#            UndefinedBehaviorSanitizer (-O1), and every test;
#   tsan     the threaded parts under ThreadSanitizer: socket layer and WebSocket server,
#            HTTP completions, tunnel output handling, the main-thread hand-off (labels
#            extension, backend, vpn, threaded).
# Any sanitizer report fails the run (options and suppressions are set per test by CMake).
#
#   scripts/test.sh                  all three stages
#   scripts/test.sh --quick          the release stage only
#   STAGES="asan tsan" scripts/test.sh    any subset
#   CTEST_ARGS="-R vpn" scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

STAGES=${STAGES:-release asan tsan}
[ "${1:-}" = --quick ] && STAGES=release
JOBS=$(nproc)

bash scripts/setup-deps.sh

say() { echo "[test] $(date +%H:%M:%S) $*"; }
started=$(date +%s)

# configure DIR [cmake args...]: a fresh build folder.
configure() {
  local dir=$1
  shift
  rm -rf "$dir"
  cmake -S "$ROOT" -B "$dir" -G Ninja "$@" ${CMAKE_ARGS:-} >/dev/null
}

# The test executables (and what they start) for the tests matching the ctest arguments.
build_tests_matching() {
  local dir=$1
  shift
  local targets
  targets=$(cd "$dir" && ctest -N "$@" | sed -n 's/^ *Test *#[0-9]*: *//p')
  # Programs the tests start as processes.
  targets+=" ovpncli vpnctrl_launcher pelorin-devbackend"
  # Tests that are scripts rather than executables have no target of their own.
  local buildable=()
  for t in $targets; do
    ninja -C "$dir" -t query "$t" >/dev/null 2>&1 && buildable+=("$t")
  done
  cmake --build "$dir" -j "$JOBS" --target "${buildable[@]}"
}

run_ctest() {
  local dir=$1
  shift
  (cd "$dir" && ctest --output-on-failure -j "$JOBS" "$@" ${CTEST_ARGS:-})
}

for stage in $STAGES; do
  case "$stage" in
    release)
      dir=build/ci
      say "release build in $dir"
      configure "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPELORIN_WERROR=ON
      cmake --build "$dir" -j "$JOBS"
      run_ctest "$dir"
      ;;
    asan)
      dir=${BUILD_DIR:-build/ci-asan}
      say "AddressSanitizer + UndefinedBehaviorSanitizer build in $dir"
      configure "$dir" -DCMAKE_BUILD_TYPE=Debug -DPELORIN_SANITIZE=address,undefined -DPELORIN_WERROR=ON \
        -DCMAKE_CXX_FLAGS=-O1
      cmake --build "$dir" -j "$JOBS"
      run_ctest "$dir"
      ;;
    tsan)
      dir=build/ci-tsan
      say "ThreadSanitizer build in $dir (threaded parts)"
      configure "$dir" -DCMAKE_BUILD_TYPE=Debug -DPELORIN_SANITIZE=thread -DPELORIN_EXTRAS=OFF -DCMAKE_CXX_FLAGS=-O1
      build_tests_matching "$dir" -L 'extension|backend|vpn|threaded'
      run_ctest "$dir" -L 'extension|backend|vpn|threaded'
      ;;
    *)
      echo "unknown stage: $stage" >&2
      exit 2
      ;;
  esac
  say "$stage passed"
done
say "all stages passed in $(( ($(date +%s) - started) / 60 )) min"
