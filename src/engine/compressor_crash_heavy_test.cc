// Crash safety: a child process compresses a set of files, recording each
// file's critical section in the in-process record as the helper does, and
// is killed with SIGKILL at a chosen system call. The child reports every
// call through a pipe and waits for a go-ahead, so the kill lands exactly
// before the chosen call: anywhere in the work, and on purpose often inside
// the critical section. The parent then runs the next start's recovery from
// the record and checks that every file has its original content, compressed
// or not, its metadata, and nothing left beside it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/file_content_reader.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hooked_env_for_tests.h"
#include "engine/in_process_record.h"

namespace zephlore {
namespace {

using testing::FileSnapshot;
using testing::ScratchDir;
using testing::compressibleData;
using testing::listFolder;
using testing::writeFile;

struct Step {
  uint32_t index;
  uint32_t inCriticalSection;
};

// The helper's compressor records the file for exactly its critical section.
class RecordingDelegate final : public QVHFSCompressedFileRepresentationDelegate {
 public:
  RecordingDelegate(InProcessRecordFile& record, bool& inCritical) : record_(record), inCritical_(inCritical) {}
  void compressorWillEnterCriticalSectionForFile(QVHFSCompressedFileRepresentation*,
                                                 const std::string& path) override {
    inCritical_ = true;
    record_.willProcessFile(path);
  }
  void compressorDidExitCriticalSectionForFile(QVHFSCompressedFileRepresentation*, const std::string&) override {
    record_.reset();
    inCritical_ = false;
  }

