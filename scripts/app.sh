#!/usr/bin/env bash
# The tray application against the local server: starts velmora-devserver over
# HTTPS, points the program at it through VELMORA_TESSEL_ENDPOINTS, and brings
# up what the desktop lacks — a session bus, a keyring (Secret Service), a sound
# server, a display — as private ones. Then a person can sign in (approve the
# code on the local server's /device page), take notes on a call, and see it
# listed and stopped. Ctrl-C ends it all.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target VelmoraTessel velmora-devserver

work=$(mktemp -d /tmp/velmora-app.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

"$root/build/bin/velmora-devserver" --https --data-dir "$work/server" >"$work/devserver.out" 2>"$work/devserver.err" &
pids+=($!)
for _ in $(seq 100); do
  grep -q '^velmora-devserver ready' "$work/devserver.out" 2>/dev/null && break
  sleep 0.1
done
ready=$(grep '^velmora-devserver ready' "$work/devserver.out") || { cat "$work/devserver.err"; exit 1; }
origin=$(echo "$ready" | awk '{print $3}')
cert=$(echo "$ready" | sed -n 's/.* cert=\([^ ]*\).*/\1/p')

cat >"$work/endpoints.json" <<JSON
{"default_org_host": "acme.velmora.test",
 "org_origin": "$origin",
 "auth_service_url": "$origin",
 "notify_service_url": "$origin/notify",
 "update_feed_url": "$origin/update/feed.json",
 "ca_file": "$cert"}
JSON
export VELMORA_TESSEL_ENDPOINTS="$work/endpoints.json"

# A session bus, when the desktop has none.
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  dbus-daemon --session --nofork --print-address=3 3>"$work/bus.address" &
  pids+=($!)
  for _ in $(seq 50); do [ -s "$work/bus.address" ] && break; sleep 0.1; done
  export DBUS_SESSION_BUS_ADDRESS=$(head -1 "$work/bus.address")
  echo "session bus: private"
fi

# A keyring, when none answers on the bus.
if ! dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
     org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true; then
  # The daemon needs its home and a private runtime directory for its sockets.
  mkdir -p "$work/home/data" "$work/home/run" && chmod 700 "$work/home/run"
  printf 'velmora-app' | HOME="$work/home" XDG_DATA_HOME="$work/home/data" \
    XDG_RUNTIME_DIR="$work/home/run" gnome-keyring-daemon --foreground --unlock --components=secrets \
    >"$work/keyring.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do
    dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
      org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true && break
    sleep 0.1
  done
  dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true ||
    { cat "$work/keyring.log"; echo "keyring: gnome-keyring-daemon did not come on the bus" >&2; exit 1; }
  echo "keyring: private (gnome-keyring, unlocked)"
fi

# A sound server, when none runs: speakers are a null sink, the microphone a test source.
if ! pactl info >/dev/null 2>&1; then
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
fi

# A display, when there is none: the program runs, but only a screenshot shows it.
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" &
  pids+=($!)
  for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
  export DISPLAY=":$(head -1 "$work/display")"
  echo "display: private Xvfb $DISPLAY (no desktop: the program has no tray and shows its window there)"
fi

cat <<NOTE
local server: $origin (data in $work/server)
endpoints:    $VELMORA_TESSEL_ENDPOINTS

In the tray (or the Velmora window): Sign in… opens $origin/device in the
browser; approve the code shown there. Then Take notes starts a call, the
popover shows it running, and Stop & write notes closes it. Calls left open
on the server are listed with their own Stop.
NOTE
"$root/build/bin/VelmoraTessel"
