// A week of ordinary work in a watched folder read and written through its
// view, the helper and the view killed at seeded moments: at the end every
// file holds what was last written to it, everything compressible is
// compressed, nothing is left over and the helper says all is well.
//
// ZEPHLORE_CAMPAIGN_FILES, _STEPS, _HELPER_KILLS, _VIEW_KILLS and _SEED scale
// it up (bench/helper_campaign.sh); it prints its figures on standard error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cli/control/helper_process_test_support.h"
#include "cli/control/tree_info_test_support.h"
#include "cli/control/view_process_test_support.h"

namespace zephlore::e2e {
namespace {

namespace fs = std::filesystem;

int envNumber(const char* name, int fallback) {
  const char* value = getenv(name);
  return value != nullptr && *value != '\0' ? atoi(value) : fallback;
}

struct CampaignScale {
  int files = envNumber("ZEPHLORE_CAMPAIGN_FILES", 3000);
  int steps = envNumber("ZEPHLORE_CAMPAIGN_STEPS", 400);
  int helperKills = envNumber("ZEPHLORE_CAMPAIGN_HELPER_KILLS", 3);
  int viewKills = envNumber("ZEPHLORE_CAMPAIGN_VIEW_KILLS", 3);
  uint32_t seed = static_cast<uint32_t>(envNumber("ZEPHLORE_CAMPAIGN_SEED", 23));
};

// Lines of words: compressible, and "alpha" in them for sed to change.
std::string textOf(size_t size, uint32_t seed) { return testkit::compressibleData(size, seed); }

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

// Paths the default rules keep plain (hidden, version control, databases,
// archives): the helper must leave them alone.
bool excludedByRules(const std::string& relative) {
  auto endsWith = [&](const std::string& end) {
    return relative.size() >= end.size() && relative.compare(relative.size() - end.size(), end.size(), end) == 0;
  };
  return ("/" + relative).find("/.") != std::string::npos || endsWith(".db") || endsWith("-journal") ||
         endsWith(".tar");
}

// Reads the helper's standard error on a thread of its own while the test
// runs commands: a helper blocked on a full pipe would stall every answer.
class LogPump {
 public:
  explicit LogPump(Child& helper) : helper_(helper), thread_([this] { run(); }) {}
  ~LogPump() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    thread_.join();
  }
  std::string text() {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }
  // True once `needle` appears after `from`, waiting at most `ms`.
  bool waitFor(const std::string& needle, size_t from, int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return grown_.wait_for(lock, std::chrono::milliseconds(ms),
                           [&] { return text_.find(needle, from) != std::string::npos; });
  }

 private:
  // Each read waits at most 100 ms, so that a silent helper does not hold
  // up the end.
  void run() {
    bool stop = false;
    while (!stop) {
      const bool open = helper_.waitForErrorOutput(
          [this, &stop](const std::string& all) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (all.size() != text_.size()) {
              text_ = all;
              grown_.notify_all();
            }
            return stop = stop_;
          },
          100);
      if (!open && !stop) {
        std::lock_guard<std::mutex> lock(mutex_);
        stop = stop_;
      }
    }
  }

  Child& helper_;
  std::mutex mutex_;
  std::condition_variable grown_;
  std::string text_;
  bool stop_ = false;
  std::thread thread_;
};

class HelperCampaignHeavy : public HelperEndToEnd {
 protected:
  void TearDown() override {
    if (appender_ >= 0) close(appender_);
    pump_.reset();
    if (helper_) endHelper();
    if (!watched_.empty() && viewsMountedOn(watched_) > 0) runProcess({kBin + "zephlore", "unmount", "-z", watched_});
  }

  std::string at(const std::string& relative) const { return watched_ + "/" + relative; }
  // Everything the helpers logged so far, the killed ones' too.
  std::string log() const { return pastLogs_ + (pump_ ? pump_->text() : ""); }
  bool startPumpedHelper() {
    const bool started = startHelper();
    pump_ = std::make_unique<LogPump>(*helper_);
    return started;
  }

