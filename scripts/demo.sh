#!/usr/bin/env bash
# The main job, end to end on this machine: a real capture against the local
# meet server. Starts velmora-devserver and, when no sound server answers, a
# private PulseAudio whose null sink plays the "call" and whose test microphone
# hears the user; plays speech into both; runs `VelmoraTessel capture` for 25
# seconds; prints the result line and checks every stored segment with ffprobe.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d /tmp/velmora-demo.XXXXXX)
source scripts/private-desktop.sh
build_program
start_devserver
echo "local server: $origin (data in $work/server)"
private_sound

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
