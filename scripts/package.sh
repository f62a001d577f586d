#!/usr/bin/env bash
# Builds the Debian package offline from this tree (dpkg-buildpackage -us -uc
# -b) and checks it with lintian: any error or warning fails. The package, its
# -dbgsym companion, .buildinfo and .changes land in the folder given
# (default: dist/).
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-dist}")
bash scripts/setup.sh

work=$(mktemp -d /tmp/velmora-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
# dpkg-buildpackage writes its results beside the source folder: it builds a
# copy, without the build trees, the VCS and earlier results.
mkdir "$work/src"
tar --exclude-vcs --exclude='./build*' --exclude=./dist --exclude=./screenshots \
  --exclude=./.cache -cf - . | tar -xf - -C "$work/src"
echo "package: building (dpkg-buildpackage -us -uc -b)"
(cd "$work/src" &&
  DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" nice dpkg-buildpackage -us -uc -b \
    >"$work/build.log" 2>&1) || { tail -n 60 "$work/build.log"; echo "package: the build failed" >&2; exit 1; }

mkdir -p "$out"
rm -f "$out"/velmora-tessel_* "$out"/velmora-tessel-dbgsym_*
cp "$work"/*.deb "$work"/*.buildinfo "$work"/*.changes "$out"/
changes=$(ls "$out"/velmora-tessel_*.changes)
echo "package: lintian $(basename "$changes")"
lintian --fail-on error,warning "$changes"
ls -l "$out"
