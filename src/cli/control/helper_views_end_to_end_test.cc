// The helper's views as a user meets them: a view whose process is killed
// is mounted again at once, and a new helper adopts the views it finds.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/control/helper_process_test_support.h"
#include "cli/control/tree_info_test_support.h"
#include "cli/control/view_process_test_support.h"

namespace zephlore::e2e {
namespace {

// The children of `parent` that ended and were never waited for.
std::string defunctChildrenOf(pid_t parent) {
  std::string found;
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return "no /proc";
  while (dirent* entry = readdir(dir)) {
    if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    // A process may end while the list is read.
    std::ifstream in(std::string("/proc/") + entry->d_name + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t nameEnd = stat.rfind(')');
    char state = 0;
    int ppid = 0;
    if (nameEnd != std::string::npos && sscanf(stat.c_str() + nameEnd + 2, "%c %d", &state, &ppid) == 2 &&
        ppid == parent && state == 'Z') {
      found += std::string(entry->d_name) + " ";
    }
  }
  closedir(dir);
  return found;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

std::string viewLine(const nlohmann::json& status) {
  return status.is_object() && status["views"].size() == 1 ? status["views"][0].get<std::string>() : status.dump();
}

// Notes of some kilobytes in folders nested up to three deep, with what each holds.
struct NestedNotes {
  std::map<std::string, std::string> files;
  uint32_t seed = 10;
  void writeSome(const std::string& dir, int count) {
    ASSERT_TRUE(mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) << dir;
    for (int i = 0; i < count; ++i, ++seed) {
      const std::string path = dir + "/note" + std::to_string(seed) + ".txt";
      files[path] = testkit::compressibleData(20'000 + 1'000 * (seed % 7), seed);
      testkit::writeFile(path, files[path]);
    }
  }
};

// Asks the helper until it has nothing left in hand (neither analysing nor
// compressing, nothing queued), for at most 30 s; then counts the compressed
// files beneath the view once, true when there are `count`. Walking the tree
// while the helper works would open its files under its swaps.
bool waitForCompressedFiles(const std::string& folder, size_t count, int64_t* seen) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    nlohmann::json status = statusJson();
    if (!status.is_object()) continue;
    const std::string state = status["status"].value("text", "");
    if (state == "Analyzing" || state == "Compressing" || status.value("queuedFiles", 1) != 0 ||
        !status["fileInProcess"].is_null()) {
      continue;
    }
    *seen = treeInfo(folder).summary.value("compressed_files", int64_t{-1});
    if (*seen >= static_cast<int64_t>(count)) return true;
  }
  return false;
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

  // Views on, a helper watching "Documents" (with `notes` there before it
  // was added), and "report.txt" written there.
  void watchDocumentsWithAView(const std::string& report, NestedNotes* notes = nullptr) {
    watched_ = folder_.path() + "/Documents";
    ASSERT_EQ(mkdir(watched_.c_str(), 0755), 0);
    if (notes != nullptr) {
      notes->writeSome(watched_, 4);
      for (const char* dir : {"/letters", "/letters/2025", "/letters/2025/spring", "/reports", "/reports/q1"}) {
        notes->writeSome(watched_ + dir, 5);
      }
    }
    ASSERT_EQ(zephlore({"view-on"}).status, 0);
    ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
    ASSERT_EQ(zephlore({"add", watched_}).status, 0);
    testkit::writeFile(watched_ + "/report.txt", report);
  }

  // Waits at most 10 s for a view over the watched folder served by a
  // process other than `gone` that is alive, and through which `file` reads
  // `data`; the milliseconds that took, -1 when none came.
  long long waitForALiveViewOtherThan(pid_t gone, const std::string& file, const std::string& data) {
    const auto from = std::chrono::steady_clock::now();
    const auto deadline = from + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      const pid_t serving = viewProcess(watched_);
      if (serving > 0 && serving != gone && processIsRunning(serving) && viewsMountedOn(watched_) == 1 &&
          testkit::readFile(file) == data) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - from)
            .count();
      }
      statusJson();  // a round trip to the helper paces the loop
    }
    return -1;
  }
  static bool processIsRunning(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t nameEnd = stat.rfind(')');
    return nameEnd != std::string::npos && nameEnd + 2 < stat.size() && stat[nameEnd + 2] != 'Z' &&
           stat[nameEnd + 2] != 'X';
  }

  std::string watched_;
};

