// The running helper under faults of its surroundings: its data folder made
// read-only or removed, its history deleted, its session bus gone, the
// process stopped and continued, a volume that fills up. In each, no user
// file may change in content, no temporary may stay, and the helper must
// not spin: its CPU time over a quiet period of its own (sped-up) clock is
// checked against a bound far above what an idle helper takes and far below
// what a busy loop would.
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "cli/control/helper_process_test_support.h"

namespace zephlore::e2e {
namespace {

constexpr double kSpeed = 1000;  // as the fixture sets ZEPHLORE_CLOCK_SPEED
// Ten minutes of the helper's clock: every timer of an idle helper fires in it
// (load retests every 2 s, event grouping every 3 s, ...).
constexpr double kQuietHelperSeconds = 600;

// utime + stime of the whole process, in clock ticks; -1 once it is gone.
long cpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return -1;
  std::istringstream fields(stat.substr(name_end + 2));
  std::string field;
  long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stol(field);
    if (i == 15) stime = std::stol(field);
  }
  return utime + stime;
}

char processState(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t name_end = stat.rfind(')');
  return name_end == std::string::npos || name_end + 2 >= stat.size() ? '?' : stat[name_end + 2];
}

std::string leftovers(const std::string& folder) {
  return runProcess({"find", folder, "-name", ".zephlore-*"}).out;
}

class HelperFaults : public HelperEndToEnd {
 protected:
  // The helper's CPU ticks over a quiet period; false when it ended in it.
  struct Quiet {
    bool ran_through = false;
    long ticks = 0;
    long period_ticks = 0;
  };
  Quiet quietPeriod() {
    const int ms = static_cast<int>(kQuietHelperSeconds * 1000 / kSpeed);
    const long before = cpuTicks(helper_->pid());
    // Waits for the helper's end, which must not come: the period is
    // measured by the helper's own process, not slept through.
    const bool ended = waitForExit(helper_->pid(), ms);
    const long after = cpuTicks(helper_->pid());
    return {!ended && before >= 0 && after >= 0, after - before, ms * sysconf(_SC_CLK_TCK) / 1000};
  }
  // A busy loop takes every tick of the period; an idle helper next to none.
  void expectNoSpin(const char* when) {
    const Quiet quiet = quietPeriod();
    ASSERT_TRUE(quiet.ran_through) << when << ": the helper ended; its log:\n" << helper_->err();
    std::cout << "[ NOTE     ] " << when << ": " << quiet.ticks << " CPU ticks in " << quiet.period_ticks
              << " ticks of quiet\n";
    EXPECT_LE(quiet.ticks, quiet.period_ticks / 4 + 2) << when << ": the helper spins";
  }

