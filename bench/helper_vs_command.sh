#!/usr/bin/env bash
# How fast the helper compresses a freshly watched tree beneath its view,
# against `zephlore compress -r -j1` on a copy of the same tree, in real time.
#
#   bash bench/helper_vs_command.sh [FILES] [BINDIR]
#
# FILES (20000) text files of 4-60 KB in nested folders. The helper runs with
# ZEPHLORE_CLOCK_SPEED (1000 unless set), which turns its waits by design (a
# folder's 30 s of quiet before it is walked, the 5 s delay before a batch)
# into 30 and 5 ms: what remains is its own work. Its time runs from
# `zephlore add` to its log naming the last file compressed. Runs on a tmpfs
# of its own with a private bus, HOME and XDG folders (mounting it needs root).
# ZEPHLORE_BENCH_VIEW=0 runs the helper without its view.
# ZEPHLORE_BENCH_STRACE=1 counts the helper's system calls (strace -c -f),
# which slows it: its time is then no measure.
# ZEPHLORE_BENCH_KEEP=1 keeps the folders and the helper's log.
# Besides the rate it prints CPU seconds per file (the helper with its view
# against the command) and messages on the session bus per file.
set -euo pipefail

files=${1:-20000}
bindir=$(realpath "${2:-build/bin}")

if [[ -z ${ZEPHLORE_BENCH_WORK:-} ]]; then
  work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-helper-vs-command-XXXXXX")
  if [[ ${ZEPHLORE_BENCH_KEEP:-0} == 1 ]]; then
    trap 'echo "kept: $work"' EXIT
  else
    # Under -e a failing step would end the trap early: one of them may find
    # nothing mounted.
    trap 'umount -l "$work/tree-helper" 2>/dev/null || true; umount -l "$work" 2>/dev/null || true; rm -rf "$work"' EXIT
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
export ZEPHLORE_CLOCK_SPEED=${ZEPHLORE_CLOCK_SPEED:-1000} JOURNAL_STREAM=bench
view=${ZEPHLORE_BENCH_VIEW:-1}
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

# CPU seconds of a process and its threads (utime + stime).
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo 0; }
view_pids() { pgrep -f "mount.*$work/" || true; }
ticks_per_s=$(getconf CLK_TCK)

start=$(now_ms)
TIMEFORMAT='%U %S'
command_cpu=$({ time "$zephlore" compress -r -j1 -q "$work/tree-command" >/dev/null; } 2>&1 | awk '{ print $1 + $2 }')
command_ms=$(($(now_ms) - start))
converted=$("$zephlore" info -r --json "$work/tree-command" | jq -s 'map(select(.type == "summary"))[-1].compressed_files')

if [[ $view == 1 ]]; then "$zephlore" view-on >/dev/null; else "$zephlore" view-off >/dev/null; fi
"$bindir/zephlore-helper" >"$log" 2>&1 &
helper_pid=$!
trap 'kill -KILL $helper_pid 2>/dev/null || true' EXIT
gdbus wait --session --timeout 10 com.quorvane.ZephloreHelper
dbus-monitor --session --profile >"$work/bus.log" 2>/dev/null &
monitor_pid=$!
if [[ ${ZEPHLORE_BENCH_STRACE:-0} == 1 ]]; then
  strace -c -f -o "$work/strace.txt" -p "$helper_pid" &
  strace_pid=$!
  sleep 1
fi
sleep 0.5
helper_cpu_before=$(cpu_ticks "$helper_pid")
start=$(now_ms)
"$zephlore" add "$work/tree-helper" >/dev/null
deadline=$((start + 1800000))
first_ms=
while (($(grep -c '^Compressed ' "$log" || true) < converted && $(now_ms) < deadline)); do
  [[ -z $first_ms ]] && grep -q '^Compressed ' "$log" && first_ms=$(($(now_ms) - start))
  sleep 0.2
