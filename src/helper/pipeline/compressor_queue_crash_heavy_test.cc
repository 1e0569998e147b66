// Crash safety of the queue: a child process (this test binary again)
// compresses 200 files through KRCompressor, with the real watchdog record,
// and is SIGKILLed before a randomly chosen system call. Every start of the
// child first runs the start-up recovery from the record, as the helper does;
// the parent then checks that every file has its original content, that
// nothing was left beside the files and that "inprocess.kr" is empty.
//
// The child reports each system call through a pipe and waits for a
// go-ahead, so the kill lands exactly where the parent chose.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "base/log.h"
#include "base/data_folder.h"
#include "engine/file_content_reader.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hooked_env_for_tests.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/lifecycle/previous_run_recovery.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/pipeline_test_support.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;

constexpr const char* kDirVariable = "ZEPHLORE_QUEUE_CRASH_DIR";
constexpr const char* kRecoverOnlyVariable = "ZEPHLORE_QUEUE_CRASH_RECOVER_ONLY";
constexpr int kReportFd = 3;
constexpr int kGoFd = 4;
constexpr int kFiles = 200;
constexpr int kKills = 100;

struct Step {
  uint32_t index;  // 0: recovery done, before any compression
  uint32_t inCriticalSection;
};

void reportAndWait(const Step& step) {
  char go;
  if (write(kReportFd, &step, sizeof step) != sizeof step || read(kGoFd, &go, 1) != 1) _exit(3);
}

// The child: recovery, then the queue over every file of the folder.
TEST(CompressorQueueCrashHeavy, Child) {
  const char* dir = getenv(kDirVariable);
  if (!dir) GTEST_SKIP() << "run by CompressorQueueCrashHeavy.KilledAnywhere";
  const std::string dataFolder = findDataFolder().value_or("");
  KRFileInProcessWatchdog watchdog(Env::system(), dataFolder);
  checkIntegrityOfPreviousRun(Env::system(), watchdog, dataFolder);
  reportAndWait(Step{0, 0});
  if (getenv(kRecoverOnlyVariable)) _exit(0);

  const std::string record = KRFileInProcessWatchdog::watchdogFilename(dataFolder);
  uint32_t index = 0;
  HookedEnv env([&](const char*) {
    struct stat st;
    const bool critical = stat(record.c_str(), &st) == 0 && st.st_size > 0;
    reportAndWait(Step{++index, critical});
  });
  ManualClock clock;
  RunLoop loop(clock);
  OperationQueue queue(1);
  NotificationCenter center;
  KRCompressor compressor(loop, env, center, {.compressionQueue = &queue, .record = &watchdog});
  compressor.setFolderWatchTest([](const std::string&) { return true; });
  std::vector<std::string> paths;
  for (const std::string& name : listFolder(dir)) paths.push_back(std::string(dir) + "/" + name);
  compressor.addFiles(paths);
  loop.runUntilIdle();
  while (!compressor.queuedFiles().empty() || compressor.filesBeingCompressedCount() > 0) {
    clock.advance(seconds(KRCompressor::kTickDelay));
    loop.runUntilIdle();
    queue.waitUntilAllOperationsAreFinished();
    loop.runUntilIdle();
  }
  _exit(0);
}

class ChildProcess {
 public:
  ChildProcess(const std::string& dir, bool recoverOnly) {
    int report[2], go[2];
    if (pipe2(report, O_CLOEXEC) != 0 || pipe2(go, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    // Everything the child needs is made before fork().
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string dirSetting = std::string(kDirVariable) + "=" + dir;
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e) environment.push_back(*e);
    environment.push_back(dirSetting);
    if (recoverOnly) environment.push_back(std::string(kRecoverOnlyVariable) + "=1");
    std::vector<char*> envp;
    for (std::string& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(report[1], kReportFd);
      dup2(go[0], kGoFd);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execle(self.c_str(), self.c_str(), "--gtest_filter=CompressorQueueCrashHeavy.Child", nullptr, envp.data());
      _exit(127);
    }
    close(report[1]);
    close(go[0]);
    report_ = report[0];
    go_ = go[1];
  }
  ~ChildProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      wait();
    }
    close(report_);
    close(go_);
  }
  // The next step, none when the child ended.
  std::optional<Step> next() {
    Step step;
    if (read(report_, &step, sizeof step) != sizeof step) return std::nullopt;
    return step;
  }
  void go() { (void)!write(go_, "g", 1); }
  void killNow() {
    kill(pid_, SIGKILL);
    wait();
  }
  // Exit status (-1 when killed).
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int report_ = -1;
  int go_ = -1;
};

