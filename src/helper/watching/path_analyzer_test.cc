// The analyzer with a stand-in compressor: it records the files handed over
// and the test reports them processed with "KRFileCompressedNotification",
// as the compressor queue does. Real files on tmpfs; time on a manual clock.
#include "helper/watching/path_analyzer.h"

#include "helper/lifecycle/scheduler.h"
#include "helper/watching/path_analyzers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <set>

#include "engine/extended_attributes_helper.h"
#include "protocol/notification_names.h"
#include "platform/path_mapping_env.h"
#include "testing/private_tmpfs.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using AnalyzerTmpfs = testkit::PrivateTmpfs;  // outside the excluded /dev

void write(const std::string& path, size_t size) { testkit::writeFile(path, std::string(size, 'z')); }

// Sets a directory's modification time, `ago` seconds before the clock's now.
void touchDirectory(const std::string& path, Clock& clock, int64_t ago) {
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(clock.wallNow().time_since_epoch()).count();
  struct timespec times[2] = {{now - ago, 0}, {now - ago, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

struct Recorder : KRPathAnalyzerDelegate {
  std::vector<std::string> calls;
  void analyzerWillIgnoreRedundantEventForPath(KRPathAnalyzer*, uint64_t id, const std::string&) override {
    calls.push_back("ignore " + std::to_string(id));
  }
  void analyzerDidFinishAnalyzingPath(KRPathAnalyzer*, const std::string&, bool recursive) override {
    calls.push_back(recursive ? "analyzed recursively" : "analyzed");
  }
  void analyzerCompressorDidProcessFile(KRPathAnalyzer*, const std::string&) override { calls.push_back("file"); }
  void analyzerCompressorDidFinishCompressingPath(KRPathAnalyzer* a, const std::string&, bool recursive) override {
    calls.push_back(std::string(recursive ? "finished recursively " : "finished ") + std::to_string(a->eventID()));
  }
};

class PathAnalyzerTest : public ::testing::Test {
 protected:
  PathAnalyzerTest() {
    loop.runUntilIdle();  // binds the loop to this thread
    mkdir(root().c_str(), 0755);
    analyzers.setLinks(links());
  }
  KRPathAnalyzerLinks links() {
    KRPathAnalyzerLinks links;
    links.watchedPathForPath = [this](const std::string&) { return root(); };
    links.addFilesToCompress = [this](const std::vector<std::string>& files) {
      std::lock_guard lock(mutex);
      size_t accepted = 0;
      for (const std::string& f : files) accepted += queued.insert(f).second;
      handed_over.push_back(files.size());
      changed.notify_all();
      return accepted;
    };
    links.closeDatabase = [this] { ++database_closed; };
    links.addAnalysisOperation = [this](Operation op) { scheduler.queueAnalysisOperation(std::move(op)); };
    return links;
  }

  void SetUp() override {
    if (!dir.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  }

  std::string root() const { return dir / "watched"; }

  void runUntil(const std::function<bool()>& done) {
    if (!done()) loop.runUntil(done);
  }
  void runUntilNoAnalyzers() {
    runUntil([this] { return analyzers.analyzersCount() == 0; });
    loop.runUntilIdle();  // the reports posted before the end
  }
  // Reports every queued file processed, as the compressor would.
  void processQueued() {
    std::set<std::string> files;
    {
      std::lock_guard lock(mutex);
      files.swap(queued);
    }
    for (const std::string& f : files) {
      center.post(kFileCompressedNotification, nullptr, {{kFileCompressedPathKey, f}});
    }
  }
  std::set<std::string> queuedFiles() {
    std::lock_guard lock(mutex);
    return queued;
  }

  testkit::TestHome home;
  ManualClock clock;
  RunLoop loop{clock};  // the helper's main loop; this thread runs it
  AnalyzerTmpfs dir;
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string> queued;
  std::vector<size_t> handed_over;
  int database_closed = 0;
  NotificationCenter center;
  KRPathAnalyzers analyzers{loop, Env::system(), center};
  // Last: its analyses end before what they use goes away.
  KRScheduler scheduler;
};

TEST_F(PathAnalyzerTest, PicksCandidatesInOrderAndCountsRejectedFilesAsProcessed) {
  write(root() + "/4095", 4095);
  write(root() + "/4096", 4096);
  write(root() + "/._4096", 4096);
  mkdir((root() + "/sub").c_str(), 0755);
  write(root() + "/sub/deep", 8000);
  mkdir((root() + "/generated").c_str(), 0755);
  write(root() + "/generated/built", 8000);
  ASSERT_EQ(setxattr((root() + "/generated").c_str(), "user.com.apple.XcodeGenerated", "1", 1, 0), 0);

  // Not recursive: only the folder's own files.
  Recorder recorder;
  auto flat = analyzers.startAnalyzerWithPath(root(), false, &recorder, 7);
  runUntil([&] { return flat->analysisIsFinished(); });
  EXPECT_EQ(queuedFiles(), (std::set<std::string>{root() + "/4096"}));
  EXPECT_EQ(analyzers.seenFilesForWatchedFolder(root()), 1u);
  // The compressor rejects it: it still counts as processed.
  center.post(
      kFileCompressedNotification, nullptr,
      {{kFileCompressedPathKey, root() + "/4096"}, {kFileCompressedErrorKey, int64_t{700}}});
  runUntilNoAnalyzers();
  EXPECT_EQ(analyzers.processedFilesForWatchedFolder(root()), 1u);
  EXPECT_EQ(recorder.calls, (std::vector<std::string>{"analyzed", "finished 7", "file"}));
  EXPECT_EQ(database_closed, 1);

  // Recursive: into sub, never into the generated folder.
  {
    std::lock_guard lock(mutex);
    queued.clear();
  }
  auto deep = analyzers.startAnalyzerWithPath(root(), true);
  runUntil([&] { return deep->analysisIsFinished(); });
  EXPECT_EQ(queuedFiles(), (std::set<std::string>{root() + "/4096", root() + "/sub/deep"}));
  processQueued();
  runUntilNoAnalyzers();
  EXPECT_EQ(analyzers.seenFilesForWatchedFolder(root()), 3u);
  EXPECT_EQ(analyzers.processedFilesForWatchedFolder(root()), 3u);
}

TEST_F(PathAnalyzerTest, SettleWaitsTakeTheRemainingTime) {
  write(root() + "/file", 5000);
  // The folder changed 10 s ago: walked only after the rest of its 30 s.
  touchDirectory(root(), clock, 10);
  auto analyzer = analyzers.startAnalyzerWithPath(root());
  clock.waitForSleepers(1);
  clock.advance(seconds(20));
  clock.waitForSleepers(1);
  EXPECT_TRUE(queuedFiles().empty());
  clock.advance(seconds(1));
  runUntil([&] { return analyzer->analysisIsFinished(); });
  EXPECT_EQ(queuedFiles().size(), 1u);
  processQueued();
  runUntilNoAnalyzers();

  // A file changed 10 s ago is judged after the rest of its 15 s.
  struct stat st;
  ASSERT_EQ(lstat((root() + "/file").c_str(), &st), 0);
  clock.setWall(WallTime(std::chrono::seconds(st.st_ctim.tv_sec + 10)));
  touchDirectory(root(), clock, 100);
  analyzer = analyzers.startAnalyzerWithPath(root());
  clock.waitForSleepers(1);
  clock.advance(seconds(5));
  clock.waitForSleepers(1);
  EXPECT_TRUE(queuedFiles().empty());
  clock.advance(seconds(1));
  runUntil([&] { return analyzer->analysisIsFinished(); });
  EXPECT_EQ(queuedFiles().size(), 1u);
}

TEST_F(PathAnalyzerTest, RepeatedEventsFoldIntoOneRecursiveRecheck) {
  touchDirectory(root(), clock, 0);  // holds the first walk in its settle wait
  Recorder recorder;
  auto first = analyzers.startAnalyzerWithPath(root(), false, &recorder, 10);
  EXPECT_EQ(analyzers.startAnalyzerWithPath(root(), false, &recorder, 10), first) << "the same event twice";
  EXPECT_FALSE(first->mustRecheckPathAfterCompletion());
  analyzers.startAnalyzerWithPath(root() + "/", false, &recorder, 12);
  EXPECT_TRUE(first->mustRecheckPathAfterCompletion());
  EXPECT_TRUE(recorder.calls.empty());
  analyzers.startAnalyzerWithPath(root(), true, &recorder, 15);
  EXPECT_EQ(recorder.calls, (std::vector<std::string>{"ignore 12"}));
  EXPECT_TRUE(first->recheckMustBeRecursive());
  EXPECT_EQ(analyzers.analyzersCount(), 1u);

  clock.waitForSleepers(1);
  clock.advance(seconds(31));
  runUntil([&] { return analyzers.analyzerForPath(root()) != first; });
  auto again = analyzers.analyzerForPath(root());
  ASSERT_TRUE(again);
  EXPECT_TRUE(again->isRecursive());
  EXPECT_EQ(again->eventID(), 15u);
  runUntilNoAnalyzers();
  EXPECT_EQ(recorder.calls, (std::vector<std::string>{"ignore 12", "analyzed", "finished 10",
                                                      "analyzed recursively", "finished recursively 15"}));
}

TEST_F(PathAnalyzerTest, TheWalkPausesAtAThousandPendingFilesUntilAtMost799Remain) {
  for (int i = 0; i < 1005; ++i) write(root() + "/f" + std::to_string(i), 4096);
  auto analyzer = analyzers.startAnalyzerWithPath(root());
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return !handed_over.empty(); });
    EXPECT_EQ(handed_over[0], 1000u);
  }
  const std::set<std::string> queued_now = queuedFiles();
  std::vector<std::string> files(queued_now.begin(), queued_now.end());
  auto processed = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      center.post(kFileCompressedNotification, nullptr,
                                               {{kFileCompressedPathKey, files[i]}});
    }
  };
  processed(0, 200);
  EXPECT_EQ(analyzer->remainingFilesToCompress(), 800u);
  EXPECT_FALSE(analyzer->analysisIsFinished()) << "the walk waits at 800";
  processed(200, 201);
  runUntil([&] { return analyzer->analysisIsFinished(); });
  EXPECT_EQ(analyzer->remainingFilesToCompress(), 804u);
  EXPECT_EQ(analyzer->totalFilesToCompress(), 1005u);
}

