#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
#   scripts/test.sh              release build, the whole suite and the Debian
#                                package's check (tests/package/check.sh)
#   scripts/test.sh --sanitizers also the address+undefined and thread builds
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

run_preset() {
  local preset=$1
  echo "== $preset: configure and build"
  # A tryout may have carried the stand-in helpers or a folder of them: the
  # suite runs without.
  cmake --preset "$preset" -DTESSEL_HELPERS_FAKE=OFF -DTESSEL_HELPERS_SOURCE= >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
  echo "== $preset: tests"
  ctest --preset "$preset" -j "$(nproc)"
}

run_preset release
echo "== Debian package: build, lintian, the unpacked program"
bash tests/package/check.sh
if [ "${1:-}" = "--sanitizers" ]; then
  run_preset asan
  run_preset tsan
fi
