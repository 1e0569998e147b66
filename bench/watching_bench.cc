// The helper's watching path on a tree of 100,000 files in 10,000 folders, all
// already compressed, on a private tmpfs:
//  - the full re-check every start pays per folder (the analyzer's walk and
//    candidate test) against `find ROOT -type f -size +4k`;
//  - marking the tree for kernel events: time and memory;
//  - the CPU an idle watcher uses over a minute;
//  - the latency from a file's last write to its hand-over to the
//    compressor, with the latency and settle waits out of the way.
// The compressed files carry the compressed form's attributes over an empty
// data fork, which is all the candidate test looks at.
#include <benchmark/benchmark.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <string>

#include "base/clock.h"
#include "base/run_loop.h"
#include "helper/lifecycle/scheduler.h"
#include "helper/watching/path_analyzer.h"
#include "helper/watching/path_analyzers.h"
#include "helper/watching/path_watcher_events.h"
#include "platform/file_event_stream.h"

namespace zephlore {
namespace {

constexpr int kTopFolders = 100;
constexpr int kSubFolders = 100;  // per top folder: 10,000 folders
constexpr int kFilesPerFolder = 10;

using Steady = std::chrono::steady_clock;

double msSince(Steady::time_point t) { return std::chrono::duration<double, std::milli>(Steady::now() - t).count(); }

long rssKiB() {
  std::ifstream status("/proc/self/status");
  std::string key;
  long value = 0;
  while (status >> key) {
    if (key == "VmRSS:") {
      status >> value;
      return value;
    }
  }
  return 0;
}

struct Bench {
  std::string base = "/tmp/zephlore-bench-XXXXXX";
  std::string root;
  ManualClock clock;  // far ahead of the files: no settle waits
  RunLoop loop{clock};  // the helper's main loop; this thread runs it

  Bench() {
    mkdtemp(base.data());
    if (mount("zephlore-bench", base.c_str(), "tmpfs", 0, "size=1g,nr_inodes=400k") != 0) {
      fprintf(stderr, "cannot mount a tmpfs (needs root): %s\n", strerror(errno));
      exit(1);
    }
    setenv("XDG_CONFIG_HOME", (base + "/config").c_str(), 1);
    setenv("XDG_DATA_HOME", (base + "/data").c_str(), 1);
    root = base + "/tree";
    mkdir(root.c_str(), 0755);
    const char header[16] = {'f', 'p', 'm', 'c', 3, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0, 0};
    for (int t = 0; t < kTopFolders; ++t) {
      const std::string top = root + "/t" + std::to_string(t);
      mkdir(top.c_str(), 0755);
      for (int s = 0; s < kSubFolders; ++s) {
        const std::string sub = top + "/s" + std::to_string(s);
        mkdir(sub.c_str(), 0755);
        for (int f = 0; f < kFilesPerFolder; ++f) {
          const std::string file = sub + "/f" + std::to_string(f);
          close(open(file.c_str(), O_CREAT | O_WRONLY, 0644));
          setxattr(file.c_str(), "user.com.apple.decmpfs", header, sizeof header, 0);
          setxattr(file.c_str(), "user.com.apple.ResourceFork", "fork", 4, 0);
        }
      }
    }
    loop.runUntilIdle();
    KRPathAnalyzerLinks links;
    links.watchedPathForPath = [this](const std::string&) { return root; };
    links.addFilesToCompress = [this](const std::vector<std::string>& files) {
      handed_over += files.size();
      if (!files.empty() && !first_handover) first_handover = Steady::now();
      for (const std::string& f : files) {
        center.post("KRFileCompressedNotification", nullptr, {{"path", f}});
      }
      return files.size();
    };
    links.addAnalysisOperation = [this](Operation op) { scheduler.queueAnalysisOperation(std::move(op)); };
    analyzers.setLinks(links);
  }
  ~Bench() {
    umount2(base.c_str(), MNT_DETACH);
    rmdir(base.c_str());
  }

