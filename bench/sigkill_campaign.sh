#!/usr/bin/env bash
# Kills `zephlore compress -r` and `decompress -r` with SIGKILL at random
# moments, many times over one tree, then runs the command once more as a user
# would and checks that nothing is left behind and no file lost its content.
#
#   bash bench/sigkill_campaign.sh [KILLS] [ZEPHLORE]
#
# Runs on tmpfs (/dev/shm), with a data folder of its own.
set -euo pipefail

kills=${1:-1000}
zephlore=${2:-build/bin/zephlore}
zephlore=$(realpath "$zephlore")
work=$(mktemp -d /dev/shm/zephlore-sigkill-XXXXXX)
trap 'rm -rf "$work"' EXIT
export XDG_DATA_HOME="$work/data" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
tree="$work/tree"

# Files from 5 KB to 2 MB in three folders: text that compresses, a sparse
# file, and a file that does not shrink.
for dir in a a/b c; do
  mkdir -p "$tree/$dir"
  for i in 1 2 3 4 5 6; do
    size=$(( (RANDOM % 400 + 5) * 1024 * (i % 3 + 1) ))
    seq -f "line %g of $dir/$i" 1 $((size / 16)) >"$tree/$dir/text$i"
    truncate -s "$size" "$tree/$dir/text$i"
  done
  head -c 300000 /dev/urandom >"$tree/$dir/noise"
  truncate -s 3M "$tree/$dir/sparse" && printf 'inside' | dd of="$tree/$dir/sparse" bs=1 seek=1000000 conv=notrunc status=none
done
(cd "$tree" && find . -type f -exec sha256sum {} + | sort -k2) >"$work/before"

signalled=0
finished=0
for ((n = 0; n < kills; )); do
  if ((RANDOM % 2)); then op=compress; else op=decompress; fi
  "$zephlore" "$op" -r -q -j 2 "$tree" >/dev/null 2>&1 &
  pid=$!
  # 0..40 ms: lands anywhere from the walk to the last swap.
  sleep "0.0$((RANDOM % 40 + 1))" 2>/dev/null || sleep 0.01
  if kill -KILL "$pid" 2>/dev/null; then
    n=$((n + 1))
    signalled=$((signalled + 1))
  else
    finished=$((finished + 1))
  fi
  wait "$pid" 2>/dev/null || true
done

leftovers_before=$(find "$tree" -name '.zephlore-*' | wc -l)
records_before=$(find "$XDG_DATA_HOME" -name 'inprocess-*.kr' 2>/dev/null | wc -l)

# One ordinary run, as a user would start it.
"$zephlore" decompress -r -q "$tree" || true

leftovers=$(find "$tree" -name '.zephlore-*' | wc -l)
records=$(find "$XDG_DATA_HOME" -name 'inprocess-*.kr' 2>/dev/null | wc -l)
(cd "$tree" && find . -type f -exec sha256sum {} + | sort -k2) >"$work/after"
changed=$(diff "$work/before" "$work/after" | grep -c '^>' || true)
sparse_kib=$(du -k "$tree/a/sparse" | cut -f1)

echo "kills: $signalled (runs that finished before their kill: $finished)"
echo "left after the kills: $leftovers_before temporaries, $records_before records"
echo "after one ordinary run: $leftovers temporaries, $records records of gone runs, $changed files changed"
echo "sparse file of 3 MiB after the run: $sparse_kib KiB on disk"
[[ $leftovers -eq 0 && $records -eq 0 && $changed -eq 0 ]]
