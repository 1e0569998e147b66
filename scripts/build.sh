#!/usr/bin/env bash
# build.sh [BUILD_DIR [cmake options...]]: configures and builds one tree.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
# Options given for an existing tree configure it again, so they take effect.
if [ ! -f "$dir/build.ninja" ] || [ "$#" -gt 0 ]; then
  cmake -S . -B "$dir" -G Ninja "$@"
fi
cmake --build "$dir" --parallel "$(nproc)"
