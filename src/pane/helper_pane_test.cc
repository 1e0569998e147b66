// The pane model over real parts: a private bus, real files in a scratch
// home, a real history database and the helper's real status object
// exported by the test. What the bus carries is recorded by a second
// participant, which reads the shared files the moment each notice arrives.
#include "pane/helper_pane.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "desktop/helper_status_service.h"
#include "helper/bus/preference_communicator.h"
#include "helper/history/history_store.h"
#include "helper/settings/plist_file.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "testing/delivery_queue.h"
#include "testing/files.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore::pane {
namespace {

using namespace std::chrono_literals;

constexpr auto kWait = 10s;

std::optional<bool> fileBool(const std::string& path, const char* key) {
  PlistReadResult file = readPlistFile(Env::system(), path);
  if (!file.root) return std::nullopt;
  return plistBoolValue(plist_dict_get_item(file.root.get(), key));
}

// Another program of the login: hears the names on its own connection and
// notes, for each, what `snapshot` reads at that moment.
class BusRecorder {
 public:
  struct Heard {
    std::string name;
    UserInfo userInfo;
    std::string snapshot;
  };

  BusRecorder(const std::string& address, std::vector<const char*> names,
              std::function<std::string(const std::string&)> snapshot)
      : center_(address), snapshot_(std::move(snapshot)) {
    names.push_back("test.sentinel");
    for (const char* name : names) {
      center_.addObserver(
          name,
          [this](const Notification& note) {
            std::lock_guard<std::mutex> lock(mutex_);
            heard_.push_back({note.name, note.userInfo, snapshot_ ? snapshot_(note.name) : ""});
            changed_.notify_all();
          },
          loop_);
    }
    thread_ = std::thread([this] { loop_.run(); });
  }
  ~BusRecorder() {
    loop_.stop();
    thread_.join();
  }

  // Everything heard up to a sentinel posted now (notices from one sender
  // arrive in order), then forgotten.
  std::vector<Heard> take(DistributedNotificationCenter& from) {
    from.postNotificationName("test.sentinel");
    from.flush();
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kWait, [&] { return !heard_.empty() && heard_.back().name == "test.sentinel"; });
    std::vector<Heard> heard = std::move(heard_);
    heard_.clear();
    if (!heard.empty() && heard.back().name == "test.sentinel") heard.pop_back();
    return heard;
  }

  static std::vector<std::string> names(const std::vector<Heard>& heard) {
    std::vector<std::string> out;
    for (const Heard& one : heard) out.push_back(one.name);
    return out;
  }

 private:
  DistributedNotificationCenter center_;
  std::function<std::string(const std::string&)> snapshot_;
  SystemClock clock_;
  RunLoop loop_{clock_};
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Heard> heard_;
};

class RecordingListener : public PaneListener {
 public:
  void foldersChanged() override { note("folders"); }
  void helperStateChanged() override { note("state"); }
  void showHistory() override { note("history"); }
  void helperQuitting() override { note("quitting"); }
  void reloadEverything() override { note("reload"); }
  bool heard(const std::string& call) const { return std::find(calls.begin(), calls.end(), call) != calls.end(); }
  std::vector<std::string> calls;  // on the test's thread, else elsewhere is set
  std::atomic<bool> elsewhere{false};

 private:
  void note(const char* call) {
    if (std::this_thread::get_id() != owner_) {
      elsewhere = true;
      return;
    }
    calls.push_back(call);
  }
  std::thread::id owner_ = std::this_thread::get_id();
};

class HelperPaneTest : public ::testing::Test {
 protected:
  std::string data(const std::string& name) const { return home.dataFolder() + "/" + name; }
  PaneParts parts() {
    return {Env::system(), clock, center,
            [this]() -> KRDefaultsController& { return defaults; }, PaneFiles::standard(home.dataFolder())};
  }
  // A helper that owns its name and answers on its status object.
  void runHelper() {
    center.ownName(kHelperBusName);
    service = std::make_unique<KRHelperStatusService>(center.connection(), service_loop);
    service->setActive(true);
  }

  testkit::TestHome home;
  testkit::TestSessionBus bus{home.root()};
  DistributedNotificationCenter center;
  KRPreferenceCommunicator communicator{center};
  KRDefaultsController defaults{Env::system(), home.dataFolder(), &communicator};
  SystemClock clock;
  // The status object's announcements run here.
  RunLoop service_loop{clock};
  std::thread service_thread{[this] { service_loop.run(); }};
  std::unique_ptr<KRHelperStatusService> service;

  // The status object ends on its loop's thread, as in the helper: an
  // announcement may be running there.
  void endService() {
    service_loop.postAndWait([this] { service.reset(); });
  }

