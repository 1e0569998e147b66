#include "engine/tree_walker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

struct Seen {
  std::map<std::string, WalkSkip> entries;  // path -> reason given by the walk
  std::vector<std::string> order;
  std::map<std::string, int> errors;          // path -> errno
};

class WalkRecorder : public WalkVisitor {
 public:
  explicit WalkRecorder(Seen& seen) : seen_(seen) {}
  void visit(const WalkEntry& entry, WalkSkip skip) override {
    // The entry must be reachable through its directory descriptor.
    struct stat st;
    EXPECT_EQ(fstatat(entry.dir_fd, entry.name, &st, AT_SYMLINK_NOFOLLOW), 0) << entry.path;
    EXPECT_EQ(st.st_ino, entry.st->st_ino);
    seen_.entries[std::string(entry.path)] = skip;
    seen_.order.emplace_back(entry.path);
  }
  void walkError(std::string_view path, int err, const char*, bool) override {
    seen_.errors[std::string(path)] = err;
  }

 private:
  Seen& seen_;
};

Seen walk(const std::string& root, WalkOptions options) {
  Seen seen;
  WalkRecorder recorder(seen);
  TreeWalker(Env::system(), options).walk(root, recorder);
  return seen;
}

TEST(TreeWalker, WalksDepthFirstWithoutFollowingLinksAndKeepsHostileNames) {
  ScratchDir dir;
  const std::string root = dir / "tree";
  mkdir(root.c_str(), 0755);
  mkdir((root + "/sub").c_str(), 0755);
  mkdir((root + "/sub/deeper").c_str(), 0755);
  writeFile(root + "/a.txt", "a");
  writeFile(root + "/sub/deeper/b.txt", "b");
  writeFile(root + "/sub/c.txt", "c");
  const std::string newline = root + "/line\nbreak";
  const std::string latin1 = root + "/caf\xe9";
  writeFile(newline, "n");
  writeFile(latin1, "l");
  // Links to a directory and to a file outside the tree: reported, never entered.
  const std::string outside = dir / "outside";
  mkdir(outside.c_str(), 0755);
  writeFile(outside + "/secret", "s");
  symlink(outside.c_str(), (root + "/dirlink").c_str());
  symlink((outside + "/secret").c_str(), (root + "/filelink").c_str());
  mkfifo((root + "/fifo").c_str(), 0644);
  // The engine's own files beside a file: seen, but never as the user's.
  writeFile(root + "/sub/.zephlore-0123456789abcdef.c", "copy");

  Seen seen = walk(root + "/", {.recursive = true});
  ASSERT_TRUE(seen.entries.count(root + "/sub/.zephlore-0123456789abcdef.c"));
  EXPECT_EQ(seen.entries[root + "/sub/.zephlore-0123456789abcdef.c"], WalkSkip::kEngineTemporary);
  seen.entries.erase(root + "/sub/.zephlore-0123456789abcdef.c");
  EXPECT_TRUE(seen.errors.empty());
  std::vector<std::string> expected = {root + "/a.txt",   root + "/sub/deeper/b.txt", root + "/sub/c.txt",
                                       newline,           latin1,
                                       root + "/dirlink", root + "/filelink",
                                       root + "/fifo"};
  EXPECT_EQ(seen.entries.size(), expected.size());
  for (const std::string& path : expected) {
    ASSERT_TRUE(seen.entries.count(path)) << path;
    EXPECT_EQ(seen.entries[path], WalkSkip::kNone);
  }
  for (const auto& [path, reason] : seen.entries) EXPECT_EQ(path.find("secret"), std::string::npos);

  // Depth first: everything under sub/ comes together, before or after the rest.
  const auto at = [&](const std::string& p) {
    return std::find(seen.order.begin(), seen.order.end(), p) - seen.order.begin();
  };
  EXPECT_EQ(std::abs(at(root + "/sub/deeper/b.txt") - at(root + "/sub/c.txt")), 1);

  // Without -r a directory is one entry, skipped as such; a file is itself.
  Seen flat = walk(root, {});
  ASSERT_EQ(flat.entries.size(), 1u);
  EXPECT_EQ(flat.entries[root], WalkSkip::kDirectory);
  Seen one = walk(newline, {});
  ASSERT_EQ(one.entries.size(), 1u);
  EXPECT_TRUE(one.entries.count(newline));

  // The visitor may leave a directory out.
  struct Picky : WalkRecorder {
    using WalkRecorder::WalkRecorder;
    bool shouldEnter(const WalkEntry& entry) override { return std::string(entry.name) != "sub"; }
  };
  Seen picked;
  Picky picky(picked);
  TreeWalker(Env::system(), WalkOptions{.recursive = true}).walk(root, picky);
  EXPECT_EQ(picked.entries.count(root + "/a.txt"), 1u);
  EXPECT_EQ(picked.entries.count(root + "/sub/c.txt"), 0u);
  EXPECT_EQ(picked.entries.count(root + "/sub"), 0u);

  // A missing argument is an error, not an entry.
  Seen missing = walk(dir / "nothing-here", {.recursive = true});
  EXPECT_TRUE(missing.entries.empty());
  EXPECT_EQ(missing.errors[dir / "nothing-here"], ENOENT);
}

