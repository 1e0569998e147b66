#!/usr/bin/env bash
# test.sh: installs what is missing, builds, and runs every test: the normal
# build (under ctest, then each test binary once in one process), then
# ASan+UBSan, then TSan over the threaded parts, then a bounded fuzzing run of
# the format parser.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)
# Each stage prints the seconds since the start, so the log shows what each took.
stage() { echo "== $1 (at ${SECONDS}s)"; }

stage "build and test (RelWithDebInfo)"
bash scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs"
# Once more with all tests of a binary in one process: no test may depend on
# running alone, and a wait that never ends fails within seconds.
stage "each test binary in one process"
for suite in build/bin/*_tests; do
  echo "-- $suite"
  "$suite" --gtest_brief=1 --gtest_filter='-*Heavy*'  # the heavy suites ran above
done

# The ASan tree is built with clang, which builds it in about a third of the
# time GCC takes, and carries the fuzz targets too, so one build serves both
# stages.
clang=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
stage "ASan + UBSan"
bash scripts/build.sh build-asan "${clang[@]}" -DZEPHLORE_SANITIZE=address -DZEPHLORE_BENCH=OFF -DZEPHLORE_FUZZ=ON
# The *Heavy* suites (crash campaigns of many processes, big files) ran in the
# normal build; under ASan they take minutes and run the code the other tests
# run.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" -E Heavy

# Suites named *Heavy* (many processes, big files) gain nothing from TSan.
# The view's tests (MountCommands) run under ASan only: libfuse reads the
# descriptors the view hands it after the view's callback returns, and the
# kernel orders that before the file's release through /dev/fuse, which the
# thread checker cannot see, so it reports races that cannot happen.
# The TSan tree stays with GCC: clang's thread checker reports GLib's own
# hand-overs between its worker threads (memory GLib allocates on one thread
# and frees on its "gdbus" thread) as races; GCC's does not.
stage "TSan (threaded parts)"
bash scripts/build.sh build-tsan -DZEPHLORE_SANITIZE=thread -DZEPHLORE_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1 \
  ctest --test-dir build-tsan --output-on-failure -j "$jobs" -E 'Heavy|MountCommands'

stage "fuzzing (bounded)"
bash fuzz/run.sh build-asan
stage "done"
