// The supervision of the views over watched folders, with a stand-in
// mounter whose "views" are real processes, and the compressor's hold on a
// folder whose view is down, on real files, the real engine and a manual
// clock.
#include "desktop/folder_views.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "helper/pipeline/compressor.h"
#include "helper/pipeline/pipeline_test_support.h"
#include "platform/path_map.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

// Mounting starts a process that stands for the view's; killing it is the
// view ending.
class ProcessViews final : public view::ViewMounter {
 public:
  ProcessViews() : ViewMounter(Env::system(), "unused") {}
  bool mountOver(const std::string& folder, Error* error) override {
    ++mounts;
    if (!mountWorks) return fail(error, "posix", EIO, "cannot mount a view over " + folder + ": refused");
    // Detached, a dead view shows the stored folder again.
    if (deadViewLeft) mkdir(folder.c_str(), 0755);
    deadViewLeft = false;
    server = std::make_unique<testkit::Child>(std::vector<std::string>{"sleep", "600"});
    folder_ = folder;
    return true;
  }
  std::optional<view::ServingView> servingView(const std::string&) const override {
    if (!server) return std::nullopt;
    return view::ServingView{server->pid(), folder_};
  }
  bool unmountIfUnused(const std::string&, std::string*) override { return true; }
  bool covered(const std::string&) const override { return server || deadViewLeft; }
  void endView() {
    server.reset();  // kills and reaps it
  }

  bool mountWorks = true;
  // A view whose process died with the previous helper: its folder cannot
  // be looked at until it is detached.
  bool deadViewLeft = false;
  int mounts = 0;
  std::unique_ptr<testkit::Child> server;

 private:
  std::string folder_;
};

class FolderViewsTest : public ::testing::Test {
 protected:
  FolderViewsTest() {
    compressor.setFolderWatchTest([](const std::string&) { return true; });
    compressor.setCompressionHold([this](const std::string& path) { return views.holdReason(path); });
    KRFolderViews::Hooks hooks;
    hooks.viewRestored = [this](const std::string& shown) { restored.push_back(shown); };
    views.setHooks(hooks);
  }
  ~FolderViewsTest() override {
    queue.waitUntilAllOperationsAreFinished();
  }
  void advance(double s) {
    clock.advance(seconds(s));
    loop.runUntilIdle();
  }
  bool compressed(const std::string& file) {
    struct stat st;
    return stat(file.c_str(), &st) == 0 && st.st_size == 0;
  }

  const std::string& home = testkit::processTestHome();
  testkit::ScratchDir dir;
  const std::string folder = dir.path();
  ManualClock clock;
  testkit::FixedLoad load{clock};
  RunLoop loop{clock};
  NotificationCenter center;
  testkit::NotificationRecorder recorder{clock, center};
  OperationQueue queue{1};
  KRCompressor compressor{loop, Env::system(), center, {.compressionQueue = &queue, .load = &load}};
  ProcessViews* mounter = new ProcessViews();
  PathMap map;
  KRFolderViews views{std::unique_ptr<view::ViewMounter>(mounter), loop, map, Env::system()};
  std::vector<std::string> restored;
};

