#!/usr/bin/env bash
# Installs what is needed, builds, and starts Pelmora.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
# An uninstalled build finds its resources (energy tables, help) in the source tree.
export PELMORA_RESOURCES_DIR="${PELMORA_RESOURCES_DIR:-$PWD/resources}"
if [[ -z "${DISPLAY:-}" && -z "${WAYLAND_DISPLAY:-}" ]]; then
  cmake --build build --target pelmora pelmora-nettop
  echo "No display (\$DISPLAY and \$WAYLAND_DISPLAY are unset): the desktop application cannot open a window."
  echo "The headless commands work here:"
  echo "  build/src/cli/pelmora sample --count 5     # one line of every metric a second"
  echo "  build/src/cli/pelmora top                  # the process table, once"
  echo "  build/src/cli/pelmora limit PID PERCENT    # hold a process to a share until Ctrl-C"
  exit 0
fi
cmake --build build --target pelmora-app pelmora pelmora-nettop
exec build/src/app/pelmora-app "$@"
