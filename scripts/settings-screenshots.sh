#!/usr/bin/env bash
# Renders the CPU settings window and the three preference panes into docs/screenshots/, under a
# virtual X server so the fonts and theme are those of a real desktop session.
#   scripts/settings-screenshots.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
out=$(pwd)/docs/screenshots

cmake -S . -B "$build_dir" -G Ninja >/dev/null
cmake --build "$build_dir" --target pelmora_app_tests
mkdir -p "$out"
run() { env PELMORA_SCREENSHOT_DIR="$out" "$@" "$build_dir/tests/pelmora_app_tests" --gtest_filter='SettingsScreenshots.*'; }
if command -v xvfb-run >/dev/null; then
  xvfb-run -a -s "-screen 0 1280x800x24" env QT_QPA_PLATFORM=xcb bash -c "$(declare -f run); out='$out'; build_dir='$build_dir'; run"
else
  echo "xvfb-run not found: rendering off-screen instead" >&2
  QT_QPA_PLATFORM=offscreen run
fi
