// The helper's compressor queue against `zephlore compress -r -j 1`, and what
// it leaves to the user's own work.
//
//   build/bin/compressor_queue_bench
//
// QueueAgainstCommand: 10,000 files of 4 to 64 KiB on tmpfs go through the
// queue (debounce driven by a manual clock, load gating off); a copy of the
// same tree goes through the command with one thread. Reports files per
// second of both and their ratio (target: at least 0.9), by the clock and per
// CPU second. The command runs at the queue's priority (nice 10, idle I/O),
// so that on a shared machine both get the same share.
//
// NeighbourKeepsItsShare: a CPU-bound process at normal priority, pinned to
// the same core as the queue, counts loop turns for 2 s alone and then 2 s
// while the queue compresses, five times. Reports the median ratio (target:
// at least 0.9).
//
// Knobs: ZEPHLORE_BENCH_FILES (10000), ZEPHLORE_BIN (the zephlore command;
// default: beside this program).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "helper/pipeline/compressor.h"
#include "helper/pipeline/system_load_handler.h"
#include "platform/thread_priority.h"

namespace {

using namespace zephlore;
using Seconds = std::chrono::duration<double>;

int fileCount() {
  const char* n = std::getenv("ZEPHLORE_BENCH_FILES");
  return n ? std::atoi(n) : 10000;
}

std::string zephloreBinary() {
  if (const char* bin = std::getenv("ZEPHLORE_BIN")) return bin;
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zephlore").string();
}

class WorkFolder {
 public:
  WorkFolder() {
    std::string pattern = "/dev/shm/zephlore-queue-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp");
    path_ = pattern;
  }
  ~WorkFolder() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Text-like files of 4 to 64 KiB in folders of 100; the same seed makes the
// same tree.
std::vector<std::string> makeTree(const std::string& root, int files) {
  static const char* const kWords[] = {"request ", "served ", "in ", "ms ", "worker ", "queue ",
                                       "cache ",   "miss ",   "hit ", "for ", "user ", "session\n"};
  std::mt19937 rng(42);
  std::vector<std::string> paths;
  for (int i = 0; i < files; ++i) {
    const std::string folder = root + "/d" + std::to_string(i / 100);
    if (i % 100 == 0) mkdir(folder.c_str(), 0755);
    const size_t size = 4096 + rng() % (60 * 1024 + 1);
    std::string data;
    while (data.size() < size) {
      data += kWords[rng() % 12];
      if (rng() % 7 == 0) data += std::to_string(rng() % 100000) + " ";
    }
    data.resize(size);
    paths.push_back(folder + "/f" + std::to_string(i) + ".log");
    int fd = open(paths.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
      throw std::runtime_error("cannot write " + paths.back());
    }
    close(fd);
  }
  return paths;
}

struct Timing {
  double wall = 0;
  double cpu = 0;  // user + system
};

double cpuSeconds(const rusage& usage) {
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs the command as gently as the helper's compression thread runs, so
// that on a busy machine both get the same share.
Timing runCommand(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    setCurrentThreadNice(KRCompressor::kCompressionThreadNice);
    setCurrentThreadIdleIoPriority();
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(argv[0] + " failed");
  return Timing{Seconds(std::chrono::steady_clock::now() - start).count(), cpuSeconds(usage)};
}

// The queue as the helper runs it, with time for the debounce skipped.
class QueueRun {
 public:
  QueueRun() : loop_(useClock_), compressor_(loop_, Env::system(), center_, {.compressionQueue = &queue_}) {
    compressor_.setFolderWatchTest([](const std::string&) { return true; });
  }
  ~QueueRun() {
    compressor_.pauseCompression();
    queue_.waitUntilAllOperationsAreFinished();
  }
  void add(const std::vector<std::string>& paths) {
    compressor_.addFiles(paths);
    loop_.runUntilIdle();
  }
  // One batch; false when nothing is left.
  bool step() {
    if (compressor_.queuedFiles().empty() && compressor_.filesBeingCompressedCount() == 0) return false;
    useClock_.advance(seconds(KRCompressor::kTickDelay));
    loop_.runUntilIdle();
    queue_.waitUntilAllOperationsAreFinished();
    loop_.runUntilIdle();
    return true;
  }

 private:
  // No load gauge: the queue never waits for a quiet machine.
  ManualClock useClock_;
  RunLoop loop_;
  NotificationCenter center_;
  OperationQueue queue_{1};
  KRCompressor compressor_;
};

void QueueAgainstCommand(benchmark::State& state) {
  const int files = fileCount();
  WorkFolder work;
  const std::string queueTree = work.path() + "/queue", commandTree = work.path() + "/command";
  mkdir(queueTree.c_str(), 0755);
  mkdir(commandTree.c_str(), 0755);
  const std::vector<std::string> paths = makeTree(queueTree, files);
  makeTree(commandTree, files);
  Timing queue, command;
  for (auto _ : state) {
    command = runCommand({zephloreBinary(), "compress", "-r", "-j", "1", commandTree});
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    {
      QueueRun run;
      run.add(paths);
      while (run.step()) {
      }
    }
    queue.wall = Seconds(std::chrono::steady_clock::now() - start).count();
    getrusage(RUSAGE_SELF, &after);
    queue.cpu = cpuSeconds(after) - cpuSeconds(before);
    state.SetIterationTime(queue.wall);
  }
  state.counters["queue_files_per_s"] = files / queue.wall;
  state.counters["command_files_per_s"] = files / command.wall;
  state.counters["ratio"] = command.wall / queue.wall;
  // Per CPU second: what is left when the machine is shared with others.
  state.counters["queue_files_per_cpu_s"] = files / queue.cpu;
  state.counters["command_files_per_cpu_s"] = files / command.cpu;
  state.counters["cpu_ratio"] = command.cpu / queue.cpu;
}
BENCHMARK(QueueAgainstCommand)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void pinToFirstCore() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  sched_setaffinity(0, sizeof one, &one);
}

// A child at normal priority on core 0 that counts loop turns for `seconds`
// and writes the count to the returned descriptor.
int startNeighbour(pid_t* pid, double secondsToRun) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe");
  *pid = fork();
  if (*pid == 0) {
    pinToFirstCore();
    setpriority(PRIO_PROCESS, 0, 0);
    uint64_t turns = 0, x = 1;
    const auto end = std::chrono::steady_clock::now() + Seconds(secondsToRun);
    while (std::chrono::steady_clock::now() < end) {
      for (int i = 0; i < 10000; ++i) x = x * 6364136223846793005u + 1442695040888963407u;
      ++turns;
    }
    turns += x == 0;  // keeps the loop from being optimised away
    (void)!write(fds[1], &turns, sizeof turns);
    _exit(0);
  }
  close(fds[1]);
  return fds[0];
}

