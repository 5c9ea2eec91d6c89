#!/usr/bin/env bash
# Renders the statistics window into docs/screenshots/: on this machine (live samples) and on two
# fixture machines (many hybrid cores and fans; a laptop with a GPU, fans and a battery), under a
# virtual X server so the fonts and theme are those of a real desktop session.
#   scripts/window-screenshots.sh [build-dir] [live-seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
live_s=${2:-300}
out=docs/screenshots
fixtures=$PWD/tests/fixtures

cmake -S . -B "$build_dir" -G Ninja -DPELMORA_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" --target window_screenshots
mkdir -p "$out"
tool=$PWD/$build_dir/bench/window_screenshots

source scripts/render-lib.sh  # the working folder is the repository's root

render 1400x1000 "$tool" "$out/window-this-machine.png" --live "$live_s"
for machine in hybrid laptop; do
  PELMORA_PROC_ROOT=$fixtures/sampling-$machine/proc PELMORA_SYS_ROOT=$fixtures/sampling-$machine/sys \
    render 1400x1000 "$tool" "$out/window-$machine.png"
done