done
helper_ms=$(($(now_ms) - start))
done_count=$(grep -c '^Compressed ' "$log" || true)
# The views serve the helper alone here: all their time counts as its.
helper_cpu=$(($(cpu_ticks "$helper_pid") - helper_cpu_before))
view_cpu=0
for pid in $(view_pids); do view_cpu=$((view_cpu + $(cpu_ticks "$pid"))); done
helper_cpu=$((helper_cpu + view_cpu))
# Where the helper's time went: its busiest threads since it started (the
# main thread is the one whose id is the process's).
threads=$(for task in /proc/"$helper_pid"/task/*; do
  echo "$(awk '{ print $14 + $15 }' "$task/stat") $( [[ ${task##*/} == "$helper_pid" ]] && echo main || cat "$task/comm")"
done | sort -rn | head -4)
kill "$monitor_pid" 2>/dev/null || true
# Messages: signals, calls, replies and errors (the monitor's own header aside).
bus_messages=$(grep -cE '^(sig|mc|mr|err)' "$work/bus.log" || true)
if [[ -n ${strace_pid:-} ]]; then
  kill -INT "$strace_pid" 2>/dev/null || true
  wait "$strace_pid" 2>/dev/null || true
fi
"$zephlore" quit >/dev/null || kill "$helper_pid"
wait "$helper_pid" || true
"$zephlore" unmount "$work/tree-helper" >/dev/null 2>&1 || umount -l "$work/tree-helper" 2>/dev/null || true
helper_converted=$("$zephlore" info -r --json "$work/tree-helper" | jq -s 'map(select(.type == "summary"))[-1].compressed_files')

echo "tree: $files files, $mib MiB; clock speed $ZEPHLORE_CLOCK_SPEED; view $([[ $view == 1 ]] && echo on || echo off); load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "zephlore compress -r -j1: $converted files in $command_ms ms"
echo "helper beneath its view: $done_count files logged, $helper_converted compressed, in $helper_ms ms (from add to the last)"
echo "first file compressed ${first_ms:-?} ms after add"
awk -v c="$command_ms" -v h="$helper_ms" 'BEGIN { printf "helper rate / command rate: %.2f\n", c / h }'
awk -v c="$command_cpu" -v n="$converted" -v h="$helper_cpu" -v t="$ticks_per_s" -v d="$done_count" -v b="$bus_messages" 'BEGIN {
  if (n > 0) printf "command CPU: %.2f ms/file\n", 1000 * c / n
  if (d > 0) printf "helper CPU (with its view): %.2f ms/file\n", 1000 * h / t / d
  if (d > 0) printf "bus messages: %d, %.1f per file\n", b, b / d
}'
if ((done_count > 0)); then
  echo "helper CPU by thread (ms/file, since start), and its views:"
  while read -r ticks name; do
    awk -v t="$ticks" -v n="$name" -v c="$ticks_per_s" -v d="$done_count" 'BEGIN { printf "  %-16s %6.2f\n", n, 1000 * t / c / d }'
  done <<<"$threads"
  awk -v t="$view_cpu" -v c="$ticks_per_s" -v d="$done_count" 'BEGIN { printf "  %-16s %6.2f\n", "views", 1000 * t / c / d }'
  echo "bus messages per file by member:"
  awk -F'\t' -v d="$done_count" '$1 ~ /^(sig|mc|mr|err)$/ { n[$1 " " $NF]++ }
    END { for (m in n) if (n[m] / d >= 0.05) printf "  %-32s %6.2f\n", m, n[m] / d }' "$work/bus.log" | sort -k3 -rn
fi
if [[ -s $work/strace.txt ]]; then
  echo "helper system calls per file (strace -c -f):"
  awk -v d="$done_count" '$1 ~ /^[0-9.]+$/ && NF >= 5 {
    name = $NF; calls = $4; errors = (NF == 6) ? $5 : 0
    if (calls / d >= 0.5) printf "  %-16s %8.1f calls %6.1f failed\n", name, calls / d, errors / d
  }' "$work/strace.txt"
fi
