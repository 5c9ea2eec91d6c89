#!/usr/bin/env bash
# Checks that every #include in src/ follows the library arrows drawn in docs/ARCHITECTURE.md:
# a library includes only the folders it links, and only src/app and src/graphs/views include Qt.
#   include_arrows.sh SRC_DIR      check a source tree (exit 1 and one line per break)
#   include_arrows.sh --self-test  check that made-up breaks in a scratch tree are caught
set -uo pipefail

# Folder (below src/) -> the folders its files may include. graphs/views is the Qt painter layer.
declare -A allowed=(
  [support]="support"
  [helper]="helper support"
  [helper_link]="helper_link helper support"
  [sampling]="sampling helper_link support"
  [process_control]="process_control helper_link support"
  [nettop]="nettop support"
  [graphs]="graphs sampling support"
  [graphs/views]="graphs sampling support"
  [cli]="cli process_control sampling helper_link support"
  [app]="app graphs process_control sampling helper_link support"
)
qt_allowed=" app graphs/views "
# The daemon's socket server is a library of its own (pelmora_helper_daemon) that only the daemon
# links: helper_link reaches the request handlers, never the server.
daemon_headers=" helper/helper_daemon.h helper/log_rate_limit.h "

layer_of() {  # src-relative path -> its layer
  case "$1" in
    graphs/views/*) echo graphs/views ;;
    *) echo "${1%%/*}" ;;
  esac
}

check_tree() {
  local src=$1 breaks=0 file rel layer line target
  while IFS= read -r file; do
    rel=${file#"$src"/}
    layer=$(layer_of "$rel")
    if [[ -z ${allowed[$layer]+set} ]]; then
      echo "$rel: folder '$layer' has no arrows in include_arrows.sh (add it here and to docs/ARCHITECTURE.md)"
      breaks=$((breaks + 1))
      continue
    fi
    while IFS= read -r line; do
      if [[ $line =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\"(([a-z_]+)/[^\"]+)\" ]]; then
        target=${BASH_REMATCH[2]}
        if [[ $daemon_headers == *" ${BASH_REMATCH[1]} "* && $layer != helper ]]; then
          echo "$rel: includes the daemon's server (${BASH_REMATCH[1]}), which only pelmora-helper links"
          breaks=$((breaks + 1))
        elif [[ " ${allowed[$layer]} " != *" $target "* ]]; then
          echo "$rel: $layer may not include $target/ ($line)"
          breaks=$((breaks + 1))
        fi
      elif [[ $line =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\<Q[A-Za-z]*[/\>] ]]; then
        if [[ $qt_allowed != *" $layer "* ]]; then
          echo "$rel: Qt header below src/app ($line)"
          breaks=$((breaks + 1))
        fi
      fi
    done < <(grep -E '^[[:space:]]*#[[:space:]]*include' "$file")
  done < <(find "$src" -mindepth 2 \( -name '*.h' -o -name '*.cpp' \) | sort)
  if ((breaks > 0)); then
    echo "$breaks include(s) break the arrows"
    return 1
  fi
  return 0
}

self_test() {
  local failures=0 row path include expect got
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
  # file | include line | expected: ok or break
  local -a rows=(
    'support/a.h|#include "support/b.h"|ok'
    'support/a.h|#include "sampling/cpu_collector.h"|break'
    'support/a.cpp|#include <QString>|break'
    'sampling/a.cpp|#include "helper_link/pelmora.h"|ok'
    'sampling/a.cpp|#include "process_control/cpu_limiter.h"|break'
    'helper/a.cpp|#include "helper_link/pelmora.h"|break'
    'helper_link/a.h|#include "helper/request_handler.h"|ok'
    'process_control/a.h|#include "sampling/load_collector.h"|break'
    'helper/a.cpp|#include "helper/helper_daemon.h"|ok'
    'helper_link/a.cpp|#include "helper/helper_daemon.h"|break'
    'helper_link/a.h|#include "helper/log_rate_limit.h"|break'
    'nettop/a.cpp|#include "process_control/nettop_parser.h"|break'
    'graphs/a.cpp|#include <QPainter>|break'
    'graphs/a.cpp|#include "app/settings.h"|break'
    'graphs/views/a.cpp|#include <QtWidgets/QWidget>|ok'
    'graphs/views/a.cpp|  #  include <QPainter>|ok'
    'cli/a.cpp|#include <QCoreApplication>|break'
    'cli/a.cpp|#include "app/settings.h"|break'
    'app/a.cpp|#include "graphs/views/graph_view.h"|ok'
    'app/a.cpp|#include "helper/policy.h"|break'
    'newlib/a.cpp|#include "support/text.h"|break'
  )
  for row in "${rows[@]}"; do
    IFS='|' read -r path include expect <<<"$row"
    rm -rf "${scratch:?}"/*
    mkdir -p "$scratch/$(dirname "$path")"
    printf '#pragma once\n%s\n' "$include" >"$scratch/$path"
    if check_tree "$scratch" >/dev/null; then got=ok; else got=break; fi
    if [[ $got != "$expect" ]]; then
      echo "self-test: $path with '$include': expected $expect, got $got"
      failures=$((failures + 1))
    fi
  done
  echo "self-test: ${#rows[@]} cases, $failures wrong"
  ((failures == 0))
}

if [[ ${1:-} == --self-test ]]; then
  self_test
else
  check_tree "${1:?usage: include_arrows.sh SRC_DIR | --self-test}"
fi