 private:
  InProcessRecordFile& record_;
  bool& inCritical_;
};

// Runs `work` in a child whose every system call is reported as a Step and
// waits for one byte of go-ahead. `killAt` picks the step to kill at.
// Returns whether the child was killed (false: it finished).
template <typename Work, typename KillAt>
bool runAndKill(Work work, KillAt killAt, bool* killedInCritical, uint32_t* steps) {
  int report[2], go[2];
  if (pipe(report) != 0 || pipe(go) != 0) throw std::runtime_error("pipe");
  pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    close(report[0]);
    close(go[1]);
    bool inCritical = false;
    uint32_t index = 0;
    testing::HookedEnv env([&](const char*) {
      Step step{++index, inCritical};
      char ok;
      if (write(report[1], &step, sizeof step) != sizeof step || read(go[0], &ok, 1) != 1) _exit(3);
    });
    ScopedSharedEnv use(&env);
    work(inCritical);
    _exit(0);
  }
  close(report[1]);
  close(go[0]);
  bool killed = false;
  Step step{};
  while (read(report[0], &step, sizeof step) == sizeof step) {
    if (killAt(step)) {
      kill(child, SIGKILL);
      killed = true;
      *killedInCritical = step.inCriticalSection;
      break;
    }
    if (write(go[1], "g", 1) != 1) break;
  }
  *steps = step.index;
  int status = 0;
  waitpid(child, &status, 0);
  close(report[0]);
  close(go[1]);
  if (!killed && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
    throw std::runtime_error("the child failed on its own");
  }
  return killed;
}

TEST(CompressorCrashHeavyTest, KilledAnywhereEveryFileKeepsItsContent) {
  testing::ScopedRuntimeDir runtime;
  ScopedLogCapture quiet([](const std::string&) {});
  const uint32_t seed = 20261121;
  std::mt19937 rng(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  const size_t sizes[] = {0, 1, 5000, 65537, 150000};
  constexpr int kTrials = 400;

  uint32_t fullRunSteps = 0;
  int kills = 0, killsInCritical = 0, recoveries = 0, killedRecoveries = 0;
  for (int trial = 0; trial <= kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    ScratchDir dir, data;
    const std::string recordPath = data / "inprocess.kr";
    std::vector<std::string> paths;
    std::vector<FileSnapshot> originals;
    for (int i = 0; i < 3; ++i) {
      paths.push_back(dir / ("file" + std::to_string(i)));
      writeFile(paths.back(), compressibleData(sizes[rng() % 5], rng()), 0640);
      originals.push_back(FileSnapshot::take(paths.back()));
    }
    HFSCompressionOptions options;
    options.useExchange = rng() % 4 != 0;  // the helper's setting, mostly on
    auto compressAll = [&](bool& inCritical) {
      InProcessRecordFile record(recordPath);
      RecordingDelegate delegate(record, inCritical);
      for (const std::string& path : paths) {
        QVHFSCompressedFileRepresentation::compressInPlacePath(path, nullptr, nullptr, nullptr, &delegate, options);
      }
    };

    // Trial 0 runs to the end and measures; then half the kills fall anywhere
    // and half on one of the first calls inside a critical section.
    const bool anywhere = rng() % 2 == 0;
    const uint32_t target = anywhere ? 1 + rng() % std::max<uint32_t>(fullRunSteps, 1) : 1 + rng() % 24;
    uint32_t criticalSeen = 0, steps = 0;
    bool inCritical = false;
    bool killed = runAndKill(
        compressAll,
        [&](const Step& step) {
          if (trial == 0) return false;
          if (anywhere) return step.index == target;
          return step.inCriticalSection && ++criticalSeen == target;
        },
        &inCritical, &steps);
    if (trial == 0) {
      fullRunSteps = steps;
      ASSERT_GT(fullRunSteps, 50u);
    }
    kills += killed;
    killsInCritical += killed && inCritical;

    // The next start: recovery from the record, which may itself be killed
    // (and then run again, to the end).
    InProcessRecord previous;
    {
      InProcessRecordFile record(recordPath);
      previous = record.previous();
    }
    if (previous.path) {
      ++recoveries;
      if (rng() % 4 == 0) {
        const uint32_t recoveryTarget = 1 + rng() % 12;
        bool unused = false;
        uint32_t recoverySteps = 0;
        killedRecoveries += runAndKill(
            [&](bool&) {
              QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(
                  *previous.path, static_cast<uint64_t>(previous.expectedSize));
            },
            [&](const Step& step) { return step.index == recoveryTarget; }, &unused, &recoverySteps);
      }
      QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(*previous.path,
                                                                    static_cast<uint64_t>(previous.expectedSize));
      InProcessRecordFile record(recordPath);
      record.reset();
    }

    std::vector<std::string> names;
    for (size_t i = 0; i < paths.size(); ++i) {
      SCOPED_TRACE(paths[i]);
      names.push_back("file" + std::to_string(i));
      CompressedFileInfo info;
      Error error;
      ASSERT_TRUE(CompressedFileInfo::inspect(paths[i], &info, &error)) << error.describe();
      ASSERT_TRUE(info.state == CompressionState::kPlain || info.state == CompressionState::kCompressed)
          << compressionStateName(info.state) << ": " << info.problem;
      std::unique_ptr<FileContentReader> reader = FileContentReader::open(paths[i], &error);
      ASSERT_NE(reader, nullptr) << error.describe();
      std::string content(static_cast<size_t>(reader->size()), '\0');
      size_t got = 0;
      ASSERT_TRUE(reader->read(0, content.data(), content.size(), &got, &error)) << error.describe();
      ASSERT_TRUE(content == originals[i].content) << "content lost";
      FileSnapshot now = FileSnapshot::take(paths[i]);
      EXPECT_EQ(now.mode, originals[i].mode);
      EXPECT_EQ(now.mtimeNs, originals[i].mtimeNs);
    }
    ASSERT_EQ(listFolder(dir.path()), names) << "something was left beside the files";
  }
  RecordProperty("kills", kills);
  RecordProperty("killsInCriticalSection", killsInCritical);
  RecordProperty("recoveries", recoveries);
  RecordProperty("killedRecoveries", killedRecoveries);
  EXPECT_GT(kills, kTrials * 9 / 10);
  EXPECT_GT(killsInCritical, kTrials / 3);
}

}  // namespace
}  // namespace zephlore
