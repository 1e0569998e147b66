// The helper as a user runs it: a real zephlore-helper process on a private
// bus, its waits shortened with ZEPHLORE_CLOCK_SPEED, driven by the zephlore
// command. Every wait is for the helper's own progress (a bus name, an answer
// of the helper, a process end), bounded by a timeout; nothing sleeps.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <chrono>

#include "testing/child.h"
#include "testing/files.h"
#include "testing/private_tmpfs.h"
#include "testing/scoped_env.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::Child;
using testkit::ProcessResult;
using testkit::runProcess;

const std::string kBin = ZEPHLORE_BINARY_DIR "/bin/";

ProcessResult zephlore(std::vector<std::string> args) {
  args.insert(args.begin(), kBin + "zephlore");
  return runProcess(args);
}

// Blocks until `pid` has ended, at most `ms`; false on timeout.
bool waitForExit(pid_t pid, int ms) {
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) return true;
  struct pollfd wait = {fd, POLLIN, 0};
  const bool ended = poll(&wait, 1, ms) == 1;
  close(fd);
  return ended;
}

bool waitForHelperName() {
  return runProcess({"gdbus", "wait", "--session", "--timeout", "10", "com.quorvane.ZephloreHelper"}).status == 0;
}

nlohmann::json statusJson() {
  ProcessResult r = zephlore({"status", "--json"});
  return nlohmann::json::parse(r.out, nullptr, false);
}

class HelperEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!folder_.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here (needs root)";
  }
  // Starts the helper with its waits 1000 times shorter; true once it owns its name.
  bool startHelper() {
    helper_ = std::make_unique<Child>(std::vector<std::string>{kBin + "zephlore-helper"});
    return waitForHelperName();
  }
  // Asks the running helper until its total savings exceed `floor`, for at
  // most 20 s. Each answer is a whole round trip to the helper, so this waits
  // on the helper's own progress, not on a timer.
  static bool waitForSavingsAbove(uint64_t floor) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      nlohmann::json status = statusJson();
      if (status.is_object() && status.value("totalSavings", uint64_t{0}) > floor) return true;
    }
    return false;
  }

  testkit::PrivateTmpfs folder_;
  testkit::TestHome home_;
  testkit::TestSessionBus bus_{home_.root()};
  testkit::ScopedEnvVar speed_{"ZEPHLORE_CLOCK_SPEED", std::string("1000")};
  // The helper's log lines on its standard error, for the failure messages.
  testkit::ScopedEnvVar journal_{"JOURNAL_STREAM", std::string("test")};
  std::unique_ptr<Child> helper_;
};

