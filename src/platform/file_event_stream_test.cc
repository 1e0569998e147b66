// Real kernel events on tmpfs, on both backends, with time driven by a
// manual clock. Changes the test makes itself are its own process's and are
// not reported; changes by "another program" are made by a child shell.
#include "platform/file_event_stream.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "base/notification_center.h"
#include "platform/mount_watcher.h"
#include "platform/own_rewrites.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

// Another process changes the file system.
void shell(const std::string& command) {
  ASSERT_EQ(system(command.c_str()), 0) << command;
}

class FileEventStreamTest : public ::testing::TestWithParam<DirectoryWatcher::Kind> {
 protected:
  FileEventStreamTest() : loop(clock), journal(Env::system(), journal_dir / "events.journal") {
    mkdir(root().c_str(), 0755);
  }

  std::string root() const { return dir / "root"; }

  std::unique_ptr<FileEventStream> open(uint64_t since = kFileEventIdSinceNow,
                                        std::vector<std::string> roots = {}) {
    FileEventStream::Options options;
    options.roots = roots.empty() ? std::vector<std::string>{root()} : roots;
    options.since = since;
    options.backend = GetParam();
    options.ownRewrites = &own;
    auto stream = std::make_unique<FileEventStream>(loop, journal, options, [this](const auto& events) {
      batches.push_back(events);
    });
    if (!stream->start()) return nullptr;
    return stream;
  }

  // Reads what the kernel queued, then lets the latency pass.
  void settle() {
    loop.runUntilIdle();
    clock.advance(seconds(3.0));
    loop.runUntilIdle();
  }

  std::vector<FileEvent> all() const {
    std::vector<FileEvent> out;
    for (const auto& batch : batches) out.insert(out.end(), batch.begin(), batch.end());
    return out;
  }

  bool reported(const std::string& path, uint32_t flags = 0) const {
    for (const FileEvent& e : all()) {
      if (e.path == path && (e.flags & flags) == flags) return true;
    }
    return false;
  }

  ManualClock clock;
  ScratchDir dir;
  ScratchDir journal_dir;
  RunLoop loop;
  EventJournal journal;
  std::vector<std::vector<FileEvent>> batches;
  OwnRewrites own;
};

TEST_P(FileEventStreamTest, GroupsChangesPerDirectoryAfterTheLatencyAndFollowsNewFolders) {
  auto stream = open();
  ASSERT_TRUE(stream) << "no kernel source";
  shell("for i in 1 2 3; do echo x > '" + root() + "/f$i'; done; mkdir '" + root() + "/new'");
  loop.runUntilIdle();
  clock.advance(seconds(2.9));
  loop.runUntilIdle();
  EXPECT_TRUE(batches.empty()) << "still within the latency";
  clock.advance(seconds(0.1));
  loop.runUntilIdle();
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].size(), 2u) << "one event per directory: the root, and the folder that appeared";
  EXPECT_EQ(batches[0][0].path, root());
  EXPECT_EQ(batches[0][1].path, root() + "/new");
  EXPECT_LT(batches[0][0].id, batches[0][1].id);

  // The new folder is watched: a file written in it is reported there.
  shell("echo y > '" + root() + "/new/g'");
  settle();
  ASSERT_EQ(batches.size(), 2u);
  EXPECT_EQ(batches[1][0].path, root() + "/new");
  EXPECT_GT(batches[1][0].id, batches[0][1].id);

  // A folder renamed in place is followed under its new name.
  shell("mv '" + root() + "/new' '" + root() + "/renamed' && echo z > '" + root() + "/renamed/h'");
  settle();
  EXPECT_TRUE(reported(root() + "/renamed"));
}

TEST_P(FileEventStreamTest, OwnRewritesAreNotReported) {
  const std::string file = root() + "/mine";
  writeFile(root() + "/mine", std::string(5000, 'a'));
  auto stream = open();
  ASSERT_TRUE(stream);
  // Where the kernel does not name the process, the rewrite is announced.
  own.begin(file);
  writeFile(file, std::string(6000, 'b'));
  writeFile(root() + "/.zephlore-0123456789abcdef.c", "temp");
  unlink((root() + "/.zephlore-0123456789abcdef.c").c_str());
  own.end(file);
  settle();
  EXPECT_TRUE(batches.empty());
  shell("echo other > '" + root() + "/theirs'");
  settle();
  EXPECT_TRUE(reported(root()));
}

