// Other programs' objects at the names of the helper's settings and records:
// a FIFO (whose open or read waits for a writer forever) or a symbolic link
// to a regular file. The real helper must start, answer and quit, refuse the
// FIFO with one log line, keep the user's link, and leave each in place.
// Sockets, directories and links to them are ConfigFileTest's: here only
// that every path the helper reads goes through that reader.
#include <sys/stat.h>

#include <cstring>
#include <sstream>

#include "cli/control/helper_process_test_support.h"

namespace zephlore::e2e {
namespace {

enum class Kind { kFifo, kLinkToRegularFile };
const std::pair<Kind, const char*> kKinds[] = {{Kind::kFifo, "FIFO"}, {Kind::kLinkToRegularFile, "link to a regular file"}};

// A command that may not hang the test: killed after 20 s (status 137).
ProcessResult boundedZephlore(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"timeout", "-s", "KILL", "20", kBin + "zephlore"};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProcess(argv);
}

size_t linesNaming(const std::string& log, const std::string& path, const std::string& words) {
  size_t count = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    count += line.find(path) != std::string::npos && line.find(words) != std::string::npos;
  }
  return count;
}

class HelperConfigFiles : public HelperEndToEnd {
 protected:
  // The helper owns its name a moment before its status object is on the
  // bus: asked until it answers (each a round trip), for at most 20 s.
  static ProcessResult statusOnceExported() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    ProcessResult status;
    do {
      status = boundedZephlore({"status", "--json"});
    } while (status.status != 0 && status.status != 137 && std::chrono::steady_clock::now() < deadline);
    return status;
  }

  // Every file the helper reads from its data and configuration folders.
  std::vector<std::string> settingsPaths() const {
    const std::string data = home_.dataFolder();
    return {data + "/defaults.plist",      data + "/excludedPaths.plist",
            data + "/excludedExtensions.plist", data + "/history.db",
            data + "/events.journal",      data + "/inprocess.kr",
            data + "/inprocess-999999.kr", home_.configFolder() + "/com.quorvane.ZephloreHelper.plist"};
  }

  // Puts an object of `kind` at `path`; a link's target lives apart.
  void place(Kind kind, const std::string& path, const std::string& content) {
    const std::string target = folder_ / ("target-" + path.substr(path.rfind('/') + 1));
    switch (kind) {
      case Kind::kFifo: ASSERT_EQ(mkfifo(path.c_str(), 0600), 0) << path; break;
      case Kind::kLinkToRegularFile:
        testkit::writeFile(target, content);
        ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
        break;
    }
  }

  void clearFolders() {
    for (const std::string& folder : {home_.dataFolder(), home_.configFolder(), folder_.path()}) {
      ASSERT_EQ(runProcess({"find", folder, "-mindepth", "1", "-delete"}).status, 0);
    }
  }
};

TEST_F(HelperConfigFiles, ObjectsThatAreNotRegularFilesAtEverySettingsPathAreRefusedAndLeftAlone) {
  // The settings "view-off" wrote, as the content of a linked regular file.
  const std::string defaults = testkit::readFile(home_.dataFolder() + "/defaults.plist");
  for (const auto& [kind, kindName] : kKinds) {
    SCOPED_TRACE(kindName);
    clearFolders();
    for (const std::string& path : settingsPaths()) {
      place(kind, path, path.ends_with("/defaults.plist") ? defaults : "");
    }
    ASSERT_TRUE(startHelper()) << endHelper();

    ProcessResult status = statusOnceExported();
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    nlohmann::json state = nlohmann::json::parse(status.out, nullptr, false);
    EXPECT_TRUE(state.is_object() && state.value("running", false)) << status.out;
    ProcessResult quit = boundedZephlore({"quit"});
    EXPECT_EQ(quit.status, 0) << quit.out << quit.err;
    if (!waitForExit(helper_->pid(), 20'000)) {
      // A helper stuck in an open does not hear SIGTERM either.
      kill(helper_->pid(), SIGKILL);
      helper_->finish();
      ADD_FAILURE() << "the helper did not end after quit; its log:\n" << helper_->err();
      continue;
    }
    EXPECT_EQ(helper_->finish(), 0) << helper_->err();

    const std::string& log = helper_->err();
    for (const std::string& path : settingsPaths()) {
      const size_t refusals = linesNaming(log, path, "not a regular file");
      struct stat st;
      if (kind == Kind::kLinkToRegularFile) {
        EXPECT_EQ(refusals, 0u) << path << " refused; log:\n" << log;
        // The record of a gone run is settled and removed; the rest stay links.
        if (path.ends_with("-999999.kr")) continue;
        EXPECT_EQ(lstat(path.c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << path << " is no longer the user's link";
      } else {
        // One line for reading it; a setting saved later may add one for
        // writing it.
        EXPECT_GE(refusals, 1u) << path << "; log:\n" << log;
        EXPECT_LE(refusals, 2u) << path << "; log:\n" << log;
        EXPECT_EQ(lstat(path.c_str(), &st), 0) << path << " was removed";
      }
    }
  }
}

}  // namespace
}  // namespace zephlore::e2e