TEST_F(FolderViewsTest, AViewThatEndsIsMountedAgainAndNothingIsCompressedInItsFolderMeanwhile) {
  const std::string first = folder + "/first.txt", second = folder + "/second.txt";
  testkit::writeFile(first, testkit::compressibleData(65536, 1));
  testkit::writeFile(second, testkit::compressibleData(65536, 2));

  views.foldersChanged(std::vector<std::string>{folder}, true);
  EXPECT_EQ(views.describe(), std::vector<std::string>{folder + ": full content through its view"});
  EXPECT_EQ(views.holdReason(first), "");
  // The helper reaches the stored folder through a descriptor of its own.
  const std::string mapped = map.toAccess(first);
  EXPECT_EQ(mapped.rfind("/proc/self/fd/", 0), 0u) << mapped;
  EXPECT_EQ(testkit::readFile(mapped), testkit::readFile(first));
  ASSERT_EQ(compressor.addFiles({first}), 1u);
  loop.runUntilIdle();

  // The view ends while the file waits, and cannot be mounted again for now.
  mounter->mountWorks = false;
  mounter->endView();
  loop.runUntilIdle();
  EXPECT_EQ(mounter->mounts, 2);
  const std::string down = "not compressing in " + folder +
                           ": its view is down, so programs would read compressed files as empty; "
                           "`zephlore mount --over " +
                           folder + "` puts it back";
  EXPECT_EQ(views.describe(), std::vector<std::string>{down});
  EXPECT_NE(views.holdReason(first), "");
  EXPECT_EQ(views.holdReason(folder + "-other/x"), "") << "a sibling folder is not held";

  // The queued file is passed over at its turn; a new one is not taken.
  advance(KRCompressor::kTickDelay);
  queue.waitUntilAllOperationsAreFinished();
  std::vector<testkit::PostedNotification> done = recorder.named(kFileCompressedNotification);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].errorCode, kFolderHeldErrorCode);
  EXPECT_FALSE(compressed(first));
  EXPECT_EQ(compressor.addFiles({second}), 0u);
  EXPECT_TRUE(mapped == map.toAccess(first)) << "still reached while the view is down";

  // Tried again until it works; then the folder is looked at again.
  advance(KRFolderViews::kRetryInterval - 1);
  EXPECT_EQ(mounter->mounts, 3);
  mounter->mountWorks = true;
  advance(KRFolderViews::kRetryInterval);
  EXPECT_EQ(mounter->mounts, 4);
  EXPECT_EQ(restored, std::vector<std::string>{folder});
  EXPECT_EQ(views.holdReason(first), "");
  ASSERT_EQ(views.describe().size(), 1u);
  EXPECT_EQ(views.describe()[0].rfind(folder + ": full content through its view (restored at ", 0), 0u)
      << views.describe()[0];
  ASSERT_EQ(compressor.addFiles({first, second}), 2u);
  loop.runUntilIdle();
  advance(KRCompressor::kTickDelay);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(compressed(first));
  EXPECT_TRUE(compressed(second));

  // A folder no longer watched is no longer supervised or held.
  views.foldersChanged(std::vector<std::string>{}, true);
  EXPECT_TRUE(views.describe().empty());
  mounter->endView();
  loop.runUntilIdle();
  EXPECT_EQ(mounter->mounts, 4);
}

// A view found at the start (it outlived the previous helper) is adopted,
// not stacked over.
TEST_F(FolderViewsTest, AViewFoundAtTheStartIsAdopted) {
  Error ignored;
  ASSERT_TRUE(mounter->mountOver(folder, &ignored));
  views.foldersChanged(std::vector<std::string>{folder}, true);
  EXPECT_EQ(mounter->mounts, 1);
  EXPECT_EQ(views.describe(), std::vector<std::string>{folder + ": full content through its view"});
  mounter->endView();
  loop.runUntilIdle();
  EXPECT_EQ(mounter->mounts, 2) << "the adopted view is watched as well";
}

// The helper and its view killed together: the new helper finds the dead
// view, whose folder answers nothing, mounts a new one and says it was
// restored, as for any view that ended.
TEST_F(FolderViewsTest, ADeadViewFoundAtTheStartIsReplaced) {
  const std::string behindDeadView = folder + "/Documents";
  mounter->deadViewLeft = true;
  views.foldersChanged(std::vector<std::string>{behindDeadView}, true);
  EXPECT_EQ(mounter->mounts, 1);
  ASSERT_EQ(views.describe().size(), 1u);
  EXPECT_EQ(views.describe()[0].rfind(behindDeadView + ": full content through its view (restored at ", 0), 0u)
      << views.describe()[0];
  EXPECT_EQ(views.holdReason(behindDeadView + "/a.txt"), "");
}

}  // namespace
}  // namespace zephlore
