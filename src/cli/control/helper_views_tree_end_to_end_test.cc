// The helper with its view over a watched folder works on the whole tree
// beneath the view, as it does without one: files in nested folders that
// were there before the folder was added, and files written into nested
// folders while the helper was down, are all compressed and read in full
// through the view.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/control/helper_process_test_support.h"

namespace zephlore::e2e {
namespace {

// Ends the view the helper left over the folder, so the tmpfs can go.
struct UnmountAtEnd {
  std::string folder;
  ~UnmountAtEnd() {
    if (!folder.empty()) runProcess({kBin + "zephlore", "unmount", "-z", folder});
  }
};

// Compressed files beneath the view (info works beneath views), or -1.
int64_t compressedFilesBeneath(const std::string& folder) {
  ProcessResult r = zephlore({"info", "-r", "--json", folder});
  std::istringstream lines(r.out);
  std::string line, last;
  while (std::getline(lines, line)) {
    if (!line.empty()) last = line;
  }
  nlohmann::json sums = nlohmann::json::parse(last, nullptr, false);
  if (!sums.is_object() || sums.value("type", "") != "summary") return -1;
  return sums.value("compressed_files", int64_t{-1});
}

// Asks the helper until it has saved more than `floor` and then has
// nothing left in hand (neither analysing nor compressing, nothing queued),
// for at most 30 s; then counts the compressed files once. Walking the tree
// while the helper works would open its files under its swaps.
bool waitForCompressedFiles(const std::string& folder, uint64_t floor, int64_t count, int64_t* seen) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    nlohmann::json status = statusJson();
    if (!status.is_object() || status.value("totalSavings", uint64_t{0}) <= floor) continue;
    const std::string state = status["status"].value("text", "");
    if (state == "Analyzing" || state == "Compressing" || status.value("queuedFiles", 1) != 0 ||
        !status["fileInProcess"].is_null()) {
      continue;
    }
    *seen = compressedFilesBeneath(folder);
    if (*seen >= count) return true;
  }
  return false;
}

TEST_F(HelperEndToEnd, WithAViewEveryFileOfANestedTreeIsCompressedAndReadsInFull) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  ASSERT_EQ(zephlore({"view-on"}).status, 0);
  const std::string watched = folder_.path() + "/Documents";
  std::map<std::string, std::string> files;  // path -> content
  uint32_t seed = 10;
  auto writeSome = [&](const std::string& dir, int count) {
    ASSERT_TRUE(mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) << dir;
    for (int i = 0; i < count; ++i) {
      const std::string path = dir + "/note" + std::to_string(seed) + ".txt";
      files[path] = testkit::compressibleData(20'000 + 1'000 * (seed % 7), seed);
      ++seed;
      testkit::writeFile(path, files[path]);
    }
  };
  // Three levels below the folder, two branches, before the folder is added.
  writeSome(watched, 4);
  for (const char* dir : {"/letters", "/letters/2025", "/letters/2025/spring", "/reports", "/reports/q1"}) {
    writeSome(watched + dir, 5);
  }
  ASSERT_TRUE(startHelper()) << "the helper did not take its bus name";
  UnmountAtEnd unmount;
  ProcessResult added = zephlore({"add", watched});
  ASSERT_EQ(added.status, 0) << added.out << added.err;
  unmount.folder = watched;
  nlohmann::json status = statusJson();
  ASSERT_EQ(status["views"].size(), 1u) << status.dump() << endHelper();

  int64_t seen = 0;
  if (!waitForCompressedFiles(watched, 0, static_cast<int64_t>(files.size()), &seen)) {
    ADD_FAILURE() << seen << " of " << files.size() << " files compressed after the folder was added; helper:\n"
                  << endHelper();
    return;
  }

  // Written through the view into nested folders, old and new, while no
  // helper runs: the next run's sweep finds them.
  const uint64_t saved = statusJson().value("totalSavings", uint64_t{0});
  ASSERT_EQ(zephlore({"quit"}).status, 0);
  ASSERT_TRUE(waitForExit(helper_->pid(), 10'000));
  EXPECT_EQ(helper_->finish(), 0) << helper_->err();
  std::string log = helper_->err();
  writeSome(watched + "/letters/2025/spring", 3);
  writeSome(watched + "/reports/q2", 3);
  writeSome(watched + "/reports/q2/drafts", 2);
  ASSERT_TRUE(startHelper());
  if (!waitForCompressedFiles(watched, saved, static_cast<int64_t>(files.size()), &seen)) {
    ADD_FAILURE() << seen << " of " << files.size() << " files compressed after a restart; helper:\n"
                  << endHelper();
    return;
  }
  ProcessResult shown = zephlore({"status"});
  EXPECT_EQ(shown.out.find("/proc/"), std::string::npos) << shown.out;
  log += endHelper();

  // Every program reads them at full content through the view.
  for (const auto& [path, content] : files) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_size, static_cast<off_t>(content.size())) << path;
    EXPECT_EQ(testkit::readFile(path), content) << path;
  }
  // The helper names the folders users see, never the way beneath a view.
  EXPECT_EQ(log.find("/proc/"), std::string::npos) << log;
}

}  // namespace
}  // namespace zephlore::e2e
