#!/usr/bin/env bash
# Renders every graph class with realistic history (1800 samples) into docs/screenshots/, under a
# virtual X server so the fonts and theme are those of a real desktop session. The temperature and
# battery graphs and their live icons come from the fixture machines: the laptop (coretemp, acpitz,
# nvme, a battery discharging at 9.8 W with 63 % left) and the desktop (k10temp, amdgpu, no battery).
#   scripts/graph-screenshots.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
out=docs/screenshots
fixtures=$PWD/tests/fixtures

cmake -S . -B "$build_dir" -G Ninja -DPELMORA_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" --target bench_graph_paint
mkdir -p "$out"
tool=$build_dir/bench/bench_graph_paint
source scripts/render-lib.sh  # the working folder is the repository's root
render 1280x800 "$tool" --screenshots "$out"
for machine in laptop desktop; do
  suffix=; [ "$machine" = laptop ] || suffix=-$machine
  PELMORA_PROC_ROOT=$fixtures/sampling-$machine/proc PELMORA_SYS_ROOT=$fixtures/sampling-$machine/sys \
    render 1280x800 "$tool" --thermal-screenshots "$out" "$suffix"
done
# Lossless recompression where the tool is installed: the README loads every picture.
if command -v optipng >/dev/null; then optipng -quiet -o2 "$out"/graph-*.png; fi