  void TearDown() override {
    endService();
    service_loop.stop();
    service_thread.join();
  }
};

TEST_F(HelperPaneTest, EachSwitchWritesDefaultsThenPostsItsName) {
  runHelper();
  const std::string file = data("defaults.plist");
  BusRecorder recorder(bus.address(),
                       {kActiveStatusNotification, kVisibilityNotification, kDisableUpdatesNotification,
                        kEnableUpdatesNotification, kVersionNotification},
                       [&](const std::string&) {
                         std::string values;
                         for (const char* key : {"active", "visible", "transparentView", "checkUpdates"}) {
                           values += fileBool(file, key).value_or(true) ? '1' : '0';
                         }
                         return values;
                       });
  HelperPane pane(parts());
  struct Step {
    std::function<Outcome()> act;
    const char* name;
    const char* fileThen;  // active, visible, transparentView, checkUpdates as the notice found them
  };
  const Step steps[] = {
      {[&] { return pane.setActive(false); }, kActiveStatusNotification, "0111"},
      {[&] { return pane.setVisible(false); }, kVisibilityNotification, "0011"},
      {[&] { return pane.setTransparentView(false); }, kActiveStatusNotification, "0001"},
      {[&] { return pane.setCheckUpdates(false); }, kDisableUpdatesNotification, "0000"},
      {[&] { return pane.setActive(true); }, kActiveStatusNotification, "1000"},
  };
  for (const Step& step : steps) {
    EXPECT_EQ(step.act(), "");
    std::vector<BusRecorder::Heard> heard = recorder.take(center);
    // The name, then the pane's version, as after every command.
    ASSERT_EQ(BusRecorder::names(heard), (std::vector<std::string>{step.name, kVersionNotification}));
    EXPECT_EQ(heard[0].snapshot, step.fileThen) << step.name;
  }
  PaneSettings now = pane.settings();
  EXPECT_TRUE(now.active);
  EXPECT_FALSE(now.visible || now.transparentView || now.checkUpdates);

  // Start at login: the file and the desktop's autostart entry; no notice belongs to it.
  EXPECT_EQ(pane.setRunAtLogin(true), "");
  EXPECT_TRUE(pane.settings().runAtLogin);
  EXPECT_TRUE(std::filesystem::exists(home.configFolder() + "/autostart/zephlore-helper.desktop"));
  EXPECT_TRUE(recorder.take(center).empty());
  EXPECT_EQ(pane.setRunAtLogin(false), "");
  EXPECT_FALSE(std::filesystem::exists(home.configFolder() + "/autostart/zephlore-helper.desktop"));
}

TEST_F(HelperPaneTest, ExclusionsRewriteTheirListThenPostItsName) {
  BusRecorder recorder(bus.address(), {kExcludedPathsNotification, kExcludedExtensionsNotification},
                       [&](const std::string& name) {
                         const std::string file = data(name == kExcludedPathsNotification ? "excludedPaths.plist"
                                                                                          : "excludedExtensions.plist");
                         return std::filesystem::exists(file) ? testkit::readFile(file) : std::string();
                       });
  HelperPane pane(parts());
  // No helper runs: the list waits in its file, which is no failure.
  EXPECT_EQ(pane.addExcludedPath(home.root() + "/media/../media/raw/"), "");
  EXPECT_EQ(pane.addExcludedExtension("..JPG"), "");
  std::vector<BusRecorder::Heard> heard = recorder.take(center);
  ASSERT_EQ(BusRecorder::names(heard),
            (std::vector<std::string>{kExcludedPathsNotification, kExcludedExtensionsNotification}));
  EXPECT_NE(heard[0].snapshot.find(home.root() + "/media/raw<"), std::string::npos) << heard[0].snapshot;
  EXPECT_NE(heard[1].snapshot.find(">jpg<"), std::string::npos) << heard[1].snapshot;
  EXPECT_EQ(pane.excludedPaths(), std::vector<std::string>{home.root() + "/media/raw"});
  EXPECT_EQ(pane.excludedExtensions(), std::vector<std::string>{"jpg"});

  // Nothing changed, nothing is posted; a non-extension is refused unwritten.
  EXPECT_EQ(pane.addExcludedExtension("jpg"), "");
  EXPECT_NE(pane.addExcludedExtension("."), "");
  EXPECT_TRUE(recorder.take(center).empty());

  EXPECT_EQ(pane.removeExcludedExtension("Jpg"), "");
  EXPECT_EQ(BusRecorder::names(recorder.take(center)), std::vector<std::string>{kExcludedExtensionsNotification});
  EXPECT_TRUE(pane.excludedExtensions().empty());

  // A hand-edited list with a mistake is left as it is.
  const std::string broken = "<plist><array><string>/a</string><integer>1</integer></array></plist>";
  testkit::writeFile(data("excludedPaths.plist"), broken);
  EXPECT_NE(pane.addExcludedPath("/b"), "");
  EXPECT_EQ(testkit::readFile(data("excludedPaths.plist")), broken);
  EXPECT_TRUE(recorder.take(center).empty());
}

