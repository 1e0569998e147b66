#!/usr/bin/env bash
# Kills the running zephlore-helper with SIGKILL at random moments while it
# compresses a watched tree, many times over, then lets one ordinary run work
# and quit, and checks that every file reads back whole through `zephlore cat`,
# that no temporary is left and that the record of the file in process was
# settled.
#
#   bash bench/helper_sigkill_campaign.sh [KILLS] [MAX_MS] [BINDIR]
#
# KILLS (1000): helper runs ended by SIGKILL; MAX_MS (600): each run lives a
# random 0..MAX_MS ms. Between runs 10 files are saved afresh (the same
# content under a new inode, as an editor saves), so the helper always finds
# work. ZEPHLORE_CAMPAIGN_KEEP=1 keeps the folders and the helper's log. Runs on a tmpfs of its own under /tmp (mounting it
# needs root; the helper's rules keep it out of /dev/shm) with a private
# session bus, HOME and XDG folders, and the helper's waits 1000 times shorter.
set -euo pipefail

kills=${1:-1000}
max_ms=${2:-600}
bindir=$(realpath "${3:-build/bin}")

# The outer half: private folders and a private bus, then the campaign inside.
if [[ -z ${ZEPHLORE_CAMPAIGN_WORK:-} ]]; then
  work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-helper-sigkill-XXXXXX")
  if [[ ${ZEPHLORE_CAMPAIGN_KEEP:-0} == 1 ]]; then
    trap 'echo "kept: $work"' EXIT
  else
    trap 'umount "$work" 2>/dev/null; rm -rf "$work"' EXIT
  fi
  if [[ $(stat -f -c %T "$work") != tmpfs ]] && ! mount -t tmpfs -o size=4g,mode=700 tmpfs "$work"; then
    echo "needs a tmpfs: run as root, or with TMPDIR on a tmpfs outside /dev" >&2
    exit 2
  fi
  export ZEPHLORE_CAMPAIGN_WORK=$work
  export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_CONFIG_HOME=$work/home/.config
  export XDG_CACHE_HOME=$work/home/.cache XDG_RUNTIME_DIR=$work/run
  mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
  status=0
  dbus-run-session -- bash "$0" "$kills" "$max_ms" "$bindir" || status=$?
  exit "$status"
fi

work=$ZEPHLORE_CAMPAIGN_WORK
zephlore=$bindir/zephlore
helper=$bindir/zephlore-helper
tree=$work/tree
data=$XDG_DATA_HOME/Zephlore
log=$work/helper.log
export ZEPHLORE_CLOCK_SPEED=1000
# The helper's log lines go to its standard error (our log file).
export JOURNAL_STREAM=campaign
python=$(command -v /usr/bin/python3 || command -v python3)

helper_pid=
stop_helper() {
  if [[ -n $helper_pid ]] && kill -0 "$helper_pid" 2>/dev/null; then
    kill -KILL "$helper_pid" 2>/dev/null || true
    wait "$helper_pid" 2>/dev/null || true
  fi
}
trap stop_helper EXIT

now_ms() { date +%s%3N; }
started_ms=$(now_ms)

# 2,000 files of real text (licences, package copyrights, a word list) from
# 1 KB to 1.5 MB in nested folders: most swaps are quick, the large ones take
# long enough to be hit; a few files of noise get the not-compressible
# marker, and the ones under 4 KB are skipped.
"$python" - "$tree" "$work/candidates" <<'EOF'
import glob, os, random, sys
root = sys.argv[1]
candidates = 0
rng = random.Random(14)
texts = []
for pattern in ("/usr/share/common-licenses/*", "/usr/share/doc/*/copyright",
                "/work/shared/testdata/macos-zlib-fork/zlib.expected", "/usr/share/dict/words"):
    for path in sorted(glob.glob(pattern)):
        try:
            with open(path, "rb") as f:
                texts.append(f.read())
        except OSError:
            pass
corpus = b"".join(texts)
while len(corpus) < 4 << 20:
    corpus += corpus
for i in range(2000):
    folder = os.path.join(root, "d%02d" % (i % 20), "e%d" % (i % 3))
    os.makedirs(folder, exist_ok=True)
    kind = rng.random()
    if kind < 0.05:
        size = rng.randint(1000, 4000)
    elif kind < 0.55:
        size = rng.randint(4096, 24 << 10)
    elif kind < 0.88:
        size = rng.randint(24 << 10, 160 << 10)
    else:
        size = rng.randint(160 << 10, 1536 << 10)
    if i % 97 == 0:
        data = os.urandom(size)
    else:
        start = rng.randrange(0, len(corpus) - size)
        data = corpus[start:start + size]
        candidates += size >= 4096
    with open(os.path.join(folder, "f%04d.txt" % i), "wb") as f:
        f.write(data)
with open(sys.argv[2], "w") as f:
    f.write("%d\n" % candidates)
EOF
candidates=$(cat "$work/candidates")
# The same files again, to be saved into the tree afresh between runs.
cp -a "$tree" "$work/pool"
mkdir -p "$work/stage"
mapfile -t names < <(cd "$tree" && find . -type f | sort)
(cd "$tree" && find . -type f -exec sha256sum {} + | sort -k2) >"$work/before"
files=$(wc -l <"$work/before")
tree_mib=$(du -sm --apparent-size "$tree" | cut -f1)