uint64_t finishNeighbour(pid_t pid, int fd) {
  uint64_t turns = 0;
  if (read(fd, &turns, sizeof turns) != sizeof turns) throw std::runtime_error("neighbour failed");
  close(fd);
  waitpid(pid, nullptr, 0);
  return turns;
}

void NeighbourKeepsItsShare(benchmark::State& state) {
  // Windows alone and beside the queue alternate, and the median pair
  // counts: other work on a shared machine comes and goes.
  constexpr double kWindow = 2.0;
  constexpr int kPairs = 5;
  WorkFolder work;
  const std::vector<std::string> paths = makeTree(work.path(), fileCount());
  cpu_set_t saved;
  sched_getaffinity(0, sizeof saved, &saved);
  pinToFirstCore();  // the queue's worker thread inherits it
  double median = 0;
  for (auto _ : state) {
    QueueRun run;
    run.add(paths);
    run.step();  // the worker exists and has lowered its priority
    std::vector<double> ratios;
    for (int pair = 0; pair < kPairs; ++pair) {
      pid_t pid;
      int fd = startNeighbour(&pid, kWindow);
      const uint64_t alone = finishNeighbour(pid, fd);  // the queue waits between batches
      fd = startNeighbour(&pid, kWindow);
      pollfd done{fd, POLLIN, 0};
      bool ranOut = false;
      while (poll(&done, 1, 0) == 0) {
        if (!run.step()) {
          ranOut = true;
          break;
        }
      }
      const uint64_t shared = finishNeighbour(pid, fd);
      if (ranOut) {
        state.SkipWithError("the queue ran out of files before the window ended");
        break;
      }
      ratios.push_back(static_cast<double>(shared) / static_cast<double>(alone));
    }
    std::sort(ratios.begin(), ratios.end());
    if (!ratios.empty()) median = ratios[ratios.size() / 2];
  }
  sched_setaffinity(0, sizeof saved, &saved);
  state.counters["neighbour_ratio"] = median;
}
BENCHMARK(NeighbourKeepsItsShare)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
