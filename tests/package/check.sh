#!/usr/bin/env bash
# The Debian package as a user gets it: built and passed by lintian
# (scripts/package.sh), its desktop entries and metainfo validated, unpacked
# into a temporary root (dpkg -x) and run from there: a real capture against
# the local server on a private PulseAudio, and the tray program started once
# on a private display and bus until its item registers. Uses the release
# build's velmora-devserver and tessel_sni_watcher (build/bin, or TESSEL_BIN).
set -euo pipefail
cd "$(dirname "$0")/../.."
repo=$PWD
bin=${TESSEL_BIN:-$repo/build/bin}
work=$(mktemp -d /tmp/velmora-package-check.XXXXXX)
pids=()
cleanup() {
  # Last started first: the players go before their sound server.
  local i
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "package check: $*" >&2
  exit 1
}
waitfor() { # file pattern: up to 20 s for the pattern to show in the file
  for _ in $(seq 200); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  return 1
}
started=$SECONDS

bash scripts/package.sh "$work/dist"
deb=$(ls "$work"/dist/velmora-tessel_*_*.deb)
root=$work/root
dpkg -x "$deb" "$root"

echo "package check: contents"
desktop-file-validate "$root/usr/share/applications/ai.velmora.tessel.desktop"
desktop-file-validate "$root/usr/share/velmora-tessel/ai.velmora.tessel.desktop"
# The screenshot and home page are on the web, which this machine cannot reach.
appstreamcli validate --no-net "$root/usr/share/metainfo/ai.velmora.tessel.metainfo.xml"
for file in usr/bin/VelmoraTessel usr/lib/velmora-tessel/libtessel-codec.so \
  usr/share/man/man1/VelmoraTessel.1.gz usr/share/icons/hicolor/scalable/apps/ai.velmora.tessel.svg \
  usr/share/icons/hicolor/scalable/apps/ai.velmora.tessel-symbolic.svg; do
  [ -e "$root/$file" ] || fail "the package lacks $file"
done
[ ! -e "$root/usr/share/velmora-tessel/helpers" ] || fail "the package carries a helpers folder"
for elf in usr/bin/VelmoraTessel usr/lib/velmora-tessel/libtessel-codec.so; do
  if readelf -S "$root/$elf" | grep -q '\.debug_info'; then fail "$elf is not stripped"; fi
done
depends=$(dpkg-deb -f "$deb" Depends)
# The codec module is loaded at run time: only the scan of the module itself
# brings FFmpeg into Depends.
for needed in libqt6svg6 libavcodec libswresample libpulse0 libsecret-1-0; do
  grep -q "$needed" <<<"$depends" || fail "Depends lacks $needed: $depends"
done

# A private home, runtime folder and sound server: speakers and microphone are
# null sinks, each playing a tone.
export HOME=$work/home XDG_CONFIG_HOME=$work/home/config XDG_DATA_HOME=$work/home/data \
  XDG_STATE_HOME=$work/home/state XDG_RUNTIME_DIR=$work/run PULSE_SERVER=unix:$work/run/native
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
unset VELMORA_TESSEL_ENDPOINTS METERLY_BIN VANTOR_ACCOUNTS_BIN VCO_BIN APPIMAGE
pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no \
  -L "module-native-protocol-unix socket=$work/run/native auth-anonymous=1" \
  -L "module-null-sink sink_name=speakers rate=48000 channels=2" \
  -L "module-null-sink sink_name=micsink channels=1" \
  -L "module-remap-source source_name=mic master=micsink.monitor" >"$work/pulse.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
pactl set-default-sink speakers && pactl set-default-source mic || fail "no private PulseAudio"
"$bin/velmora-devserver" --port 0 --data-dir "$work/server" >"$work/devserver.out" 2>&1 &
pids+=($!)
waitfor "$work/devserver.out" '^velmora-devserver ready' || fail "the local server did not start"
origin=$(awk '/^velmora-devserver ready/ {print $3}' "$work/devserver.out")
sox -n -r 48000 -c 2 "$work/far.wav" synth 30 sine 440 2>/dev/null
sox -n -r 48000 -c 1 "$work/near.wav" synth 30 sine 660 2>/dev/null
paplay -d speakers --latency-msec=200 "$work/far.wav" 2>/dev/null &
pids+=($!)
paplay -d micsink --latency-msec=200 "$work/near.wav" 2>/dev/null &
pids+=($!)

echo "package check: a capture from the unpacked copy"
"$root/usr/bin/VelmoraTessel" capture --base-url "$origin/meet" --token vses_package \
  --title "Package check" --counterpart "Local test" --seconds 6 ||
  fail "the unpacked program's capture failed"
for track in audio_local audio_remote; do
  find "$work/server" -path "*/$track/*.aac" | grep -q . || fail "no $track segment was stored"
done

echo "package check: the unpacked tray program"
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
pids+=($!)
dbus-daemon --nofork --print-address=3 --config-file="$repo/tests/keyring/private-bus.conf" \
  3>"$work/bus" 2>/dev/null &
pids+=($!)
waitfor "$work/display" . && waitfor "$work/bus" . || fail "no private display or bus"
export DISPLAY=":$(head -1 "$work/display")" DBUS_SESSION_BUS_ADDRESS=$(head -1 "$work/bus")
export QT_QPA_PLATFORM=xcb
"$bin/tessel_sni_watcher" >"$work/watcher.out" &
pids+=($!)
waitfor "$work/watcher.out" '^watching' || fail "the stand-in tray did not start"
"$root/usr/bin/VelmoraTessel" 2>"$work/app.err" &
app=$!
pids+=($app)
waitfor "$work/watcher.out" '^registered ' || { cat "$work/app.err"; fail "no tray item registered"; }
item=$(sed -n 's/^registered //p' "$work/watcher.out" | head -1)
# The picture beside the icon's name comes from the icons of the unpacked tree
# (bin/../share/icons): not found, it would be blank.
pixmap=$(gdbus call --session --dest "$item" --object-path /StatusNotifierItem --method \
  org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem IconPixmap)
grep -Eq '0x(0[1-9a-f]|[1-9a-f][0-9a-f])' <<<"$pixmap" || fail "the tray icon's picture is blank"
# Launching is over once the popover opens on Activate; a program that
# carries no helpers has installed none by then.
gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
  --method org.kde.StatusNotifierItem.Activate -- 100 5 >/dev/null
for _ in $(seq 100); do
  xwininfo -name Velmora 2>/dev/null | grep -q IsViewable && break
  sleep 0.1
done
xwininfo -name Velmora 2>/dev/null | grep -q IsViewable || fail "the popover did not open"
[ ! -e "$XDG_DATA_HOME/Velmora/bin" ] || fail "the packaged program installed helpers"
kill -TERM "$app"
status=0
wait "$app" || status=$?
[ "$status" -eq 0 ] || { cat "$work/app.err"; fail "the tray program ended with $status"; }

echo "package check: passed in $((SECONDS - started)) s;" \
  "$(basename "$deb") $(du -k "$deb" | cut -f1) KB, installed $(dpkg-deb -f "$deb" Installed-Size) KB"
echo "Depends: $depends"
