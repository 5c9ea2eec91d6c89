#!/usr/bin/env bash
# Checks what `cmake --install` and the Debian package deliver.
#   install_check.sh tree|desktop|metainfo|package|scripts BUILD_DIR SOURCE_DIR PREFIX HAVE_GUI
set -euo pipefail
check=$1 build=$2 source=$3 prefix=$4 gui=$5
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
umask 022

fail() { echo "FAIL: $*" >&2; exit 1; }

gui_on() { case "${gui^^}" in ON|TRUE|YES|1) return 0 ;; *) return 1 ;; esac; }

# The expected listing, "TYPE MODE PATH" relative to the prefix, sorted.
expected_listing() {
  grep -v '^#' "$here/expected-tree.txt" | while read -r type mode path tag; do
    if [ "${tag:-}" = gui ] && ! gui_on; then continue; fi
    echo "$type $mode $path"
  done
  if [ -d "$source/resources/help" ]; then
    (cd "$source/resources" && find help -type f -printf 'f 644 share/pelmora/%p\n' \
       && find help -type d -empty -printf 'd 755 share/pelmora/%p\n')
  fi
}

# The same listing of a tree installed under ROOT (a DESTDIR, or the package unpacked): files and
# symlinks, and folders with nothing in them. Nothing may lie outside the prefix.
installed_listing() {
  outside=$(cd "$1" && find . -mindepth 1 -not -path "./${prefix#/}" -not -path "./${prefix#/}/*" \
            \( -type f -o -type l \) -print)
  [ -z "$outside" ] || fail "installed outside the prefix: $outside"
  (cd "$1$prefix" && find . -mindepth 1 \( -type f -o -type l -o -type d -empty \) -printf '%y %m %P\n')
}

compare() {  # compare NAME EXPECTED ACTUAL
  if ! diff -u <(sort "$2") <(sort "$3"); then fail "$1 differs from the expected tree (- expected, + found)"; fi
}

case "$check" in
  tree)
    DESTDIR="$work/root" cmake --install "$build" >/dev/null
    expected_listing >"$work/expected"
    installed_listing "$work/root" >"$work/actual"
    compare "the installed tree" "$work/expected" "$work/actual"
    # The installed helper unit starts the installed daemon.
    grep -qx "ExecStart=$prefix/libexec/pelmora/pelmora-helper" \
      "$work/root$prefix/lib/systemd/system/net.tandrel.pelmorahelper.service" \
      || fail "the helper unit does not start $prefix/libexec/pelmora/pelmora-helper"
    # Man pages that man can read without complaint.
    pages=(man1/pelmora.1.gz man8/pelmora-helper.8.gz)
    if gui_on; then pages+=(man1/pelmora-app.1.gz); fi
    for page in "${pages[@]}"; do
      warnings=$(zcat "$work/root$prefix/share/man/$page" | groff -man -Tutf8 -ww -z 2>&1)
      [ -z "$warnings" ] || fail "$page: $warnings"
    done
    ;;
  desktop)
    desktop-file-validate "$source/resources/net.tandrel.pelmora.desktop"
    ;;
  metainfo)
    appstreamcli validate --no-net "$source/resources/net.tandrel.pelmora.metainfo.xml"
    ;;
  package)
    cpack --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 \
      || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
    version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
    arch=$(dpkg --print-architecture)
    deb="$work/out/pelmora_${version}_${arch}.deb"
    [ -f "$deb" ] || fail "no $deb: $(ls "$work/out")"
    field() { dpkg-deb -f "$deb" "$1"; }
    [ "$(field Package)" = pelmora ] || fail "Package: $(field Package)"
    [ "$(field Version)" = "$version" ] || fail "Version: $(field Version)"
    [ "$(field Architecture)" = "$arch" ] || fail "Architecture: $(field Architecture)"
    [ "$(field Section)" = admin ] || fail "Section: $(field Section)"
    [[ "$(field Maintainer)" =~ ^[^\<]+\ \<[^@]+@[^\>]+\>$ ]] || fail "Maintainer: $(field Maintainer)"
    [ "$(field Recommends)" = polkitd ] || fail "Recommends: $(field Recommends) (policykit-1 is gone from Debian 12)"
    # Library dependencies were worked out from the programs.
    depends=$(field Depends)
    [[ "$depends" == *libc6* ]] || fail "Depends lacks libc6: $depends"
    if gui_on; then [[ "$depends" == *libqt6widgets6* ]] || fail "Depends lacks Qt 6 Widgets: $depends"; fi
    # A synopsis and an extended description.
    [ "$(field Description | wc -l)" -gt 2 ] || fail "Description has no extended part"
    # The package holds exactly the installed tree.
    expected_listing >"$work/expected"
    dpkg-deb -x "$deb" "$work/unpacked"
    installed_listing "$work/unpacked" >"$work/actual"
    compare "the package's file list" "$work/expected" "$work/actual"
    dpkg-deb -e "$deb" "$work/control"
    for script in postinst prerm postrm; do
      [ -x "$work/control/$script" ] || fail "the package has no executable $script"
    done
    ;;
  scripts)
    # Runs the maintainer scripts with a systemctl, deb-systemd-helper and deb-systemd-invoke that
    # record what they are asked to do (was-enabled answers as on a first installation).
    mkdir -p "$work/bin"
    for tool in systemctl deb-systemd-helper deb-systemd-invoke; do
      printf '#!/bin/sh\necho "%s $*" >>"%s"\n' "$tool" "$work/calls" >"$work/bin/$tool"
      chmod 755 "$work/bin/$tool"
    done
    run() { : >"$work/calls"; PATH="$work/bin:$PATH" sh "$source/cmake/debian/$1" "$2" || fail "$1 $2 failed"; }
    called() { grep -qx "$1" "$work/calls" || fail "$2 does not run '$1': $(cat "$work/calls")"; }
    socket=net.tandrel.pelmorahelper.socket
    service=net.tandrel.pelmorahelper.service
    run postinst configure
    called "deb-systemd-helper enable $socket" "postinst configure"
    if [ -d /run/systemd/system ]; then called "deb-systemd-invoke start $socket" "postinst configure"; fi
    run prerm remove
    if [ -d /run/systemd/system ]; then called "deb-systemd-invoke stop $service $socket" "prerm remove"; fi
    run postrm remove
    called "deb-systemd-helper mask $socket" "postrm remove"
    if grep -q bootpelmora "$work/calls"; then fail "postrm remove touched the boot unit: $(cat "$work/calls")"; fi
    run postrm purge
    called "deb-systemd-helper purge $socket" "postrm purge"
    # Units are only ever switched through the Debian helpers; systemctl only reloads.
    for script in postinst prerm postrm; do
      sh -n "$source/cmake/debian/$script" || fail "$script: syntax"
      if grep -E '^[^#]*systemctl ' "$source/cmake/debian/$script" | grep -vq 'daemon-reload'; then
        fail "$script calls systemctl for more than daemon-reload"
      fi
    done
    ;;
  *)
    fail "unknown check $check"
    ;;
esac
echo "ok: $check"