  void write(const std::string& relative, const std::string& data) {
    fs::create_directories(fs::path(at(relative)).parent_path());
    testkit::writeFile(at(relative), data);
    files_[relative] = data;
  }
  // As editors save: a new file beside the old one, renamed over it.
  void saveByRename(const std::string& relative, const std::string& data) {
    const std::string staged = at(relative) + ".saving";
    testkit::writeFile(staged, data);
    ASSERT_EQ(rename(staged.c_str(), at(relative).c_str()), 0) << relative << ": " << strerror(errno);
    files_[relative] = data;
  }
  void run(std::vector<std::string> argv) {
    ProcessResult r = runProcess(argv);
    std::string line;
    for (const std::string& arg : argv) line += arg + " ";
    ASSERT_EQ(r.status, 0) << line << "\n" << r.out << r.err;
  }
  void git(std::vector<std::string> args) {
    args.insert(args.begin(), {"git", "-C", at("project"), "-c", "user.name=Campaign", "-c",
                               "user.email=campaign@example.org", "-c", "init.defaultBranch=main"});
    run(args);
  }

  const std::string& pick(std::mt19937& rng) {
    auto it = files_.begin();
    std::advance(it, rng() % files_.size());
    return it->first;
  }

  void killHelper() {
    kill(helper_->pid(), SIGKILL);
    pump_.reset();
    helper_->finish();
    pastLogs_ += helper_->err();
    pastLogs_ += "--- test: helper killed before step " + std::to_string(step_) + "\n";
    helper_.reset();
    ++helperKills_;
    ASSERT_TRUE(startPumpedHelper()) << "the helper did not come back:\n" << log();
  }
  void killView() {
    const size_t before = pump_->text().size();
    const pid_t view = viewProcess(watched_);
    ASSERT_GT(view, 0) << "no view over " << watched_;
    const auto killed = std::chrono::steady_clock::now();
    kill(view, SIGKILL);
    ASSERT_TRUE(pump_->waitFor("is back", before, 10'000))
        << "the view was not mounted again (killed " << view << ", now served by " << viewProcess(watched_)
        << ", views mounted " << viewsMountedOn(watched_) << "):\n"
        << log();
    restoredMs_.push_back(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - killed).count());
  }

  // A program holding a file open and appending to it over several steps;
  // a write refused because its view died ends it, as it would a program.
  void appendSlowly(std::mt19937& rng) {
    if (appender_ < 0) {
      appenderPath_ = "logs/slow-" + std::to_string(rng() % 1000) + ".log";
      slowlyAppended_.insert(appenderPath_);
      fs::create_directories(fs::path(at(appenderPath_)).parent_path());
      appender_ = open(at(appenderPath_).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      ASSERT_GE(appender_, 0) << strerror(errno);
      if (!files_.count(appenderPath_)) files_[appenderPath_] = testkit::readFile(at(appenderPath_));
      appenderLeft_ = 4 + static_cast<int>(rng() % 8);
    }
    const std::string chunk = textOf(500 + rng() % 3000, rng());
    if (::write(appender_, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size())) {
      files_[appenderPath_] += chunk;
    } else {
      ++appendsRefused_;
      appenderLeft_ = 0;
    }
    if (--appenderLeft_ <= 0) {
      close(appender_);
      appender_ = -1;
    }
  }

  void readMapped(const std::string& relative) {
    const int fd = open(at(relative).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << relative << ": " << strerror(errno);
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    std::string seen;
    if (st.st_size > 0) {
      void* map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
      ASSERT_NE(map, MAP_FAILED) << relative << ": " << strerror(errno);
      seen.assign(static_cast<const char*>(map), static_cast<size_t>(st.st_size));
      munmap(map, static_cast<size_t>(st.st_size));
    }
    close(fd);
    EXPECT_EQ(seen == files_[relative], true) << relative << " mapped: " << seen.size() << " bytes, last written "
                                              << files_[relative].size();
    ++mappedReads_;
  }

  // The plain files the helper should have compressed, from `zephlore info`.
  std::vector<std::string> uncompressedCandidates(nlohmann::json* summary) {
    TreeInfo info = treeInfo(watched_, /*eachFile=*/true);
    *summary = info.summary;
    std::vector<std::string> left;
    for (const nlohmann::json& file : info.files) {
      const std::string path = file.value("path", "");
      const std::string relative = path.size() > watched_.size() ? path.substr(watched_.size() + 1) : path;
      if (file["state"] == "plain" && file.value("uncompressed_size", uint64_t{0}) >= 4096 &&
          !file["attributes"].value("exclude", false) && !excludedByRules(relative)) {
        left.push_back(relative);
      }
    }
    return left;
  }

  std::string watched_;
  std::map<std::string, std::string> files_;  // what was last written to each file
  std::string pastLogs_;
  std::unique_ptr<LogPump> pump_;
  int appender_ = -1;
  std::string appenderPath_;
  std::set<std::string> slowlyAppended_;
  int appenderLeft_ = 0;
  int helperKills_ = 0, appendsRefused_ = 0, mappedReads_ = 0;
  int step_ = -1;
  std::vector<long long> restoredMs_;
};

TEST_F(HelperCampaignHeavy, AWeekOfWorkThroughTheViewWithTheHelperAndTheViewKilled) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse here";
  const CampaignScale scale;
  const auto began = std::chrono::steady_clock::now();
  std::mt19937 rng(scale.seed);

  // The folder as it was before anyone watched it: nested notes and sources,
  // most worth compressing, some too small.
  watched_ = folder_.path() + "/Documents";
  for (int i = 0; i < scale.files; ++i) {
    const std::string relative = "area" + std::to_string(i % 12) + "/topic" + std::to_string(i % 7) + "/part" +
                                 std::to_string(i % 3) + "/note-" + std::to_string(i) + ".txt";
    const size_t size = i % 10 == 0 ? 200 + rng() % 3000 : 4096 + rng() % (i % 50 == 0 ? 400'000 : 40'000);
    write(relative, textOf(size, rng()));
  }
  // An archive to unpack now and then, kept outside the folder.
  const std::string staging = folder_.path() + "/archive-src";
  std::map<std::string, std::string> archived;
  for (int i = 0; i < 20; ++i) {
    archived["pkg/doc/file-" + std::to_string(i) + ".md"] = textOf(3000 + rng() % 30'000, rng());
  }
  for (const auto& [name, data] : archived) {
    fs::create_directories(fs::path(staging + "/" + name).parent_path());
    testkit::writeFile(staging + "/" + name, data);
  }
  const std::string archive = folder_.path() + "/pkg.tar";
  run({"tar", "cf", archive, "-C", staging, "pkg"});

  ASSERT_EQ(zephlore({"view-on"}).status, 0);
  ASSERT_TRUE(startPumpedHelper()) << "the helper did not take its bus name";
  ASSERT_EQ(zephlore({"add", watched_}).status, 0);
  {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (viewProcess(watched_) == 0 && std::chrono::steady_clock::now() < deadline) statusJson();
    ASSERT_GT(viewProcess(watched_), 0) << "no view over the folder:\n" << log();
  }

  // A project under version control inside the folder.
  write("project/README.md", textOf(9000, rng()));
  write("project/src/main.c", textOf(20'000, rng()));
  git({"init", "-q"});
  git({"add", "-A"});
  git({"commit", "-qm", "start"});
  std::vector<std::map<std::string, std::string>> commits;
  auto projectFiles = [this] {
    std::map<std::string, std::string> project;
    for (const auto& [name, data] : files_) {
      if (name.rfind("project/", 0) == 0) project[name.substr(8)] = data;
    }
    return project;
  };
  commits.push_back(projectFiles());
  std::vector<std::string> commitIds = {"HEAD"};
  commitIds[0] = runProcess({"git", "-C", at("project"), "rev-parse", "HEAD"}).out.substr(0, 40);

  int sqliteRows = 0, unpacked = 0;
  std::map<int, int> killAt;  // step -> 1 helper, 2 view
  for (int k = 0; k < scale.helperKills; ++k) killAt[static_cast<int>(rng() % scale.steps)] |= 1;
  for (int k = 0; k < scale.viewKills; ++k) killAt[static_cast<int>(rng() % scale.steps)] |= 2;

  std::map<std::string, int> done;
  for (int step = 0; step < scale.steps && !HasFatalFailure(); ++step) {
    step_ = step;
    if (killAt.count(step) && (killAt[step] & 1)) killHelper();
    if (killAt.count(step) && (killAt[step] & 2)) killView();
    const std::string& file = pick(rng);
    // The slow appender's file is only appended to while it is open.
    if (appender_ >= 0 && file == appenderPath_) continue;
    switch (rng() % 12) {
      case 0:
      case 1:
        saveByRename(file, textOf(4096 + rng() % 60'000, rng()));
        ++done["saves by rename"];
        break;
      case 2:
        run({"sed", "-i", "s/alpha/ALPHA/g", at(file)});
        replaceAll(files_[file], "alpha", "ALPHA");
        ++done["sed -i"];
        break;
      case 3: {
        const std::string more = textOf(100 + rng() % 8000, rng());
        const int fd = open(at(file).c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0) << file << ": " << strerror(errno);
        ASSERT_EQ(::write(fd, more.data(), more.size()), static_cast<ssize_t>(more.size())) << file;
        close(fd);
        files_[file] += more;
        ++done["appends"];
        break;
      }
      case 4: {
        const size_t size = files_[file].size() * (rng() % 4) / 4;
        run({"truncate", "-s", std::to_string(size), at(file)});
        files_[file].resize(size);
        ++done["truncates"];
        break;
      }
      case 5: {
        const std::string changed = "project/src/module" + std::to_string(rng() % 6) + ".c";
        write(changed, textOf(5000 + rng() % 30'000, rng()));
        git({"add", "-A"});
        git({"commit", "-qm", "step " + std::to_string(step)});
        commits.push_back(projectFiles());
        commitIds.push_back(runProcess({"git", "-C", at("project"), "rev-parse", "HEAD"}).out.substr(0, 40));
        ++done["git commits"];
        break;
      }
      case 6: {
        const size_t back = rng() % commits.size();
        git({"checkout", "-q", commitIds[back], "--", "."});
        for (const auto& [name, data] : commits[back]) files_["project/" + name] = data;
        ++done["git checkouts"];
        if (rng() % 3 == 0) {
          git({"gc", "-q"});
          ++done["git gc"];
        }
        break;
      }
      case 7: {
        const std::string into = "unpacked/" + std::to_string(unpacked++);
        fs::create_directories(at(into));
        run({"tar", "xf", archive, "-C", at(into)});
        for (const auto& [name, data] : archived) files_[into + "/" + name] = data;
        ++done["tar x"];
        break;
      }
      case 8:
        run({"sqlite3", at("ledger.db"),
             "CREATE TABLE IF NOT EXISTS entries(step INTEGER, text TEXT); INSERT INTO entries VALUES(" +
                 std::to_string(step) + ", '" + textOf(200, rng()) + "');"});
        ++sqliteRows;
        ++done["sqlite writes"];
        break;
      case 9:
      case 10:
        appendSlowly(rng);
        ++done["slow appends"];
        break;
      case 11:
        readMapped(file);
        ++done["mmap reads"];
        break;
    }
  }
  if (appender_ >= 0) {
    close(appender_);
    appender_ = -1;
  }
  ASSERT_FALSE(HasFatalFailure());
  const auto weekEnded = std::chrono::steady_clock::now();

  // The helper settles: nothing queued, nothing in hand, nothing left plain.
  nlohmann::json summary, status;
  std::vector<std::string> left;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  auto idle = [](const nlohmann::json& s) {
    return s.is_object() && s.value("queuedFiles", 1) == 0 && s["fileInProcess"].is_null();
  };
  auto unexplained = [this](const std::vector<std::string>& plain) {
    return std::count_if(plain.begin(), plain.end(), [this](const std::string& n) { return !slowlyAppended_.count(n); });
  };
  do {
    status = statusJson();
    // Walking the tree while the helper works would only slow it down.
    if (idle(status)) left = uncompressedCandidates(&summary);
  } while ((!idle(status) || unexplained(left) != 0 || summary.empty()) &&
           std::chrono::steady_clock::now() < deadline);
  const auto settled = std::chrono::steady_clock::now();

  ASSERT_FALSE(summary.empty()) << "the helper never settled; its status: " << status.dump() << "\n" << log();
  // Known gap: a file the helper found open for writing is tried again only
  // kMaxBusyRetries times, kBusyRetryDelay apart; a writer holding it open
  // longer leaves it plain until it next changes, as closing it is no event
  // the helper acts on. Those files are counted, not failed.
  const auto heldOpen = std::partition(left.begin(), left.end(),
                                       [this](const std::string& name) { return !slowlyAppended_.count(name); });
  const long leftByHeldWriter = left.end() - heldOpen;
  left.erase(heldOpen, left.end());
  EXPECT_TRUE(left.empty()) << left.size() << " files left plain, the first: " << left.front() << "\n" << log();
  EXPECT_EQ(summary.value("engine_temporaries", -1), 0) << summary.dump();
  EXPECT_EQ(summary.value("errors", -1), 0) << summary.dump();
  EXPECT_EQ(summary.value("mixed_files_count", -1), 0) << summary.dump();
  EXPECT_EQ(summary["states"]["incomplete"].value("files", -1), 0) << summary.dump();
  ASSERT_TRUE(status.is_object()) << log();
  EXPECT_EQ(status["running"], true);
  EXPECT_TRUE(status["fileInProcess"].is_null()) << status.dump();
  ASSERT_EQ(status["views"].size(), 1u) << status.dump();
  EXPECT_NE(status["views"][0].get<std::string>().find(watched_ + ": full content through its view"),
            std::string::npos)
      << status.dump();
  const std::string record = home_.dataFolder() + "/inprocess.kr";
  EXPECT_TRUE(access(record.c_str(), F_OK) != 0 || fs::file_size(record) == 0) << "a record of a file in process";

  // Every file holds what was last written to it, read through the view, and
  // no other file appeared.
  int wrong = 0;
  for (const auto& [name, data] : files_) {
    const std::string seen = testkit::readFile(at(name));
    if (seen != data) {
      ADD_FAILURE() << name << ": " << seen.size() << " bytes, last written " << data.size();
      ++wrong;
    }
  }
  std::set<std::string> extra;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(watched_)) {
    const std::string relative = entry.path().string().substr(watched_.size() + 1);
    if (entry.is_regular_file() && relative.rfind("project/.git/", 0) != 0 && relative.rfind("ledger.db", 0) != 0 &&
        !files_.count(relative)) {
      extra.insert(relative);
    }
  }
  EXPECT_TRUE(extra.empty()) << extra.size() << " files nobody wrote, the first: " << *extra.begin();
  EXPECT_EQ(runProcess({"git", "-C", at("project"), "fsck", "--no-progress"}).status, 0);
  if (sqliteRows > 0) {
    EXPECT_EQ(runProcess({"sqlite3", at("ledger.db"), "PRAGMA integrity_check; SELECT count(*) FROM entries;"}).out,
              "ok\n" + std::to_string(sqliteRows) + "\n");
  }

  auto seconds = [](auto from, auto to) { return std::chrono::duration<double>(to - from).count(); };
  std::string restored;
  for (long long ms : restoredMs_) restored += std::to_string(ms) + " ";
  fprintf(stderr, "campaign: %zu files checked, %d wrong; %d helper kills, %zu view kills, views back after (ms): %s\n",
          files_.size(), wrong, helperKills_, restoredMs_.size(), restored.c_str());
  std::string work;
  for (const auto& [what, count] : done) work += what + " " + std::to_string(count) + ", ";
  fprintf(stderr, "campaign: %s%d slow appends refused; %ld files left plain after their writer held them open\n",
          work.c_str(), appendsRefused_, leftByHeldWriter);
  fprintf(stderr, "campaign: %s compressed files; week %.1f s, settled %.1f s after it\n",
          summary["states"]["compressed"].dump().c_str(), seconds(began, weekEnded), seconds(weekEnded, settled));
}

}  // namespace
}  // namespace zephlore::e2e
