// `zephlore add`, `remove` and `folders` against a real helper process on a
// private bus: the command starts the helper, the helper writes the history,
// the command reads it back; a version notice restarts the helper.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

#include "helper/bus/distributed_notification_center.h"
#include "helper/history/history_test_support.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"
#include "testing/zephlore_command.h"

namespace zephlore {
namespace {

using testkit::ProcessResult;
using testkit::runProcess;
using testkit::waitForExit;

// The process owning the helper's bus name, or 0.
pid_t helperPid() {
  ProcessResult result = runProcess(
      {"gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path",
       "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.GetConnectionUnixProcessID",
       kHelperBusName});
  unsigned pid = 0;
  if (result.status != 0 || sscanf(result.out.c_str(), "(uint32 %u,)", &pid) != 1) return 0;
  return static_cast<pid_t>(pid);
}

class FolderCommandsTest : public ::testing::Test {
 protected:
  // The helper started here mounts no views: they would outlive it.
  void SetUp() override { ASSERT_EQ(testkit::runZephlore({"view-off"}).status, 0); }

  ~FolderCommandsTest() override {
    if (pid_t pid = helperPid()) {
      kill(pid, SIGTERM);
      waitForExit(pid, 10'000);
    }
  }

  // Asks the helper on the bus to add `folder`; true once it saved its
  // history after that, within 10 s.
  bool postFoldersAndWaitForTheSave(const std::string& folder) {
    SystemClock clock;
    RunLoop loop(clock);
    bool saved = false, late = false;
    auto observer = center_.addObserver(kSavingsChangedNotification, [&](const Notification&) { saved = true; }, loop);
    center_.postNotificationName(kFoldersNotification, {{kFoldersToAddKey, std::vector<std::string>{folder}}},
                                  false);
    center_.flush();
    loop.performAfterDelay(seconds(10), [&] { late = true; });
    loop.runUntil([&] { return saved || late; });
    center_.removeObserver(observer);
    return saved;
  }

  testkit::TestHome home_;
  testkit::TestSessionBus bus_{home_.root()};
  testkit::ShmFolder shm_;
  DistributedNotificationCenter center_;  // on this test's bus
};

TEST_F(FolderCommandsTest, AddStartsTheHelperWhichRecordsTheFolderForFoldersToShow) {
  std::string folder = shm_.make("Documents");
  ProcessResult refused = testkit::runZephlore({"add", shm_.path() + "/missing"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("no such folder"), std::string::npos);
  testkit::writeFile(shm_.path() + "/file", "x");
  EXPECT_EQ(testkit::runZephlore({"add", shm_.path() + "/file"}).status, 1);
  EXPECT_EQ(helperPid(), 0);
  EXPECT_NE(testkit::runZephlore({"folders"}).out.find("No folders yet"), std::string::npos);

  ProcessResult added = testkit::runZephlore({"add", shm_.path() + "/./Documents"});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_NE(helperPid(), 0);

  ProcessResult shown = testkit::runZephlore({"folders", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  nlohmann::json json = nlohmann::json::parse(shown.out);
  ASSERT_EQ(json["folders"].size(), 1u) << shown.out;
  EXPECT_EQ(json["folders"][0]["path"], folder);
  EXPECT_EQ(json["folders"][0]["watched"], true);
  EXPECT_EQ(json["folders"][0]["savings"], 0);
  EXPECT_EQ(json["totalSavings"], 0);

  ASSERT_EQ(testkit::runZephlore({"remove", folder}).status, 0);
  json = nlohmann::json::parse(testkit::runZephlore({"folders", "--json"}).out);
  EXPECT_EQ(json["folders"][0]["watched"], false);
}

TEST_F(FolderCommandsTest, AnotherVersionMakesTheHelperStartANewCopyAndQuit) {
  ASSERT_EQ(testkit::runZephlore({"add", shm_.make("w")}).status, 0);
  const pid_t first = helperPid();
  ASSERT_NE(first, 0);

  // Its own version changes nothing: the folder notice after it is still
  // handled by the same process.
  DistributedNotificationCenter& center = center_;
  center.postNotificationName(kVersionNotification, {{kVersionKey, std::string(ZEPHLORE_VERSION)}}, false);
  EXPECT_TRUE(postFoldersAndWaitForTheSave(shm_.make("v")));
  EXPECT_EQ(helperPid(), first);

  center.postNotificationName(kVersionNotification, {{kVersionKey, "0.0.0 "}}, false);
  center.flush();
  ASSERT_TRUE(waitForExit(first, 5'000));
  ASSERT_EQ(runProcess({"gdbus", "wait", "--session", "--timeout", "5", kHelperBusName}).status,
            0);
  const pid_t second = helperPid();
  EXPECT_NE(second, 0);
  EXPECT_NE(second, first);
  // The new copy has the history the old one saved.
  ProcessResult shown = testkit::runZephlore({"folders", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(nlohmann::json::parse(shown.out)["folders"].size(), 2u);
}

// ext4 as distributions make it keeps about 4 KiB of attributes per file:
// such a folder is refused with the reason and the fix, watched with
// --anyway and shown so; large values switched on while mounted count at once.
TEST_F(FolderCommandsTest, AFolderWhoseVolumeCannotHoldTheFormIsRefusedUnlessAnyway) {
  testkit::LoopMount ext4(testkit::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  const std::string folder = ext4 / "Archive";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ProcessResult refused = testkit::runZephlore({"add", folder});
  EXPECT_EQ(refused.status, 1);
  for (const char* words : {"its volume cannot hold compressed files", "(ext4 without ea_inode)",
                            "tune2fs -O ea_inode /dev/loop", "before 4.13", "/boot", "nothing was added"}) {
    EXPECT_NE(refused.err.find(words), std::string::npos) << words << " not in:\n" << refused.err;
  }
  EXPECT_EQ(helperPid(), 0);

  ProcessResult added = testkit::runZephlore({"add", "--anyway", folder});
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_NE(added.out.find("Watching "), std::string::npos) << added.out << added.err;
  EXPECT_NE(testkit::runZephlore({"folders"}).out.find("its volume cannot hold compressed files"), std::string::npos);
  nlohmann::json status = nlohmann::json::parse(testkit::runZephlore({"status", "--json"}).out, nullptr, false);
  ASSERT_TRUE(status.is_object());
  ASSERT_EQ(status["folders"].size(), 1u) << status.dump();
  EXPECT_EQ(status["folders"][0]["volumeCanHoldCompressedForm"], false);

  const std::string largeValues =
      "tune2fs -O ea_inode \"$(findmnt -n -o SOURCE " + ext4.path() + ")\" >/dev/null 2>&1";
  ASSERT_EQ(std::system(largeValues.c_str()), 0);
  nlohmann::json folders = nlohmann::json::parse(testkit::runZephlore({"folders", "--json"}).out, nullptr, false);
  ASSERT_TRUE(folders.is_object());
  EXPECT_EQ(folders["folders"][0]["volumeCanHoldCompressedForm"], true) << folders.dump();

  // The helper leaves the volume before it is unmounted.
  const pid_t helper = helperPid();
  ASSERT_EQ(testkit::runZephlore({"quit"}).status, 0);
  EXPECT_TRUE(waitForExit(helper, 10'000));
}

// Every rule sees one form of a path: a parent told on the bus as
// "watched/.." takes the watched folder over instead of counting as inside
// it, and a watched folder deleted since is removed by its path.
TEST_F(FolderCommandsTest, PathsAreNormalisedAndADeletedWatchedFolderCanBeRemoved) {
  const std::string parent = shm_.make("x");
  const std::string watched = shm_.make("x/w");
  ASSERT_EQ(testkit::runZephlore({"add", watched}).status, 0);

  ASSERT_TRUE(postFoldersAndWaitForTheSave(watched + "/..//./")) << "the helper did not save after the change";
  auto watchedFolders = [&] {
    std::map<std::string, bool> folders;
    const nlohmann::json shown = nlohmann::json::parse(testkit::runZephlore({"folders", "--json"}).out);
    for (const auto& folder : shown["folders"]) {
      folders[folder["path"]] = folder["watched"];
    }
    return folders;
  };
  EXPECT_EQ(watchedFolders(), (std::map<std::string, bool>{{parent, true}, {watched, false}}));

  const std::string gone = shm_.make("gone");
  ASSERT_EQ(testkit::runZephlore({"add", gone}).status, 0);
  ASSERT_EQ(rmdir(gone.c_str()), 0);
  ProcessResult removed = testkit::runZephlore({"remove", shm_.path() + "//gone/"});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_NE(removed.out.find("No longer watching " + gone), std::string::npos) << removed.out;
  EXPECT_EQ(watchedFolders()[gone], false);
  ProcessResult again = testkit::runZephlore({"remove", gone});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("not a watched folder"), std::string::npos) << again.err;
}

}  // namespace
}  // namespace zephlore
