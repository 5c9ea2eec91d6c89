#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Pelmora needs.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang
  clang-format  # .ci/run checks the formatting of the last commit's lines (scripts/check-format.sh)
  qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  libgl-dev
  nlohmann-json3-dev libsystemd-dev libxcb1-dev libxcb-ewmh-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  util-linux procps iproute2 xvfb xauth
  cpulimit  # bench/limiter_accuracy measures it beside our limiter
  desktop-file-utils appstream groff-base  # tests/install checks the desktop entry, metainfo, man pages
  # scripts/session-test.sh: a private system bus with polkit, a desktop with a tray under Xvfb,
  # input events and screenshots, the package linter
  dbus polkitd python3-dbus python3-gi python3-pyatspi at-spi2-core openbox trayer xdotool x11-utils imagemagick lintian
)

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
