#!/bin/sh
# Re-applies the saved processor settings at boot. The helper installs this script, a copy of the
# `pelmora` tool and the settings text ("-h on -p -t off -n 6") side by side in one folder; the
# boot service runs this script as root.
set -eu
dir=$(dirname "$(readlink -f "$0")")
settings=$(cat "$dir/settings")
# The helper checked the text before saving it; check again, as the file outlives that check. The
# whole text must be one line of that form (grep alone would accept one good line among others).
nl='
'
case $settings in
  *"$nl"*) settings= ;;
esac
if ! printf '%s\n' "$settings" | grep -Eqx '(-h (on|off) )?(-p )?-t (on|off) -n [1-9][0-9]{0,3}'; then
  echo "applyboot: malformed settings text in $dir/settings" >&2
  exit 1
fi
# Word splitting of $settings is wanted: it is the flag list.
# shellcheck disable=SC2086
exec "$dir/pelmora" $settings
