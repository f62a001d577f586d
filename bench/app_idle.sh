#!/usr/bin/env bash
# What the idle tray application costs: it runs under Xvfb on a private bus
# with a stand-in StatusNotifierWatcher (the tray icon registers, nothing is
# signed in) and is measured over IDLE_SECONDS (60): resident memory, CPU
# time, and how often its threads woke (context switches). With SCREENSHOT=file.png
# the popover is opened over D-Bus and the screen saved after the run.
# Needs the release build of VelmoraTessel and tessel_sni_watcher.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$PWD/build/bin
seconds=${IDLE_SECONDS:-60}
work=$(mktemp -d /tmp/velmora-idle.XXXXXX)
source scripts/private-desktop.sh

Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
export DISPLAY=":$(head -1 "$work/display")" QT_QPA_PLATFORM=xcb
export HOME=$work XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_RUNTIME_DIR=$work
# The default session configuration: the keyring is started on demand, in $HOME.
dbus-daemon --session --nofork --print-address=3 3>"$work/bus" &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/bus" ] && break; sleep 0.1; done
export DBUS_SESSION_BUS_ADDRESS=$(head -1 "$work/bus")
tray_app
sleep 5 # launch jobs (helper installation, first lists) end

ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$app/stat"; }
# Per thread, so a thread that ends between the samples doesn't count.
switches() {
  for task in /proc/$app/task/*; do
    echo "${task##*/} $(awk '/ctxt_switches/ {n += $2} END {print n}' "$task/status" 2>/dev/null)"
  done
}
cpu0=$(cpu); switches >"$work/sw0"
sleep "$seconds"
cpu1=$(cpu); switches >"$work/sw1"
sw0=0
sw1=$(awk 'NR == FNR {start[$1] = $2; next} ($1 in start) {n += $2 - start[$1]} END {print n + 0}' \
  "$work/sw0" "$work/sw1")
rss=$(awk '/VmRSS/ {print $2}' /proc/$app/status)
hwm=$(awk '/VmHWM/ {print $2}' /proc/$app/status)
# Proportional and private figures: most resident pages are shared libraries.
pss=$(awk '/^Pss:/ {print $2}' /proc/$app/smaps_rollup)
anon=$(awk '/^Anonymous:/ {print $2}' /proc/$app/smaps_rollup)
threads=$(ls /proc/$app/task | wc -l)
awk -v c0="$cpu0" -v c1="$cpu1" -v t="$ticks" -v s="$seconds" -v w0="$sw0" -v w1="$sw1" \
    -v rss="$rss" -v hwm="$hwm" -v pss="$pss" -v anon="$anon" -v th="$threads" 'BEGIN {
  printf "idle %d s: CPU %.2f s (%.3f%% of a core), %d wake-ups (%.2f a second, %d threads)\n",
    s, (c1 - c0) / t, 100 * (c1 - c0) / t / s, w1 - w0, (w1 - w0) / s, th
  printf "resident memory: %.1f MB now, %.1f MB peak; proportional %.1f MB, anonymous %.1f MB\n",
    rss / 1024, hwm / 1024, pss / 1024, anon / 1024
}'

if [ -n "${SCREENSHOT:-}" ]; then
  gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
    --method org.kde.StatusNotifierItem.Activate -- 300 200 >/dev/null
  sleep 1
  ffmpeg -v error -y -f x11grab -video_size 1024x768 -i "$DISPLAY" -frames:v 1 "$SCREENSHOT"
  echo "screenshot: $SCREENSHOT"
fi
