#!/usr/bin/env bash
# The main job, end to end on this machine: a real capture against the local
# meet server. Starts velmora-devserver and, when no sound server answers, a
# private PulseAudio whose null sink plays the "call" and whose test microphone
# hears the user; plays speech into both; runs `VelmoraTessel capture` for 25
# seconds; prints the result line and checks every stored segment with ffprobe.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target VelmoraTessel velmora-devserver

work=$(mktemp -d /tmp/velmora-demo.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

# The local server: one line on stdout when it is ready.
"$root/build/bin/velmora-devserver" --data-dir "$work/server" >"$work/devserver.out" 2>"$work/devserver.err" &
pids+=($!)
for _ in $(seq 100); do
  grep -q '^velmora-devserver ready' "$work/devserver.out" 2>/dev/null && break
  sleep 0.1
done
ready=$(grep '^velmora-devserver ready' "$work/devserver.out") || { cat "$work/devserver.err"; exit 1; }
origin=$(echo "$ready" | awk '{print $3}')
echo "local server: $origin (data in $work/server)"

# A sound server: the user's own, or a private one.
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
  far_sink=speakers; near_sink=micsink
else
  echo "sound server: $(pactl info | sed -n 's/^Server Name: //p')"
  far_sink=@DEFAULT_SINK@; near_sink=""
fi

# Speech for both sides of the "call", played for longer than the capture runs.
espeak-ng -w "$work/far.wav" "This is the far end of the call. We are discussing the quarterly plan and the release schedule for the new desktop application." 2>/dev/null
espeak-ng -w "$work/near.wav" "This is the near end. I agree with the plan, and I will write the notes after this call." 2>/dev/null
sox "$work/far.wav" "$work/far-long.wav" repeat 8 2>/dev/null
sox "$work/near.wav" "$work/near-long.wav" repeat 8 2>/dev/null
paplay -d "$far_sink" "$work/far-long.wav" & pids+=($!)
if [ -n "$near_sink" ]; then paplay -d "$near_sink" "$work/near-long.wav" & pids+=($!); fi

# DEMO_SECONDS makes a longer run, e.g. to measure what a live capture costs.
seconds=${DEMO_SECONDS:-25}
TIMEFORMAT="capture process: %U s user + %S s system CPU in %R s"
time "$root/build/bin/VelmoraTessel" capture --base-url "$origin/meet" --token vses_demo \
  --title "Demo call" --counterpart "Local test" --seconds "$seconds"

echo
echo "stored tracks:"
find "$work/server" -name '*.aac' | sort
bad=0
for seg in $(find "$work/server" -name '*.aac' | sort); do
  info=$(ffprobe -v error -show_entries stream=codec_name,profile,sample_rate,channels -of csv=p=0 "$seg")
  errors=$(ffmpeg -v error -xerror -i "$seg" -f null - 2>&1 || echo failed)
  if [ "$info" != "aac,LC,16000,1" ] || [ -n "$errors" ]; then
    echo "segment does not decode as AAC-LC 16000 Hz mono: $seg ($info) $errors"; bad=1
  fi
done
[ "$bad" -eq 0 ] && echo "every segment decodes on its own as AAC-LC, 16000 Hz, mono"

# The speech must be in the tracks, not silence: the loudest moment of each track
# that was fed (on the user's own sound server the microphone hears the room).
fed="audio_remote"; [ -n "$near_sink" ] && fed="audio_local audio_remote"
for track in $fed; do
  files=$(find "$work/server" -path "*/$track/*.aac" | sort)
  [ -z "$files" ] && continue
  peak=$(cat $files | ffmpeg -v info -f aac -i - -af volumedetect -f null - 2>&1 |
    sed -n 's/.*max_volume: \(.*\) dB/\1/p')
  echo "$track: loudest moment $peak dB"
  if [ -z "$peak" ] || awk -v p="$peak" 'BEGIN { exit !(p < -40) }'; then
    echo "$track holds no sound"; bad=1
  fi
done
exit "$bad"