TEST_F(HelperPaneTest, FoldersArePostedAsTheCommandPostsThem) {
  runHelper();
  BusRecorder recorder(bus.address(), {kFoldersNotification, kHelperShouldQuitNotification}, nullptr);
  HelperPane pane(parts());
  const std::string folder = home.root() + "/Documents";
  std::filesystem::create_directories(folder + "/sub");
  EXPECT_EQ(pane.addFolder(folder + "/sub/.."), "");
  EXPECT_EQ(pane.setFolderEnabled(folder, false), "");
  EXPECT_EQ(pane.setFolderEnabled(folder, true), "");
  EXPECT_EQ(pane.removeFolder(folder), "");
  // Refused before anything is posted.
  EXPECT_NE(pane.addFolder(home.root() + "/missing"), "");
  testkit::writeFile(home.root() + "/file", "x");
  EXPECT_NE(pane.addFolder(home.root() + "/file"), "");
  EXPECT_EQ(pane.quit(), "");

  std::vector<BusRecorder::Heard> heard = recorder.take(center);
  ASSERT_EQ(heard.size(), 5u);
  const std::pair<const char*, const char*> expected[] = {
      {kFoldersNotification, kFoldersToAddKey},
      {kFoldersNotification, kFoldersToRemoveKey},
      {kFoldersNotification, kFoldersToAddKey},
      {kFoldersNotification, kFoldersToRemoveKey},
      {kHelperShouldQuitNotification, nullptr},
  };
  for (size_t i = 0; i < heard.size(); ++i) {
    EXPECT_EQ(heard[i].name, expected[i].first) << i;
    if (!expected[i].second) continue;
    ASSERT_EQ(heard[i].userInfo.size(), 1u) << i;
    const auto* list = std::get_if<std::vector<std::string>>(&heard[i].userInfo.at(expected[i].second));
    ASSERT_NE(list, nullptr) << i;
    EXPECT_EQ(*list, std::vector<std::string>{folder}) << i;
  }
}

TEST_F(HelperPaneTest, HelperStateFollowsTheStatusObjectAndPauseCallsIt) {
  using Kind = HelperState::Kind;
  HelperPane pane(parts());
  EXPECT_EQ(pane.helperState().kind, Kind::kNotRunning);
  EXPECT_NE(pane.pause(), "");

  // Owns the name but has no status object: not answering.
  center.ownName(kHelperBusName);
  EXPECT_EQ(pane.helperState().kind, Kind::kSilent);

  service = std::make_unique<KRHelperStatusService>(center.connection(), service_loop);
  EXPECT_EQ(pane.helperState().kind, Kind::kInactive);
  service->setActive(true);
  EXPECT_EQ(pane.helperState().kind, Kind::kIdle);
  EXPECT_EQ(pane.helperState().words, "Idle");
  service->setStatus(4, "Compressing");
  service->setFileInProcess("/home/u/big.log");
  service->setQueuedFiles(7);
  service->setTotalSavings(4096);
  service->setViews("/home/u: full content through its view\n");
  HelperState working = pane.helperState();
  EXPECT_EQ(working.kind, Kind::kWorking);
  EXPECT_EQ(working.words, "Compressing big.log");
  EXPECT_EQ(working.queuedFiles, 7u);
  EXPECT_EQ(working.totalSavings, 4096u);
  EXPECT_EQ(working.views, "/home/u: full content through its view\n");
  service->setViews("not compressing in /home/u: its view is not up\n");
  EXPECT_EQ(pane.helperState().words, "Compressing big.log; one folder waits for its view");
  service->setViews("");
  service->setWaiting(status_names::kWaitingForLoad);
  EXPECT_EQ(pane.helperState().words, "Compressing big.log; waiting: other programs keep the computer busy");
  service->setPaused(true);
  service->setWaiting(status_names::kWaitingOnBattery);
  EXPECT_EQ(pane.helperState().words, "Paused: on battery");
  service->setPaused(false);
  service->setWaiting("");

  std::promise<void> paused;
  service->setPauseHandler([&] {
    service->setPaused(true);
    paused.set_value();
  });
  EXPECT_EQ(pane.pause(), "");
  ASSERT_EQ(paused.get_future().wait_for(kWait), std::future_status::ready);
  EXPECT_EQ(pane.helperState().kind, Kind::kPaused);
}

