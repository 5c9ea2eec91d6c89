# The journeys of scripts/session-test.sh, sourced by it: each function is one journey, prints why it
# failed on stderr and returns non-zero. They use the session's helpers (as_user, wait_for, shot, ...).
# shellcheck shell=bash

# Journeys that cannot pass on main yet for a reason outside the session's reach are listed here
# with that reason (a verdict line "SKIPPED (reason)"); PELMORA_SESSION_RUN_BLOCKED=1 runs them anyway.
declare -A blocked_journeys=()

skip_reason() {
  [ -z "${PELMORA_SESSION_RUN_BLOCKED:-}" ] && [ -n "${blocked_journeys[$1]:-}" ] && echo "${blocked_journeys[$1]}"
}

fail() { echo "$*" >&2; return 1; }

# Predicates for wait_for (it runs them in this shell).
is_stopped() { [ "$(proc_state "$1")" = T ]; }
is_running() { local state; state=$(proc_state "$1"); [ "$state" = R ] || [ "$state" = S ]; }
is_gone() { ! kill -0 "$1" 2>/dev/null; }
# No helper runs: the holder has logged as many exits as starts (the helper's own stderr lines go to
# the same log, so its last line says nothing).
helper_idle() { [ "$(helper_starts)" -eq "$(grep -c ' exited ' "$logs/holder.log")" ]; }
# The holder logs a start a moment after the connection that caused it (it polls its socket).
started_since() { [ "$(helper_starts)" -gt "$1" ]; }
wbt_is() { [ "$(wbt)" = "$1" ]; }
# The limit is in force: the process was seen stopped, or the process window shows its limit (on a
# busy machine a process may never use its whole share, and then it is never stopped).
limit_applied() {  # limit_applied PID NAME PERCENT
  is_stopped "$1" || drive "$granted" names "table cell" "" --row "table cell:$2" 2>/dev/null | grep -qx "$3.0"
}
count_at_least() { [ "$(grep -c "$2" "$3")" -ge "$1" ]; }  # count_at_least N PATTERN FILE

wbt() { cat "$sysroot/block/sda/queue/wbt_lat_usec"; }

# Runs `pelmora ARGS` as USER; its stdout+stderr in $cli_output, its status returned.
cli() {
  local user=$1; shift
  cli_output=$(as_user "$user" /usr/bin/pelmora "$@" 2>&1 </dev/null)
}

