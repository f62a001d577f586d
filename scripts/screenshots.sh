#!/usr/bin/env bash
# Pictures of the tray application against the local server and the stand-in
# sibling tools, on a private display, bus, keyring and sound server. One run
# of the program per look (scale 1, scale 2, and scale 1 in a dark palette)
# walks through: the popover signed out, the sign-in window, the conductor
# set-up wizard filled in and after its run, the popover signed in with the
# infrastructure rows, the subscriptions window, the call window, the popover
# listening, and paused for sign-in with its error notice once the session is
# revoked. Driven by the keyboard (Tab follows the popover's rows), so a change
# of fonts or sizes moves nothing. Then, on xfce, the organisation and account
# menus open and the popover of a call on a short screen. Writes PNGs into the
# folder given (default: screenshots/).
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-screenshots}")
mkdir -p "$out"
work=$(mktemp -d /tmp/velmora-shots.XXXXXX)
source scripts/private-desktop.sh
stand_ins=ON
build_program velmora-screengrab
# A fresh local server per look: no call or session of an earlier look is left.
start_server() {
  work="$1" start_devserver --https
  server_pid=${pids[-1]}
  cat >"$1/endpoints.json" <<JSON
{"default_org_host": "acme.velmora.test",
 "org_origin": "$origin",
 "auth_service_url": "$origin",
 "notify_service_url": "$origin/notify",
 "ca_file": "$cert"}
JSON
  export VELMORA_TESSEL_ENDPOINTS="$1/endpoints.json"
}

unset DISPLAY WAYLAND_DISPLAY
private_bus
private_keyring
private_sound
stand_in_tools
# A display large enough for the windows at scale 2, one per look, so a look
# starts from a bare screen.
start_display() {
  Xvfb -displayfd 3 -screen 0 2560x1600x24 -nolisten tcp 3>"$work/display" &
  display_pid=$!
  pids+=("$display_pid")
  for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
  export DISPLAY=":$(head -1 "$work/display")" QT_QPA_PLATFORM=xcb
  for _ in $(seq 50); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
  root_window=$(xdotool search --maxdepth 0 --name "" | head -1)
}
stand_in_browser
on_missing_window() { "$root/build/bin/velmora-screengrab" "$out/failed$suffix.png" || true; }

grab() { # name title
  local id
  id=$(window "$2") || return 1
  # The active window's colours: some styles dim an inactive one.
  xdotool windowfocus --sync "$id" 2>/dev/null || true
  # Coming forward refreshes and may rebuild rows; a window that just grew is
  # black below until it paints: wait until it holds still.
  if [ "$2" = Velmora ]; then
    settle "$id"
  else
    sleep 1.5
    local before after
    for _ in $(seq 10); do
      before=$(xdotool getwindowgeometry "$id")
      sleep 0.5
      after=$(xdotool getwindowgeometry "$id")
      [ "$before" = "$after" ] && break
    done
  fi
  "$root/build/bin/velmora-screengrab" "$out/$1$suffix.png" "$id"
  echo "$out/$1$suffix.png"
}

# Tab stops of the popover, from the top: the toolbar's four buttons, then per
# app its button (Get or Open), the inbox, the notifications switch, Take
# notes, the infrastructure's buttons, the subscriptions row.
take_notes=10
infra_first=11

signed_in_token() {
  secret-tool lookup service ai.velmora.tessel account acme.velmora.test |
    sed -n 's/.*"token":"\([^"]*\)".*/\1/p'
}

