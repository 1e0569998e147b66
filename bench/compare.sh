#!/usr/bin/env bash
# bench/compare.sh: zephlore side by side with gzip and pigz, in one run, on
# the same data in tmpfs (/dev/shm).
#
#   bash bench/compare.sh
#
# Measures: compression of one large file (zephlore compress, pigz -5 -p N,
# gzip -5), reading it back (zephlore cat, pigz -d -c, gzip -d -c), a tree of
# 20,000 files of 4 to 256 KiB (zephlore compress -r against pigz -5 -r), the
# machine's limit for this format (one thread's zlib level-5 speed on 64 KiB
# blocks, times the cores), and peak memory. Prints the ratios against the
# targets. Every timing is the best of REPEAT runs.
#
# Knobs (environment): BUILD (build directory, default "build"), REPEAT (3),
# CORPUS_MIB (256), BIG_MIB (1024, the memory run), TREE_FILES (20000),
# JOBS (default: the number of cores), KEEP=1 keeps the work folder.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build}
REPEAT=${REPEAT:-3}
CORPUS_MIB=${CORPUS_MIB:-256}
BIG_MIB=${BIG_MIB:-1024}
TREE_FILES=${TREE_FILES:-20000}
JOBS=${JOBS:-$(nproc)}

for tool in pigz gzip perl /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "compare.sh needs $tool" >&2; exit 2; }
done

echo "== building the release tree ($BUILD)"
if ! bash scripts/build.sh "$BUILD" >/dev/null; then
  echo "build failed" >&2
  exit 2
fi
ZEPHLORE=$PWD/$BUILD/bin/zephlore
LIMIT_BENCH=$PWD/$BUILD/bin/zlib_limit_bench
[ -x "$ZEPHLORE" ] && [ -x "$LIMIT_BENCH" ] || { echo "missing $ZEPHLORE or $LIMIT_BENCH" >&2; exit 2; }

WORK=$(mktemp -d /dev/shm/zephlore-bench.XXXXXX)
cleanup() { [ "${KEEP:-0}" = 1 ] || rm -rf "$WORK"; }
trap cleanup EXIT
cd "$WORK"

now() { date +%s.%N; }
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
rate() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.1f", b / 1048576 / s }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

# best PREPARE COMMAND: runs PREPARE (untimed) then COMMAND (timed) REPEAT
# times; prints the best time in seconds.
best() {
  local prepare=$1 command=$2 best= t0 t1 t
  for _ in $(seq "$REPEAT"); do
    eval "$prepare"
    t0=$(now)
    eval "$command"
    t1=$(now)
    t=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }')
    if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then best=$t; fi
  done
  echo "$best"
}

# --- The corpus: the system's headers and documentation, in name order,
# concatenated until it is large enough. The same bytes on the same system.
# Files that are compressed already are left out: a 64 KiB block that zlib
# cannot fit in 64 KiB makes the whole file not compressible in this format.
echo "== corpus of $CORPUS_MIB MiB"
find /usr/include /usr/share/doc -type f \
  ! -iname '*.gz' ! -iname '*.xz' ! -iname '*.bz2' ! -iname '*.zst' ! -iname '*.lz*' ! -iname '*.zip' \
  ! -iname '*.png' ! -iname '*.jp*g' ! -iname '*.gif' ! -iname '*.ico' ! -iname '*.pdf' ! -iname '*.woff*' \
  -print0 2>/dev/null | LC_ALL=C sort -z > files.lst
: > corpus
want=$((CORPUS_MIB * 1048576))
while [ "$(stat -c %s corpus)" -lt "$want" ]; do
  xargs -0 cat < files.lst >> corpus 2>/dev/null || true
done
truncate -s "$want" corpus
SIZE=$(stat -c %s corpus)