TEST_F(HelperPaneTest, NoticesAndStatusChangesReachTheListenerOnlyThroughDeliver) {
  testkit::DeliveryQueue mailbox;
  RecordingListener listener;
  std::optional<HelperPane> pane;
  pane.emplace(parts(), &listener, mailbox.deliver());
  DistributedNotificationCenter helper_side(bus.address());

  for (const char* name : {kSavingsChangedNotification, kShowHistoryNotification, kQuitNotification,
                           kRestartingAfterUpdateNotification}) {
    helper_side.postNotificationName(name);
  }
  helper_side.flush();
  ASSERT_TRUE(mailbox.runUntil([&] { return listener.calls.size() >= 4; }));
  EXPECT_EQ(listener.calls, (std::vector<std::string>{"folders", "history", "quitting", "reload"}));

  // The helper appears, its status changes, it leaves.
  listener.calls.clear();
  helper_side.ownName(kHelperBusName);
  ASSERT_TRUE(mailbox.runUntil([&] { return listener.heard("state"); }));
  listener.calls.clear();
  service = std::make_unique<KRHelperStatusService>(helper_side.connection(), service_loop);
  service->setPaused(true);
  ASSERT_TRUE(mailbox.runUntil([&] { return listener.heard("state"); }));
  listener.calls.clear();
  endService();
  helper_side.releaseNames();
  ASSERT_TRUE(mailbox.runUntil([&] { return listener.heard("state"); }));

  // Once the pane is gone, what was already handed over does nothing.
  listener.calls.clear();
  helper_side.postNotificationName(kSavingsChangedNotification);
  helper_side.flush();
  ASSERT_TRUE(mailbox.waitForDelivery());
  pane.reset();
  mailbox.drain();
  EXPECT_TRUE(listener.calls.empty());
  EXPECT_FALSE(listener.elsewhere);
}

TEST_F(HelperPaneTest, FoldersTotalAndSamplesComeFromTheHistory) {
  const std::string watched = home.root() + "/Music";
  std::filesystem::create_directories(watched);
  {
    std::optional<HistoryModel> model = HistoryModel::load(Env::system());
    ASSERT_TRUE(model);
    Error error;
    std::unique_ptr<HistoryStore> store =
        HistoryStore::open(Env::system(), PaneFiles::standard(home.dataFolder()).database, *model, &error);
    ASSERT_TRUE(store) << error.message;
    HistoryContext context(*store);
    HistoryContext::Object* music = context.insertNewObject();
    music->setFolder(watched);
    music->setSavings(1000);
    music->setStatus(40);
    HistoryContext::Object* gone = context.insertNewObject();
    gone->setFolder(home.root() + "/Gone");
    gone->setEnabled(false);
    gone->setSavings(24);
    ASSERT_TRUE(context.save(&error, WallTime(std::chrono::seconds(1'800'000'000))));
    music->setSavings(2000);
    ASSERT_TRUE(context.save(&error, WallTime(std::chrono::seconds(1'800'000'600))));
  }
  // The running helper's words for each folder's view.
  runHelper();
  service->setViews(watched + ": full content through its view\nnot compressing in " + home.root() +
                    "/Gone: its view is not up\n");
  HelperPane pane(parts());
  std::string problem;
  std::vector<PaneFolder> folders = pane.folders(&problem);
  ASSERT_EQ(folders.size(), 2u) << problem;
  EXPECT_EQ(folders[0].path, watched);
  EXPECT_TRUE(folders[0].enabled && folders[0].exists);
  EXPECT_EQ(folders[0].savedBytes, 2000u);
  EXPECT_TRUE(folders[0].sweep.starts_with("40% done, last sweep never")) << folders[0].sweep;
  EXPECT_FALSE(folders[1].enabled || folders[1].exists);
  EXPECT_EQ(folders[1].sweep, "");
  EXPECT_EQ(folders[0].view, "full content through its view");
  EXPECT_EQ(folders[1].view, "not compressing: its view is not up");
  EXPECT_EQ(pane.totalSaved(), 2024u);
  std::vector<SavingsSample> samples = pane.savingsOverTime();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].unixTime, 1'800'000'000);
  EXPECT_EQ(samples[0].totalSaved, 1024u);
  EXPECT_EQ(samples[1].unixTime, 1'800'000'600);
  EXPECT_EQ(samples[1].totalSaved, 2024u);
}

}  // namespace
}  // namespace zephlore::pane
