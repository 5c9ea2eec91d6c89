#!/usr/bin/env bash
# The product as its users meet it, on a throw-away Debian 12 machine, as root: the Debian package
# installed with apt, a private system bus with polkitd and a login manager on it, the helper
# socket-activated from the installed unit's address, and the application under Xvfb with openbox
# and an XEmbed tray (trayer), run as two test users and driven by real input events (xdotool).
# Each journey is one test across the seams that unit tests cannot cross; it prints one verdict
# line, and a closing "N passed, N failed". Screenshots of every journey land in the folder printed
# at the start. Everything started is stopped, the test users are removed and the package is purged
# and checked to leave nothing behind.
#
#   scripts/session-test.sh [--keep-build]
#   PELMORA_SESSION_OUT=DIR     where the screenshots and logs go (default build-session/session)
#   PELMORA_SESSION_ONLY="1 7"  run only these journeys (development)
set -uo pipefail
# The distribution's own interpreter, with its python3-dbus, python3-gi and pyatspi; not a user's pyenv.
python=/usr/bin/python3
cd "$(dirname "$0")/.."
repo=$PWD
here=$repo/scripts/session

[ "$(id -u)" -eq 0 ] || { echo "session-test: run as root on a throw-away machine (it adds users, installs a package)" >&2; exit 2; }

# One run at a time on a machine: a second would share the users, displays and package of the
# first, and its clean-up would remove them under the first. Held until this process ends.
exec 9>/run/lock/pelmora-session-test.lock
flock -n 9 || { echo "session-test: another session test is running on this machine" >&2; exit 2; }

build=$repo/build-session
out=${PELMORA_SESSION_OUT:-$build/session}
work=$(mktemp -d /tmp/pelmora-session.XXXXXX)
chmod 755 "$work"
shots=$out/screenshots
logs=$out/logs
rm -rf "$out" && mkdir -p "$shots" "$logs"
granted=pmsession-admin   # polkit grants the action to this user without a password
refused=pmsession-guest   # and to nobody else
# One desktop per user: the accessibility bus is announced on the display's root window, so two
# users on one display would find each other's bus. The script's own X clients (xdotool, xwininfo,
# import) act on the granted user's desktop unless a journey names the other.
display=:57
other_display=:59
export DISPLAY=$display
pids=()                   # every background process we start, stopped in reverse order at the end
started_s=$SECONDS

say() { printf '%s\n' "$*"; }
note() { printf '    %s\n' "$*" >&2; }

# ---------------------------------------------------------------------------------------------
# What this machine can run, decided before anything is touched.
pid1=$(ps -p 1 -o comm=)
if grep -qwE 'mem|freeze|disk' /sys/power/state 2>/dev/null && [ "$pid1" = systemd ]; then
  logind_kind="systemd-logind cannot be used: systemd is PID 1 and owns the real system bus's login1"
else
  logind_kind="the script's own login1 service (scripts/session/login1.py): PID 1 is $pid1 and /sys/power/state is '$(cat /sys/power/state 2>/dev/null)', so systemd-logind would never emit PrepareForSleep here"
fi

