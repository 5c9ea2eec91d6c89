#!/usr/bin/env bash
# Checks the C++ lines changed since BASE (default: main) against .clang-format and prints what
# clang-format would change in them. Only changed lines are looked at: the tree as a whole has not been
# reformatted, so untouched code never fails. Exit status 1 when a changed line needs formatting.
#   scripts/check-format.sh [BASE]        e.g. before landing: scripts/check-format.sh main
#   scripts/check-format.sh [BASE] -i     format those lines in place instead
set -euo pipefail
cd "$(dirname "$0")/.."
base=${1:-main}
shift || true
formatter=$(command -v clang-format-diff || command -v clang-format-diff-14 || true)
[ -n "$formatter" ] || { echo "check-format: clang-format-diff not found (Debian: apt install clang-format)"; exit 2; }
changes=$(git diff -U0 --no-color "$base" -- '*.cpp' '*.h')
[ -n "$changes" ] || exit 0
out=$(printf '%s\n' "$changes" | "$formatter" -p1 "$@")
[ -z "$out" ] && exit 0
printf '%s\n' "$out"
[ "${1:-}" = -i ] && exit 0
echo "check-format: the changed lines above do not follow .clang-format (fix them, or run: $0 $base -i)"
exit 1
