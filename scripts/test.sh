#!/usr/bin/env bash
# test.sh: installs what is missing, builds, and runs every test: the normal
# build (under ctest, then each test binary once in one process), then
# ASan+UBSan, then TSan over the threaded parts, then a bounded fuzzing run of
# the format parser.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

echo "== build and test (RelWithDebInfo)"
bash scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs"
# Once more with all tests of a binary in one process: no test may depend on
# running alone, and a wait that never ends fails within seconds.
echo "== each test binary in one process"
for suite in build/bin/*_tests; do
  echo "-- $suite"
  "$suite" --gtest_brief=1 --gtest_filter='-*Heavy*'  # the heavy suites ran above
done

echo "== ASan + UBSan"
bash scripts/build.sh build-asan -DZEPHLORE_SANITIZE=address -DZEPHLORE_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

# Suites named *Heavy* (many processes, big files) gain nothing from TSan.
# The view's tests (MountCommands) run under ASan only: libfuse reads the
# descriptors the view hands it after the view's callback returns, and the
# kernel orders that before the file's release through /dev/fuse, which the
# thread checker cannot see, so it reports races that cannot happen.
echo "== TSan (threaded parts)"
bash scripts/build.sh build-tsan -DZEPHLORE_SANITIZE=thread -DZEPHLORE_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1 \
  ctest --test-dir build-tsan --output-on-failure -j "$jobs" -E 'Heavy|MountCommands'

if [ -d fuzz ] && ls fuzz/*.cc >/dev/null 2>&1; then
  echo "== fuzzing (bounded)"
  bash scripts/build.sh build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DZEPHLORE_FUZZ=ON -DZEPHLORE_BENCH=OFF -DZEPHLORE_SANITIZE=address
  bash fuzz/run.sh build-fuzz
fi