# ---------------------------------------------------------------------------------------------
# Clean-up: runs on every way out.
cleanup() {
  local status=$?
  set +e
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    kill -TERM "${pids[i]}" 2>/dev/null
  done
  sleep 1
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    kill -KILL "${pids[i]}" 2>/dev/null
  done
  for user in "$granted" "$refused"; do
    if id "$user" >/dev/null 2>&1; then
      cp "$(app_log "$user")" "$logs/pelmora-$user.log" 2>/dev/null  # the app's own log, kept for a person
      pkill -KILL -u "$user" 2>/dev/null   # only the throw-away users' own processes
      userdel -r -f "$user" >/dev/null 2>&1
    fi
  done
  rm -f /etc/polkit-1/rules.d/49-pelmora-session.rules
  if dpkg-query -W -f='${Status}' pelmora 2>/dev/null | grep -q 'ok installed\|config-files'; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq pelmora >"$logs/purge.log" 2>&1
  fi
  rm -rf "$work" /tmp/pmsession-run-"$granted" /tmp/pmsession-run-"$refused"
  rm -f /run/lock/pelmora-session-test.lock
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---------------------------------------------------------------------------------------------
# Helpers.
wait_for() {  # wait_for SECONDS COMMAND...: true as soon as COMMAND succeeds
  local deadline=$((SECONDS + $1)); shift
  until "$@" 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.2
  done
}

display_of() { if [ "$1" = "$refused" ]; then echo "$other_display"; else echo "$display"; fi; }

shot() {  # shot NAME [USER]: a screenshot of USER's desktop (the granted user's by default)
  import -display "$(display_of "${2:-$granted}")" -window root "$shots/$1.png" 2>/dev/null || note "no screenshot $1"
}

user_env() {  # user_env USER: the environment of a desktop session of USER on our display and buses
  local home
  home=$(getent passwd "$1" | cut -d: -f6)
  echo HOME="$home" USER="$1" LOGNAME="$1" PATH=/usr/bin:/bin DISPLAY="$(display_of "$1")" \
       DBUS_SYSTEM_BUS_ADDRESS="$bus_address" XDG_RUNTIME_DIR="/tmp/pmsession-run-$1" \
       PELMORA_SYS_ROOT="$sysroot" QT_QPA_PLATFORM=xcb LANG=C.UTF-8 \
       DBUS_SESSION_BUS_ADDRESS="$(cat "$work/session-$1.address" 2>/dev/null)" QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1
}

# The user's desktop session bus, with the accessibility bus through which drive.py finds widgets.
start_user_bus() {
  setpriv --reuid="$1" --regid="$1" --init-groups env -i HOME="$(getent passwd "$1" | cut -d: -f6)" \
    XDG_RUNTIME_DIR="/tmp/pmsession-run-$1" \
    dbus-daemon --session --fork --print-address=1 --print-pid=1 >"$work/session-$1.txt" || return 1
  head -1 "$work/session-$1.txt" >"$work/session-$1.address"
  pids+=("$(sed -n 2p "$work/session-$1.txt")")
  as_user "$1" /usr/libexec/at-spi-bus-launcher --launch-immediately >>"$logs/atspi-$1.log" 2>&1 &
  pids+=($!)
  # Qt 6.4 finds the accessibility bus through the display or the session bus, never through
  # AT_SPI_BUS_ADDRESS (set, it connects and stays inactive), so each user has a display of its own.
  wait_for 10 a11y_address "$1" >/dev/null || return 1
  # The accessibility registry, started now: an application embeds itself once, when it starts, and
  # a registry started later would not know it.
  as_user "$1" "$python" -c 'import pyatspi; pyatspi.Registry.getDesktop(0).childCount' || return 1
}

a11y_address() {
  as_user "$1" dbus-send --session --dest=org.a11y.Bus --print-reply=literal /org/a11y/bus org.a11y.Bus.GetAddress |
    tr -d ' ' | grep .
}

drive() {  # drive USER ARGS...: scripts/session/drive.py as USER in that user's session
  local user=$1; shift
  as_user "$user" "$python" "$here/drive.py" "$@"
}

as_user() {  # as_user USER COMMAND...: runs COMMAND as USER in that session's environment
  local user=$1; shift
  # setpriv execs, where runuser forks and ends a PAM session (its HUP would end what we start in the
  # background, and $! would be runuser's pid rather than the program's).
  # shellcheck disable=SC2046
  setpriv --reuid="$user" --regid="$(id -g "$user")" --init-groups env -i $(user_env "$user") "$@"
}

app_log() { echo "$(getent passwd "$1" | cut -d: -f6)/.local/state/pelmora/pelmora.log"; }
app_config() { echo "$(getent passwd "$1" | cut -d: -f6)/.config/pelmora/defaults.json"; }

start_app() {  # start_app USER: starts pelmora-app as USER in the background; prints its pid
  seed_settings "$1"
  as_user "$1" /usr/bin/pelmora-app >>"$logs/app-$1.log" 2>&1 &
  local runner=$!
  pids+=("$runner")
  echo "$runner"
}

# Before USER's first start: the tray icon on (the journeys start from the tray).
seed_settings() {
  local config
  config=$(app_config "$1")
  [ -e "$config" ] && return 0
  install -d -o "$1" -g "$1" "$(dirname "$(dirname "$config")")" "$(dirname "$config")"
  echo '{"show_menubar": true}' >"$config" && chown "$1:$1" "$config"
}

# Starts the application for USER unless it runs, waits for its window, and closes the About dialog
# that a first launch shows. The tray icon is switched on in the user's settings before a first start.
ensure_app() {
  local user=$1
  if app_pid "$user" >/dev/null; then return 0; fi
  start_app "$user" >/dev/null
  wait_for 30 app_pid "$user" >/dev/null || { echo "pelmora-app did not start for $user" >&2; return 1; }
  wait_for 30 tray_icon "$user" >/dev/null || { echo "$user's pelmora-app shows no tray icon" >&2; return 1; }
  drive "$user" click "push button" OK --under "alert:About Pelmora" --timeout 3 2>/dev/null || true
}

# Brings USER's CPU settings window up (Open Pelmora in the tray menu) unless it shows.
show_cpu_settings() {
  settings_viewable "$1" || { tray_menu "$1" Down Return && wait_for 10 settings_viewable "$1"; } || return 1
  # On top of the other windows, so that a click on its controls lands on them.
  DISPLAY=$(display_of "$1") xdotool windowraise "$(settings_window "$1")"
  sleep 0.5
  drive "$1" wait "push button" "*Click the lock*"
}

# The X window of USER's CPU settings window (titled "CPU Settings — Pelmora"), and
# whether X shows it: the accessibility tree calls a minimised window showing.
settings_window() {
  local -x DISPLAY
  DISPLAY=$(display_of "$1")
  local app w
  app=$(app_pid "$1") || return 1
  for w in $(xdotool search --pid "$app" --name '^CPU Settings' 2>/dev/null); do
    xdotool getwindowgeometry --shell "$w" | awk -F= -v w="$w" '/^WIDTH=/{x=$2} /^HEIGHT=/{y=$2} END { print x * y, w }'
  done | sort -n | tail -1 | cut -d' ' -f2 | grep .
}

settings_viewable() {
  local w
  w=$(settings_window "$1") || return 1
  DISPLAY=$(display_of "$1") xwininfo -id "$w" | grep -q 'Map State: IsViewable'
}

# The line of xwininfo -tree that describes USER's icon inside trayer.
tray_icon() {
  local tray app ids
  local -x DISPLAY
  DISPLAY=$(display_of "$1")
  # Without a tray window xwininfo would wait for a click to choose one.
  tray=$(xdotool search --class trayer | tail -1) && [ -n "$tray" ] || return 1
  app=$(app_pid "$1") || return 1
  ids=$(for w in $(xdotool search --pid "$app" 2>/dev/null); do printf '0x%x\n' "$w"; done)
  [ -n "$ids" ] || return 1
  xwininfo -tree -id "$tray" | grep '"pelmora-app"' | grep -F -f <(sed 's/$/ /' <<<"$ids") | head -1 | grep .
}

# Opens the tray icon's menu of USER's application with a right click on the icon inside trayer and
# picks an item with the keyboard: KEYS as xdotool names them (Down Down Return: the second item).
tray_menu() {
  local user=$1 line w h x y; shift
  line=$(tray_icon "$user") || { echo "no Pelmora icon in the tray" >&2; return 1; }
  read -r w h x y < <(sed -E 's/.*\)  ([0-9]+)x([0-9]+)[-+][0-9]+[-+][0-9]+  \+(-?[0-9]+)\+(-?[0-9]+).*/\1 \2 \3 \4/' <<<"$line")
  DISPLAY=$(display_of "$user") xdotool mousemove --sync $((x + w / 2)) $((y + h / 2)) click 3
  sleep 0.7
  shot "tray-menu-$(date +%s)" "$user"
  DISPLAY=$(display_of "$user") xdotool key "$@"
}

app_pid() { pgrep -u "$1" -x pelmora-app | head -1; }

stop_app() {  # stop_app USER: SIGTERM (the session ending), waits for the program to be gone
  local pid
  pid=$(app_pid "$1") || return 0
  kill -TERM "$pid"
  wait_for 15 eval "! kill -0 $pid 2>/dev/null"
}

proc_state() { awk '{ sub(/^.*\) /, ""); print $1 }' "/proc/$1/stat" 2>/dev/null; }
proc_ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat"; }

# held_and_free PID SECONDS: "HELD FREE", PID's share and that of an unheld busy loop of the same user
# over the same seconds. On a machine busy with other work a busy loop gets less than a whole
# processor, and a held one can reach its limit only where an unheld one would. The counting starts
# two seconds on: a hold just begun first pays back what the loop ran before it, and the unheld loop
# is new competition that the limiter takes a few duty cycles to make up for.
held_and_free() {
  local free hz t0 f0 t1 f1
  free=$(start_busy "$(stat -c %U "/proc/$1")" pm-unheld)
  hz=$(getconf CLK_TCK)
  sleep 2
  t0=$(proc_ticks "$1"); f0=$(proc_ticks "$free"); sleep "$2"; t1=$(proc_ticks "$1"); f1=$(proc_ticks "$free")
  kill -KILL "$free"
  awk -v d=$((t1 - t0)) -v f=$((f1 - f0)) -v hz="$hz" -v s="$2" \
    'BEGIN { printf "%.1f %.1f\n", d * 100 / (hz * s), f * 100 / (hz * s) }'
}

# holds_to HELD FREE TARGET TOLERANCE: the held share is the target within the tolerance, or, where an
# unheld loop got less than the target, no less than that loop (within the tolerance) and no more
# than the target.
holds_to() {
  awk -v h="$1" -v f="$2" -v t="$3" -v d="$4" 'BEGIN { e = f < t ? f : t; exit !(h >= e - d && h <= t + d) }'
}

within() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN { exit !(v >= lo && v <= hi) }'; }

online_count() {  # processors on in the fixture: an online file holding 1, or none at all (cpu0)
  local c n=0
  for c in "$sysroot"/devices/system/cpu/cpu[0-9]*; do
    if [ ! -e "$c/online" ] || [ "$(cat "$c/online")" = 1 ]; then n=$((n + 1)); fi
  done
  echo "$n"
}

# ---------------------------------------------------------------------------------------------
# The session.
install_deps() {
  bash scripts/install-deps.sh >"$logs/install-deps.log" 2>&1 || { cat "$logs/install-deps.log" >&2; return 1; }
}

build_package() {
  local dir=$build configure=(-DPELMORA_BUILD_TESTS=OFF -DPELMORA_BUILD_BENCH=OFF)
  # The build scripts/test.sh made (installed layout /usr, desktop application on) is the package's
  # build too: only what changed since is compiled. Otherwise a build of the programs alone.
  if grep -qx 'CMAKE_INSTALL_PREFIX:PATH=/usr' build/CMakeCache.txt 2>/dev/null &&
     grep -qx 'PELMORA_BUILD_GUI:BOOL=ON' build/CMakeCache.txt && ! grep -qx 'PELMORA_SANITIZE:BOOL=ON' build/CMakeCache.txt; then
    dir=$repo/build configure=()
  elif command -v ccache >/dev/null; then
    configure+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  note "package built in $dir"
  cmake -S . -B "$dir" -G Ninja -DPELMORA_WERROR=ON -DCMAKE_INSTALL_PREFIX=/usr "${configure[@]}" >"$logs/build.log" 2>&1 &&
  # What the package ships, not the tests beside it (cpack builds nothing itself).
  cmake --build "$dir" --target pelmora-app pelmora-helper pelmora pelmora-nettop pelmora_compressed_docs \
    >>"$logs/build.log" 2>&1 &&
  cpack --config "$dir/CPackConfig.cmake" -B "$work/deb" >>"$logs/build.log" 2>&1 || { tail -30 "$logs/build.log" >&2; return 1; }
  deb=$(ls "$work"/deb/pelmora_*.deb)
  cp "$deb" "$out/"
}

install_package() {
  if dpkg-query -W -f='${Status}' pelmora 2>/dev/null | grep -q installed; then
    echo "pelmora is already installed on this machine: the session test installs and purges its own" >&2
    return 1
  fi
  pelmora_files >"$work/before.txt"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >"$logs/apt-install.log" 2>&1 \
    || { cat "$logs/apt-install.log" >&2; return 1; }
}

add_users() {
  for user in "$granted" "$refused"; do
    if id "$user" >/dev/null 2>&1; then echo "user $user exists already: not ours to use" >&2; return 1; fi
    useradd -m -s /bin/bash "$user" || return 1
    install -d -m 700 -o "$user" -g "$user" "/tmp/pmsession-run-$user"
    start_user_bus "$user" || return 1
  done
}

make_sysroot() {  # a fixture /sys the helper writes and the users read: 4 cores, 8 threads, disks, AC
  sysroot=$work/sys
  # Every Pelmora program of the session, the helper included, reads and writes this tree and never
  # the machine's own /sys (no real processor goes offline, no real disk changes throttling).
  export PELMORA_SYS_ROOT=$sysroot
  mkdir -p "$sysroot/class"
  cp -r tests/fixtures/cpu-smt-4c8t/devices tests/fixtures/cpu-smt-4c8t/block "$sysroot/"
  cp -r tests/fixtures/power-laptop-mains/class/power_supply "$sysroot/class/"
  chmod -R a+rX "$sysroot"
  # The kernel's part: cpu/online lists the processors whose cpuN/online is 1 (cpu0 has no such
  # file and is always on). The helper writes the per-processor files, as it does on a real /sys.
  (
    cd "$sysroot/devices/system/cpu" || exit 1
    while :; do
      list=$(for c in cpu[0-9]*; do
               n=${c#cpu}
               if [ ! -e "$c/online" ] || [ "$(cat "$c/online")" = 1 ]; then echo "$n"; fi
             done | sort -n | paste -sd,)
      [ "$list" = "$(cat online)" ] || echo "$list" >online
      sleep 0.2
    done
  ) &
  pids+=($!)
}

start_bus() {
  sed "s|@SOCKET@|$work/system_bus_socket|" "$here/system-bus.conf" >"$work/system-bus.conf"
  dbus-daemon --config-file="$work/system-bus.conf" --nofork --nopidfile --print-address=3 3>"$work/bus.address" \
    >"$logs/dbus.log" 2>&1 &
  pids+=($!)
  wait_for 10 test -s "$work/bus.address" || return 1
  bus_address=$(head -1 "$work/bus.address")
  export DBUS_SYSTEM_BUS_ADDRESS=$bus_address
}

start_polkit() {
  sed "s|@GRANTED@|$granted|; s|@REFUSED@|$refused|" "$here/pelmora-session.rules" \
    >/etc/polkit-1/rules.d/49-pelmora-session.rules
  /usr/lib/polkit-1/polkitd --no-debug >"$logs/polkitd.log" 2>&1 &
  pids+=($!)
  wait_for 15 busctl --address="$bus_address" status org.freedesktop.PolicyKit1 >/dev/null || return 1
  pkaction --action-id net.tandrel.pelmora.admin >/dev/null || { echo "polkit does not know the installed action" >&2; return 1; }
}

start_login1() {
  "$python" "$here/login1.py" "$logs/login1.log" >>"$logs/login1.log" 2>&1 &
  login1_pid=$!
  pids+=("$login1_pid")
  wait_for 10 busctl --address="$bus_address" status org.freedesktop.login1 >/dev/null
}

start_holder() {
  [ -d "${PELMORA_SYS_ROOT:-}" ] || { echo "no fixture /sys: the helper would switch this machine's processors" >&2; return 1; }
  "$python" "$here/socket_holder.py" /usr/lib/systemd/system/net.tandrel.pelmorahelper.socket \
    /usr/lib/systemd/system/net.tandrel.pelmorahelper.service "$logs/holder.log" >>"$logs/holder.log" 2>&1 &
  holder_pid=$!
  pids+=("$holder_pid")
  helper_socket=$(sed -n 's/^ListenStream=//p' /usr/lib/systemd/system/net.tandrel.pelmorahelper.socket)
  wait_for 10 test -S "$helper_socket"
}

start_desktop() {  # Xvfb with openbox and trayer for each user
  local d
  for d in "$display" "$other_display"; do
    # -noreset: the server would reset (and refuse connections for a moment) when its last client left.
    Xvfb "$d" -screen 0 1600x1000x24 -nolisten tcp -ac -noreset >>"$logs/xvfb.log" 2>&1 &
    pids+=($!)
    DISPLAY=$d wait_for 10 xdpyinfo >/dev/null || return 1
    DISPLAY=$d openbox >>"$logs/openbox.log" 2>&1 &
    pids+=($!)
    DISPLAY=$d trayer --edge top --align right --widthtype pixel --width 120 --height 28 \
      --transparent false --tint 0xdddddd >>"$logs/trayer.log" 2>&1 &
    pids+=($!)
    DISPLAY=$d wait_for 10 xdotool search --class trayer >/dev/null || return 1
  done
}

# Every path on the machine that names Pelmora, outside the source tree, the test users' homes and
# man-db's cache (formatted pages that `man` keeps, whoever ran it, until man-db's own clean-up).
pelmora_files() {
  find /etc /usr /var /run /opt /srv /root /home -xdev \( -path "$repo" -o -path '/home/pmsession-*' -o -path /var/cache/man \) -prune \
    -o -iname '*pelmora*' -print 2>/dev/null | sort
}

helper_starts() { grep -c ' started ' "$logs/holder.log"; }

# ---------------------------------------------------------------------------------------------
# The journeys: each prints why it failed on stderr and returns non-zero.
source "$here/journeys.sh"

# ---------------------------------------------------------------------------------------------
# The whole run is one function, so that bash has read all of it before it starts (an edit to
# this file during a run cannot change what the run does).
main() {
  say "Pelmora desktop session test"
  say "  screenshots and logs: $out"
  say "  login manager: $logind_kind"
  steps=(install_deps build_package install_package make_sysroot start_bus start_polkit start_login1
         start_holder start_desktop add_users)
  for step in "${steps[@]}"; do
    if ! "$step" 2>"$logs/setup-$step.err"; then
      say "setup failed at $step: $(tail -3 "$logs/setup-$step.err" | tr '\n' ' ')"
      say "0 passed, 1 failed"
      exit 1
    fi
  done
  say "  session up in $((SECONDS - started_s)) s: bus $bus_address, helper socket $helper_socket, displays $display and $other_display"

  passed=0 failed=0 skipped=0
  run_journey() {  # run_journey N NAME FUNCTION
    local n=$1 name=$2 fn=$3 t0=$SECONDS reason
    if [ -n "${PELMORA_SESSION_ONLY:-}" ] && [[ " $PELMORA_SESSION_ONLY " != *" $n "* ]]; then return; fi
    if reason=$(skip_reason "$n"); then
      say "journey $n $name: SKIPPED ($reason)"
      skipped=$((skipped + 1))
      return
    fi
    if "$fn" 2>"$logs/journey-$n.err"; then
      say "journey $n $name: PASS ($((SECONDS - t0)) s)"
      passed=$((passed + 1))
    else
      say "journey $n $name: FAIL ($((SECONDS - t0)) s): $(tail -2 "$logs/journey-$n.err" | sed 's/^ *//' | tr '\n' ' ')"
      failed=$((failed + 1))
    fi
    shot "journey-$n-end"
  }

  run_journey 0 "package" journey_package
  run_journey 7 "socket activation" journey_socket_activation
  run_journey 9 "single instance" journey_single_instance
  run_journey 1 "authorisation" journey_authorisation
  run_journey 2 "limit from the tray" journey_tray_limit
  run_journey 4 "colour" journey_colour
  run_journey 5 "processors off and on" journey_processors
  run_journey 6 "power source change" journey_power_source
  run_journey 3 "sleep and wake" journey_sleep_wake
  run_journey 8 "boot apply" journey_boot_apply
  run_journey 10 "package purge" journey_purge

  say "session ran $((SECONDS - started_s)) s"
  if [ "$skipped" -gt 0 ]; then say "$skipped skipped"; fi
  say "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}

main "$@"; exit $?  # one line: bash has read it whole before main runs