// Beneath a view the folder's stored tree lies on another volume than the
// folder users see: the analysis walks that tree whole, and names its files
// by the shown paths.
TEST_F(PathAnalyzerTest, BeneathAViewTheStoredTreeIsWalkedWholeAndNamedAsShown) {
  AnalyzerTmpfs shown;  // stands for the view: another volume, nothing in it
  ASSERT_TRUE(shown.mounted());
  struct stat shownSt, storedSt;
  ASSERT_EQ(stat(shown.path().c_str(), &shownSt), 0);
  ASSERT_EQ(stat(root().c_str(), &storedSt), 0);
  ASSERT_NE(shownSt.st_dev, storedSt.st_dev);
  write(root() + "/top", 8000);
  ASSERT_EQ(mkdir((root() + "/a").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((root() + "/a/b").c_str(), 0755), 0);
  write(root() + "/a/middle", 8000);
  write(root() + "/a/b/deep", 8000);
  const int held = open(root().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  PathMap views;
  views.replaceAll({{shown.path(), "/proc/self/fd/" + std::to_string(held)}});
  PathMappingEnv beneath(Env::system(), views);
  KRPathAnalyzerLinks shownLinks = links();
  shownLinks.watchedPathForPath = [&](const std::string&) { return shown.path(); };
  KRPathAnalyzers beneathViews(loop, beneath, center, shownLinks);

  auto analyzer = beneathViews.startAnalyzerWithPath(shown.path(), true);
  runUntil([&] { return analyzer->analysisIsFinished(); });
  EXPECT_EQ(queuedFiles(), (std::set<std::string>{shown.path() + "/top", shown.path() + "/a/middle",
                                                  shown.path() + "/a/b/deep"}));
  processQueued();
  runUntil([&] { return beneathViews.analyzersCount() == 0; });
  loop.runUntilIdle();
  close(held);
}

}  // namespace
}  // namespace zephlore
