# Sourced by the scripts that run the program on this machine: builds it, and
# brings up the local server and whatever the desktop lacks (session bus,
# keyring, sound server, display) as private ones that end with the script.
# The caller sets `work` to a fresh folder first.
root=$PWD
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

# With `stand_ins=ON` set first, the build bundles velmora-faketool as every
# helper tool (see stand_in_tools); any other build bundles none.
build_program() {
  bash scripts/setup.sh
  cmake --preset release -DTESSEL_HELPERS_FAKE="${stand_ins:-OFF}" >/dev/null
  cmake --build --preset release -j "$(nproc)" --target VelmoraTessel velmora-devserver helpers "$@"
}

# The sibling tools (velmora-conductor-onboard, meterly, vantor-accounts, …)
# played by velmora-faketool from a scenario written into the work folder. The
# program installs its bundled helpers into a private data folder, so the
# stand-ins never replace the user's own tools; each run is logged to
# $work/tools/runs.jsonl.
stand_in_tools() {
  export XDG_DATA_HOME="$work/data"
  VELMORA_FAKETOOL_SCENARIO=$(python3 tools/faketool/scenarios/desktop.py "$work/tools")
  export VELMORA_FAKETOOL_SCENARIO VELMORA_FAKETOOL_LOG="$work/tools/runs.jsonl"
  echo "sibling tools: stand-ins (velmora-faketool, $VELMORA_FAKETOOL_SCENARIO)"
}

# velmora-devserver with the given options; sets `origin` and `cert`.
start_devserver() {
  "$root/build/bin/velmora-devserver" "$@" --data-dir "$work/server" \
    >"$work/devserver.out" 2>"$work/devserver.err" &
  pids+=($!)
  for _ in $(seq 100); do
    grep -q '^velmora-devserver ready' "$work/devserver.out" 2>/dev/null && break
    sleep 0.1
  done
  local ready
  ready=$(grep '^velmora-devserver ready' "$work/devserver.out") || { cat "$work/devserver.err"; exit 1; }
  origin=$(echo "$ready" | awk '{print $3}')
  cert=$(echo "$ready" | sed -n 's/.* cert=\([^ ]*\).*/\1/p')
}

# The endpoints file that points the program at the local server (`origin`,
# `cert`), exported as VELMORA_TESSEL_ENDPOINTS.
write_endpoints() { # file
  cat >"$1" <<JSON
{"default_org_host": "acme.velmora.test",
 "org_origin": "$origin",
 "auth_service_url": "$origin",
 "notify_service_url": "$origin/notify",
 "update_feed_url": "$origin/update/feed.json",
 "ca_file": "$cert"}
JSON
  export VELMORA_TESSEL_ENDPOINTS="$1"
}

# A sound server when none answers: speakers are a null sink, the microphone a
# source fed by its own null sink. Sets `far_sink` and `near_sink` (empty when
# the user's own microphone hears the room).
private_sound() {
  if pactl info >/dev/null 2>&1; then
    echo "sound server: $(pactl info | sed -n 's/^Server Name: //p')"
    far_sink=@DEFAULT_SINK@
    near_sink=""
    return
  fi
  export XDG_RUNTIME_DIR="$work/xdg" PULSE_SERVER="unix:$work/xdg/native"
  mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
  HOME="$work/home" pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no \
    -L "module-native-protocol-unix socket=$work/xdg/native auth-anonymous=1" \
    -L "module-null-sink sink_name=speakers rate=48000 channels=2" \
    -L "module-null-sink sink_name=micsink channels=1" \
    -L "module-remap-source source_name=mic master=micsink.monitor" \
    >"$work/pulse.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
  pactl set-default-sink speakers
  pactl set-default-source mic
  echo "sound server: private PulseAudio (speakers = null sink, microphone = test source)"
  far_sink=speakers
  near_sink=micsink
}

