// A view as other users and the mount options meet it: real views mounted
// by the zephlore command, entered by real local users.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "platform/fuse_availability.h"
#include "testing/files.h"
#include "testing/local_user.h"
#include "testing/private_tmpfs.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"
#include "testing/zephlore_command.h"
#include "view/mount_table.h"

namespace zephlore::cli {
namespace {

using testkit::runZephlore;

bool viewFuseUsable() { return access("/dev/fuse", R_OK | W_OK) == 0; }

// The view on `mountPoint` goes however the test ends.
struct ViewUnmounter {
  std::string mountPoint;
  ~ViewUnmounter() { runZephlore({"unmount", "--force", "-z", mountPoint}); }
};

// A tmpfs of the test's own holding "source/a" ("text") and an empty
// "view" folder to mount it on; the view goes however the test ends.
class OneFileView : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!viewFuseUsable()) GTEST_SKIP() << "/dev/fuse is missing or not usable: FUSE views cannot be tested here";
    if (!tmpfs.mounted()) GTEST_SKIP() << "needs root to mount a tmpfs of the test's own";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(shown.c_str(), 0755), 0);
    testkit::writeFile(source + "/a", "text");
  }

  testkit::PrivateTmpfs tmpfs;
  const std::string source = tmpfs / "source", shown = tmpfs / "view";
  ViewUnmounter unmounter{shown};
};

std::string mountOptionsOf(const std::string& mountPoint) {
  std::istringstream table(testkit::readFile("/proc/self/mounts"));
  for (std::string line; std::getline(table, line);) {
    if (line.find(" " + mountPoint + " fuse.zephlore ") != std::string::npos) return line;
  }
  return "";
}

TEST_F(OneFileView, MountsInTheBackgroundWithEachDashOAsOneListAndUnmounts) {
  auto r = runZephlore({"mount", "-o", "ro,noatime", "-o", "nosuid", source, shown});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string options = mountOptionsOf(shown);
  EXPECT_NE(options.find(" ro,"), std::string::npos) << options;
  EXPECT_NE(options.find(",noatime"), std::string::npos) << options;
  EXPECT_NE(options.find("nosuid"), std::string::npos) << options;
  EXPECT_EQ(testkit::readFile(shown + "/a"), "text");
  EXPECT_LT(open((shown + "/a").c_str(), O_WRONLY | O_CLOEXEC), 0);
  EXPECT_EQ(errno, EROFS);
  EXPECT_NE(runZephlore({"mount", source, shown}).status, 0);  // already there
  r = runZephlore({"unmount", shown});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(mountOptionsOf(shown), "");
  EXPECT_EQ(runZephlore({"mount", "--over", source, shown}).status, 2);
}

// What user `user` meets at `path`: its content, or the error.
std::string readAs(const testkit::LocalUser& user, const std::string& path) {
  return user.run([&] {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::string("error ") + strerror(errno);
    close(fd);
    return testkit::readFile(path);
  }).value_or("the child failed");
}

