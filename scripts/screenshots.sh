#!/usr/bin/env bash
# Pictures of the tray application against the local server, on a private
# display, bus and keyring: the popover signed out, and the
# "login" and "subscriptions" windows, at scale 1 and 2. Writes
# PNGs into the folder given (default: screenshots/).
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-screenshots}")
mkdir -p "$out"
work=$(mktemp -d /tmp/velmora-shots.XXXXXX)
source scripts/private-desktop.sh
build_program velmora-screengrab
start_devserver --https

cat >"$work/endpoints.json" <<JSON
{"default_org_host": "acme.velmora.test",
 "org_origin": "$origin",
 "auth_service_url": "$origin",
 "notify_service_url": "$origin/notify",
 "ca_file": "$cert"}
JSON
export VELMORA_TESSEL_ENDPOINTS="$work/endpoints.json"
unset DISPLAY WAYLAND_DISPLAY
private_bus
private_keyring
# A display large enough for the popover at scale 2.
Xvfb -displayfd 3 -screen 0 2560x1600x24 -nolisten tcp 3>"$work/display" &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
export DISPLAY=":$(head -1 "$work/display")"
export QT_QPA_PLATFORM=xcb

grab() { # name window-title
  local id
  for _ in $(seq 50); do
    id=$(xdotool search --onlyvisible --name "^$2\$" 2>/dev/null | head -1) && [ -n "$id" ] && break
    sleep 0.1
  done
  [ -n "${id:-}" ] || { echo "no window \"$2\" for $1"; return 1; }
  sleep 0.5
  "$root/build/bin/velmora-screengrab" "$out/$1.png" "$id"
  echo "$out/$1.png"
}

# One run of the program per look; without a tray the popover is a window.
shoot() { # suffix, then environment assignments
  local suffix=$1
  shift
  env "$@" "$root/build/bin/VelmoraTessel" >"$work/app$suffix.log" 2>&1 &
  local app=$!
  grab "popover-idle$suffix" Velmora
  # Take notes without a member opens the sign-in window.
  local popover scale=${1#QT_SCALE_FACTOR=}
  popover=$(xdotool search --onlyvisible --name '^Velmora$' | head -1)
  xdotool mousemove --window "$popover" $((60 * scale)) $((262 * scale)) click 1
  grab "login$suffix" "Sign in to Velmora" || true
  # The Subscriptions row opens its window.
  xdotool mousemove --window "$popover" $((100 * scale)) $((422 * scale)) click 1
  grab "subscriptions$suffix" "Subscriptions" || true
  kill "$app" 2>/dev/null || true
  wait "$app" 2>/dev/null || true
}

shoot "" QT_SCALE_FACTOR=1
shoot "@2x" QT_SCALE_FACTOR=2