shoot() { # suffix, then environment assignments
  suffix=$1
  shift
  local settings="$work/look$suffix"
  mkdir -p "$settings"
  : >"$work/display"
  start_display
  start_server "$settings"
  secret-tool clear service ai.velmora.tessel account acme.velmora.test 2>/dev/null || true
  rm -f "$work/tools/conductor-onboard.after.json" "$work/browser/opened"
  # Each look starts as a first start: its own settings, data and runtime files.
  mkdir -p "$settings/runtime" && chmod 700 "$settings/runtime"
  env XDG_CONFIG_HOME="$settings/config" XDG_STATE_HOME="$settings/state" \
    XDG_DATA_HOME="$settings/data" XDG_RUNTIME_DIR="$settings/runtime" "$@" \
    "$root/build/bin/VelmoraTessel" >"$settings/app.log" 2>&1 &
  local app=$!
  window Velmora >/dev/null
  sleep 2 # the helpers installed, the infrastructure read
  grab popover-signed-out Velmora

  # Take notes without a member opens the sign-in window; its Sign in asks
  # for a code and opens the sign-in page, where the code is approved.
  press Velmora "$take_notes"
  press "Sign in to Velmora" 0 Return
  for _ in $(seq 50); do [ -s "$work/browser/opened" ] && break; sleep 0.1; done
  grab login "Sign in to Velmora"
  approve_sign_in
  gone "Sign in to Velmora"

  # The conductor set-up: slug and port are filled in; the secrets are typed.
  press Velmora "$infra_first" space
  local setup
  setup=$(window "Set up conductor")
  xdotool windowfocus --sync "$setup"
  xdotool key Tab Tab Tab
  for value in svc_9f2c41d0 v2k_51aa07 tun_77e0b2c4 ingress_c3d9 tunnel-acme-01 agent-acme-7; do
    xdotool type --delay 15 "$value"
    xdotool key Tab
  done
  grab conductor-setup "Set up conductor"
  xdotool key shift+Tab Return
  sleep 4.5
  grab conductor-setup-done "Set up conductor"
  xdotool key Escape
  gone "Set up conductor"
  sleep 1
  grab popover-signed-in Velmora

  # The subscriptions row: after the conductor's two buttons and the tunnel log.
  press Velmora $((infra_first + 3))
  grab subscriptions Subscriptions
  xdotool key Escape
  gone Subscriptions

  # The call window: name, counterpart, project, Copy, the disclosure's box.
  press Velmora "$take_notes"
  local call
  call=$(window "Take notes on this call")
  xdotool windowfocus --sync "$call"
  xdotool type --delay 15 "Quarterly plan review"
  xdotool key Tab
  xdotool type --delay 15 "Globex"
  xdotool key Tab Tab Tab space
  grab call "Take notes on this call"
  xdotool key shift+Tab shift+Tab shift+Tab Return
  gone "Take notes on this call"
  sleep 4
  grab popover-listening Velmora

  # The session is revoked: the next upload is refused and uploads pause.
  curl -fsS --cacert "$cert" -X POST "$origin/_control/revoke" \
    -d "{\"token\": \"$(signed_in_token)\"}" >/dev/null
  sleep 12
  grab popover-paused Velmora

  kill "$app" 2>/dev/null || true
  wait "$app" 2>/dev/null || true
  kill "$display_pid" "$server_pid" 2>/dev/null || true
}

shoot "" QT_SCALE_FACTOR=1
shoot "@2x" QT_SCALE_FACTOR=2
# The dark look a GNOME user with Adwaita-qt gets.
shoot "-dark" QT_SCALE_FACTOR=1 QT_STYLE_OVERRIDE=Adwaita-Dark
echo "tool runs: $VELMORA_FAKETOOL_LOG"

# On xfce (xfwm4, xfce4-panel's tray), from the end-to-end tests: the
# organisation and account menus standing open, and the popover of a call on
# a screen shorter than its rows, scrolling (whole screens, 1280 by 800).
(cd tests/desktop && TESSEL_BIN="$root/build/bin" TESSEL_PICTURES="$out" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -W ignore -m unittest test_popover >"$work/pictures.log" 2>&1) ||
  { tail -20 "$work/pictures.log"; exit 1; }
ls "$out"/organisation-menu.png "$out"/account-menu.png "$out"/listening-focus-on-stop.png
