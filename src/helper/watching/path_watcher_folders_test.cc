#include <unistd.h>

#include <gtest/gtest.h>

#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/pipeline_test_support.h"
#include "helper/watching/path_watcher.h"

namespace zephlore {
namespace {

TEST(PathWatcherFoldersTest, FindsTheLongestWatchedPrefixOfCanonicalFolders) {
  testkit::ScratchDir dir;
  mkdir((dir / "a").c_str(), 0755);
  mkdir((dir / "a/b").c_str(), 0755);
  ASSERT_EQ(symlink((dir / "a").c_str(), (dir / "link").c_str()), 0);
  testkit::writeFile(dir / "a/b/file", "x");
  ManualClock clock;
  RunLoop loop(clock);
  KRPathWatcher watcher(loop, Env::system());

  EXPECT_FALSE(watcher.isWatchingFolderForPath(dir / "a/b/file"));
  watcher.setWatchPaths(std::vector<std::string>{dir / "link", dir / "a/b", "/does/not/exist"});
  EXPECT_EQ(watcher.watchPaths(),
            (std::vector<std::string>{dir / "a", dir / "a/b", "/does/not/exist"}));
  EXPECT_TRUE(watcher.haveNewPaths());

  EXPECT_EQ(watcher.watchedPathForPath(dir / "a/b/file"), dir / "a/b");
  EXPECT_EQ(watcher.watchedPathForPath(dir / "a/b"), dir / "a/b");
  EXPECT_EQ(watcher.watchedPathForPath(dir / "a/bc/gone"), dir / "a/b");  // by characters, kept so
  EXPECT_EQ(watcher.watchedPathForPath(dir / "a/x"), dir / "a");
  EXPECT_EQ(watcher.watchedPathForPath(dir / "other"), "");
  EXPECT_EQ(watcher.watchedPathForPath("/does/not/exist/either"), "/does/not/exist");
}

TEST(PathWatcherFoldersTest, RemovedFolderDropsItsQueuedFilesATenthOfASecondLater) {
  testkit::processTestHome();
  testkit::ScratchDir dir;
  mkdir((dir / "kept").c_str(), 0755);
  mkdir((dir / "gone").c_str(), 0755);
  testkit::writeFile(dir / "kept/f", testkit::compressibleData(8192));
  testkit::writeFile(dir / "gone/f", testkit::compressibleData(8192));
  ManualClock clock;
  RunLoop loop(clock);
  NotificationCenter center;
  KRCompressor compressor(loop, Env::system(), center);
  KRPathWatcher watcher(loop, Env::system(), &compressor);
  compressor.setFolderWatchTest([&](const std::string& path) { return watcher.isWatchingFolderForPath(path); });
  testkit::NotificationRecorder recorder(clock, center);

  watcher.setWatchPaths(std::vector<std::string>{dir / "kept", dir / "gone"});
  EXPECT_EQ(compressor.addFiles({dir / "kept/f", dir / "gone/f"}), 2u);
  loop.runUntilIdle();
  watcher.setHaveNewPaths(false);
  watcher.setWatchPaths(std::vector<std::string>{dir / "kept", dir / "gone"});  // the same: nothing
  EXPECT_FALSE(watcher.haveNewPaths());

  watcher.setWatchPaths(std::vector<std::string>{dir / "kept"});
  clock.advance(seconds(0.09));
  loop.runUntilIdle();
  EXPECT_EQ(compressor.queuedFiles().size(), 2u);
  clock.advance(seconds(0.01));
  loop.runUntilIdle();
  EXPECT_EQ(compressor.queuedFiles(), (std::vector<std::string>{dir / "kept/f"}));
  auto dropped = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].errorCode, kFolderNotWatchedErrorCode);
}

}  // namespace
}  // namespace zephlore