private_bus() {
  [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] && return
  dbus-daemon --session --nofork --print-address=3 3>"$work/bus.address" &
  pids+=($!)
  for _ in $(seq 50); do [ -s "$work/bus.address" ] && break; sleep 0.1; done
  DBUS_SESSION_BUS_ADDRESS=$(head -1 "$work/bus.address")
  export DBUS_SESSION_BUS_ADDRESS
  echo "session bus: private"
}

secrets_on_bus() {
  dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true
}

# An unlocked keyring, when none answers on the bus.
private_keyring() {
  secrets_on_bus && return
  # The daemon needs its home and a private runtime directory for its sockets.
  mkdir -p "$work/home/data" "$work/home/run" && chmod 700 "$work/home/run"
  printf 'velmora-app' | HOME="$work/home" XDG_DATA_HOME="$work/home/data" \
    XDG_RUNTIME_DIR="$work/home/run" gnome-keyring-daemon --foreground --unlock --components=secrets \
    >"$work/keyring.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do secrets_on_bus && break; sleep 0.1; done
  secrets_on_bus ||
    { cat "$work/keyring.log"; echo "keyring: gnome-keyring-daemon did not come on the bus" >&2; exit 1; }
  echo "keyring: private (gnome-keyring, unlocked)"
}

# A display, when there is none: the program runs, but only a screenshot shows it.
private_display() {
  { [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; } && return
  Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" &
  pids+=($!)
  for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
  DISPLAY=":$(head -1 "$work/display")"
  export DISPLAY
  echo "display: private Xvfb $DISPLAY (no desktop: the program has no tray and shows its window there)"
}

# The program beside a stand-in StatusNotifierWatcher, so its tray icon
# registers as on a desktop with a tray; sets `app` (its PID) and `item` (the
# icon's bus name). Its standard error goes to $work/app.err.
tray_app() {
  "$root/build/bin/tessel_sni_watcher" >"$work/watcher.out" &
  pids+=($!)
  sleep 0.5
  "$root/build/bin/VelmoraTessel" 2>"$work/app.err" &
  app=$!
  pids+=($app)
  for _ in $(seq 100); do grep -q registered "$work/watcher.out" && break; sleep 0.1; done
  item=$(sed -n 's/^registered //p' "$work/watcher.out" | head -1)
  [ -n "$item" ] || { echo "the tray item never registered"; cat "$work/app.err"; exit 1; }
}

# Driving the program by keyboard on the display (xdotool). `root_window` is
# the display's root; a caller may define `on_missing_window` to keep the
# screen when a window never shows.
window() { # title: the id of the visible window with that title, waiting for it
  local id=""
  for _ in $(seq 100); do
    id=$(xdotool search --onlyvisible --name "^$1\$" 2>/dev/null | head -1) && [ -n "$id" ] && break
    sleep 0.1
  done
  if [ -z "$id" ]; then
    echo "no window \"$1\"" >&2
    if declare -F on_missing_window >/dev/null; then on_missing_window; fi
    return 1
  fi
  echo "$id"
}

gone() { # title: waits until no such window is shown
  for _ in $(seq 100); do
    xdotool search --onlyvisible --name "^$1\$" >/dev/null 2>&1 || return 0
    sleep 0.1
  done
  echo "window \"$1\" still shown" >&2
  return 1
}

# Waits until the popover's picture has held still for a second: coming
# forward refreshes rows, and a rebuild moves the Tab stops or catches it half
# grown. Not for a window with a text field, whose caret blinks. Without
# velmora-screengrab built it waits a fixed time.
settle() { # window id
  local grabber="$root/build/bin/velmora-screengrab" still=0
  sleep 0.5
  if [ ! -x "$grabber" ]; then sleep 1; return; fi
  "$grabber" "$work/settle.a.png" "$1" 2>/dev/null || true
  # During a call its clock moves every second: then it settles for nothing.
  for _ in $(seq 10); do
    sleep 0.5
    "$grabber" "$work/settle.b.png" "$1" 2>/dev/null || true
    if cmp -s "$work/settle.a.png" "$work/settle.b.png"; then
      still=$((still + 1))
      [ "$still" -lt 2 ] || return 0
    else
      still=0
      mv "$work/settle.b.png" "$work/settle.a.png"
    fi
  done
}

# Brings the window forward afresh (the popover then starts Tab at its top
# row), presses Tab `count` times and then the key.
press() { # title count [key]
  local id
  id=$(window "$1") || return 1
  # Qt lets a window go inactive only after a short grace time.
  xdotool windowfocus "$root_window" 2>/dev/null || true
  sleep 1
  xdotool windowfocus --sync "$id"
  # Coming forward refreshes the open calls and the infrastructure, which
  # rebuilds rows: Tab waits until they stand.
  if [ "$1" = Velmora ]; then settle "$id"; else sleep 1.5; fi
  [ "$2" -eq 0 ] || xdotool key --delay 80 $(yes Tab | head -n "$2")
  xdotool key "${3:-space}"
}

# A stand-in browser first on PATH: the pages the program opens are appended
# to $work/browser/opened, so a script can approve the sign-in code.
stand_in_browser() {
  mkdir -p "$work/browser"
  printf '#!/bin/sh\necho "$1" >>"%s/browser/opened"\n' "$work" >"$work/browser/xdg-open"
  chmod +x "$work/browser/xdg-open"
  export PATH="$work/browser:$PATH"
}

# Approves the device code of the last sign-in page opened.
approve_sign_in() {
  for _ in $(seq 50); do [ -s "$work/browser/opened" ] && break; sleep 0.1; done
  local code
  code=$(sed -n 's/.*user_code=\([A-Z0-9-]*\).*/\1/p' "$work/browser/opened" | tail -1)
  curl -fsS --cacert "$cert" -X POST "$origin/device" -d "user_code=$code&action=approve" >/dev/null
}

# With tray_app: a click on the icon, as a desktop's tray sends it.
activate_tray_item() {
  gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
    --method org.kde.StatusNotifierItem.Activate -- 300 200 >/dev/null
}

# Closes the popover from the icon when it is open.
close_popover() {
  if xdotool search --onlyvisible --name '^Velmora$' >/dev/null 2>&1; then activate_tray_item; fi
  gone Velmora
}

# Opens the popover from the icon, presses Tab `count` times and then the key.
popover_press() { # count [key]
  activate_tray_item
  local id
  id=$(window Velmora) || return 1
  xdotool windowfocus --sync "$id"
  settle "$id"
  # A click on its title makes it Qt's active window: without a window manager
  # the focus Qt asks for may be refused, and the first Tab would go nowhere.
  xdotool mousemove --window "$id" 30 28 click 1
  sleep 0.3
  [ "$1" -eq 0 ] || xdotool key --delay 80 $(yes Tab | head -n "$1")
  xdotool key "${2:-space}"
}

# popover_press, until the window it opens shows (a row that appears late
# moves the Tab stops).
popover_opens() { # count title
  local attempt
  for attempt in 1 2 3; do
    popover_press "$1"
    for _ in $(seq 30); do
      xdotool search --onlyvisible --name "^$2\$" >/dev/null 2>&1 && return 0
      sleep 0.1
    done
    echo "\"$2\" did not open (try $attempt); again" >&2
    xdotool key Escape
    sleep 1
    # What the stray key opened instead, if anything, closes too.
    xdotool key Escape
  done
  window "$2" >/dev/null
}

# Signs in as a person would, against the local server (start_devserver,
# write_endpoints, stand_in_browser): Take notes without a member (the
# popover's 10th Tab stop) opens the sign-in window, whose Sign in opens the
# page where the code is approved.
sign_in_from_tray() {
  popover_opens 10 "Sign in to Velmora"
  press "Sign in to Velmora" 0 Return
  approve_sign_in
  gone "Sign in to Velmora"
}
