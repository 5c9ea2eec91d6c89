#!/usr/bin/env bash
# Installs what is needed, builds, and starts Pelmora.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build
exec build/src/cli/pelmora sample "$@"
