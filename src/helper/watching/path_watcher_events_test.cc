// The watcher's event half with real kernel events on a private tmpfs, the
// real analyzer and a stand-in compressor that reports each file processed
// as soon as it is queued. Time runs on a manual clock.
#include "helper/watching/path_watcher_events.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <set>

#include "helper/settings/helper_defaults.h"
#include "protocol/notification_names.h"
#include "testing/files.h"
#include "testing/private_tmpfs.h"
#include "helper/lifecycle/scheduler.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using TmpfsDir = testkit::PrivateTmpfs;  // outside the excluded /dev

void shell(const std::string& command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

class PathWatcherEventsTest : public ::testing::Test {
 protected:
  PathWatcherEventsTest() {
    loop.runUntilIdle();
    mkdir(folder().c_str(), 0755);
    KRPathAnalyzerLinks links;
    links.watchedPathForPath = [this](const std::string&) { return folder(); };
    links.addFilesToCompress = [this](const std::vector<std::string>& files) {
      {
        std::lock_guard lock(mutex);
        compressed.insert(files.begin(), files.end());
      }
      for (const std::string& f : files) {
        center.post(kFileCompressedNotification, nullptr, {{kFileCompressedPathKey, f}});
      }
      return files.size();
    };
    links.addAnalysisOperation = [this](Operation op) {
      if (hold_analyses) {
        held.push_back(std::move(op));
      } else {
        scheduler.queueAnalysisOperation(std::move(op));
      }
    };
    analyzers.setLinks(links);
  }
  // Held analyses stop observing the centre when they go: before it does.
  ~PathWatcherEventsTest() override {
    events.reset();
    held.clear();
  }
  void SetUp() override {
    if (!dir.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  }

  std::string folder() const { return dir / "watched"; }

  void makeEvents(std::vector<std::string> paths) {
    watch_paths = std::move(paths);
    KRWatcherFolderLinks folders;
    folders.watchPaths = [this] { return watch_paths; };
    folders.setWatchPaths = [this](const std::vector<std::string>& p) {
      watch_paths = p;
      ++set_watch_paths;
    };
    folders.watchedPathForPath = [this](const std::string&) { return folder(); };
    folders.haveNewPaths = [this] { return have_new_paths; };
    folders.clearHaveNewPaths = [this] { have_new_paths = false; };
    KRWatcherHistoryLinks history;
    history.folders = [this] { return watch_paths; };
    history.folderSweepDate = [this](const std::string& f) -> std::optional<WallTime> {
      ++sweep_checks;
      auto it = sweep_dates.find(f);
      if (it == sweep_dates.end()) return std::nullopt;
      return it->second;
    };
    history.progressForFolder = [](const std::string&) { return 100; };
    history.setProgressForFolder = [this](int p, const std::string&) { progress.push_back(p); };
    history.justSweptFolder = [this](const std::string& f) { sweep_dates[f] = clock.wallNow(); };
    history.resolveAliases = [this] { ++aliases_resolved; };
    history.mountStatusDidChangeForPath = [this](const std::string& p) { mount_changes.push_back(p); };
    KRPathWatcherEvents::Options options;
    options.journal_path = home.dataFolder() + "/events.journal";
    options.watch_mounts = false;
    options.map = &views;
    options.settings = &defaults;
    events = std::make_unique<KRPathWatcherEvents>(Env::system(), analyzers, folders, history, options);
  }

  void runUntil(const std::function<bool()>& done) {
    if (!done()) loop.runUntil(done);
  }
  void settle() {
    loop.runUntilIdle();
    clock.advance(seconds(3.0));
    loop.runUntilIdle();  // the batch is delivered, analyses start
    runUntil([this] { return analyzers.analyzersCount() == 0; });
    loop.runUntilIdle();
  }
  size_t compressedCount() {
    std::lock_guard lock(mutex);
    return compressed.size();
  }

  bool hold_analyses = false;
  testkit::TestHome home;
  KRHelperDefaults defaults{Env::system()};  // its domain file in this test's home
  ManualClock clock;
  RunLoop loop{clock};  // the helper's main loop; this thread runs it
  TmpfsDir dir;
  std::mutex mutex;
  std::set<std::string> compressed;
  std::deque<Operation> held;
  std::vector<std::string> watch_paths;
  std::map<std::string, WallTime> sweep_dates;
  std::vector<int> progress;
  bool have_new_paths = true;
  int set_watch_paths = 0;
  int aliases_resolved = 0;
  int sweep_checks = 0;  // one per folder at each successful start
  std::vector<std::string> mount_changes;
  PathMap views;  // empty but in one test
  NotificationCenter center;
  KRPathAnalyzers analyzers{loop, Env::system(), center};
  KRScheduler scheduler;  // its analyses end before the registry goes
  std::unique_ptr<KRPathWatcherEvents> events;
};

TEST_F(PathWatcherEventsTest, FirstStartSweepsEverythingThenFollowsChanges) {
  mkdir((folder() + "/old").c_str(), 0755);
  shell("head -c 9000 /dev/zero > '" + folder() + "/old/a'");
  EXPECT_EQ(defaults.lastEventID(), kFileEventIdSinceNow);
  makeEvents({folder()});
  events->startWatching();
  ASSERT_TRUE(events->isWatching());
  EXPECT_FALSE(have_new_paths);
  // No folder has a sweep date: a full recursive analysis of each.
  settle();
  EXPECT_EQ(compressedCount(), 1u);
  EXPECT_TRUE(sweep_dates.count(folder()));
  EXPECT_EQ(progress.back(), 100);

  // Another program writes into the folder, and into a folder made after the start.
  shell("head -c 5000 /dev/zero > '" + folder() + "/b' && mkdir '" + folder() + "/new' && head -c 5000 /dev/zero > '" +
        folder() + "/new/c'");
  settle();
  EXPECT_EQ(compressedCount(), 3u);
  EXPECT_NE(defaults.lastEventID(), kFileEventIdSinceNow);
  EXPECT_TRUE(events->pendingEvents().empty());

  // A burst larger than the kernel queue: a full re-check finds every file.
  shell("cd '" + folder() +
        "' && /usr/bin/python3 -c \"[open('n%d' % i, 'w').write('x' * 4096) for i in range(20000)]\"");
  settle();
  EXPECT_EQ(compressedCount(), 20003u);
  bool dropped = false;
  for (const FileEvent& e : events->journal().eventsAfter(0, {folder()})) {
    dropped |= (e.flags & (kFileEventMustScanSubDirs | kFileEventKernelDropped)) != 0;
  }
  EXPECT_TRUE(dropped) << "the kernel queue did not overflow";
}

TEST_F(PathWatcherEventsTest, LastEventIdIsTheSmallestPendingAndARestartRepeatsIt) {
  makeEvents({folder()});
  events->analyzePath("/nonexistent/a", false, 10);
  events->analyzePath("/nonexistent/b", false, 12);
  events->analyzePath("/nonexistent/c", false, 15);
  events->finishedProcessingEvent(12);
  EXPECT_EQ(defaults.lastEventID(), 10u);
  EXPECT_EQ(events->lastEventProcessed(), 9u);
  events->finishedProcessingEvent(10);
  EXPECT_EQ(defaults.lastEventID(), 15u);

  // Must-scan together with root-changed takes only the rename path.
  runUntil([this] { return analyzers.analyzersCount() == 0; });
  events->streamCallback({{folder(), kFileEventMustScanSubDirs | kFileEventRootChanged, 20},
                          {folder(), kFileEventHistoryDone, 21},
                          {std::string(1100, 'x'), 0, 22}});
  EXPECT_EQ(analyzers.analyzersCount(), 0u);
  EXPECT_EQ(events->lastEventReceived(), 22u);
  clock.advance(seconds(0.1));
  loop.runUntilIdle();
  EXPECT_EQ(aliases_resolved, 1);
  EXPECT_EQ(set_watch_paths, 1);
}

// A run checks its folders once though an earlier run swept them just now;
// later starts of the stream in the same run rely on the sweep date.
TEST_F(PathWatcherEventsTest, NewFolderListsAndMountsAtOrAroundTheFoldersRestartTheStreamEvenWhenPaused) {
  // Saved while no helper ran: no event will ever tell of it.
  shell("head -c 9000 /dev/zero > '" + folder() + "/saved-meanwhile'");
  makeEvents({folder()});
  sweep_dates[folder()] = clock.wallNow();
  events->startWatching();
  EXPECT_EQ(sweep_checks, 1);
  settle();
  EXPECT_EQ(compressedCount(), 1u);
  events->rewatch();
  EXPECT_EQ(sweep_checks, 1) << "no new folder list: nothing to do";
  // setWatchPaths with the same folders in another order sets haveNewPaths.
  have_new_paths = true;
  events->rewatch();
  EXPECT_EQ(sweep_checks, 2);
  EXPECT_TRUE(events->isWatching());
  EXPECT_EQ(analyzers.analyzersCount(), 0u);

  events->setPaused(true);
  EXPECT_FALSE(events->isWatching());
  have_new_paths = true;
  events->rewatch();
  EXPECT_TRUE(events->isWatching()) << "rewatch does not look at paused";

  // A mount elsewhere (a USB stick, a view over the folder) costs no
  // restart, whose replay would walk every folder again.
  const int checks = sweep_checks;
  events->setPaused(true);
  views.replaceAll({{folder(), "/proc/1/fd/3"}});
  center.post(kDidUnmountNotification, nullptr, {{kDevicePathKey, "/media/disk"}});
  center.post(kDidMountNotification, nullptr, {{kDevicePathKey, folder() + "-other"}});
  center.post(kDidMountNotification, nullptr, {{kDevicePathKey, folder()}});
  views.clear();  // the view went
  center.post(kDidUnmountNotification, nullptr, {{kDevicePathKey, folder()}});
  EXPECT_FALSE(events->isWatching());
  EXPECT_EQ(sweep_checks, checks);
  // One inside the folder, or over it, restarts it (even when paused).
  center.post(kDidMountNotification, nullptr, {{kDevicePathKey, folder() + "/usb"}});
  EXPECT_TRUE(events->isWatching());
  events->setPaused(true);
  center.post(kDidUnmountNotification, nullptr, {{kDevicePathKey, dir.path()}});
  EXPECT_TRUE(events->isWatching());
  EXPECT_EQ(mount_changes, (std::vector<std::string>{"/media/disk", folder() + "-other", folder(), folder(), folder() + "/usb",
                                                   dir.path()}));
}

class ThrottleTest : public PathWatcherEventsTest {
 protected:
  ThrottleTest() { hold_analyses = true; }
  void finishOne() {
    Operation op = std::move(held.front());
    held.pop_front();
    op.completion();
    loop.runUntilIdle();
  }
};

TEST_F(ThrottleTest, FiveHundredAndOneAnalyzersStopTheStreamWhichRestartsAt199) {
  makeEvents({folder()});
  sweep_dates[folder()] = clock.wallNow();  // swept just now: no sweep at later starts
  events->startWatching();
  ASSERT_TRUE(events->isWatching());
  // The run's own first check of the folder.
  ASSERT_EQ(analyzers.analyzersCount(), 1u);
  finishOne();
  ASSERT_EQ(analyzers.analyzersCount(), 0u);
  for (int i = 0; i < 500; ++i) events->analyzePath(folder() + "/p" + std::to_string(i), false);
  EXPECT_TRUE(events->isWatching());
  events->analyzePath(folder() + "/p500", false);
  EXPECT_FALSE(events->isWatching());
  while (analyzers.analyzersCount() > 200) finishOne();
  EXPECT_FALSE(events->isWatching()) << "200 is still too many";
  finishOne();
  EXPECT_EQ(analyzers.analyzersCount(), 199u);
  EXPECT_TRUE(events->isWatching());

  // Paused, it stays off whatever the count.
  events->setPaused(true);
  while (!held.empty()) finishOne();
  EXPECT_FALSE(events->isWatching());
  events->setPaused(false);
  EXPECT_TRUE(events->isWatching());
}

TEST_F(ThrottleTest, AnEventOlderThanARunningAnalysisIsLeftToIt) {
  makeEvents({folder()});
  struct stat st;
  ASSERT_EQ(lstat(folder().c_str(), &st), 0);
  const auto nanos = [](WallTime t) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  };
  std::vector<FileEvent> before{{folder(), 0, 0}};
  events->journal().record(before, {static_cast<uint64_t>(st.st_dev)}, nanos(clock.wallNow()) - 1'000'000'000);
  // A sweep (no event id) begins now; its id comes from the journal.
  events->analyzePath(folder(), true);
  held.front().work();
  auto sweeping = analyzers.analyzerForPath(folder());
  ASSERT_TRUE(sweeping && sweeping->analysisStartDate());
  clock.advance(seconds(1.0));
  std::vector<FileEvent> after{{folder(), 0, 0}};
  events->journal().record(after, {static_cast<uint64_t>(st.st_dev)}, nanos(clock.wallNow()));

  events->analyzePathUnlessAnalysisStartedAfterEventId(folder(), before[0].id);
  EXPECT_FALSE(sweeping->mustRecheckPathAfterCompletion()) << "the sweep began after that event";
  EXPECT_TRUE(events->pendingEvents().empty());
  events->analyzePathUnlessAnalysisStartedAfterEventId(folder(), after[0].id);
  EXPECT_TRUE(sweeping->mustRecheckPathAfterCompletion());
  EXPECT_EQ(events->pendingEvents(), (std::vector<uint64_t>{after[0].id}));
  // A path gone while an analysis covers it: the event is dropped.
  events->analyzePathUnlessAnalysisStartedAfterEventId(folder() + "/gone", after[0].id + 1);
  EXPECT_EQ(events->pendingEvents().size(), 1u);
}

TEST(PathWatcherProgress, ExactArithmetic) {
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(0, 0), 100);
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(10, 10), 100);
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(10, 0), 10);
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(3, 1), 40);
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(200, 1), 10);  // 10.45
  EXPECT_EQ(KRPathWatcherEvents::progressForCounts(4, 1), 33);    // 32.5 rounds away from zero
}

}  // namespace
}  // namespace zephlore
