// The history under load: a burst of 10,000 savings updates from a worker
// thread (database transactions and main-thread CPU time per burst), and
// `zephlore folders` over 100 watched folders (wall time per run).
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "base/clock.h"
#include "base/run_loop.h"
#include "base/data_folder.h"
#include "helper/history/history_database.h"
#include "helper/history/history_processor.h"

namespace {

using namespace zephlore;

// A private data folder and a tmpfs folder tree, made once per process.
struct Setting;
Setting& setting();

struct Setting {
  Setting() {
    root = "/dev/shm/zephlore-history-bench-" + std::to_string(getpid());
    std::filesystem::create_directories(root + "/data");
    setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
    loop.runUntilIdle();  // this thread is the main thread
    findDataFolder();
    // The setting lives as long as the process; the folder goes at exit.
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(setting().root, ignored);
    });
  }
  ManualClock clock;
  RunLoop loop{clock};
  std::string root;
};

Setting& setting() {
  static Setting* s = new Setting();
  return *s;
}

HistoryDatabase& database() {
  static HistoryDatabase* d = [] {
    setting();  // the data folder first
    return new HistoryDatabase(Env::system(), findDataFolder().value_or(""), nullptr);
  }();
  return *d;
}

KRHistoryProcessor& processor() {
  static KRHistoryProcessor* p = [] {
    KRHistoryProcessor::Hooks hooks;
    hooks.postSavingsChanged = [] {};
    hooks.helperActive = [] { return false; };
    return new KRHistoryProcessor(setting().loop, Env::system(), database(), hooks);
  }();
  return *p;
}

double threadCpuMs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

void BM_AddSavingsBurstFromAWorker(benchmark::State& state) {
  Setting& s = setting();
  std::string folder = s.root + "/burst";
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "/file") << "x";
  processor().foldersChanged({folder}, {});
  processor().saveNow();
  HistoryStore* store = database().persistentStoreCoordinator();
  double transactions = 0, mainMs = 0;
  for (auto _ : state) {
    const uint64_t before = store->transactionCount();
    const double cpuBefore = threadCpuMs();
    std::atomic<bool> done{false};
    std::thread worker([&] {
      for (int i = 0; i < 10'000; ++i) processor().addSavingsForPath(4096, folder + "/file");
      done = true;
      s.loop.post([] {});
    });
    s.loop.runUntil([&] { return done.load(); });
    worker.join();
    s.clock.advance(seconds(KRHistoryProcessor::kSaveDelaySeconds));
    s.loop.runUntilIdle();
    mainMs += threadCpuMs() - cpuBefore;
    transactions += static_cast<double>(store->transactionCount() - before);
  }
  state.counters["transactions_per_burst"] = transactions / state.iterations();
  state.counters["main_thread_cpu_ms"] = mainMs / state.iterations();
}
BENCHMARK(BM_AddSavingsBurstFromAWorker)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_FoldersCommandOver100Folders(benchmark::State& state) {
  Setting& s = setting();
  FolderList folders;
  for (int i = 0; i < 100; ++i) {
    folders.push_back(s.root + "/watched/folder" + std::to_string(i));
    std::filesystem::create_directories(folders.back());
  }
  processor().foldersChanged(folders, {});
  processor().saveNow();
  const std::string zephlore = ZEPHLORE_BINARY_DIR "/bin/zephlore";
  const char* json = state.range(0) ? "--json" : nullptr;
  for (auto _ : state) {
    pid_t pid = fork();
    if (pid == 0) {
      freopen("/dev/null", "w", stdout);
      execl(zephlore.c_str(), zephlore.c_str(), "folders", json, static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("zephlore failed");
  }
}
BENCHMARK(BM_FoldersCommandOver100Folders)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