TEST_F(HelperEndToEnd, AFileSavedIntoAWatchedFolderIsCompressedCountedAndSurvivesQuitAndCrash) {
  // The stored form itself is checked here; views have their own test.
  ASSERT_EQ(zephlore({"view-off"}).status, 0);
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  const std::string watched = folder_.path() + "/Documents";
  ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
  ProcessResult added = zephlore({"add", watched});
  ASSERT_EQ(added.status, 0) << added.out << added.err;

  const std::string original = testkit::compressibleData(300'000);
  testkit::writeFile(watched + "/report.txt", original);

  // The savings reach the status object once the file is compressed.
  if (!waitForSavingsAbove(0)) {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    FAIL() << "no savings counted; helper:\n" << helper_->err();
  }
  ProcessResult info = zephlore({"info", "--json", watched + "/report.txt"});
  EXPECT_NE(info.out.find("\"compressed\""), std::string::npos) << info.out;
  ProcessResult cat = zephlore({"cat", watched + "/report.txt"});
  EXPECT_EQ(cat.out, original);

  nlohmann::json status = statusJson();
  ASSERT_TRUE(status.is_object());
  EXPECT_EQ(status["running"], true);
  EXPECT_GT(status["totalSavings"].get<uint64_t>(), 0u);
  ASSERT_EQ(status["folders"].size(), 1u) << status.dump();
  EXPECT_GT(status["folders"][0]["savings"].get<uint64_t>(), 0u);

  // The pane's quit: an orderly end with status 0, savings kept.
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  ASSERT_TRUE(waitForExit(helper_->pid(), 10'000));
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();
  nlohmann::json folders = nlohmann::json::parse(zephlore({"folders", "--json"}).out, nullptr, false);
  ASSERT_TRUE(folders.is_object());
  const uint64_t saved = folders["totalSavings"].get<uint64_t>();
  EXPECT_GT(saved, 0u);

  // A fatal signal: the history is saved, and the helper dies of that signal.
  ASSERT_TRUE(startHelper());
  testkit::writeFile(watched + "/second.txt", testkit::compressibleData(200'000, 2));
  if (!waitForSavingsAbove(saved)) {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    FAIL() << "no new savings counted; helper:\n" << helper_->err();
  }
  kill(helper_->pid(), SIGSEGV);
  ASSERT_TRUE(waitForExit(helper_->pid(), 15'000));
  EXPECT_EQ(helper_->finish(), 128 + SIGSEGV);
  EXPECT_NE(helper_->err().find("received signal 11"), std::string::npos) << helper_->err();
  folders = nlohmann::json::parse(zephlore({"folders", "--json"}).out, nullptr, false);
  EXPECT_GT(folders["totalSavings"].get<uint64_t>(), saved) << "the second file's savings were saved";
  EXPECT_EQ(zephlore({"cat", watched + "/second.txt"}).out, testkit::compressibleData(200'000, 2));
}

TEST_F(HelperEndToEnd, WithViewsADocumentCompressedByTheHelperReadsInFullThroughItsOwnPath) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  ASSERT_EQ(zephlore({"view-on"}).status, 0);
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  const std::string watched = folder_.path() + "/Documents";
  ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
  ASSERT_EQ(zephlore({"add", watched}).status, 0);
  nlohmann::json status = statusJson();
  ASSERT_EQ(status["views"].size(), 1u) << status.dump() << helper_->err();
  EXPECT_EQ(status["views"][0], watched + ": full content through its view");

  // Saved through the folder's usual path, which the view now covers.
  const std::string original = testkit::compressibleData(300'000, 3);
  testkit::writeFile(watched + "/report.txt", original);
  if (!waitForSavingsAbove(0)) {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    runProcess({kBin + "zephlore", "unmount", "-z", watched});
    FAIL() << "no savings counted; helper:\n" << helper_->err();
  }
  // Any program reads it at full content, by its usual path.
  EXPECT_EQ(testkit::readFile(watched + "/report.txt"), original);
  struct stat st;
  ASSERT_EQ(stat((watched + "/report.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(original.size()));

  // No longer watched: the view stays while a file in it is compressed.
  ASSERT_EQ(zephlore({"remove", watched}).status, 0);
  status = statusJson();
  ASSERT_EQ(status["views"].size(), 1u) << status.dump();
  EXPECT_NE(status["views"][0].get<std::string>().find("report.txt is compressed"), std::string::npos)
      << status.dump();
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  ASSERT_TRUE(waitForExit(helper_->pid(), 10'000));
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();

  // The view outlives the helper; decompressing works beneath it, and then
  // the view can go, leaving the plain file.
  ProcessResult expanded = zephlore({"decompress", "-r", watched});
  EXPECT_EQ(expanded.status, 0) << expanded.out << expanded.err;
  ProcessResult unmounted = zephlore({"unmount", watched});
  ASSERT_EQ(unmounted.status, 0) << unmounted.err;
  EXPECT_EQ(testkit::readFile(watched + "/report.txt"), original);
}

TEST_F(HelperEndToEnd, TwoHelpersStartedTogetherLeaveOne) {
  Child first({kBin + "zephlore-helper"});
  Child second({kBin + "zephlore-helper"});
  ASSERT_TRUE(waitForHelperName());
  // The loser ends by itself; the winner runs until told to quit.
  int fds[2] = {static_cast<int>(syscall(SYS_pidfd_open, first.pid(), 0)),
                static_cast<int>(syscall(SYS_pidfd_open, second.pid(), 0))};
  struct pollfd ends[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
  ASSERT_EQ(poll(ends, 2, 10'000), 1) << "exactly one copy ends by itself";
  close(fds[0]);
  close(fds[1]);
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  EXPECT_EQ(first.finish(), 0);
  EXPECT_EQ(second.finish(), 0);
}

}  // namespace
}  // namespace zephlore
