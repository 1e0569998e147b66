// The pane side of `zephlore`, run as the user runs it: the built command in
// a process of its own, talking to this test process over a private bus.
#include <gtest/gtest.h>

#include <filesystem>

#include "helper/bus/distributed_notification_center.h"
#include "helper/settings/plist_file.h"
#include "pane/autostart_entry.h"
#include "pane/exclusion_lists.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"
#include "testing/zephlore_command.h"

namespace zephlore {
namespace {

using testkit::ProcessResult;
using testkit::readFile;
using testkit::runProcess;
using testkit::TestHome;
using testkit::TestSessionBus;
using testkit::writeFile;

std::optional<bool> fileBool(const std::string& path, const char* key) {
  PlistReadResult file = readPlistFile(Env::system(), path);
  if (!file.root) return std::nullopt;
  return plistBoolValue(plist_dict_get_item(file.root.get(), key));
}

class PaneCommandsTest : public ::testing::Test {
 protected:
  std::string defaultsFile() const { return home.dataFolder() + "/defaults.plist"; }

  TestHome home;
  TestSessionBus bus{home.root()};
  SystemClock clock;  // the commands run for real
  RunLoop loop{clock};
  DistributedNotificationCenter center;
};

TEST_F(PaneCommandsTest, EachCommandPostsItsNameAfterWritingItsFile) {
  struct Step {
    std::vector<std::string> args;
    const char* name;
    const char* key;  // the defaults.plist key it changes, if any
    bool value;
  };
  const std::vector<Step> steps = {
      {{"activate"}, kActiveStatusNotification, "active", true},
      {{"hide-icon"}, kVisibilityNotification, "visible", false},
      {{"show-icon"}, kVisibilityNotification, "visible", true},
      {{"updates", "off"}, kDisableUpdatesNotification, "checkUpdates", false},
      {{"updates", "on"}, kEnableUpdatesNotification, "checkUpdates", true},
      {{"updates", "check"}, kShouldCheckForUpdatesNotification, nullptr, false},
      {{"exclude", "add", "/srv/media"}, kExcludedPathsNotification, nullptr, false},
      {{"exclude-ext", "add", "iso"}, kExcludedExtensionsNotification, nullptr, false},
      {{"quit"}, kHelperShouldQuitNotification, nullptr, false},
  };
  std::vector<std::string> received;
  std::vector<std::optional<bool>> file_values;
  for (const char* name :
       {kActiveStatusNotification, kVisibilityNotification, kDisableUpdatesNotification,
        kEnableUpdatesNotification, kShouldCheckForUpdatesNotification, kExcludedPathsNotification,
        kExcludedExtensionsNotification, kHelperShouldQuitNotification,
        kHelperShouldKeepAliveNotification, "test.sentinel"}) {
    center.addObserver(name, [&](const Notification& note) { received.push_back(note.name); }, loop);
  }
  for (const Step& step : steps) {
    received.clear();
    ProcessResult result = testkit::runZephlore(step.args);
    ASSERT_EQ(result.status, 0) << step.args[0] << ": " << result.err;
    if (step.key) {
      EXPECT_EQ(fileBool(defaultsFile(), step.key), step.value) << step.args[0];
    }
    // A sentinel from a later process arrives after everything the command
    // posted, so a missing or extra notice shows here instead of hanging.
    center.postNotificationName("test.sentinel");
    ASSERT_TRUE(loop.runUntil(
        [&] { return !received.empty() && received.back() == "test.sentinel"; }));
    EXPECT_EQ(received, (std::vector<std::string>{step.name, "test.sentinel"})) << step.args[0];
    // Without a helper on the bus the command says so.
    EXPECT_NE(result.out.find("not running"), std::string::npos) << result.out;
  }
}

TEST_F(PaneCommandsTest, ListsAreEditedByMeaningNotByText) {
  std::filesystem::create_directories(home.root() + "/real/sub");
  std::filesystem::create_directory_symlink(home.root() + "/real", home.root() + "/link");
  const std::string cwd = std::filesystem::current_path();
  std::filesystem::current_path(home.root());
  EXPECT_EQ(testkit::runZephlore({"exclude", "add", "real/sub/../sub/"}).status, 0);
  // The same folder through a link is already there; removing through the
  // link removes it.
  ProcessResult again = testkit::runZephlore({"exclude", "add", "link/sub"});
  EXPECT_NE(again.out.find("Already excluded"), std::string::npos) << again.out;
  EXPECT_EQ(testkit::runZephlore({"exclude", "list"}).out, home.root() + "/real/sub\n");
  EXPECT_EQ(testkit::runZephlore({"exclude", "remove", "link/sub"}).status, 0);
  EXPECT_EQ(testkit::runZephlore({"exclude", "list"}).out, "");
  std::filesystem::current_path(cwd);

  EXPECT_EQ(testkit::runZephlore({"exclude-ext", "add", "JPG", "..jpg", "Png"}).status, 0);
  EXPECT_EQ(testkit::runZephlore({"exclude-ext", "list"}).out, "jpg\npng\n");
  // Removing what is not there fails but still removes the rest.
  ProcessResult partly = testkit::runZephlore({"exclude-ext", "remove", "gif", "PNG"});
  EXPECT_EQ(partly.status, 1);
  EXPECT_EQ(testkit::runZephlore({"exclude-ext", "list"}).out, "jpg\n");
}

TEST_F(PaneCommandsTest, BadArgumentsAndBadFilesFailWithoutWriting) {
  EXPECT_EQ(testkit::runZephlore({"login", "maybe"}).status, 2);
  EXPECT_EQ(testkit::runZephlore({"updates"}).status, 2);
  EXPECT_EQ(testkit::runZephlore({"exclude"}).status, 2);
  EXPECT_EQ(testkit::runZephlore({"exclude-ext", "add", "png", "."}).status, 2);
  EXPECT_FALSE(std::filesystem::exists(home.dataFolder() + "/excludedExtensions.plist"));

  // A hand-edited list with a mistake is not silently replaced.
  const std::string paths = home.dataFolder() + "/excludedPaths.plist";
  const std::string broken = "<plist><array><string>/a</string><integer>1</integer></array>";
  writeFile(paths, broken);
  ProcessResult result = testkit::runZephlore({"exclude", "add", "/b"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("excludedPaths.plist"), std::string::npos) << result.err;
  EXPECT_EQ(readFile(paths), broken);
}

TEST_F(PaneCommandsTest, LoginWritesAndRemovesTheAutostartEntry) {
  const std::string entry = home.configFolder() + "/autostart/zephlore-helper.desktop";
  ProcessResult on = testkit::runZephlore({"login", "on"});
  ASSERT_EQ(on.status, 0) << on.err;
  EXPECT_EQ(fileBool(defaultsFile(), "runAtLogin"), true);
  std::string text = readFile(entry);
  EXPECT_NE(text.find("[Desktop Entry]"), std::string::npos);
  EXPECT_NE(text.find("\nExec=" ZEPHLORE_BINARY_DIR "/bin/zephlore-helper\n"), std::string::npos)
      << text;

  ProcessResult off = testkit::runZephlore({"login", "off"});
  ASSERT_EQ(off.status, 0) << off.err;
  EXPECT_EQ(fileBool(defaultsFile(), "runAtLogin"), false);
  EXPECT_FALSE(std::filesystem::exists(entry));
  EXPECT_EQ(testkit::runZephlore({"login", "off"}).status, 0);  // nothing to remove is fine

  EXPECT_EQ(pane::quoteForExec("/opt/zephlore/bin/zephlore-helper"),
            "/opt/zephlore/bin/zephlore-helper");
  EXPECT_EQ(pane::quoteForExec("/home/a b/100%/x$"), "\"/home/a b/100%%/x\\\\$\"");
}

TEST(PaneCommandsWithoutBusTest, CommandsStillWriteTheirFilesAndSayNoHelperWasTold) {
  TestHome home;  // no session bus at all
  ProcessResult result = testkit::runZephlore({"deactivate"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(fileBool(home.dataFolder() + "/defaults.plist", "active"), false);
  EXPECT_NE(result.out.find("no running zephlore-helper could be told"), std::string::npos)
      << result.out;

  result = testkit::runZephlore({"exclude-ext", "add", "mkv"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(testkit::runZephlore({"exclude-ext", "list"}).out, "mkv\n");

  result = testkit::runZephlore({"settings"});
  EXPECT_EQ(result.status, 0) << result.err;
  for (const char* expected : {"active          no", "defaults.plist", "lastEventID",
                               "com.quorvane.ZephloreHelper.plist", "mkv", "no D-Bus session bus"}) {
    EXPECT_NE(result.out.find(expected), std::string::npos) << expected << "\n" << result.out;
  }
}

}  // namespace
}  // namespace zephlore
