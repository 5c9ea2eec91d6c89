#!/usr/bin/env bash
# Renders every graph class with realistic history (1800 samples) into docs/screenshots/, under a
# virtual X server so the fonts and theme are those of a real desktop session.
#   scripts/graph-screenshots.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
out=docs/screenshots

cmake -S . -B "$build_dir" -G Ninja -DPELMORA_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" --target bench_graph_paint
mkdir -p "$out"
if command -v xvfb-run >/dev/null; then
  xvfb-run -a -s "-screen 0 1280x800x24" env QT_QPA_PLATFORM=xcb "$build_dir/bench/bench_graph_paint" --screenshots "$out"
else
  echo "xvfb-run not found: rendering off-screen instead" >&2
  QT_QPA_PLATFORM=offscreen "$build_dir/bench/bench_graph_paint" --screenshots "$out"
fi
