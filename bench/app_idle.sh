#!/usr/bin/env bash
# What the idle tray application costs: it runs under Xvfb on a private bus,
# keyring and sound server, beside a stand-in StatusNotifierWatcher (the tray
# icon registers), against the local server. Each phase is measured over
# IDLE_SECONDS (60) with the popover closed: resident memory, CPU time, and
# how often its threads woke (context switches).
#   1. signed out, as after a first start;
#   2. signed in (the device code approved on the local server);
#   3. after a call of CALL_SECONDS (60) taken from the popover and stopped there.
# PHASES=1 (or 2) stops early. With SCREENSHOT=file.png the popover is opened
# after the last phase and the screen saved.
# Needs the release build (VelmoraTessel, velmora-devserver, tessel_sni_watcher).
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$PWD/build/bin
seconds=${IDLE_SECONDS:-60}
call_seconds=${CALL_SECONDS:-60}
phases=${PHASES:-3}
work=$(mktemp -d /tmp/velmora-idle.XXXXXX)
source scripts/private-desktop.sh

unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS PULSE_SERVER
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
export DISPLAY=":$(head -1 "$work/display")" QT_QPA_PLATFORM=xcb
export HOME=$work XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data
export XDG_STATE_HOME=$work/state XDG_RUNTIME_DIR=$work
private_bus >/dev/null
private_keyring >/dev/null
private_sound >/dev/null
stand_in_browser
start_devserver --https
write_endpoints "$work/endpoints.json"
on_missing_window() {
  ffmpeg -v error -y -f x11grab -video_size 1024x768 -i "$DISPLAY" -frames:v 1 "$work/failed.png" &&
    echo "the screen: $work/failed.png" >&2
}
root_window=$(xdotool search --maxdepth 0 --name "" | head -1)
tray_app
sleep 5 # launch jobs (helper installation, first lists) end

ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$app/stat"; }
# Per thread, so a thread that ends between the samples doesn't count.
switches() {
  for task in /proc/$app/task/*; do
    echo "${task##*/} $(awk '/ctxt_switches/ {n += $2} END {print n}' "$task/status" 2>/dev/null) $(cat "$task/comm" 2>/dev/null | tr ' ' _)"
  done
}
measure() { # label
  local cpu0 cpu1
  cpu0=$(cpu); switches >"$work/sw0"
  # Second by second: a timer waking it each second shows as every second busy.
  local busy=0 last now
  last=$(cat /proc/$app/task/*/status 2>/dev/null | awk '/ctxt_switches/ {n += $2} END {print n}')
  for _ in $(seq "$seconds"); do
    sleep 1
    now=$(cat /proc/$app/task/*/status 2>/dev/null | awk '/ctxt_switches/ {n += $2} END {print n}')
    [ "$now" = "$last" ] || busy=$((busy + 1))
    last=$now
  done
  cpu1=$(cpu); switches >"$work/sw1"
  local sw by_thread rss pss anon threads
  # The first line: the sum; the second: per thread that woke.
  { read -r sw; read -r by_thread || true; } < <(awk 'NR == FNR {start[$1] = $2; next}
    ($1 in start) && $2 > start[$1] {n += $2 - start[$1]; line = line sep $3 " " $2 - start[$1]; sep = ", "}
    END {print n + 0; print line}' "$work/sw0" "$work/sw1")
  rss=$(awk '/VmRSS/ {print $2}' /proc/$app/status)
  # Proportional and private figures: most resident pages are shared libraries.
  pss=$(awk '/^Pss:/ {print $2}' /proc/$app/smaps_rollup)
  anon=$(awk '/^Anonymous:/ {print $2}' /proc/$app/smaps_rollup)
  threads=$(ls /proc/$app/task | wc -l)
  cp /proc/$app/smaps "$work/smaps.$1"
  awk -v l="$1" -v c0="$cpu0" -v c1="$cpu1" -v t="$ticks" -v s="$seconds" -v sw="$sw" \
      -v rss="$rss" -v pss="$pss" -v anon="$anon" -v th="$threads" 'BEGIN {
    printf "%s, idle %d s: CPU %.2f s (%.3f%% of a core), %d wake-ups (%.2f a second, %d threads)\n",
      l, s, (c1 - c0) / t, 100 * (c1 - c0) / t / s, sw, sw / s, th
    printf "  resident memory: %.1f MB; proportional %.1f MB, anonymous %.1f MB\n",
      rss / 1024, pss / 1024, anon / 1024
  }'
  [ -z "$by_thread" ] || echo "  wake-ups by thread: $by_thread; seconds with any: $busy of $seconds"
}
measure "signed out"
[ "$phases" -ge 2 ] || exit 0

sign_in_from_tray
sleep 5
measure "signed in"
[ "$phases" -ge 3 ] || exit 0

popover_opens 10 "Take notes on this call"
call=$(window "Take notes on this call")
xdotool windowfocus --sync "$call"
xdotool type --delay 15 "Idle bench call"
xdotool key Tab
xdotool type --delay 15 "Globex"
# The disclosure shared, then Return in a field starts.
xdotool key Tab Tab Tab space shift+Tab shift+Tab shift+Tab Return
gone "Take notes on this call" || { on_missing_window; exit 1; }
# The call hears noise from the speakers.
timeout "$call_seconds" pacat --playback --device="$far_sink" --raw --format=s16le --rate=48000 \
  --channels=2 </dev/urandom 2>"$work/pacat.err" || [ $? -eq 124 ] || cat "$work/pacat.err"
# Stop & write notes stands where Take notes stood.
call_ended() {
  curl -fsS --cacert "$cert" "$origin/_control/state" | python3 -c 'import json, sys
calls = json.load(sys.stdin)["meetings"]
sys.exit(0 if calls and all(c["status"] == "ended" for c in calls) else 1)'
}
for attempt in 1 2 3; do
  popover_press 10
  for _ in $(seq 50); do call_ended && break 2; sleep 0.2; done
  echo "the call did not end (try $attempt); again" >&2
  xdotool key Escape
done
sleep 3
close_popover # as a person leaves it
curl -fsS --cacert "$cert" "$origin/_control/state" >"$work/server-state.json"
python3 - "$work/server-state.json" <<'PY'
import json, sys
for meeting in json.load(open(sys.argv[1]))["meetings"]:
    segments = [s for part in meeting["parts"] for s in part["segment_list"] if s["stored"]]
    kinds = {k: sum(s["kind"] == k for s in segments) for k in ("audio_local", "audio_remote")}
    size = sum(s["content_length"] for s in segments)
    print(f"call {meeting['status']}: {len(segments)} segments stored {kinds}, {size / 1024:.0f} KB")
PY
measure "after a call of $call_seconds s"

if [ -n "${SCREENSHOT:-}" ]; then
  activate_tray_item
  sleep 1
  ffmpeg -v error -y -f x11grab -video_size 1024x768 -i "$DISPLAY" -frames:v 1 "$SCREENSHOT"
  echo "screenshot: $SCREENSHOT"
fi
echo "smaps of each phase: $work/smaps.*"