  std::atomic<size_t> handed_over{0};
  std::optional<Steady::time_point> first_handover;
  NotificationCenter center;
  KRScheduler scheduler;
  KRPathAnalyzers analyzers{loop, Env::system(), center};
};

Bench& bench() {
  static Bench* b = new Bench;
  return *b;
}

void BM_FullRecheckAgainstFind(benchmark::State& state) {
  Bench& b = bench();
  double walk_ms = 0, find_ms = 0;
  for (auto _ : state) {
    auto t = Steady::now();
    b.analyzers.startAnalyzerWithPath(b.root, true);
    b.loop.runUntil([&b] { return b.analyzers.analyzersCount() == 0; });
    walk_ms = msSince(t);
    t = Steady::now();
    if (system(("find '" + b.root + "' -type f -size +4k > /dev/null").c_str()) != 0) state.SkipWithError("find");
    find_ms = msSince(t);
  }
  state.counters["walk_ms"] = walk_ms;
  state.counters["find_ms"] = find_ms;
  state.counters["ratio"] = walk_ms / find_ms;
  state.counters["handed_over"] = static_cast<double>(b.handed_over.load());
}
BENCHMARK(BM_FullRecheckAgainstFind)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MarkingAndIdle(benchmark::State& state) {
  Bench& b = bench();
  SystemClock real;
  RunLoop loop(real);
  EventJournal journal(Env::system(), b.base + "/bench.journal");
  double mark_ms = 0;
  long rss = 0;
  size_t marked = 0;
  std::unique_ptr<FileEventStream> stream;
  for (auto _ : state) {
    const long before = rssKiB();
    auto t = Steady::now();
    FileEventStream::Options options;
    options.roots = {b.root};
    stream = std::make_unique<FileEventStream>(loop, journal, options, [](const auto&) {});
    stream->start();
    mark_ms = msSince(t);
    rss = rssKiB() - before;
    marked = stream->markedDirectories();
  }
  state.counters["mark_ms"] = mark_ms;
  state.counters["mark_rss_kib"] = static_cast<double>(rss);
  state.counters["marked_dirs"] = static_cast<double>(marked);
  // A minute of idling on the real clock: only the poll, no loops.
  struct rusage r0, r1;
  getrusage(RUSAGE_SELF, &r0);
  const auto t = Steady::now();
  loop.performAfterDelay(seconds(60.0), [&] { loop.stop(); });
  loop.run();
  getrusage(RUSAGE_SELF, &r1);
  auto cpu = [](const struct rusage& r) {
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
  };
  state.counters["idle_cpu_percent"] = 100.0 * (cpu(r1) - cpu(r0)) / (msSince(t) / 1000.0);
}
BENCHMARK(BM_MarkingAndIdle)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteToHandOverLatency(benchmark::State& state) {
  Bench& b = bench();
  const std::string folder = b.base + "/latency";
  mkdir(folder.c_str(), 0755);
  KRWatcherFolderLinks folders;
  folders.watchPaths = [folder] { return std::vector<std::string>{folder}; };
  KRWatcherHistoryLinks history;
  history.folderSweepDate = [&b](const std::string&) -> std::optional<WallTime> { return b.clock.wallNow(); };
  history.progressForFolder = [](const std::string&) { return 100; };
  KRPathWatcherEvents::Options options;
  options.journal_path = b.base + "/latency.journal";
  options.latency = 0;
  options.watch_mounts = false;
  KRPathWatcherEvents events(Env::system(), b.analyzers, folders, history, options);
  events.startWatching();
  double latency_ms = 0;
  for (auto _ : state) {
    b.first_handover.reset();
    const auto t = Steady::now();
    // Another process writes the file (our own writes are not reported).
    if (system(("head -c 8192 /dev/zero > '" + folder + "/file'").c_str()) != 0) state.SkipWithError("write");
    b.loop.runUntil([&] { return b.first_handover.has_value(); });
    latency_ms = std::chrono::duration<double, std::milli>(*b.first_handover - t).count();
  }
  state.counters["latency_ms"] = latency_ms;
}
BENCHMARK(BM_WriteToHandOverLatency)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace zephlore
