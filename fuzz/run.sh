#!/usr/bin/env bash
# run.sh BUILD_DIR [SECONDS]: runs each fuzz target for a bounded time from the
# seed corpus; exits non-zero when a target finds a crash, leak or timeout.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: fuzz/run.sh BUILD_DIR [SECONDS]}
seconds=${2:-${FUZZ_SECONDS:-60}}
bin="$build/bin/fork_parser_fuzz"
if [ ! -x "$bin" ]; then
  echo "fuzz/run.sh: $bin is missing (configure with clang and -DZEPHLORE_FUZZ=ON)" >&2
  exit 1
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
# Grow a scratch copy so the committed seeds stay as they are; findings go to
# the build directory so they outlive this run.
mkdir -p "$work/corpus" "$build/fuzz-findings"
cp fuzz/corpus/* "$work/corpus/"
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
  "$bin" "$work/corpus" -max_total_time="$seconds" -max_len=262144 -timeout=20 -rss_limit_mb=2048 \
  -print_final_stats=1 -artifact_prefix="$build/fuzz-findings/"