TEST_P(FileEventStreamTest, OverflowAndRootChangesAskForTheRightReaction) {
  auto stream = open();
  ASSERT_TRUE(stream);
  // More files at once than the kernel queues (16384 by default).
  shell("cd '" + root() + "' && /usr/bin/python3 -c \"[open('n%d' % i, 'w').close() for i in range(40000)]\"");
  settle();
  EXPECT_TRUE(reported(root(), kFileEventMustScanSubDirs | kFileEventKernelDropped));

  batches.clear();
  shell("mv '" + root() + "' '" + root() + ".moved'");
  settle();
  EXPECT_TRUE(reported(root(), kFileEventRootChanged));
  shell("rm -rf '" + root() + ".moved'");
}

TEST_P(FileEventStreamTest, ReplaysTheJournalAfterAnIdThenAsksForAFullRecheck) {
  mkdir((root() + "/a").c_str(), 0755);
  auto stream = open();
  ASSERT_TRUE(stream);
  shell("echo 1 > '" + root() + "/f'");
  settle();
  shell("echo 2 > '" + root() + "/a/f'");
  settle();
  ASSERT_EQ(batches.size(), 2u);
  const uint64_t first = batches[0][0].id;
  const uint64_t second = batches[1][0].id;
  stream.reset();
  batches.clear();

  // A restart: ids go on, the journal replays after `first`.
  EventJournal reopened(Env::system(), journal_dir / "events.journal");
  EXPECT_GT(reopened.nextId(), second);
  auto replayed = reopened.eventsAfter(first, {root()});
  ASSERT_EQ(replayed.size(), 1u);
  EXPECT_EQ(replayed[0].path, root() + "/a");

  stream = open(first);
  ASSERT_TRUE(stream);
  loop.runUntilIdle();
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].size(), 2u);
  EXPECT_EQ(batches[0][0].path, root() + "/a");
  EXPECT_EQ(batches[0][0].id, second);
  EXPECT_EQ(batches[0][1].path, root());
  EXPECT_EQ(batches[0][1].flags, kFileEventMustScanSubDirs | kFileEventHistoryDone);
  EXPECT_GT(batches[0][1].id, second);
}

INSTANTIATE_TEST_SUITE_P(Backends, FileEventStreamTest,
                         ::testing::Values(DirectoryWatcher::Kind::kFanotify, DirectoryWatcher::Kind::kInotify),
                         [](const auto& param_info) {
                           return param_info.param == DirectoryWatcher::Kind::kFanotify ? "fanotify" : "inotify";
                         });

// The real inotify limit, lowered to 5 in a user namespace of the test's own
// (a per-namespace limit), so the rest of the machine is untouched.
bool lowerInotifyLimitInOwnNamespace() {
  auto put = [](const char* file, const char* text) {
    int fd = ::open(file, O_WRONLY);
    if (fd < 0) return false;
    const bool ok = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
    close(fd);
    return ok;
  };
  const std::string uid = "0 " + std::to_string(getuid()) + " 1";
  const std::string gid = "0 " + std::to_string(getgid()) + " 1";
  return unshare(CLONE_NEWUSER) == 0 && put("/proc/self/setgroups", "deny") &&
         put("/proc/self/uid_map", uid.c_str()) && put("/proc/self/gid_map", gid.c_str()) &&
         put("/proc/sys/user/max_inotify_watches", "5");
}

int markLimitScenario() {
  if (!lowerInotifyLimitInOwnNamespace()) return 2;
  ManualClock clock;
  RunLoop loop(clock);
  ScratchDir dir;
  EventJournal journal(Env::system(), dir / "events.journal");
  const std::string root = dir / "root";
  mkdir(root.c_str(), 0755);
  for (int i = 0; i < 10; ++i) mkdir((root + "/d" + std::to_string(i)).c_str(), 0755);
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  std::vector<FileEvent> delivered;
  FileEventStream::Options options;
  options.roots = {root};
  options.backend = DirectoryWatcher::Kind::kInotify;
  FileEventStream stream(loop, journal, options, [&](const auto& events) {
    delivered.insert(delivered.end(), events.begin(), events.end());
  });
  if (!stream.start()) return 3;
  if (lines.size() != 1 || lines[0].rfind("*** ", 0) != 0 ||
      lines[0].find("/proc/sys/fs/inotify/max_user_watches") == std::string::npos) {
    return 4;
  }
  clock.advance(std::chrono::minutes(29));
  loop.runUntilIdle();
  if (!delivered.empty()) return 5;
  clock.advance(std::chrono::minutes(1));
  loop.runUntilIdle();
  clock.advance(seconds(3.0));
  loop.runUntilIdle();
  if (delivered.size() != 1 || delivered[0].path != root || delivered[0].flags != kFileEventMustScanSubDirs) return 6;
  return 0;
}

