#!/usr/bin/env bash
# package.sh: builds the three programs for /usr and makes the .deb in build-deb/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# Only the programs: the install step must not build every test first.
cmake -S . -B build-deb -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DZEPHLORE_BENCH=OFF -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON "${launcher[@]}" >/dev/null
cmake --build build-deb --target zephlore zephlore-helper zephlore-preferences
(cd build-deb && cpack -G DEB)
ls -l build-deb/*.deb
