#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the demo and the Debian
# package need.
# Runs without a terminal: nothing prompts. Uses sudo only when not root.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config clang-format
  clang libclang-rt-14-dev
  qt6-base-dev qcoro-qt6-dev nlohmann-json3-dev libcpp-httplib-dev libssl-dev libcurl4-openssl-dev
  libavcodec-dev libavutil-dev libswresample-dev libpulse-dev
  libsecret-1-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  ffmpeg pulseaudio pulseaudio-utils espeak-ng sox
  dbus dbus-daemon gnome-keyring libsecret-tools curl ca-certificates openssl procps
  unzip python3
  xdg-utils xvfb xdotool x11-utils libx11-dev libxdamage-dev adwaita-qt6
  at-spi2-core python3-pyatspi libqt6svg6 xfwm4 xfce4-panel xfconf
  dpkg-dev debhelper lintian desktop-file-utils appstream
)

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo -n); fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -q
  "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "setup: every package is present"
fi