TEST(FileEventStreamLimits, AtTheMarkLimitOneLogLineAndARecheckEvery30Minutes) {
  // Run in a child: a user namespace can only be entered by a single thread.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(markLimitScenario());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "no user namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the scenario failed at step " << WEXITSTATUS(status);
}

TEST(EventJournal, BoundedDamagedAndFutureJournalsKeepIdsRising) {
  ScratchDir dir;
  const std::string path = dir / "events.journal";
  {
    EventJournal journal(Env::system(), path, 10);
    for (int i = 0; i < 25; ++i) {
      std::vector<FileEvent> events{{"/r/d" + std::to_string(i), 0, 0}};
      journal.record(events, {7}, int64_t{1000 + i} * 1'000'000'000);
      EXPECT_EQ(events[0].id, static_cast<uint64_t>(i + 1));
    }
    EXPECT_LE(journal.size(), 10u);
    EXPECT_EQ(journal.lastEventIdForDeviceBeforeTime(7, 1024.5), 25u);
    EXPECT_EQ(journal.lastEventIdForDeviceBeforeTime(7, 1020.5), 21u);
    EXPECT_EQ(journal.lastEventIdForDeviceBeforeTime(7, 1001.0), 0u) << "does not reach back that far";
  }
  // A torn last record is cut off; the counter is kept.
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  ASSERT_EQ(truncate(path.c_str(), st.st_size - 3), 0);
  {
    ScopedLogCapture capture([](const std::string&) {});
    EventJournal journal(Env::system(), path, 10);
    EXPECT_EQ(journal.nextId(), 26u);
    EXPECT_EQ(journal.eventsAfter(0, {"/r"}).back().id, 24u);
  }
  // The counter in the header (bytes 8..15) set back, as an older copy of
  // the header over newer records would have it: the records' ids raise it.
  const int fd = ::open(path.c_str(), O_WRONLY);
  const uint64_t old_counter = 1;
  ASSERT_EQ(pwrite(fd, &old_counter, sizeof old_counter, 8), 8);
  close(fd);
  {
    std::vector<std::string> lines;
    ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
    EventJournal journal(Env::system(), path, 10);
    EXPECT_EQ(journal.nextId(), 25u);  // past the last record kept
    EXPECT_EQ(lines.size(), 1u);
  }
  // Garbage instead of a journal: a new one, and no crash.
  writeFile(path, std::string(1000, '\x7f'));
  {
    ScopedLogCapture capture([](const std::string&) {});
    EventJournal journal(Env::system(), path, 10);
    EXPECT_EQ(journal.size(), 0u);
    EXPECT_EQ(journal.takeId(), 1u);
  }
}

TEST(MountWatcher, ParsesEscapedMountPointsAndPostsRealMounts) {
  auto points = MountWatcher::parse(
      "22 1 0:21 / / rw - ext4 /dev/sda1 rw\n"
      "30 22 0:40 / /media/my\\040disk rw - tmpfs tmpfs rw\n"
      "garbage\n");
  EXPECT_EQ(points, (std::set<std::string>{"/", "/media/my disk"}));

  ManualClock clock;
  RunLoop loop(clock);
  ScratchDir dir;
  const std::string mnt = dir / "mnt with space";
  mkdir(mnt.c_str(), 0755);
  NotificationCenter center;
  MountWatcher watcher(loop, center);
  // Only our own mount point counts: tests running beside this one mount too.
  std::vector<std::string> seen;
  auto a = center.addObserver(kDidMountNotification, nullptr, [&](const auto& n) {
    const std::string point = *userInfoString(n.userInfo, kDevicePathKey);
    if (point == mnt) seen.push_back("mount " + point);
  });
  auto b = center.addObserver(kDidUnmountNotification, nullptr, [&](const auto& n) {
    const std::string point = *userInfoString(n.userInfo, kDevicePathKey);
    if (point == mnt) seen.push_back("unmount " + point);
  });
  if (mount("zephlore-test", mnt.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
  }
  loop.runUntilIdle();
  umount(mnt.c_str());
  loop.runUntilIdle();
  center.removeObserver(a);
  center.removeObserver(b);
  EXPECT_EQ(seen, (std::vector<std::string>{"mount " + mnt, "unmount " + mnt}));
}

}  // namespace
}  // namespace zephlore