TEST(ViewOtherUsers, ARootViewLetsEveryUserReadAsBeneathAtFullContent) {
  if (!viewFuseUsable()) GTEST_SKIP() << "/dev/fuse is missing or not usable: FUSE views cannot be tested here";
  testkit::PrivateTmpfs tmpfs;
  if (!tmpfs.mounted()) GTEST_SKIP() << "needs root to mount a tmpfs of the test's own";
  testkit::LocalUser owner, other;
  if (!owner.created() || !other.created()) GTEST_SKIP() << "needs two local users: " << owner.problem() << other.problem();
  ASSERT_EQ(chmod(tmpfs.path().c_str(), 0755), 0);
  const std::string folder = tmpfs / "folder";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  const std::string text = testkit::compressibleData(300000, 7);
  testkit::writeFile(folder + "/public.txt", text);
  testkit::writeFile(folder + "/private.txt", text);
  ASSERT_EQ(chmod((folder + "/private.txt").c_str(), 0600), 0);
  auto r = runZephlore({"compress", "-q", folder + "/public.txt", folder + "/private.txt"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* name : {"", "/public.txt", "/private.txt"}) {
    ASSERT_EQ(chown((folder + name).c_str(), owner.uid(), owner.gid()), 0);
  }

  ViewUnmounter unmounter{folder};
  r = runZephlore({"mount", "--over", folder});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(mountOptionsOf(folder).find("allow_other"), std::string::npos);
  for (const view::ViewMountEntry& entry : view::viewMounts()) {
    if (entry.mountPoint == folder) {
      EXPECT_FALSE(entry.othersLockedOut);
    }
  }

  // Each reads what the modes and owners beneath let them read, at full content.
  EXPECT_TRUE(readAs(owner, folder + "/private.txt") == text);
  EXPECT_TRUE(readAs(other, folder + "/public.txt") == text);
  EXPECT_EQ(readAs(other, folder + "/private.txt"), std::string("error ") + strerror(EACCES));
  EXPECT_TRUE(testkit::readFile(folder + "/private.txt") == text);  // root, as a backup would

  // What other users create in a root's view is theirs, as beneath: pjdfstest's open/00.t and mkdir/00.t.
}

// Where the administrator did not let users' mounts admit others, a user's
// view is the user's alone, and zephlore status says so and how to change it.
TEST(ViewOtherUsers, AUsersViewClosedToOthersIsNamedWithTheLineThatOpensIt) {
  if (!viewFuseUsable() || geteuid() != 0 || access("/usr/sbin/runuser", X_OK) != 0) {
    GTEST_SKIP() << "needs root, FUSE and runuser to mount a view as another user";
  }
  if (zephlore::fuseConfAllowsOthers("/etc/fuse.conf")) GTEST_SKIP() << "/etc/fuse.conf lets users' views admit others";
  testkit::PrivateTmpfs tmpfs;
  testkit::LocalUser user;
  if (!tmpfs.mounted() || !user.created()) GTEST_SKIP() << "needs a tmpfs and a local user: " << user.problem();
  // /dev/fuse may be root's alone here: the user is let in for the test.
  const std::string grant = "u:" + user.name() + ":rw";
  if (std::system(("setfacl -m " + grant + " /dev/fuse 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP() << "/dev/fuse takes no ACL entries here";
  }
  struct Revoke {
    std::string name;
    ~Revoke() {
      std::system(("setfacl -x u:" + name + " /dev/fuse; getfacl -cp /dev/fuse | grep -q '^user:[^:]' || "
                   "setfacl -b /dev/fuse").c_str());
    }
  } revoke{user.name()};
  ASSERT_EQ(chmod(tmpfs.path().c_str(), 0755), 0);
  const std::string source = tmpfs / "source", shown = tmpfs / "view", program = tmpfs / "zephlore";
  ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(shown.c_str(), 0755), 0);
  ASSERT_EQ(chown(source.c_str(), user.uid(), user.gid()), 0);
  ASSERT_EQ(chown(shown.c_str(), user.uid(), user.gid()), 0);
  // The user runs a copy of its own: the checkout may lie where it cannot enter.
  testkit::writeFile(program, testkit::readFile(testkit::zephloreBinary()), 0755);
  ViewUnmounter unmounter{shown};
  auto r = testkit::runProcess({"/usr/sbin/runuser", "-u", user.name(), "--", program, "mount", source, shown});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("user_allow_other"), std::string::npos) << r.err;
  bool listed = false;
  for (const view::ViewMountEntry& entry : view::viewMounts()) {
    if (entry.mountPoint == shown) listed = entry.othersLockedOut;
  }
  EXPECT_TRUE(listed);
  struct stat st;
  EXPECT_EQ(stat((shown + "/.").c_str(), &st), -1);  // not even root enters
  EXPECT_EQ(errno, EACCES);
  // The command's own state stays in the test's folders.
  testkit::ScratchDir home;
  testkit::ScopedEnvVar runtime("XDG_RUNTIME_DIR", home.path()), data("XDG_DATA_HOME", home.path()),
      config("XDG_CONFIG_HOME", home.path());
  r = runZephlore({"status"});
  EXPECT_NE(r.out.find("closed to other users: only the user who mounted the view on " + shown), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("user_allow_other to /etc/fuse.conf"), std::string::npos) << r.out;
}

// Each name of a file of several links is a file of its own to the kernel,
// which keeps attributes for a moment: when another file is renamed over one
// name, the others show the lower link count at once, as beneath. (Links,
// modes and owners seen through every name are pjdfstest's link/00.t.)
TEST_F(OneFileView, AFileRenamedOverOneHardLinkShowsAtOnceThroughTheOthers) {
  auto r = runZephlore({"mount", source, shown});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string a = shown + "/a", b = shown + "/b";
  ASSERT_EQ(link(a.c_str(), b.c_str()), 0);
  struct stat st{};
  ASSERT_EQ(lstat(a.c_str(), &st), 0);  // now in the kernel's cache
  EXPECT_EQ(st.st_nlink, 2u);
  testkit::writeFile(source + "/d", "other");
  ASSERT_EQ(rename((shown + "/d").c_str(), b.c_str()), 0);  // b's name goes to another file
  ASSERT_EQ(lstat(a.c_str(), &st), 0);
  EXPECT_EQ(st.st_nlink, 1u);
}

}  // namespace
}  // namespace zephlore::cli