TEST(TreeWalker, ReportsUnreadableDirectoryAndGoesOn) {
  ScratchDir dir;
  const std::string root = dir / "tree";
  mkdir(root.c_str(), 0755);
  mkdir((root + "/closed").c_str(), 0700);
  writeFile(root + "/closed/hidden", "h");
  writeFile(root + "/open", "o");
  chmod(dir.path().c_str(), 0755);
  chmod((root + "/open").c_str(), 0644);

  // root reads every directory: walk as an unprivileged user in a child.
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(pipefd[0]);
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(3);
    if (geteuid() != 0) chmod((root + "/closed").c_str(), 0);
    Seen seen = walk(root, {.recursive = true});
    std::string report;
    for (const auto& [path, reason] : seen.entries) report += "E " + path + "\n";
    for (const auto& [path, err] : seen.errors) report += "X " + path + " " + std::to_string(err) + "\n";
    ssize_t ignored = write(pipefd[1], report.data(), report.size());
    (void)ignored;
    _exit(0);
  }
  close(pipefd[1]);
  std::string report;
  char buf[4096];
  ssize_t n;
  while ((n = read(pipefd[0], buf, sizeof buf)) > 0) report.append(buf, static_cast<size_t>(n));
  close(pipefd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(report.find("E " + root + "/open\n"), std::string::npos) << report;
  EXPECT_NE(report.find("X " + root + "/closed " + std::to_string(EACCES) + "\n"), std::string::npos)
      << report;
  EXPECT_EQ(report.find("hidden"), std::string::npos) << report;
}

TEST(TreeWalker, StaysOnTheStartingVolumeUnlessAskedToCross) {
  ScratchDir dir;
  const std::string root = dir / "tree";
  const std::string mnt = root + "/mnt";
  mkdir(root.c_str(), 0755);
  mkdir(mnt.c_str(), 0755);
  writeFile(root + "/here", "h");
  if (mount("zephlore-test", mnt.c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
  }
  writeFile(mnt + "/elsewhere", "e");

  Seen stay = walk(root, {.recursive = true});
  Seen cross = walk(root, {.recursive = true, .cross_volumes = true});
  umount(mnt.c_str());

  EXPECT_EQ(stay.entries[mnt], WalkSkip::kOtherVolume);
  EXPECT_TRUE(stay.entries.count(root + "/here"));
  EXPECT_FALSE(stay.entries.count(mnt + "/elsewhere"));
  EXPECT_TRUE(cross.entries.count(mnt + "/elsewhere"));
  EXPECT_FALSE(cross.entries.count(mnt));
}

TEST(TreeWalker, WalksBeyondThePathLimitAndStopsWhenAsked) {
  ScratchDir dir;
  const std::string root = dir / "deep";
  mkdir(root.c_str(), 0755);
  // 60 levels of 100-byte names: about 6 KB of path, past PATH_MAX.
  const std::string name(100, 'd');
  int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  std::string deepest = root;
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
    int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
    deepest += "/" + name;
  }
  int file = openat(fd, "leaf", O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(file, 0);
  close(file);
  close(fd);
  deepest += "/leaf";
  ASSERT_GT(deepest.size(), static_cast<size_t>(PATH_MAX));

  Seen seen = walk(root, {.recursive = true});
  EXPECT_TRUE(seen.errors.empty());
  ASSERT_EQ(seen.entries.size(), 1u);
  EXPECT_EQ(seen.entries.begin()->first, deepest);

  // A stop request ends the walk before the next entry.
  for (int i = 0; i < 5; ++i) writeFile(root + "/f" + std::to_string(i), "x");
  std::atomic<bool> stop{false};
  struct StopAfterFirst : WalkVisitor {
    std::atomic<bool>* stop;
    int visits = 0;
    void visit(const WalkEntry&, WalkSkip) override {
      ++visits;
      stop->store(true);
    }
    void walkError(std::string_view, int, const char*, bool) override {}
  } stopper;
  stopper.stop = &stop;
  TreeWalker(Env::system(), WalkOptions{.recursive = true}, &stop).walk(root, stopper);
  EXPECT_EQ(stopper.visits, 1);

  // The scratch folder's own clean-up cannot reach that deep.
  ASSERT_EQ(system(("rm -rf '" + root + "'").c_str()), 0);
}

}  // namespace
}  // namespace zephlore
