#!/usr/bin/env bash
# The popover's opening from a tray click: the release program runs under a
# private Xvfb and session bus with the stand-in StatusNotifierWatcher (signed
# out), and bench_popover_click_probe sends the item's Activate over D-Bus, as
# a desktop's tray does on a click, CLICKS (30) times. Measured per click, from
# the Activate call sent to the popover's window mapped, and to the first
# drawing into it after the map (a DAMAGE event on the window, i.e. the server
# has the first frame's pixels). A second Activate closes it between clicks.
# The first click (cold: the window and its widgets are built) is shown apart.
# With SIGNED_IN=1 a member is signed in first against the local server (with
# a private keyring), so the popover holds the signed-in rows; its first click
# is then not cold, since signing in opened the popover.
# Needs the release build of VelmoraTessel, tessel_sni_watcher and
# bench_popover_click_probe.
set -euo pipefail
cd "$(dirname "$0")/.."
clicks=${CLICKS:-30}
work=$(mktemp -d /tmp/velmora-click.XXXXXX)
bin=$PWD/build/bin
# Always private: the user's own bus and display are not measured.
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
source scripts/private-desktop.sh
private_bus >/dev/null 2>&1
private_display >/dev/null
export QT_QPA_PLATFORM=xcb
export HOME=$work XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_STATE_HOME=$work/state

signed=${SIGNED_IN:-0}
if [ "$signed" = 1 ]; then
  private_keyring >/dev/null
  stand_in_browser
  start_devserver --https
  write_endpoints "$work/endpoints.json"
  root_window=$(xdotool search --maxdepth 0 --name "" | head -1)
fi

tray_app
sleep 3 # launching ends (helper installation, first readings)
if [ "$signed" = 1 ]; then
  sign_in_from_tray
  sleep 3
  secret-tool lookup service ai.velmora.tessel account acme.velmora.test >/dev/null ||
    { echo "the sign-in did not reach the keyring"; exit 1; }
  close_popover # the probe starts from a closed one
fi

# The program's own CPU time per open and close tells its work apart from
# waiting for a shared machine's cores.
cpu() { awk '{print $14 + $15}' "/proc/$app/stat"; }
cpu0=$(cpu)
"$bin/bench_popover_click_probe" "$item" "$clicks" >"$work/clicks"
cpu1=$(cpu)

# Column 2 (ms to painted) then column 1 (ms to mapped) of the probe's lines.
stats() { # label, then the lines on stdin
  local lines
  lines=$(cat)
  printf '%-5s n=%-3d painted ms: %s   mapped ms: %s\n' "$1" "$(echo "$lines" | wc -l)" \
    "$(echo "$lines" | awk '{print $2}' | quantiles)" "$(echo "$lines" | awk '{print $1}' | quantiles)"
}
quantiles() {
  sort -n | awk '{ v[NR] = $1 }
    END { printf "min %.1f median %.1f p90 %.1f max %.1f", v[1], v[int((NR + 1) / 2)],
          v[int(NR * 0.9 + 0.999)], v[NR] }'
}
state=$([ "$signed" = 1 ] && echo "signed in" || echo "signed out")
echo "popover from Activate sent: $clicks clicks, $state, Xvfb $DISPLAY, load $(cut -d" " -f1-3 /proc/loadavg)"
head -1 "$work/clicks" | stats cold
tail -n +2 "$work/clicks" | stats warm
echo "program CPU per open + close: $(awk -v t="$(getconf CLK_TCK)" -v d=$((cpu1 - cpu0)) -v n="$clicks" \
  'BEGIN {printf "%.1f ms", d * 1000 / t / n}')"