  // Reads the helper's log until it tells what became of `path`: compressed
  // (true) or not (false; also when it never said, within 30 s).
  bool outcomeOf(const std::string& path) {
    const std::string compressed = "Compressed " + path + ": ";
    const std::string refused = "Not compressed " + path + ": ";
    helper_->waitForErrorOutput(
        [&](const std::string& log) {
          return log.find(compressed) != std::string::npos || log.find(refused) != std::string::npos;
        },
        30'000);
    return helper_->err().find(compressed) != std::string::npos;
  }
  bool toldOutcomeOf(const std::string& path) {
    return helper_->err().find("Compressed " + path + ": ") != std::string::npos ||
           helper_->err().find("Not compressed " + path + ": ") != std::string::npos;
  }

  // Each file's content, read as a user reads it, equals what was saved.
  void expectContents(const std::map<std::string, std::string>& files) {
    for (const auto& [path, data] : files) {
      ProcessResult cat = zephlore({"cat", path});
      EXPECT_EQ(cat.status, 0) << path << ": " << cat.err;
      EXPECT_TRUE(cat.out == data) << path << " changed in content";
    }
  }

  std::string watchedFolder(const std::string& name) {
    const std::string watched = folder_ / name;
    EXPECT_EQ(mkdir(watched.c_str(), 0755), 0);
    ProcessResult added = zephlore({"add", watched});
    EXPECT_EQ(added.status, 0) << added.out << added.err;
    return watched;
  }

  int quitHelper() {
    ProcessResult quit = zephlore({"quit"});
    EXPECT_EQ(quit.status, 0) << quit.err;
    if (!waitForExit(helper_->pid(), 20'000)) {
      ADD_FAILURE() << "the helper did not end after quit";
      kill(helper_->pid(), SIGKILL);
    }
    return helper_->finish();
  }
};

TEST_F(HelperFaults, DataFolderMadeReadOnlyAndThenRemoved) {
  ASSERT_TRUE(startHelper());
  const std::string watched = watchedFolder("Documents");
  std::map<std::string, std::string> files;
  auto save = [&](const std::string& name, uint32_t seed) {
    files[watched + "/" + name] = testkit::compressibleData(300'000, seed);
    saveInto(watched, name, files[watched + "/" + name]);
    return watched + "/" + name;
  };
  ASSERT_TRUE(outcomeOf(save("before.txt", 1))) << helper_->err();

  // Read-only: a bind mount of the folder over itself, made read-only (root
  // writes through permission bits).
  const std::string data = home_.dataFolder();
  if (mount(data.c_str(), data.c_str(), nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "cannot bind-mount here";
  if (mount(nullptr, data.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    umount2(data.c_str(), MNT_DETACH);
    GTEST_SKIP() << "cannot make a bind mount read-only here";
  }
  // Saved just as the mounts change: the helper's event stream restarts
  // with each mount, and must not drop what it saw meanwhile.
  EXPECT_TRUE(outcomeOf(save("read-only.txt", 2))) << helper_->err();
  expectNoSpin("data folder read-only");
  umount2(data.c_str(), MNT_DETACH);

  // Removed: the helper works on with the files it holds open; the history
  // it cannot write anew is kept in memory, said once.
  ASSERT_EQ(runProcess({"rm", "-rf", data}).status, 0);
  EXPECT_TRUE(outcomeOf(save("removed.txt", 3))) << helper_->err();
  EXPECT_TRUE(outcomeOf(save("removed-2.txt", 4))) << helper_->err();
  expectNoSpin("data folder removed");
  const std::string log = helper_->err();
  const size_t said = log.find("cannot be written anew");
  EXPECT_NE(said, std::string::npos) << log;
  EXPECT_EQ(log.find("cannot be written anew", said + 1), std::string::npos) << "said more than once:\n" << log;

  EXPECT_EQ(quitHelper(), 0) << helper_->err();
  expectContents(files);
  EXPECT_EQ(leftovers(watched), "");
}

TEST_F(HelperFaults, HistoryDeletedUnderTheRunningHelper) {
  ASSERT_TRUE(startHelper());
  const std::string watched = watchedFolder("Documents");
  std::map<std::string, std::string> files;
  files[watched + "/first.txt"] = testkit::compressibleData(300'000, 4);
  saveInto(watched, "first.txt", files[watched + "/first.txt"]);
  ASSERT_TRUE(outcomeOf(watched + "/first.txt")) << helper_->err();

  ASSERT_EQ(unlink((home_.dataFolder() + "/history.db").c_str()), 0);
  files[watched + "/second.txt"] = testkit::compressibleData(300'000, 5);
  saveInto(watched, "second.txt", files[watched + "/second.txt"]);
  EXPECT_TRUE(outcomeOf(watched + "/second.txt")) << "the folder is still watched; log:\n" << helper_->err();
  expectNoSpin("history deleted");
  // Saved a moment after the savings changed: heard, not assumed.
  helper_->waitForErrorOutput(
      [](const std::string& log) { return log.find("was deleted; written anew") != std::string::npos; }, 10'000);
  EXPECT_NE(helper_->err().find("was deleted; written anew"), std::string::npos) << helper_->err();
  EXPECT_EQ(quitHelper(), 0) << helper_->err();
  expectContents(files);

  // The history the helper had is written anew: the folder stays watched.
  nlohmann::json folders = nlohmann::json::parse(zephlore({"folders", "--json"}).out, nullptr, false);
  ASSERT_TRUE(folders.is_object()) << folders.dump();
  ASSERT_EQ(folders["folders"].size(), 1u) << folders.dump();
  EXPECT_EQ(folders["folders"][0]["path"], watched) << folders.dump();
  ASSERT_TRUE(startHelper());
  files[watched + "/third.txt"] = testkit::compressibleData(300'000, 6);
  saveInto(watched, "third.txt", files[watched + "/third.txt"]);
  EXPECT_TRUE(outcomeOf(watched + "/third.txt")) << helper_->err();
  EXPECT_EQ(quitHelper(), 0) << helper_->err();
  expectContents(files);
}

// The session ends under the helper while a large file is in hand.
TEST_F(HelperFaults, SessionBusGoingAwayEndsTheHelperInOrder) {
  ASSERT_TRUE(startHelper());
  const std::string watched = watchedFolder("Archive");
  const std::string large = testkit::compressibleData((64 << 20) / kCheckerSlowdown, 7);
  FileInProcessWatch inProcess(bus_.address());
  saveInto(watched, "large.bin", large);
  ASSERT_TRUE(inProcess.waitFor(watched + "/large.bin")) << endHelper();

  // Left running it could never be told anything again, and would make the
  // next session's helper quit as a second copy: it ends as after a quit.
  bus_.kill();
  if (!waitForExit(helper_->pid(), 20'000)) {
    expectNoSpin("session bus gone");
    kill(helper_->pid(), SIGTERM);
    ADD_FAILURE() << "the helper ran on without its session bus";
  }
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();
  EXPECT_NE(helper_->err().find("the session bus is gone, quitting"), std::string::npos) << helper_->err();
  EXPECT_NE(helper_->err().find("ZephloreHelper: stopped"), std::string::npos) << helper_->err();
  expectContents({{watched + "/large.bin", large}});
  EXPECT_EQ(leftovers(watched), "");
  struct stat record;
  ASSERT_EQ(stat((home_.dataFolder() + "/inprocess.kr").c_str(), &record), 0);
  EXPECT_EQ(record.st_size, 0) << "no file was left in the middle of its swap";
}

TEST_F(HelperFaults, StoppedAndContinuedMidBatchFinishesItsWork) {
  ASSERT_TRUE(startHelper());
  const std::string watched = watchedFolder("Batch");
  std::map<std::string, std::string> files;
  for (uint32_t i = 0; i < 30; ++i) {
    const std::string name = "file" + std::to_string(i) + ".txt";
    files[watched + "/" + name] = testkit::compressibleData(1 << 20, 100 + i);
    saveInto(watched, name, files[watched + "/" + name]);
  }
  ASSERT_TRUE(outcomeOf(watched + "/file0.txt") || outcomeOf(watched + "/file1.txt")) << endHelper();
  ASSERT_EQ(kill(helper_->pid(), SIGSTOP), 0);
  // The stop has taken hold once the process shows it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (processState(helper_->pid()) != 'T' && std::chrono::steady_clock::now() < deadline) {
  }
  EXPECT_EQ(processState(helper_->pid()), 'T');
  const long stoppedAt = cpuTicks(helper_->pid());
  EXPECT_FALSE(waitForExit(helper_->pid(), 200));
  EXPECT_EQ(cpuTicks(helper_->pid()), stoppedAt) << "a stopped helper does nothing";
  // status answers at once with what the history holds instead of waiting on
  // it (10 s before): 2 s, more under the thread checker, where the command
  // itself starts several times slower.
  const auto answersAtOnce = std::chrono::milliseconds(2000 * kCheckerSlowdown);
  const auto asked = std::chrono::steady_clock::now();
  ProcessResult status = zephlore({"status"});
  const auto took = std::chrono::steady_clock::now() - asked;
  EXPECT_LT(took, answersAtOnce) << "status waited on a stopped helper";
  EXPECT_EQ(status.status, 1) << status.out << status.err;
  EXPECT_NE(status.out.find("(pid " + std::to_string(helper_->pid()) + ") runs but does not answer"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find(watched + "  saved "), std::string::npos) << status.out;
  // folders reads the history alone; pause waits as long as for a helper
  // starting up, then says it got no answer.
  auto timed = [](const std::vector<std::string>& args, ProcessResult* result) {
    const auto start = std::chrono::steady_clock::now();
    *result = zephlore(args);
    return std::chrono::steady_clock::now() - start;
  };
  ProcessResult folders;
  EXPECT_LT(timed({"folders"}, &folders), answersAtOnce) << "folders waited on a stopped helper";
  EXPECT_NE(folders.out.find(watched + "\n  watched, saved "), std::string::npos) << folders.out << folders.err;
  ProcessResult paused;
  EXPECT_LT(timed({"pause"}, &paused), std::chrono::milliseconds(6000 + 2000 * kCheckerSlowdown)) << "pause hung on a stopped helper";
  EXPECT_EQ(paused.status, 1);
  EXPECT_NE(paused.err.find("did not answer"), std::string::npos) << paused.err;
  ASSERT_EQ(kill(helper_->pid(), SIGCONT), 0);

  int compressed = 0;
  for (const auto& [path, data] : files) compressed += outcomeOf(path);
  EXPECT_EQ(compressed, 30) << helper_->err();
  expectNoSpin("after SIGSTOP and SIGCONT");
  EXPECT_EQ(quitHelper(), 0) << helper_->err();
  expectContents(files);
  EXPECT_EQ(leftovers(watched), "");
}

}  // namespace
}  // namespace zephlore::e2e
