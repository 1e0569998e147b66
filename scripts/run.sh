#!/usr/bin/env bash
# run.sh [FOLDER...]: installs what is missing, builds, and runs zephlore-helper
# in the foreground (logs on the terminal; Ctrl-C ends it cleanly).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ] && command -v dbus-run-session >/dev/null; then
  # No session bus (a server, a container): give the helper a private one.
  exec dbus-run-session -- build/bin/zephlore-helper "$@"
fi
exec build/bin/zephlore-helper "$@"