# --- One large file.
echo "== one large file: compress (best of $REPEAT)"
t_ours=$(best "rm -f big; cp corpus big" "'$ZEPHLORE' compress --quiet -j $JOBS big")
"$ZEPHLORE" info --json big > big.info
grep -q '"compressed":true' big.info || { echo "zephlore did not compress the file" >&2; cat big.info >&2; exit 1; }
fork_size=$(sed -n 's/.*"fork_size":\([0-9]*\).*/\1/p' big.info)
t_pigz=$(best "rm -f big.pigz.gz" "pigz -5 -p $JOBS -c corpus > big.pigz.gz")
t_gzip=$(best "rm -f big.gz" "gzip -5 -c corpus > big.gz")

echo "== the machine's limit"
ZEPHLORE_BENCH_CORPUS=$WORK/corpus "$LIMIT_BENCH" --benchmark_format=json > limit.json 2>/dev/null
bps() { awk -v n="$1" '$0 ~ "\"name\": \"" n "[/\"]" { hit = 1 } hit && /"bytes_per_second"/ { gsub(/[^0-9.e+]/, "", $2); print $2; exit }' limit.json; }
one_thread=$(bps BM_Level5Blocks)
one_thread_verify=$(bps BM_Level5BlocksWithInflate)
limit=$(awk -v r="$one_thread" -v c="$JOBS" 'BEGIN { printf "%.0f", r * c }')
limit_verify=$(awk -v r="$one_thread_verify" -v c="$JOBS" 'BEGIN { printf "%.0f", r * c }')

echo "== reading it back (best of $REPEAT)"
"$ZEPHLORE" cat big | cmp -s - corpus || { echo "zephlore cat does not give the original back" >&2; exit 1; }
t_cat=$(best ":" "'$ZEPHLORE' cat big > /dev/null")
t_pigzd=$(best ":" "pigz -d -c big.pigz.gz > /dev/null")
t_gzipd=$(best ":" "gzip -d -c big.gz > /dev/null")

# --- A tree of small files: sizes 4 to 256 KiB, slices of the corpus, in
# folders of 200. Deterministic from the file number.
echo "== tree of $TREE_FILES files"
perl -e '
  my ($n, $corpus, $size) = @ARGV;
  open(my $in, "<:raw", $corpus) or die;
  for my $i (0 .. $n - 1) {
    my $dir = sprintf("tree/d%03d", int($i / 200));
    mkdir "tree"; mkdir $dir;
    my $len = 4096 + ($i * 2654435761) % (256 * 1024 - 4096 + 1);
    my $off = ($i * 40503 * 4099) % ($size - $len);
    seek($in, $off, 0); read($in, my $buf, $len);
    open(my $out, ">:raw", sprintf("%s/f%05d", $dir, $i)) or die;
    print $out $buf; close $out;
  }' "$TREE_FILES" corpus "$SIZE"
TREE_BYTES=$(find tree -type f -printf '%s\n' | awk '{ s += $1 } END { print s }')
t_tree=$(best "rm -rf t1; cp -a tree t1" "/usr/bin/time -v -o tree.time '$ZEPHLORE' compress -r --json -j $JOBS t1 > tree.json")
tree_done=$(sed -n 's/.*"compressed":\([0-9]*\).*/\1/p' tree.json)
[ "$tree_done" = "$TREE_FILES" ] || { echo "zephlore compressed $tree_done of $TREE_FILES files" >&2; cat tree.json >&2; exit 1; }
rss_tree=$(awk -F: '/Maximum resident/ { gsub(/ /, "", $2); print $2 }' tree.time)
t_tree_pigz=$(best "rm -rf t2; cp -a tree t2" "pigz -5 -p $JOBS -r t2")
rm -rf t1 t2 tree