std::string readContent(const std::string& path) {
  Error error;
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(Env::system(), path, &error);
  if (!reader) return "unreadable: " + error.describe();
  std::string content(reader->size(), '\0');
  size_t got = 0;
  if (!reader->read(0, content.data(), content.size(), &got, &error)) return "unreadable: " + error.describe();
  return content;
}

TEST(CompressorQueueCrashHeavy, KilledAnywhereEveryFileKeepsItsContent) {
  if (getenv(kDirVariable)) GTEST_SKIP();
  processTestHome();
  ScopedLogCapture quiet([](const std::string&) {});
  ScratchDir dir;
  const std::string record =
      KRFileInProcessWatchdog::watchdogFilename(findDataFolder().value_or(""));
  std::mt19937 rng(20261123);
  std::vector<std::string> names, originals;
  for (int i = 0; i < kFiles; ++i) {
    names.push_back("file" + std::to_string(1000 + i));
    const size_t size = 4096 + rng() % (60 * 1024);
    // A few files do not shrink: they get the not-compressible marker.
    originals.push_back(i % 20 == 0 ? randomData(size, rng()) : compressibleData(size, rng()));
  }
  auto restore = [&](size_t i) {
    unlink((dir / names[i]).c_str());
    writeFile(dir / names[i], originals[i]);
  };
  for (int i = 0; i < kFiles; ++i) restore(i);

  int kills = 0, killsInCriticalSection = 0, rounds = 0;
  uint32_t stepsPerRun = 0;
  while (kills < kKills && rounds < 3 * kKills) {
    ++rounds;
    SCOPED_TRACE("round " + std::to_string(rounds));
    // The first run goes to its end and tells how many steps a run takes.
    const uint32_t target = stepsPerRun ? 1 + rng() % stepsPerRun : 0;
    ChildProcess child(dir.path(), false);
    std::optional<Step> step = child.next();
    ASSERT_TRUE(step && step->index == 0) << "the child did not start";
    child.go();
    bool killed = false;
    while ((step = child.next())) {
      if (step->index == target) {
        child.killNow();
        killed = true;
        ++kills;
        killsInCriticalSection += step->inCriticalSection != 0;
        break;
      }
      stepsPerRun = std::max(stepsPerRun, target ? 0u : step->index);
      child.go();
    }
    if (!killed) {
      ASSERT_EQ(child.wait(), 0);
    }

    // The next start recovers; then every file must be whole.
    ChildProcess next(dir.path(), true);
    step = next.next();
    ASSERT_TRUE(step && step->index == 0) << "recovery did not finish";
    struct stat st;
    ASSERT_EQ(stat(record.c_str(), &st), 0);
    ASSERT_EQ(st.st_size, 0) << "inprocess.kr not emptied";
    ASSERT_EQ(listFolder(dir.path()), names) << "something was left beside the files";
    for (int i = 0; i < kFiles; ++i) {
      ASSERT_TRUE(readContent(dir / names[i]) == originals[i]) << names[i] << " lost its content";
    }
    next.go();
    ASSERT_EQ(next.wait(), 0);
    // Half of the files become plain again, so every run has work to do.
    for (int i = 0; i < kFiles; ++i) {
      if (rng() % 2) restore(i);
    }
  }
  RecordProperty("kills", kills);
  RecordProperty("killsInCriticalSection", killsInCriticalSection);
  EXPECT_EQ(kills, kKills);
  EXPECT_GT(killsInCriticalSection, 0);
  std::printf("%d kills in %d rounds, %d inside a critical section\n", kills, rounds, killsInCriticalSection);
}

}  // namespace
}  // namespace zephlore