start_helper() {
  "$helper" >>"$log" 2>&1 &
  helper_pid=$!
}

# The first run takes the folder on the watch list.
start_helper
gdbus wait --session --timeout 10 com.quorvane.ZephloreHelper
"$zephlore" add "$tree" >/dev/null
stop_helper

killed=0
in_swap=0
resaved=0
ended_alone=0
for ((n = 0; n < kills; )); do
  start_helper
  ms=$((RANDOM % (max_ms + 1)))
  sleep "$((ms / 1000)).$(printf '%03d' $((ms % 1000)))"
  kill -KILL "$helper_pid" 2>/dev/null || true
  status=0
  wait "$helper_pid" 2>/dev/null || status=$?
  helper_pid=
  if ((status == 128 + 9)); then
    n=$((n + 1))
    killed=$((killed + 1))
    # A record left behind: the kill came inside a swap.
    recorded=
    if [[ -s $data/inprocess.kr ]]; then
      in_swap=$((in_swap + 1))
      recorded=$(head -n 1 "$data/inprocess.kr")
    fi
    # Files saved afresh, except the one the next start must repair.
    for _ in 1 2 3 4 5 6 7 8 9 10; do
      name=${names[RANDOM % ${#names[@]}]}
      [[ $tree/${name#./} == "$recorded" ]] && continue
      cp "$work/pool/$name" "$work/stage/next" && mv -f "$work/stage/next" "$tree/$name"
      resaved=$((resaved + 1))
    done
  else
    # It ended by itself first (a copy still counted as running, a failure).
    ended_alone=$((ended_alone + 1))
    if ((ended_alone > kills / 10 + 10)); then
      echo "the helper keeps ending by itself (status $status); its log: $log" >&2
      tail -20 "$log" >&2
      exit 1
    fi
  fi
done
kill_loop_ms=$(($(now_ms) - started_ms))

leftovers_after_kills=$(find "$tree" -name '.zephlore-*' | wc -l)
record_after_kills=$(stat -c %s "$data/inprocess.kr" 2>/dev/null || echo 0)
compressed_count() {
  "$zephlore" info -r --json "$tree" 2>/dev/null |
    jq -s 'map(select(.type == "summary"))[-1].states.compressed.files // 0'
}
compressed_after_kills=$(compressed_count)

# One ordinary run: it repairs what the last kill left, works until it has
# nothing queued (or 300 s pass) and quits in order.
start_helper
gdbus wait --session --timeout 10 com.quorvane.ZephloreHelper
idle_polls=0
deadline=$(($(date +%s) + 300))
while ((idle_polls < 5 && $(date +%s) < deadline)); do
  sleep 0.5
  state=$("$zephlore" status --json 2>/dev/null |
    jq -r '"\(.status.text) \(.queuedFiles) \(.fileInProcess // "")"' 2>/dev/null || true)
  case $state in
    "Idle 0 " | "Ready 0 ") idle_polls=$((idle_polls + 1)) ;;
    *) idle_polls=0 ;;
  esac
done
"$zephlore" quit >/dev/null
quit_status=0
wait "$helper_pid" || quit_status=$?
helper_pid=

# Every file through the command, against its checksum from before.
(cd "$tree" && find . -type f -print0 | sort -z | while IFS= read -r -d '' f; do
  printf '%s  %s\n' "$("$zephlore" cat "$f" | sha256sum | cut -d' ' -f1)" "$f"
done) >"$work/after"
changed=$(diff "$work/before" "$work/after" | grep -c '^>' || true)
leftovers=$(find "$tree" -name '.zephlore-*' | wc -l)
record=$(stat -c %s "$data/inprocess.kr" 2>/dev/null || echo 0)
compressed=$(compressed_count)
needs_repair=0
"$zephlore" info -r "$tree" >/dev/null 2>&1 || needs_repair=1
recovered=$(grep -c 'Successfully finished pending compression of previous run' "$log" || true)
not_recovered=$(grep -c 'Could not recover previous file' "$log" || true)
total_s=$(( ($(now_ms) - started_ms) / 1000 ))

echo "tree: $files files, $tree_mib MiB; runs live 0..$max_ms ms"
echo "kills: $killed ($in_swap inside a swap: a record was left); runs that ended by themselves: $ended_alone; files saved afresh: $resaved"
echo "after the kills: $compressed_after_kills files compressed, $leftovers_after_kills temporaries, record of $record_after_kills bytes"
echo "start-up repairs of the previous run's file: $recovered done, $not_recovered failed"
echo "after one ordinary run: $compressed of $candidates compressible files compressed, quit status $quit_status"
echo "helper log lines with ***: $(grep -c '\*\*\*' "$log" || true)"
echo "files changed: $changed; temporaries left: $leftovers; record left: $record bytes; info -r needs repair: $needs_repair"
echo "time: kill loop $((kill_loop_ms / 1000)) s, in all $total_s s"
[[ $changed -eq 0 && $leftovers -eq 0 && $record -eq 0 && $quit_status -eq 0 && $needs_repair -eq 0 && $not_recovered -eq 0 ]]
