#!/usr/bin/env bash
# How fast the helper compresses a freshly watched tree beneath its view,
# against `zephlore compress -r -j1` on a copy of the same tree, in real time.
#
#   bash bench/helper_vs_command.sh [FILES] [BINDIR]
#
# FILES (20000) text files of 4-60 KB in nested folders. The helper runs with
# ZEPHLORE_CLOCK_SPEED=1000, which turns its waits by design (a folder's
# 30 s of quiet before it is walked, the 5 s delay before a batch) into 30
# and 5 ms: what remains is its own work. Its time runs from `zephlore add`
# to its log naming the last file compressed. Runs on a tmpfs of its own with
# a private bus, HOME and XDG folders (mounting it needs root).
# ZEPHLORE_BENCH_KEEP=1 keeps the folders and the helper's log.
set -euo pipefail

files=${1:-20000}
bindir=$(realpath "${2:-build/bin}")

if [[ -z ${ZEPHLORE_BENCH_WORK:-} ]]; then
  work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-helper-vs-command-XXXXXX")
  if [[ ${ZEPHLORE_BENCH_KEEP:-0} == 1 ]]; then
    trap 'echo "kept: $work"' EXIT
  else
    trap 'umount -l "$work/tree-helper" 2>/dev/null; umount -l "$work" 2>/dev/null; rm -rf "$work"' EXIT
  fi
  if [[ $(stat -f -c %T "$work") != tmpfs ]] && ! mount -t tmpfs -o size=4g,mode=700 tmpfs "$work"; then
    echo "needs a tmpfs: run as root, or with TMPDIR on a tmpfs outside /dev" >&2
    exit 2
  fi
  export ZEPHLORE_BENCH_WORK=$work
  export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_CONFIG_HOME=$work/home/.config
  export XDG_CACHE_HOME=$work/home/.cache XDG_RUNTIME_DIR=$work/run
  mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
  status=0
  dbus-run-session -- bash "$0" "$files" "$bindir" || status=$?
  exit "$status"
fi

work=$ZEPHLORE_BENCH_WORK
zephlore=$bindir/zephlore
log=$work/helper.log
export ZEPHLORE_CLOCK_SPEED=1000 JOURNAL_STREAM=bench
now_ms() { date +%s%3N; }

# Lines of words and numbers, as notes and sources read; seeded.
python3 - "$work/tree-command" "$files" <<'EOF'
import os, random, sys
root, count = sys.argv[1], int(sys.argv[2])
words = ("alpha the report budget meeting int return value quarterly notes review draft table figure "
         "section static const string folder should could before after client server TODO index").split()
rng = random.Random(20)
for i in range(count):
    folder = os.path.join(root, f"area{i % 20}", f"topic{i % 13}", f"part{i % 4}")
    os.makedirs(folder, exist_ok=True)
    size = 4096 + rng.randrange(56000)
    lines = []
    total = 0
    while total < size:
        line = " ".join(rng.choice(words) + (str(rng.randrange(10000)) if rng.random() < 0.15 else "")
                        for _ in range(3 + rng.randrange(12)))
        lines.append(line)
        total += len(line) + 1
    with open(os.path.join(folder, f"note-{i}.txt"), "w") as f:
        f.write("\n".join(lines)[:size])
EOF
cp -a "$work/tree-command" "$work/tree-helper"
mib=$(du -sm --apparent-size "$work/tree-command" | cut -f1)

start=$(now_ms)
"$zephlore" compress -r -j1 -q "$work/tree-command"
command_ms=$(($(now_ms) - start))
converted=$("$zephlore" info -r --json "$work/tree-command" | jq -s 'map(select(.type == "summary"))[-1].compressed_files')

"$zephlore" view-on >/dev/null
"$bindir/zephlore-helper" >"$log" 2>&1 &
helper_pid=$!
trap 'kill -KILL $helper_pid 2>/dev/null || true' EXIT
gdbus wait --session --timeout 10 com.quorvane.ZephloreHelper
start=$(now_ms)
"$zephlore" add "$work/tree-helper" >/dev/null
deadline=$((start + 1800000))
while (($(grep -c '^Compressed ' "$log" || true) < converted && $(now_ms) < deadline)); do
  sleep 0.2
done
helper_ms=$(($(now_ms) - start))
done_count=$(grep -c '^Compressed ' "$log" || true)
"$zephlore" quit >/dev/null || kill "$helper_pid"
wait "$helper_pid" || true
"$zephlore" unmount "$work/tree-helper" >/dev/null 2>&1 || umount -l "$work/tree-helper" 2>/dev/null || true
helper_converted=$("$zephlore" info -r --json "$work/tree-helper" | jq -s 'map(select(.type == "summary"))[-1].compressed_files')

echo "tree: $files files, $mib MiB"
echo "zephlore compress -r -j1: $converted files in $command_ms ms"
echo "helper beneath its view: $done_count files logged, $helper_converted compressed, in $helper_ms ms (from add to the last)"
awk -v c="$command_ms" -v h="$helper_ms" 'BEGIN { printf "helper rate / command rate: %.2f\n", c / h }'
