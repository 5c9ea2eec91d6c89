#!/usr/bin/env bash
# Renders the CPU settings window, the three preference panes and the help window into
# docs/screenshots/, under a virtual X server so the fonts and theme are those of a real desktop
# session (scripts/screenshots.sh renders these and every other window at 1x and 2x).
#   scripts/settings-screenshots.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
out=$(pwd)/docs/screenshots

cmake -S . -B "$build_dir" -G Ninja -DPELMORA_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" --target settings_screenshots
mkdir -p "$out"
source scripts/render-lib.sh  # the working folder is the repository's root
render 1280x800 "$build_dir/bench/settings_screenshots" "$out"
