// The helper as a user runs it: a real zephlore-helper process on a private
// bus, its waits shortened with ZEPHLORE_CLOCK_SPEED, driven by the zephlore
// command. Every wait is for an event (a bus name, a property change, a
// process end), bounded by a timeout; nothing sleeps.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <regex>

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
  // Follows the helper's status object.
  std::unique_ptr<Child> monitorStatus() {
    auto monitor = std::make_unique<Child>(std::vector<std::string>{
        "gdbus", "monitor", "--session", "--dest", "com.quorvane.ZephloreHelper", "--object-path",
        "/com/quorvane/ZephloreHelper"});
    // Subscribed once it says so; only then may the test cause changes.
    monitor->waitForOutput([](const std::string& out) { return out.find("Monitoring") != std::string::npos; }, 5'000);
    return monitor;
  }
  // Waits until the status object announces total savings above `floor`.
  static bool waitForSavingsAbove(Child& monitor, uint64_t floor) {
    return monitor.waitForOutput(
        [floor](const std::string& out) {
          static const std::regex kSavings("'TotalSavings': <uint64 ([0-9]+)>");
          for (auto it = std::sregex_iterator(out.begin(), out.end(), kSavings); it != std::sregex_iterator(); ++it) {
            if (std::stoull((*it)[1].str()) > floor) return true;
          }
          return false;
        },
        20'000);
  }

  testkit::PrivateTmpfs folder_;
  testkit::TestHome home_;
  testkit::TestSessionBus bus_{home_.root()};
  testkit::ScopedEnvVar speed_{"ZEPHLORE_CLOCK_SPEED", std::string("1000")};
  // The helper's log lines on its standard error, for the failure messages.
  testkit::ScopedEnvVar journal_{"JOURNAL_STREAM", std::string("test")};
  std::unique_ptr<Child> helper_;
};

// Disabled: under the sped-up clock the file is not always compressed within
// the wait yet; see the lifecycle issue's note.
TEST_F(HelperEndToEnd, DISABLED_AFileSavedIntoAWatchedFolderIsCompressedCountedAndSurvivesQuitAndCrash) {
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  const std::string watched = folder_.path() + "/Documents";
  ASSERT_EQ(mkdir(watched.c_str(), 0755), 0);
  ProcessResult added = zephlore({"add", watched});
  ASSERT_EQ(added.status, 0) << added.out << added.err;

  std::unique_ptr<Child> monitor = monitorStatus();
  const std::string original = testkit::compressibleData(300'000);
  testkit::writeFile(watched + "/report.txt", original);

  // The savings reach the status object once the file is compressed.
  if (!waitForSavingsAbove(*monitor, 0)) {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    FAIL() << "no savings announced:\n" << monitor->out() << "\nhelper:\n" << helper_->err();
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
  std::unique_ptr<Child> monitor2 = monitorStatus();
  testkit::writeFile(watched + "/second.txt", testkit::compressibleData(200'000, 2));
  if (!waitForSavingsAbove(*monitor2, saved)) {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    FAIL() << "no new savings announced:\n" << monitor2->out() << "\nhelper:\n" << helper_->err();
  }
  kill(helper_->pid(), SIGSEGV);
  ASSERT_TRUE(waitForExit(helper_->pid(), 15'000));
  EXPECT_EQ(helper_->finish(), 128 + SIGSEGV);
  EXPECT_NE(helper_->err().find("received signal 11"), std::string::npos) << helper_->err();
  folders = nlohmann::json::parse(zephlore({"folders", "--json"}).out, nullptr, false);
  EXPECT_GT(folders["totalSavings"].get<uint64_t>(), saved) << "the second file's savings were saved";
  EXPECT_EQ(zephlore({"cat", watched + "/second.txt"}).out, testkit::compressibleData(200'000, 2));
}

TEST_F(HelperEndToEnd, TwoHelpersStartedTogetherLeaveOne) {
  Child first({kBin + "zephlore-helper"});
  Child second({kBin + "zephlore-helper"});
  ASSERT_TRUE(waitForHelperName());
  // The loser ends by itself; the winner runs until told to quit.
  const bool first_ended = waitForExit(first.pid(), 10'000);
  const bool second_ended = waitForExit(second.pid(), first_ended ? 0 : 10'000);
  EXPECT_NE(first_ended, second_ended) << "exactly one copy stays";
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  EXPECT_EQ(first.finish(), 0);
  EXPECT_EQ(second.finish(), 0);
}

}  // namespace
}  // namespace zephlore
