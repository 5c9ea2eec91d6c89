#!/usr/bin/env bash
# Renders every window into docs/screenshots/ at 1x and at 2x (QT_SCALE_FACTOR=2, files named
# NAME@2x.png) under a virtual X server, so the fonts, theme and screen fitting are those of a real
# session. The 2x pass runs on a 1600x1000 screen, 800x500 in the windows' own units: every window
# must fit it.
#   scripts/screenshots.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
out=$PWD/docs/screenshots
fixtures=$PWD/tests/fixtures

command -v xvfb-run >/dev/null || { echo "xvfb-run is needed (apt-get install xvfb)" >&2; exit 1; }
cmake -S . -B "$build_dir" -G Ninja -DPELMORA_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" --target settings_screenshots window_screenshots procinfo_screenshot
mkdir -p "$out"
source scripts/render-lib.sh  # the working folder is the repository's root

for scale in 1 2; do
  if [ "$scale" = 2 ]; then suffix=@2x screen=1600x1000; else suffix= screen=1400x1000; fi
  run() { render "$screen" env QT_SCALE_FACTOR=$scale "$@"; }
  run "$build_dir/bench/settings_screenshots" "$out" "$suffix"
  run "$build_dir/bench/procinfo_screenshot" "$out/process-window$suffix.png"
  PELMORA_PROC_ROOT=$fixtures/sampling-laptop/proc PELMORA_SYS_ROOT=$fixtures/sampling-laptop/sys \
    run "$build_dir/bench/window_screenshots" "$out/window-laptop$suffix.png"
done
# Lossless recompression where the tool is installed: the README loads every picture.
if command -v optipng >/dev/null; then optipng -quiet -o2 "$out"/*.png; fi
