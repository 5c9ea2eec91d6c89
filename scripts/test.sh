#!/usr/bin/env bash
# Installs what is needed, builds with warnings as errors, and runs every test.
#   scripts/test.sh              the normal build, in build/
#   scripts/test.sh --sanitize   the same tests under AddressSanitizer + UBSan, in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
# The installed layout (/usr) is compiled in: scripts/session-test.sh packages this same build.
extra=(-DCMAKE_INSTALL_PREFIX=/usr)
if [ "${1:-}" = "--sanitize" ]; then
  build_dir=build-asan
  extra=(-DPELMORA_SANITIZE=ON -DPELMORA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
fi

bash scripts/install-deps.sh
cmake -S . -B "$build_dir" -G Ninja -DPELMORA_WERROR=ON "${extra[@]}"
cmake --build "$build_dir"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$build_dir" --output-on-failure --timeout 300 -j2
