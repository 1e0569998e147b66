// The helper's views as a user meets them: a view whose process is killed
// is mounted again at once, and a new helper adopts the views it finds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/control/helper_process_test_support.h"
#include "view/mount_table.h"
#include "view/underlying_tree.h"

namespace zephlore::e2e {
namespace {

int viewsMountedOn(const std::string& folder) {
  int count = 0;
  for (const view::ViewMountEntry& entry : view::viewMounts()) count += entry.mountPoint == folder;
  return count;
}

// The process serving the view over `folder`, 0 when none does.
pid_t viewProcess(const std::string& folder) {
  std::optional<view::ViewCover> cover = view::viewCovering(folder);
  if (!cover || cover->mountPoint != folder) return 0;
  return static_cast<pid_t>(atoi(cover->beneath.c_str() + 6));  // "/proc/PID/fd/N"
}

std::string viewLine(const nlohmann::json& status) {
  return status.is_object() && status["views"].size() == 1 ? status["views"][0].get<std::string>() : status.dump();
}

class HelperViews : public HelperEndToEnd {
 protected:
  void TearDown() override {
    if (helper_) endHelper();
    if (!watched_.empty() && viewsMountedOn(watched_) > 0) runProcess({kBin + "zephlore", "unmount", "-z", watched_});
  }
  // Kills the view over the watched folder and waits for the helper to say
  // it is back; the milliseconds that took, -1 when it did not come.
  long long killViewAndWaitForItsReturn(size_t logLinesBefore) {
    const pid_t view = viewProcess(watched_);
    if (view <= 0) return -1;
    const auto killed = std::chrono::steady_clock::now();
    kill(view, SIGKILL);
    auto back = [logLinesBefore](const std::string& log) {
      return log.find("is back", logLinesBefore) != std::string::npos;
    };
    if (!helper_->waitForErrorOutput(back, 10'000)) return -1;
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - killed).count();
  }

  std::string watched_;
};

TEST_F(HelperViews, AKilledViewIsMountedAgainAndANewHelperAdoptsTheViewItFinds) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  ASSERT_EQ(zephlore({"view-on"}).status, 0);
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  watched_ = folder_.path() + "/Documents";
  ASSERT_EQ(mkdir(watched_.c_str(), 0755), 0);
  ASSERT_EQ(zephlore({"add", watched_}).status, 0);
  const std::string original = testkit::compressibleData(300'000, 5);
  testkit::writeFile(watched_ + "/report.txt", original);
  ASSERT_TRUE(waitForSavingsAbove(0)) << "nothing compressed; helper:\n" << endHelper();
  ASSERT_EQ(infoJson(watched_ + "/report.txt")["state"], "compressed");

  const long long restoredMs = killViewAndWaitForItsReturn(helper_->err().size());
  ASSERT_GE(restoredMs, 0) << "the view was not mounted again; helper:\n" << endHelper();
  fprintf(stderr, "the view was back %lld ms after its process was killed\n", restoredMs);
  EXPECT_EQ(testkit::readFile(watched_ + "/report.txt"), original) << "read through the folder's own path";
  EXPECT_EQ(viewsMountedOn(watched_), 1);
  EXPECT_NE(helper_->err().find("*** ZephloreHelper: the view over " + watched_ + " ended"), std::string::npos)
      << helper_->err();
  EXPECT_NE(viewLine(statusJson()).find(watched_ + ": full content through its view (restored at "),
            std::string::npos)
      << viewLine(statusJson());

  // The view outlives its helper; the next helper takes it as it is.
  const pid_t servedBy = viewProcess(watched_);
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  ASSERT_TRUE(waitForExit(helper_->pid(), 10'000));
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();
  helper_.reset();
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  ASSERT_TRUE(helper_->waitForErrorOutput(
      [](const std::string& log) { return log.find(" started") != std::string::npos; }, 10'000))
      << helper_->err();
  EXPECT_EQ(viewLine(statusJson()), watched_ + ": full content through its view");
  EXPECT_EQ(viewsMountedOn(watched_), 1) << "no second view stacked over the first";
  EXPECT_EQ(viewProcess(watched_), servedBy);

  // ...and watches it as its own.
  ASSERT_GE(killViewAndWaitForItsReturn(helper_->err().size()), 0)
      << "the adopted view was not mounted again; helper:\n" << endHelper();
  EXPECT_EQ(testkit::readFile(watched_ + "/report.txt"), original);
  EXPECT_EQ(viewsMountedOn(watched_), 1);
}

}  // namespace
}  // namespace zephlore::e2e
