#!/usr/bin/env bash
# run.sh [FOLDER...]: installs what is missing, builds, and runs zephlore-helper
# in the foreground (its log on the terminal: each folder watched, each
# analysis with its counts, each file compressed with the bytes saved; Ctrl-C
# ends it cleanly, status 0), watching the FOLDERs. On a desktop (a display
# is set) the preference window opens beside it once the helper is up;
# ZEPHLORE_NO_WINDOW=1 leaves it closed.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build

if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ] && [ ! -S "${XDG_RUNTIME_DIR:-/nonexistent}/bus" ]; then
  # No session bus (a server, a container): start a private one for this run,
  # in its own session so that a Ctrl-C reaches the helper only. A small
  # watcher ends the bus once the helper (this process, after exec) is gone;
  # it ignores the signals that end the helper, a terminal's hang-up too, so
  # that it outlives the helper and never leaves the bus behind.
  bus_info=$(dbus-daemon --session --fork --print-address=1 --print-pid=1)
  DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus_info")
  export DBUS_SESSION_BUS_ADDRESS
  bus_pid=$(sed -n 2p <<<"$bus_info")
  echo "run.sh: started a private session bus at $DBUS_SESSION_BUS_ADDRESS" >&2
  helper_pid=$$
  (trap "" INT TERM HUP; while kill -0 "$helper_pid" 2>/dev/null; do sleep 1; done; kill "$bus_pid" 2>/dev/null) </dev/null >/dev/null 2>&1 &
fi

if [ $# -gt 0 ]; then
  # Once the helper owns its bus name, hand it the folders and let it work.
  (gdbus wait --session --timeout 30 com.quorvane.ZephloreHelper &&
   build/bin/zephlore add "$@" && build/bin/zephlore activate) &
fi

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ "${ZEPHLORE_NO_WINDOW:-0}" != 1 ]; then
  # Started from a subshell that ends at once: the helper (this process,
  # after exec) is no parent to be left a finished child it never reaps.
  ( (gdbus wait --session --timeout 30 com.quorvane.ZephloreHelper && build/bin/zephlore preferences) & )
fi

exec build/bin/zephlore-helper
