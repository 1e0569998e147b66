// Crash safety: a child compresses a few files, recording each file's
// critical section in the in-process record as the helper does, and is
// killed with SIGKILL before a chosen system call. It reports every call
// through a pipe and waits for a go-ahead, so the kill lands exactly there:
// anywhere in the work, and on purpose often inside the critical section.
// The parent then runs the next start's recovery from the record (itself
// sometimes killed and run again) and checks that every file has its
// original content, compressed or not, and nothing is left beside it.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <random>

#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/content_for_tests.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hooked_env_for_tests.h"
#include "engine/in_process_record.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using Rep = QVHFSCompressedFileRepresentation;

struct Step {
  uint32_t index;
  uint32_t inCriticalSection;
};

// What the helper's compressor does around each critical section.
class RecordingDelegate final : public QVHFSCompressedFileRepresentationDelegate {
 public:
  RecordingDelegate(InProcessRecordFile& record, bool& inCritical) : record_(record), inCritical_(inCritical) {}
  void compressorWillEnterCriticalSectionForFile(Rep*, const std::string& path) override {
    inCritical_ = true;
    record_.willProcessFile(path);
  }
  void compressorDidExitCriticalSectionForFile(Rep*, const std::string&) override {
    record_.reset();
    inCritical_ = false;
  }

 private:
  InProcessRecordFile& record_;
  bool& inCritical_;
};

// Runs `work` in a child that reports each system call and waits; kills it
// at the first step `killAt` picks. Returns the last step seen.
Step runAndKill(const std::function<void(Env& env, bool& inCritical)>& work,
                const std::function<bool(const Step&)>& killAt) {
  int report[2], go[2];
  if (pipe(report) != 0 || pipe(go) != 0) throw std::runtime_error("pipe");
  pid_t child = fork();
  if (child == 0) {
    bool inCritical = false;
    uint32_t index = 0;
    HookedEnv env([&](const char*) {
      Step step{++index, inCritical};
      char ok;
      if (write(report[1], &step, sizeof step) != sizeof step || read(go[0], &ok, 1) != 1) _exit(3);
    });
    work(env, inCritical);
    _exit(0);
  }
  close(report[1]);
  close(go[0]);
  Step step{};
  while (read(report[0], &step, sizeof step) == sizeof step) {
    if (killAt(step)) {
      kill(child, SIGKILL);
      break;
    }
    if (write(go[1], "g", 1) != 1) break;
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(report[0]);
  close(go[1]);
  if (!WIFSIGNALED(status) && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) throw std::runtime_error("child");
  if (!WIFSIGNALED(status)) step.index = 0;  // finished: not killed
  return step;
}

TEST(CompressorCrashHeavyTest, KilledAnywhereEveryFileKeepsItsContent) {
  ScopedRuntimeDir runtime;
  ScopedLogCapture quiet([](const std::string&) {});
  std::mt19937 rng(20261121);
  const size_t sizes[] = {0, 1, 5000, 65537, 150000};
  constexpr int kTrials = 400;
  uint32_t fullRun = 0;
  int kills = 0, killsInCritical = 0, recoveries = 0;
  for (int trial = 0; trial <= kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    ScratchDir dir, data;
    const std::string recordPath = data / "inprocess.kr";
    std::vector<std::string> names = {"file0", "file1", "file2"};
    std::vector<FileSnapshot> originals;
    for (const std::string& name : names) {
      writeFile(dir / name, compressibleData(sizes[rng() % 5], rng()), 0640);
      originals.push_back(FileSnapshot::take(dir / name));
    }
    HFSCompressionOptions options;
    options.useExchange = rng() % 4 != 0;  // the helper's setting, mostly on
    auto compressAll = [&](Env& env, bool& inCritical) {
      InProcessRecordFile record(recordPath, env);
      RecordingDelegate delegate(record, inCritical);
      for (const std::string& name : names) {
        Rep::compressInPlacePath(env, dir / name, nullptr, nullptr, nullptr, &delegate, options);
      }
    };

    // Trial 0 runs to the end to count the steps. Then half the kills fall
    // anywhere, half on one of the first steps of a critical section.
    const bool anywhere = rng() % 2 == 0;
    const uint32_t target = 1 + rng() % (anywhere ? std::max(fullRun, 1u) : 24);
    uint32_t criticalSeen = 0;
    Step killed = runAndKill(compressAll, [&](const Step& step) {
      if (trial == 0) return (fullRun = step.index) == 0;
      return anywhere ? step.index == target : step.inCriticalSection && ++criticalSeen == target;
    });
    ASSERT_TRUE(trial > 0 || (killed.index == 0 && fullRun > 50));
    kills += killed.index > 0;
    killsInCritical += killed.index > 0 && killed.inCriticalSection;

    // The next start: recovery from the record, sometimes killed itself.
    InProcessRecord previous = InProcessRecordFile(recordPath, Env::system()).previous();
    if (previous.path) {
      ++recoveries;
      const uint64_t size = static_cast<uint64_t>(previous.expectedSize);
      const uint32_t recoveryTarget = rng() % 4 == 0 ? 1 + rng() % 12 : 0;
      if (recoveryTarget) {
        runAndKill([&](Env& env, bool&) { Rep::recoverInProcessFileAtPath(env, *previous.path, size); },
                   [&](const Step& step) { return step.index == recoveryTarget; });
      }
      Rep::recoverInProcessFileAtPath(Env::system(), *previous.path, size);
      InProcessRecordFile(recordPath, Env::system()).reset();
    }

    for (size_t i = 0; i < names.size(); ++i) {
      SCOPED_TRACE(names[i]);
      ASSERT_TRUE(contentOf(dir / names[i]) == originals[i].content) << "content lost";
      FileSnapshot now = FileSnapshot::take(dir / names[i]);
      EXPECT_EQ(now.st.st_mode, originals[i].st.st_mode);
      EXPECT_EQ(now.st.st_mtim.tv_nsec, originals[i].st.st_mtim.tv_nsec);
    }
    ASSERT_EQ(listFolder(dir.path()), names) << "something was left beside the files";
  }
  RecordProperty("kills", kills);
  RecordProperty("killsInCriticalSection", killsInCritical);
  RecordProperty("recoveries", recoveries);
  EXPECT_GT(kills, kTrials * 9 / 10);
  EXPECT_GT(killsInCritical, kTrials / 3);
}

}  // namespace
}  // namespace zephlore