# --- Peak memory for one 1 GiB file. A file's attribute names must fit in
# 64 KiB, which caps a fork near 130 MB; so each MiB of this file is a
# quarter of corpus and three quarters of zeros (a fork of about 55 MB).
echo "== peak memory, $BIG_MIB MiB file"
perl -e '
  my ($mib, $corpus, $size) = @ARGV;
  open(my $in, "<:raw", $corpus) or die;
  open(my $out, ">:raw", "huge") or die;
  my $zeros = "\0" x (768 * 1024);
  for my $i (0 .. $mib - 1) {
    seek($in, ($i * 262144) % ($size - 262144), 0); read($in, my $buf, 262144);
    print $out $buf, $zeros;
  }' "$BIG_MIB" corpus "$SIZE"
/usr/bin/time -v -o huge.time "$ZEPHLORE" compress --quiet -j "$JOBS" huge
"$ZEPHLORE" info --json huge | grep -q '"compressed":true' || { echo "zephlore did not compress the $BIG_MIB MiB file" >&2; exit 1; }
rss_big=$(awk -F: '/Maximum resident/ { gsub(/ /, "", $2); print $2 }' huge.time)
rm -f huge

# --- Report.
echo
echo "Results: $JOBS cores, corpus $(mib "$SIZE") MiB, tree $TREE_FILES files / $(mib "$TREE_BYTES") MiB, tmpfs"
printf '  %-44s %9s %10s %12s\n' "" seconds "MiB/s" "output MiB"
row() { printf '  %-44s %9s %10s %12s\n' "$1" "$2" "$(rate "$3" "$2")" "${4:-}"; }
row "compress  zephlore compress -j $JOBS" "$t_ours" "$SIZE" "$(mib "$fork_size")"
row "compress  pigz -5 -p $JOBS" "$t_pigz" "$SIZE" "$(mib "$(stat -c %s big.pigz.gz)")"
row "compress  gzip -5" "$t_gzip" "$SIZE" "$(mib "$(stat -c %s big.gz)")"
printf '  %-44s %9s %10s\n' "limit     zlib -5, 64 KiB blocks, 1 thread x $JOBS" "" "$(rate "$limit" 1)"
printf '  %-44s %9s %10s\n' "          + checking each block (libdeflate)" "" "$(rate "$limit_verify" 1)"
row "cat       zephlore cat" "$t_cat" "$SIZE"
row "cat       pigz -d -c" "$t_pigzd" "$SIZE"
row "cat       gzip -d -c" "$t_gzipd" "$SIZE"
row "tree      zephlore compress -r -j $JOBS" "$t_tree" "$TREE_BYTES"
row "tree      pigz -5 -r -p $JOBS" "$t_tree_pigz" "$TREE_BYTES"
printf '  %-44s %9s\n' "peak RSS  zephlore compress, $BIG_MIB MiB file" "$((rss_big / 1024)) MiB"
printf '  %-44s %9s\n' "peak RSS  zephlore compress -r, the tree" "$((rss_tree / 1024)) MiB"

echo
echo "Ratios (speed: ours / theirs; higher is better)"
verdict() { awk -v v="$1" -v t="$2" -v op="$3" 'BEGIN { ok = (op == ">=") ? v >= t : v <= t; print ok ? "ok" : "MISSED" }'; }
check() { printf '  %-44s %7s   target %s %-5s %s\n' "$1" "$2" "$3" "$4" "$(verdict "$2" "$4" "$3")"; }
ours_bps=$(awk -v b="$SIZE" -v s="$t_ours" 'BEGIN { print b / s }')
check "compress vs pigz -5 -p $JOBS" "$(ratio "$t_pigz" "$t_ours")" ">=" 1.00
check "compress vs the machine's limit" "$(ratio "$ours_bps" "$limit")" ">=" 0.90
printf '  %-44s %7s   (what checking every block leaves)\n' "compress vs the limit with checking" "$(ratio "$ours_bps" "$limit_verify")"
check "cat vs gzip -d -c" "$(ratio "$t_gzipd" "$t_cat")" ">=" 1.50
check "tree vs pigz -5 -r" "$(ratio "$t_tree_pigz" "$t_tree")" ">=" 1.00
check "peak memory for $BIG_MIB MiB (MiB)" "$((rss_big / 1024))" "<=" 64
