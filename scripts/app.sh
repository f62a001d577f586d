#!/usr/bin/env bash
# The tray application against the local server: starts velmora-devserver over
# HTTPS, points the program at it through VELMORA_TESSEL_ENDPOINTS, and brings
# up what the desktop lacks — a session bus, a keyring (Secret Service), a sound
# server, a display — as private ones, and the sibling tools as the project's
# stand-ins (velmora-faketool). Then a person can sign in (approve the
# code on the local server's /device page), take notes on a call, and see it
# listed and stopped. Ctrl-C ends it all.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d /tmp/velmora-app.XXXXXX)
source scripts/private-desktop.sh
stand_ins=ON
build_program
start_devserver --https

write_endpoints "$work/endpoints.json"

private_bus
private_keyring
private_sound
private_display
stand_in_tools

cat <<NOTE
local server: $origin (data in $work/server)
endpoints:    $VELMORA_TESSEL_ENDPOINTS

In the tray (or the Velmora window): Sign in… opens $origin/device in the
browser; approve the code shown there. Then Take notes starts a call, the
popover shows it running, and Stop & write notes closes it. Calls left open
on the server are listed with their own Stop.

The sibling tools are stand-ins (velmora-faketool): "Infra · acme" offers Set
up… for the conductor (slug and port come filled in; any secrets do), after
which the conductor, tunnel and agent supervisor rows show with Restart;
the Subscriptions row opens cards of four stand-in seats. Their runs are
logged to $VELMORA_FAKETOOL_LOG.
NOTE
"$root/build/bin/VelmoraTessel"
