#!/usr/bin/env bash
# bench/round_trip.sh: a 1 GiB compressible file on tmpfs compressed in place,
# expanded in place and compared, on one thread and on all cores; reports
# the time of each stage and the peak memory (which must stay bounded: it
# does not grow with the file).
#
#   bash bench/round_trip.sh            (BUILD=build, MIB=1024)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${BUILD:-build}
MIB=${MIB:-1024}
bin="$BUILD/bin/round_trip_bench"
[ -x "$bin" ] || { echo "build first: bash scripts/build.sh $BUILD" >&2; exit 2; }
command -v /usr/bin/time >/dev/null || { echo "round_trip.sh needs /usr/bin/time" >&2; exit 2; }

log=$(mktemp)
trap 'rm -f "$log"' EXIT
ZEPHLORE_BENCH_MIB=$MIB /usr/bin/time -v "$bin" --benchmark_counters_tabular=true 2>"$log"
grep -E "Elapsed \(wall clock\)|Maximum resident set size" "$log"