# 0. The package: lintian finds no error and no warning, and systemd accepts every unit it installs.
journey_package() {
  lintian --fail-on error,warning --tag-display-limit 0 "$deb" >"$logs/lintian.log" 2>&1 \
    || fail "lintian: $(grep -E '^[EW]:' "$logs/lintian.log" | head -5 | tr '\n' ';')" || return
  local unit
  for unit in $(dpkg -L pelmora | grep -E '\.(service|socket)$'); do
    case "$unit" in
      # The boot unit is a template the helper copies to /etc; journey 8 verifies the installed copy.
      */libexec/*) continue ;;
    esac
    systemd-analyze verify "$unit" >>"$logs/systemd-analyze.log" 2>&1 \
      || fail "systemd-analyze verify $unit: $(tail -3 "$logs/systemd-analyze.log")" || return
  done
}

# 1. Authorisation. In the CPU settings window the granted user clicks the lock (the daemon asks
# polkit, which grants without a password) and switches throttling off: the fixture's disks follow.
# The other user clicks the lock and is refused with polkit's reason, and nothing changes. On the
# command line the granted user switches throttling and the processor count, the other is refused
# with the same reason, and a user polkit would ask a password of, without a terminal, is told so.
journey_authorisation() {
  echo -1 >"$sysroot/block/sda/queue/wbt_lat_usec"
  ensure_app "$granted" && show_cpu_settings "$granted" || return 1
  drive "$granted" click "push button" "Click the lock to make changes" || return 1
  drive "$granted" wait "push button" "Click the lock to prevent changes" \
    || fail "the granted user's lock did not open: $(tail -2 "$(app_log "$granted")")" || return
  drive "$granted" click "check box" "Throttle background disk writes" || return 1
  drive "$granted" click "push button" "Disable throttling" || return 1
  wait_for 10 wbt_is 0 \
    || fail "throttling on the fixture disks is $(wbt) after the granted user switched it off" || return
  shot journey-1-granted
  ensure_app "$refused" && show_cpu_settings "$refused" || return 1
  drive "$refused" click "push button" "Click the lock to make changes" || return 1
  sleep 2
  shot journey-1-refused "$refused"
  drive "$refused" wait "*" "*may not administer Pelmora*" --timeout 5 \
    || fail "the refused user's window shows no reason (log: $(grep -h 'authorisation refused' "$(app_log "$refused")" | tail -1))" \
    || return
  drive "$refused" wait "push button" "Click the lock to make changes" --timeout 1 \
    || fail "the refused user's lock opened" || return
  stop_app "$refused"

  cli "$granted" -t on || fail "granted user: pelmora -t on failed: $cli_output" || return
  [ "$(wbt)" = -1 ] || fail "granted user: throttling still $(wbt) after pelmora -t on" || return
  cli "$granted" -t off -n 4 || fail "granted user: pelmora -t off -n 4 failed: $cli_output" || return
  [ "$(wbt)" = 0 ] || fail "granted user: throttling $(wbt) after pelmora -t off" || return
  [ "$(online_count)" -eq 4 ] || fail "granted user: $(online_count) processors online after -n 4" || return
  cli "$refused" -t on -n 8 && fail "refused user: pelmora -t on -n 8 succeeded" && return 1
  [[ "$cli_output" == *"this user may not administer Pelmora"* ]] \
    || fail "refused user: unclear refusal: $cli_output" || return
  [ "$(wbt)" = 0 ] && [ "$(online_count)" -eq 4 ] || fail "the refused user changed the fixture" || return
  # Anyone else gets polkit's default, a password; with no terminal nobody can ask for it.
  cli nobody -t on && fail "nobody: pelmora -t on succeeded" && return 1
  [[ "$cli_output" == *"no authentication agent could ask for the password"* && "$cli_output" == *"sudo pelmora"* ]] \
    || fail "nobody: no advice: $cli_output" || return
  # At a terminal, pelmora lets polkit ask there (pkttyagent); no password given, nothing changes.
  cli_output=$(setpriv --reuid=nobody --regid=nogroup --init-groups env -i $(user_env nobody | sed 's|XDG_RUNTIME_DIR=[^ ]*||') \
    "$python" "$here/ask_on_tty.py" /usr/bin/pelmora -t on 2>&1) && fail "nobody at a terminal: pelmora -t on succeeded" && return 1
  [[ "$cli_output" == *"AUTHENTICATING FOR net.tandrel.pelmora.admin"* ]] \
    || fail "nobody at a terminal was not asked for a password: $cli_output" || return
  [ "$(wbt)" = 0 ] || fail "an unanswered password prompt changed throttling" || return
  cli "$granted" -n 8 || fail "granted user: pelmora -n 8 failed: $cli_output" || return
}

busy_pids=()
start_busy() {  # start_busy USER NAME: a busy loop named NAME run by USER; prints its pid
  local copy=$work/bin/$2
  mkdir -p "$work/bin" && cp /usr/bin/yes "$copy" && chmod 755 "$work/bin" "$copy"
  setpriv --reuid="$1" --regid="$1" --init-groups "$copy" >/dev/null &
  busy_pids+=($!)
  pids+=($!)
  echo $!
}

# 7. The first connection starts the daemon, it exits after the last, the next connection starts it
# again; a client killed while it holds a process stopped leaves that process running.
journey_socket_activation() {
  for user in "$granted" "$refused"; do stop_app "$user"; done
  wait_for 10 helper_idle || fail "the helper did not exit after its last client" || return
  # `pelmora limit` holds its connection for as long as it runs (the daemon continues what it held
  # if it dies), so each round has exactly one client, which the helper outlives by nothing.
  local round before holder child
  child=$(start_busy "$refused" pm-woken)
  for round in first next; do
    before=$(helper_starts)
    as_user "$refused" /usr/bin/pelmora limit "$child" 50 >>"$logs/j7-wake.log" 2>&1 &
    pids+=("$!")
    wait_for 10 started_since "$before" || fail "the $round connection did not start the helper" || return
    # $! may be the subshell that runs as_user rather than the program.
    holder=$(pgrep -u "$refused" -x pelmora) || fail "pelmora limit is not running" || return
    kill -TERM "$holder"
    wait_for 10 is_gone "$holder" || fail "pelmora limit did not end on SIGTERM" || return
    wait_for 10 helper_idle || fail "the helper did not exit after its last client ($round round)" || return
  done
  [ "$(proc_state "$child")" != T ] || fail "the ended limiter left its process stopped" || return
  kill -KILL "$child"
  local limiter
  child=$(start_busy "$granted" pm-held)
  as_user "$granted" /usr/bin/pelmora limit "$child" 10 >"$logs/j7-limit.log" 2>&1 &
  limiter=$!
  pids+=("$limiter")
  wait_for 10 is_stopped "$child" \
    || fail "pelmora limit never stopped its child" || return
  local cli_pid
  cli_pid=$(pgrep -P "$limiter" -x pelmora || pgrep -u "$granted" -x pelmora)
  kill -KILL "$cli_pid" "$limiter" 2>/dev/null
  # Running again within a moment, and still running a second later.
  wait_for 5 is_running "$child" \
    || fail "the killed client's process was left stopped ($(proc_state "$child"))" || return
  sleep 1
  [ "$(proc_state "$child")" != T ] || fail "the killed client's process is stopped again" || return
  kill -KILL "$child"
}

# 9. A second start brings the first instance forward and ends; another user cannot keep a user's
# instance from starting.
journey_single_instance() {
  stop_app "$granted"
  ensure_app "$granted" && show_cpu_settings "$granted" || return 1
  local first
  first=$(app_pid "$granted")
  xdotool windowminimize "$(settings_window "$granted")"
  wait_for 10 eval '! settings_viewable "$granted"' || fail "the CPU settings window did not minimise" || return
  shot journey-9-minimised
  local status=0
  as_user "$granted" timeout 20 /usr/bin/pelmora-app >>"$logs/app-second.log" 2>&1 || status=$?
  [ "$status" -eq 0 ] || fail "the second start did not end by itself (status $status)" || return
  [ "$(app_pid "$granted")" = "$first" ] || fail "the first instance is gone" || return
  wait_for 10 settings_viewable "$granted" \
    || fail "the second start did not bring the first instance's window forward" || return
  shot journey-9-forward
  # The other user takes the abstract name the granted user's instance would listen on.
  local uid squatter
  uid=$(id -u "$granted")
  stop_app "$granted"
  setpriv --reuid="$refused" --regid="$refused" --init-groups "$python" -c "
import socket, time
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.bind('\0net.tandrel.pelmora-$uid'); s.listen(4)
while True:
    c, _ = s.accept(); c.close()
" &
  squatter=$!
  pids+=("$squatter")
  wait_for 10 grep -q "@net.tandrel.pelmora-$uid\$" /proc/net/unix || fail "the other user could not take the name" || return
  start_app "$granted" >/dev/null
  if ! wait_for 15 bash -c "pgrep -u $granted -x pelmora-app >/dev/null && sleep 3 && pgrep -u $granted -x pelmora-app >/dev/null"; then
    kill "$squatter"
    fail "another user kept $granted's pelmora-app from starting (it ended at once)"
    return 1
  fi
  kill "$squatter"
  shot journey-9-despite-squatter
}

# 3. Sleep and wake through logind: the application holds its delay inhibitor; at PrepareForSleep
# (true) it continues the process it limits (journey 6 left one) and releases the inhibitor before
# logind's delay runs out; at PrepareForSleep(false) it takes the inhibitor again and the limiter
# holds the process again.
journey_sleep_wake() {
  local app log
  app=$(app_pid "$granted") || fail "pelmora-app is not running" || return
  log=$(app_log "$granted")
  wait_for 10 grep -q "inhibit taken who=Pelmora .*pid=$app" "$logs/login1.log" \
    || fail "the app holds no sleep delay inhibitor" || return
  busctl --address="$bus_address" call org.freedesktop.login1 /org/freedesktop/login1 \
    org.freedesktop.login1.Manager ListInhibitors | grep -q "\"Pelmora\".*\"delay\" [0-9]* $app" \
    || fail "ListInhibitors does not show the app's inhibitor" || return
  grep -q 'Sleep delay held: the "Pelmora" sleep inhibitor' "$log" || fail "the app did not log the inhibitor it holds" || return
  [ -n "${held_pid:-}" ] && kill -0 "$held_pid" || fail "no limited process to watch (journey 6)" || return
  local was_stopped=0
  wait_for 10 is_stopped "$held_pid" && was_stopped=1
  local released_before log_mark
  released_before=$(grep -c "inhibit released who=Pelmora pid=$app" "$logs/login1.log")
  log_mark=$(wc -l <"$log")
  kill -USR1 "$login1_pid"
  wait_for 8 count_at_least $((released_before + 1)) "inhibit released who=Pelmora pid=$app" "$logs/login1.log" \
    || fail "the app did not release its inhibitor before sleep" || return
  # Asleep: the limited process must run, not sit stopped through the sleep.
  is_running "$held_pid" || fail "the limited process is $(proc_state "$held_pid") at sleep, not continued" || return
  grep -q "Sleep - willSleep - limiter stopped" "$log" || fail "the app did not log PrepareForSleep(true)" || return
  grep -q "after the delay ran out" "$logs/login1.log" && fail "logind had to wait out the delay" && return 1
  wait_for 10 grep -q "Sleep - Wakeup - restart limiter" "$log" || fail "the app did not see PrepareForSleep(false)" || return
  wait_for 10 count_at_least 2 "inhibit taken who=Pelmora .*pid=$app" "$logs/login1.log" \
    || fail "the app did not take its inhibitor again after wake" || return
  if [ "$was_stopped" = 1 ]; then
    wait_for 10 is_stopped "$held_pid" || fail "the limiter did not hold the process again after wake" || return
  fi
  local since
  since=$(tail -n +$((log_mark + 1)) "$log")
  [ "$(grep -c 'Sleep delay released: the "Pelmora" sleep inhibitor' <<<"$since")" -eq 1 ] \
    && [ "$(grep -c 'Sleep delay held: the "Pelmora" sleep inhibitor' <<<"$since")" -eq 1 ] \
    || fail "over one sleep the app's log does not show the inhibitor released once and taken once: $since" || return
  shot journey-3-woken
  kill -KILL "$held_pid"
}

# 6. The power source changes on the fixture power_supply tree: the remembered limits of the new
# source apply to processes that appear from then on.
journey_power_source() {
  stop_app "$granted"
  local config
  config=$(app_config "$granted")
  seed_settings "$granted"  # a user who never ran it has no settings yet
  "$python" - "$config" <<'EOF' || fail "cannot write the user's settings" || return
import json, sys
path = sys.argv[1]
try:
    settings = json.load(open(path))
except Exception:
    settings = {}
settings["save_limited"] = True
settings["limited"] = {"AC Power": {"pm-mains": 0.25}, "Battery Power": {"pm-battery": 0.25}}
json.dump(settings, open(path, "w"))
EOF
  start_app "$granted" >/dev/null
  wait_for 20 app_pid "$granted" >/dev/null || fail "pelmora-app did not start" || return
  local mains
  mains=$(start_busy "$granted" pm-mains)
  # The process window, to read the limit in, showing only the journey's processes: the row of one
  # among a thousand would be scrolled out of sight, and each search would read every cell.
  tray_menu "$granted" Down Down Return >/dev/null 2>&1
  drive "$granted" click text "" --under "*:*Processes —*" || fail "the tray's Processes item opened no process window" || return
  xdotool key ctrl+a type pm-
  wait_for 20 limit_applied "$mains" pm-mains 25 \
    || fail "the remembered mains limit was not applied" || return
  held_pid=$mains  # stays limited: journey 3 sees it continued for sleep
  local share free
  read -r share free < <(held_and_free "$mains" 4)
  note "pm-mains on AC: ${share}% of one processor (limit 25 %; an unheld loop: ${free}%)"
  holds_to "$share" "$free" 25 5 || fail "pm-mains held to ${share}% instead of 25 % (an unheld loop: ${free}%)" || return
  echo 0 >"$sysroot/class/power_supply/AC/online"
  echo Discharging >"$sysroot/class/power_supply/BAT0/status"
  sleep 7  # the power_supply poll runs every 5 s
  local battery
  battery=$(start_busy "$granted" pm-battery)
  wait_for 20 limit_applied "$battery" pm-battery 25 \
    || fail "the remembered battery limit was not applied after the switch to battery" || return
  read -r share free < <(held_and_free "$battery" 4)
  note "pm-battery on battery: ${share}% of one processor (limit 25 %; an unheld loop: ${free}%)"
  holds_to "$share" "$free" 25 5 || fail "pm-battery held to ${share}% instead of 25 % (an unheld loop: ${free}%)" || return
  shot journey-6-battery
  echo 1 >"$sysroot/class/power_supply/AC/online"
  echo Full >"$sysroot/class/power_supply/BAT0/status"
  kill -KILL "$battery"
}

# 2. Limit from the tray, with the granted user's application authorised in journey 1: tray menu,
# Processes, the busy child found by name, 25 %; the kernel's counters show the share. Quit from the
# tray: the child runs again, throttling is switched back on, the helper is told to quit.
journey_tray_limit() {
  ensure_app "$granted" || return 1
  unlock "$granted" || fail "the lock did not open" || return
  local child share
  child=$(start_busy "$granted" pm-tray)
  tray_menu "$granted" Down Down Return || return 1
  drive "$granted" click text "" --under "*:*Processes —*" || fail "the tray's Processes item opened no process window" || return
  xdotool type pm-tray
  drive "$granted" click "table cell" pm-tray || return 1
  drive "$granted" click "spin button" "" --row "label:CPU limit:" || return 1
  xdotool key ctrl+a type 25
  xdotool key Return
  # Stopped at some moment, or (on a machine too busy for it to reach 25 % on its own) its row shows
  # the limit the limiter holds it to; the kernel's counters below say whether it keeps to it.
  wait_for 15 limit_applied "$child" pm-tray 25 \
    || fail "the limit was not applied: pm-tray never stopped and its row shows no limit" || return
  shot journey-2-limited
  local free
  read -r share free < <(held_and_free "$child" 10)
  note "pm-tray limited to 25 %: ${share}% of one processor over 10 s (an unheld loop: ${free}%)"
  holds_to "$share" "$free" 25 2 || fail "pm-tray held to ${share}% instead of 25 ± 2 % (an unheld loop: ${free}%)" || return
  local app
  app=$(app_pid "$granted")
  tray_menu "$granted" Up Return || return 1
  wait_for 15 is_gone "$app" || fail "Quit in the tray menu did not end the application" || return
  sleep 1
  [ "$(proc_state "$child")" != T ] || fail "pm-tray was left stopped after quit" || return
  [ "$(wbt)" = -1 ] || fail "throttling is $(wbt) after quit instead of switched back on" || return
  wait_for 10 helper_idle || fail "the helper is still running after quit" || return
  kill -KILL "$child"
}
# The X window id of USER's largest visible window.
largest_window() {
  local app w
  app=$(app_pid "$1") || return 1
  for w in $(xdotool search --onlyvisible --pid "$app" 2>/dev/null); do
    xdotool getwindowgeometry --shell "$w" | awk -F= -v w="$w" '/^WIDTH=/{x=$2} /^HEIGHT=/{y=$2} END { print x * y, w }'
  done | sort -n | tail -1 | cut -d' ' -f2
}

# The geometry "X Y W H" of USER's visible window named NAME (the first, or the smallest with "*").
window_box() {
  local app w
  app=$(app_pid "$1") || return 1
  for w in $(xdotool search --onlyvisible --pid "$app" 2>/dev/null); do
    if [ "$2" = "*" ] || [ "$(xdotool getwindowname "$w")" = "$2" ]; then
      xdotool getwindowgeometry --shell "$w" | awk -F= '/^X=/{x=$2} /^Y=/{y=$2} /^WIDTH=/{w=$2} /^HEIGHT=/{h=$2}
        END { print x, y, w, h, w * h }'
    fi
  done | awk '$3 >= 60 && $4 >= 40' | sort -n -k5 | head -1 | cut -d' ' -f1-4  # not the tray icon
}

icon_magenta() {  # icon_magenta WINDOW: pixels of the chosen colour in the window's icon, every size
  xprop -id "$1" -notype 32c _NET_WM_ICON | "$python" -c '
import re, sys
v = [int(x) for x in re.findall(r"\d+", sys.stdin.read().partition("=")[2])]
n = i = 0
while i + 2 <= len(v):
    w, h = v[i], v[i + 1]
    n += sum(1 for p in v[i + 2:i + 2 + w * h] if (p >> 16 & 255) > 200 and (p >> 8 & 255) < 150 and (p & 255) > 200)
    i += 2 + w * h
print(n)'
}

magenta_in() {  # magenta_in IMAGE X Y W H: how many pixels of the chosen colour lie in that box
  # The graph draws the colour as its line and, half transparent over white, as its fill.
  local line fill
  line=$("$python" "$here/pixels.py" count "$1" ff00ff --tolerance 40 --box "$2,$3,$4,$5") || return 1
  fill=$("$python" "$here/pixels.py" count "$1" ff7fff --tolerance 24 --box "$2,$3,$4,$5") || return 1
  echo $((line + fill))
}

# 4. Colour: a legend colour well of the statistics window's processor graph opens the colour
# dialog; the colour typed there is drawn in the graph and in the live icon (the tray shows the CPU
# graph), and is still there after a restart.
journey_colour() {
  ensure_app "$granted" || return 1
  # A busy process keeps the User series tall: the live icon shows only the top of the graph above
  # its badge, and an idle machine would draw nothing there to recolour.
  local busy
  busy=$(start_busy "$granted" pm-colour)
  drive "$granted" click "menu item" View || return 1
  drive "$granted" click "menu item" "Dock Display" || return 1
  drive "$granted" click "menu item" CPU || return 1  # in the submenu: it lies outside its item
  tray_menu "$granted" Down Down Down Return || return 1
  drive "$granted" wait "*" "*Statistics —*" || return 1
  sleep 2
  local x y w h
  read -r x y w h < <(window_box "$granted" "Statistics — Pelmora")
  [ -n "${h:-}" ] || fail "no statistics window" || return
  xdotool mousemove --sync $((x + 200)) $((y + 110)) click 1   # the first processor graph
  sleep 1
  local px py pw ph well
  read -r px py pw ph < <(window_box "$granted" "*")
  import -window root "$work/legend.png"
  cp "$work/legend.png" "$shots/journey-4-legend.png"
  # The User series' well: the green one in the legend.
  well=$("$python" "$here/pixels.py" find "$work/legend.png" 34c759 --tolerance 48 --box "$px,$py,$pw,$ph") \
    || fail "no green colour well in the legend at $px,$py ${pw}x$ph" || return
  xdotool mousemove --sync $well click 1
  drive "$granted" click text "HTML:" || { drive "$granted" dump >"$logs/journey-4-tree.txt"; false; } || fail "no colour dialog (the app: $(tail -1 "$logs/app-$granted.log"))" || return
  xdotool key ctrl+a type "#ff00ff"
  shot journey-4-dialog
  xdotool key Return
  sleep 3
  shot journey-4-chosen
  app_pid "$granted" >/dev/null || fail "the application ended after the colour dialog: $(tail -2 "$logs/app-$granted.log")" || return
  # No Escape here: choosing a colour closed the legend, and Escape would close the window itself.
  import -window root "$work/coloured.png"
  cp "$work/coloured.png" "$shots/journey-4-coloured.png"
  read -r x y w h < <(window_box "$granted" "Statistics — Pelmora")
  local in_graph in_icon stats
  in_graph=$(magenta_in "$work/coloured.png" "$x" "$y" "$w" "$h")
  # On X11 the live graph is the windows' icon (_NET_WM_ICON); the tray keeps the program's own.
  stats=$(xdotool search --onlyvisible --pid "$(app_pid "$granted")" --name '^Statistics — Pelmora$' | head -1)
  in_icon=$(icon_magenta "$stats")
  note "magenta pixels: $in_graph in the statistics window, $in_icon in its live window icon"
  [ "$in_graph" -gt 20 ] || fail "the chosen colour is not drawn in the graph" || return
  [ "$in_icon" -gt 0 ] || fail "the chosen colour is not drawn in the live icon" || return
  stop_app "$granted"
  ensure_app "$granted" || return 1
  drive "$granted" wait "*" "*Statistics —*" --timeout 5 2>/dev/null || { tray_menu "$granted" Down Down Down Return && drive "$granted" wait "*" "*Statistics —*"; } || return 1
  sleep 4
  import -window root "$work/restarted.png"
  cp "$work/restarted.png" "$shots/journey-4-restarted.png"
  read -r x y w h < <(window_box "$granted" "Statistics — Pelmora")
  in_graph=$(magenta_in "$work/restarted.png" "$x" "$y" "$w" "$h")
  [ "$in_graph" -gt 20 ] || fail "the colour was not kept after a restart" || return
  kill -KILL "$busy"
}
# Opens the lock of USER's CPU settings window unless it is open.
unlock() {
  show_cpu_settings "$1" || return 1
  drive "$1" wait "push button" "Click the lock to prevent changes" --timeout 1 2>/dev/null && return 0
  drive "$1" click "push button" "Click the lock to make changes" &&
    drive "$1" wait "push button" "Click the lock to prevent changes"
}

# The processor graphs the statistics window shows, counted by the accessibility tree: each graph
# view is named by its caption, "Util(%): CPU N".
graph_count() { drive "$granted" names "*" "*: CPU *" --under "*:*Statistics —*" | wc -l; }

# 5. Processors switched off and on (the granted user's pelmora -n): the statistics window's
# processor graphs follow the fixture's online set.
journey_processors() {
  ensure_app "$granted" || return 1
  tray_menu "$granted" Down Down Down Return || return 1
  drive "$granted" wait "*" "*Statistics —*" || fail "the tray's Statistics item opened no statistics window" || return
  sleep 2
  local all fewer back
  all=$(graph_count)
  shot journey-5-eight
  cli "$granted" -n 4 || fail "pelmora -n 4 failed: $cli_output" || return
  [ "$(online_count)" -eq 4 ] || fail "$(online_count) processors online after -n 4" || return
  sleep 3
  fewer=$(graph_count)
  shot journey-5-four
  cli "$granted" -n 8 || fail "pelmora -n 8 failed: $cli_output" || return
  sleep 3
  back=$(graph_count)
  shot journey-5-eight-again
  note "graph views: $all with 8 processors online, $fewer with 4, $back with 8 again"
  [ "$fewer" -eq $((all - 4)) ] || fail "the statistics window shows $fewer graphs with 4 processors off (had $all)" || return
  [ "$back" -eq "$all" ] || fail "the statistics window shows $back graphs with every processor back (had $all)"
}

# 8. Boot apply: installed through the Processes pane of the preferences by the authorised user;
# the unit, its enablement and the copies checked; the installed command run by hand as the boot
# service would run it, against the fixture; uninstalled, and nothing left.
journey_boot_apply() {
  local unit=/etc/systemd/system/net.tandrel.bootpelmora.service
  local wants=/etc/systemd/system/multi-user.target.wants/net.tandrel.bootpelmora.service
  ensure_app "$granted" || return 1
  unlock "$granted" || fail "the lock did not open" || return
  drive "$granted" click "menu item" File || return 1
  drive "$granted" click "menu item" "Preferences…" || return 1
  drive "$granted" click "*" Processes --under "*:*Preferences —*" 2>/dev/null \
    || drive "$granted" click "push button" Processes || return 1
  drive "$granted" click "check box" "Apply the CPU settings at system boot" || return 1
  drive "$granted" click "push button" "Apply at Boot" || return 1
  wait_for 10 test -f "$unit" || fail "no $unit after Apply at Boot: $(tail -2 "$(app_log "$granted")")" || return
  shot journey-8-installed
  [ -L "$wants" ] || fail "the boot unit is not enabled ($wants missing)" || return
  for f in applyboot.sh pelmora settings; do
    [ -f "/var/lib/pelmora/$f" ] || fail "/var/lib/pelmora/$f missing" || return
  done
  [ "$(stat -c %U /var/lib/pelmora/applyboot.sh)" = root ] || fail "the boot script is not root's" || return
  systemd-analyze verify "$unit" >"$logs/j8-verify.log" 2>&1 || fail "systemd-analyze verify: $(cat "$logs/j8-verify.log")" || return
  local settings command
  settings=$(cat /var/lib/pelmora/settings)
  note "boot settings text: $settings"
  command=$(sed -n 's/^ExecStart=//p' "$unit")
  echo -1 >"$sysroot/block/sda/queue/wbt_lat_usec"
  PELMORA_SYS_ROOT=$sysroot $command >"$logs/j8-applyboot.log" 2>&1 || fail "$command failed: $(cat "$logs/j8-applyboot.log")" || return
  local want_wbt=-1
  [[ "$settings" == *"-t off"* ]] && want_wbt=0
  [ "$(wbt)" = "$want_wbt" ] || fail "the boot command left throttling at $(wbt) for '$settings'" || return
  [ "$(online_count)" -eq "$(sed -E 's/.*-n ([0-9]+).*/\1/' <<<"$settings")" ] \
    || fail "the boot command left $(online_count) processors online for '$settings'" || return
  drive "$granted" click "check box" "Apply the CPU settings at system boot" || return 1
  wait_for 10 bash -c "[ ! -e $unit ] && [ ! -e /var/lib/pelmora ]" \
    || fail "uninstall left: $(ls -d "$unit" "$wants" /var/lib/pelmora 2>/dev/null)" || return
  [ ! -L "$wants" ] || fail "uninstall left $wants" || return
  cli "$granted" -t on -n 8 || return 1
}

# The purge: stop the helper as systemd would, purge, and find nothing of Pelmora left.
journey_purge() {
  for user in "$granted" "$refused"; do stop_app "$user"; done
  rm -f /etc/polkit-1/rules.d/49-pelmora-session.rules  # the session's own grant, not the package's
  # What the package's prerm has systemd do: stop the socket (RemoveOnStop) and the helper.
  kill -TERM "$holder_pid"
  wait_for 15 is_gone "$holder_pid" || fail "the socket holder did not stop" || return
  DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq pelmora >"$logs/purge.log" 2>&1 \
    || fail "apt-get purge failed: $(tail -3 "$logs/purge.log")" || return
  pelmora_files >"$work/after.txt"
  local left
  left=$(comm -13 "$work/before.txt" "$work/after.txt")
  [ -z "$left" ] || fail "the purge left: $left" || return
  # Programs started from the package's files (the first word of their command line), not every
  # command line that names those paths (a compiler given them as flags).
  left=$(ps -eo pid=,user=,args= | awk '$3 ~ /^\/usr\/(lib|libexec)\/pelmora\/|^\/usr\/bin\/pelmora/')
  [ -z "$left" ] || fail "processes left after the purge: $left"
}
