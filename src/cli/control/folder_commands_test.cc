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
#include <nlohmann/json.hpp>

#include "base/shared_instance.h"
#include "helper/distributed_notification_center.h"
#include "helper/history/history_test_support.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::ProcessResult;
using testkit::runProcess;

const std::string kZephlore = ZEPHLORE_BINARY_DIR "/bin/zephlore";

ProcessResult zephlore(std::vector<std::string> args) {
  args.insert(args.begin(), kZephlore);
  return runProcess(args);
}

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

// Blocks until `pid` has ended, at most `ms` (an event wait, not a sleep).
bool waitForExit(pid_t pid, int ms) {
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) return true;  // already gone
  struct pollfd wait = {fd, POLLIN, 0};
  bool ended = poll(&wait, 1, ms) == 1;
  close(fd);
  return ended;
}

class FolderCommandsTest : public ::testing::Test {
 protected:
  // The helper started here mounts no views: they would outlive it.
  void SetUp() override { ASSERT_EQ(zephlore({"view-off"}).status, 0); }

  ~FolderCommandsTest() override {
    if (pid_t pid = helperPid()) {
      kill(pid, SIGTERM);
      waitForExit(pid, 10'000);
    }
  }

  testkit::TestHome home_;
  testkit::TestSessionBus bus_{home_.root()};
  testkit::ShmFolder shm_;
};

TEST_F(FolderCommandsTest, AddStartsTheHelperWhichRecordsTheFolderForFoldersToShow) {
  std::string folder = shm_.make("Documents");
  ProcessResult refused = zephlore({"add", shm_.path() + "/missing"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("no such folder"), std::string::npos);
  testkit::writeFile(shm_.path() + "/file", "x");
  EXPECT_EQ(zephlore({"add", shm_.path() + "/file"}).status, 1);
  EXPECT_EQ(helperPid(), 0);
  EXPECT_NE(zephlore({"folders"}).out.find("No folders yet"), std::string::npos);

  ProcessResult added = zephlore({"add", shm_.path() + "/./Documents"});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_NE(helperPid(), 0);

  ProcessResult shown = zephlore({"folders", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  nlohmann::json json = nlohmann::json::parse(shown.out);
  ASSERT_EQ(json["folders"].size(), 1u) << shown.out;
  EXPECT_EQ(json["folders"][0]["path"], folder);
  EXPECT_EQ(json["folders"][0]["watched"], true);
  EXPECT_EQ(json["folders"][0]["savings"], 0);
  EXPECT_EQ(json["totalSavings"], 0);

  ASSERT_EQ(zephlore({"remove", folder}).status, 0);
  json = nlohmann::json::parse(zephlore({"folders", "--json"}).out);
  EXPECT_EQ(json["folders"][0]["watched"], false);
}

TEST_F(FolderCommandsTest, AnotherVersionMakesTheHelperStartANewCopyAndQuit) {
  ASSERT_EQ(zephlore({"add", shm_.make("w")}).status, 0);
  const pid_t first = helperPid();
  ASSERT_NE(first, 0);

  // Its own version changes nothing: the folder notice after it is still
  // handled by the same process.
  ScopedShared<DistributedNotificationCenter> fresh_center;  // on this test's bus
  DistributedNotificationCenter& center = *fresh_center;
  RunLoop loop;
  bool saved = false;
  auto observer = center.addObserver(kSavingsChangedNotification,
                                     [&](const Notification&) { saved = true; }, loop);
  center.postNotificationName(kVersionNotification, {{kVersionKey, std::string(ZEPHLORE_VERSION)}},
                              false);
  center.postNotificationName(kFoldersNotification,
                              {{kFoldersToAddKey, std::vector<std::string>{shm_.make("v")}}}, false);
  center.flush();
  loop.runUntil([&] { return saved; });
  center.removeObserver(observer);
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
  ProcessResult shown = zephlore({"folders", "--json"});
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
  ProcessResult refused = zephlore({"add", folder});
  EXPECT_EQ(refused.status, 1);
  for (const char* words : {"its volume cannot hold compressed files", "(ext4 without ea_inode)",
                            "tune2fs -O ea_inode /dev/loop", "before 4.13", "/boot", "nothing was added"}) {
    EXPECT_NE(refused.err.find(words), std::string::npos) << words << " not in:\n" << refused.err;
  }
  EXPECT_EQ(helperPid(), 0);

  ProcessResult added = zephlore({"add", "--anyway", folder});
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_NE(added.out.find("Watching "), std::string::npos) << added.out << added.err;
  EXPECT_NE(zephlore({"folders"}).out.find("its volume cannot hold compressed files"), std::string::npos);
  nlohmann::json status = nlohmann::json::parse(zephlore({"status", "--json"}).out, nullptr, false);
  ASSERT_TRUE(status.is_object());
  ASSERT_EQ(status["folders"].size(), 1u) << status.dump();
  EXPECT_EQ(status["folders"][0]["volumeCanHoldCompressedForm"], false);

  const std::string largeValues =
      "tune2fs -O ea_inode \"$(findmnt -n -o SOURCE " + ext4.path() + ")\" >/dev/null 2>&1";
  ASSERT_EQ(std::system(largeValues.c_str()), 0);
  nlohmann::json folders = nlohmann::json::parse(zephlore({"folders", "--json"}).out, nullptr, false);
  ASSERT_TRUE(folders.is_object());
  EXPECT_EQ(folders["folders"][0]["volumeCanHoldCompressedForm"], true) << folders.dump();

  // The helper leaves the volume before it is unmounted.
  const pid_t helper = helperPid();
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  EXPECT_TRUE(waitForExit(helper, 10'000));
}

}  // namespace
}  // namespace zephlore