TEST_F(HelperViews, AKilledViewIsMountedAgainAndANewHelperAdoptsTheViewItFinds) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  const std::string original = testkit::compressibleData(300'000, 5);
  ASSERT_NO_FATAL_FAILURE(watchDocumentsWithAView(original));
  ASSERT_TRUE(waitForSavingsAbove(0)) << "nothing compressed; helper:\n" << endHelper();
  ASSERT_EQ(infoJson(watched_ + "/report.txt")["state"], "compressed");

  const long long restoredMs = killViewAndWaitForItsReturn(helper_->err().size());
  ASSERT_GE(restoredMs, 0) << "the view was not mounted again; helper:\n" << endHelper();
  fprintf(stderr, "the view was back %lld ms after its process was killed\n", restoredMs);
  EXPECT_EQ(testkit::readFile(watched_ + "/report.txt"), original) << "read through the folder's own path";
  struct stat st;
  ASSERT_EQ(stat((watched_ + "/report.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(original.size()));
  EXPECT_EQ(viewsMountedOn(watched_), 1);
  EXPECT_NE(helper_->err().find("*** ZephloreHelper: the view over " + watched_ + " ended"), std::string::npos)
      << helper_->err();
  EXPECT_NE(viewLine(statusJson()).find(watched_ + ": full content through its view (restored at "),
            std::string::npos)
      << viewLine(statusJson());

  EXPECT_EQ(defunctChildrenOf(helper_->pid()), "") << "a view mounted or restored left a defunct child";
  // Once the sweep after the restore has ended: a file open for writing is
  // refused, and taken once closed.
  auto logHas = [this](const std::string& line, size_t from) {
    return helper_->waitForErrorOutput(
        [&](const std::string& log) { return log.find(line, from) != std::string::npos; }, 20'000);
  };
  ASSERT_TRUE(logHas("Analysed " + watched_ + ": ", helper_->err().find(" is back;"))) << endHelper();
  const std::string draft = watched_ + "/drafts/draft.txt";
  ASSERT_EQ(mkdir((watched_ + "/drafts").c_str(), 0755), 0);
  const int writer = open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(writer, 0);
  const std::string draftData = testkit::compressibleData(200'000, 6);
  ASSERT_EQ(write(writer, draftData.data(), draftData.size()), static_cast<ssize_t>(draftData.size()));
  ASSERT_TRUE(logHas("Not compressed " + draft + ": ", 0)) << endHelper();
  ASSERT_EQ(close(writer), 0);
  ASSERT_TRUE(logHas("Compressed " + draft + ": ", 0)) << "the closed draft was not compressed; helper:\n"
                                                        << endHelper();
  // The command's lines name the paths users gave, not the way beneath the view.
  ProcessResult again = zephlore({"compress", watched_ + "/report.txt"});
  EXPECT_NE(again.out.find(watched_ + "/report.txt  (already compressed)"), std::string::npos) << again.out;
  ProcessResult missing = zephlore({"decompress", watched_ + "/gone.txt"});
  EXPECT_NE(missing.err.find("failed        " + watched_ + "/gone.txt  cannot stat"), std::string::npos)
      << missing.err;
  EXPECT_EQ((again.out + again.err + missing.out + missing.err).find("/proc/"), std::string::npos)
      << again.out << again.err << missing.out << missing.err;

  // The view outlives its helper; the next helper takes it as it is.
  const pid_t servedBy = viewProcess(watched_);
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  ASSERT_TRUE(waitForExit(helper_->pid(), 10'000));
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();
  std::string firstRunLog = helper_->err();
  // A file taken after its sweep ended does not make that sweep unfinished.
  ProcessResult folders = zephlore({"folders"});
  EXPECT_NE(folders.out.find("watched, saved "), std::string::npos) << folders.out;
  EXPECT_NE(folders.out.find(", sweep 100% done, last sweep "), std::string::npos) << folders.out;
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
  EXPECT_EQ(defunctChildrenOf(helper_->pid()), "");

  // Moving the folder: what status and `remove --help` advise works.
  ProcessResult status = zephlore({"status"});
  EXPECT_NE(status.out.find("zephlore remove DIR, zephlore decompress -r DIR,\n   zephlore unmount DIR"),
            std::string::npos)
      << status.out;
  EXPECT_NE(zephlore({"remove", "--help"}).out.find("zephlore decompress -r DIR"), std::string::npos);
  const std::string moved = folder_.path() + "/Moved";
  EXPECT_NE(rename(watched_.c_str(), moved.c_str()), 0) << "a mount point moved";
  ASSERT_EQ(zephlore({"remove", watched_}).status, 0);
  EXPECT_NE(viewLine(statusJson()).find(": its view stays: " + watched_ + "/"), std::string::npos)
      << viewLine(statusJson());
  folders = zephlore({"folders"});
  EXPECT_NE(folders.out.find(watched_ + "\n  not watched, saved "), std::string::npos) << folders.out;
  EXPECT_EQ(folders.out.find("never"), std::string::npos) << "the folder was swept:\n" << folders.out;
  EXPECT_EQ(viewsMountedOn(watched_), 1) << "the view stays while a file in it is compressed";
  EXPECT_EQ(zephlore({"decompress", "-r", watched_}).status, 0);
  ProcessResult unmounted = zephlore({"unmount", watched_});
  EXPECT_TRUE(unmounted.status == 0 || viewsMountedOn(watched_) == 0) << unmounted.err;
  EXPECT_EQ(rename(watched_.c_str(), moved.c_str()), 0) << strerror(errno);
  EXPECT_EQ(testkit::readFile(moved + "/report.txt"), original);

  // The helper names the folders users see, each once as it starts to watch it.
  const std::string log = firstRunLog + endHelper();
  EXPECT_EQ(log.find("/proc/"), std::string::npos) << log;
  EXPECT_EQ(occurrences(log, "Watching " + watched_ + "\n"), 2u) << "once in each run:\n" << log;
}

// The helper and its view killed together: the next helper finds a dead
// view (its process gone or a zombie nobody reaps) and must put a live one
// back, whether the view died before it started or just after. Beneath the
// view the helper works on the whole tree: files nested in it before it was
// added, and files written into nested folders while no helper ran, are all
// compressed and read in full.
TEST_F(HelperViews, ANewHelperPutsBackAViewKilledTogetherWithThePreviousHelper) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  const std::string original = testkit::compressibleData(300'000, 7);
  NestedNotes notes;
  ASSERT_NO_FATAL_FAILURE(watchDocumentsWithAView(original, &notes));
  const std::string report = watched_ + "/report.txt";
  notes.files[report] = original;
  int64_t seen = 0;
  ASSERT_TRUE(waitForCompressedFiles(watched_, notes.files.size(), &seen))
      << seen << " of " << notes.files.size() << " files compressed after the folder was added; helper:\n"
      << endHelper();
  std::string logs;
  auto toldItIsBack = [this] {
    return helper_->waitForErrorOutput(
        [](const std::string& log) { return log.find(" is back; ") != std::string::npos; }, 10'000);
  };
  auto killHelper = [&] {
    kill(helper_->pid(), SIGKILL);
    helper_->finish();
    logs += helper_->err() + "--- helper killed\n";
    helper_.reset();
  };

  for (int round = 0; round < 3; ++round) {
    // Both dead, then a new helper. The helper goes first: killed second, it
    // could still put a view back itself, which the next one then adopts.
    const pid_t view = viewProcess(watched_);
    ASSERT_GT(view, 0) << logs;
    killHelper();
    kill(view, SIGKILL);
    ASSERT_TRUE(waitForExit(view, 10'000));
    ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
    const long long ms = waitForALiveViewOtherThan(view, report, original);
    ASSERT_GE(ms, 0) << "round " << round << ": no live view came back; helpers:\n" << logs << endHelper();
    fprintf(stderr, "killed together: a live view was back %lld ms after the new helper owned its name\n", ms);
    // ...and the helper says so: the user reads in status that it was put back.
    ASSERT_TRUE(toldItIsBack()) << "round " << round << ":\n" << logs << endHelper();
    EXPECT_NE(viewLine(statusJson()).find(watched_ + ": full content through its view (restored at "),
              std::string::npos)
        << viewLine(statusJson());

    // The view killed as the new helper starts, before or after it adopted it.
    const pid_t next = viewProcess(watched_);
    killHelper();
    if (round == 0) {
      for (const char* dir : {"/letters/2025/spring", "/reports/q2", "/reports/q2/drafts"}) {
        ASSERT_NO_FATAL_FAILURE(notes.writeSome(watched_ + dir, 3));
      }
    }
    ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
    kill(next, SIGKILL);
    const long long again = waitForALiveViewOtherThan(next, report, original);
    ASSERT_GE(again, 0) << "round " << round << ": no live view came back; helpers:\n" << logs << endHelper();
    fprintf(stderr, "killed as the new helper started: a live view was back after %lld ms\n", again);
    ASSERT_TRUE(toldItIsBack()) << "round " << round << ":\n" << logs << endHelper();
  }

  ASSERT_TRUE(waitForCompressedFiles(watched_, notes.files.size(), &seen))
      << seen << " of " << notes.files.size() << " files compressed after the restarts; helper:\n"
      << logs << endHelper();
  ProcessResult shown = zephlore({"status"});
  EXPECT_EQ(shown.out.find("/proc/"), std::string::npos) << shown.out;
  // Every program reads them at full content through the view.
  for (const auto& [path, content] : notes.files) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_size, static_cast<off_t>(content.size())) << path;
    EXPECT_EQ(testkit::readFile(path), content) << path;
  }
  // The helpers name the folders users see, never the way beneath a view.
  logs += endHelper();
  helper_.reset();
  EXPECT_EQ(logs.find("/proc/"), std::string::npos) << logs;
}

}  // namespace
}  // namespace zephlore::e2e
