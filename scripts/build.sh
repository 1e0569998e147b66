#!/usr/bin/env bash
# build.sh [BUILD_DIR [cmake options...]]: configures and builds one tree.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
fi
cmake --build "$dir" --parallel "$(nproc)"
