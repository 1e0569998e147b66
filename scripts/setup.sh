#!/usr/bin/env bash
# Installs every Debian package Zephlore needs to build, run, test and
# benchmark. Idempotent: when everything is present it only checks and returns.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  zlib1g-dev libdeflate-dev libsqlite3-dev libplist-dev libglib2.0-dev libglib2.0-bin
  libcli11-dev nlohmann-json3-dev libacl1-dev libfuse3-dev fuse3
  libnotify-dev libdbusmenu-glib-dev
  dbus dbus-daemon attr acl pigz xfsprogs btrfs-progs e2fsprogs time
  python3-dbusmock bindfs rsync dpkg-dev autoconf automake perl
  libgtkmm-4.0-dev libadwaita-1-dev gettext
  python3-dogtail python3-pyatspi xvfb x11-apps xauth at-spi2-core netpbm
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
