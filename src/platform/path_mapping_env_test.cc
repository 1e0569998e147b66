// The helper's view of a covered folder: paths users see, files stored
// beneath. The "beneath" here is a descriptor's /proc link, as for a view.
#include "platform/path_mapping_env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

TEST(PathMap, MapsAFolderAndWhatIsUnderItOnly) {
  PathMap map;
  EXPECT_EQ(map.toAccess("/home/a/Docs/x"), "/home/a/Docs/x");  // empty: as given
  map.replaceAll({{"/home/a/Docs", "/proc/9/fd/4"}, {"/home/a/Docs/Deep", "/proc/8/fd/3"}});
  EXPECT_EQ(map.toAccess("/home/a/Docs/x/y"), "/proc/9/fd/4/x/y");
  EXPECT_EQ(map.toAccess("/home/a/Docs"), "/proc/9/fd/4/.");  // steps through the link
  EXPECT_EQ(map.toAccess("/home/a/Docs/Deep/z"), "/proc/8/fd/3/z");  // innermost wins
  EXPECT_EQ(map.toAccess("/home/a/Documents/x"), "/home/a/Documents/x");  // a sibling, not under it
  EXPECT_EQ(map.toAccess("/home/a"), "/home/a");
  EXPECT_EQ(map.toAccess("relative/Docs"), "relative/Docs");
  map.clear();
  EXPECT_EQ(map.toAccess("/home/a/Docs/x"), "/home/a/Docs/x");
}

TEST(PathMappingEnv, WorksBeneathWhatThePathShows) {
  testkit::ScratchDir shown;   // what programs would see (a decoy here)
  testkit::ScratchDir stored;  // the files beneath
  testkit::writeFile(stored.path() + "/a.txt", "stored");
  const int held = open(stored.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  PathMap map;
  map.replaceAll({{shown.path(), "/proc/self/fd/" + std::to_string(held)}});
  PathMappingEnv env(Env::system(), map);

  const std::string a = shown.path() + "/a.txt";
  struct stat st;
  ASSERT_EQ(env.lstat(a, &st), 0);
  EXPECT_EQ(st.st_size, 6);
  ASSERT_EQ(env.lstat(shown.path(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode)) << "the folder itself, not the descriptor's link";
  const char value[] = "v";
  ASSERT_EQ(env.setxattr(FileRef::atPath(a), "user.test", value, 1, 0), 0);
  EXPECT_EQ(env.getxattr(FileRef::atPath(a), "user.test", nullptr, 0), 1);
  ASSERT_EQ(env.rename(a, shown.path() + "/b.txt"), 0);
  EXPECT_EQ(testkit::readFile(stored.path() + "/b.txt"), "stored");
  std::optional<std::vector<std::string>> names = env.listDirectory(shown.path());
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, std::vector<std::string>{"b.txt"});
  EXPECT_NE(access((shown.path() + "/b.txt").c_str(), F_OK), 0) << "nothing landed in the shown tree";
  // Resolved beneath, named as shown.
  EXPECT_EQ(env.realPath(shown.path() + "/b.txt"), shown.path() + "/b.txt");
  EXPECT_EQ(env.realPath(shown.path()), shown.path());
  EXPECT_EQ(env.realPath(shown.path() + "/none"), std::nullopt);

  // A path given with AT_FDCWD is mapped; a name relative to a directory
  // opened through the map is already beneath, and read on in batches.
  ASSERT_EQ(env.fstatAt(AT_FDCWD, shown.path() + "/b.txt", &st, AT_SYMLINK_NOFOLLOW), 0);
  EXPECT_EQ(st.st_size, 6);
  const int dir = env.open(shown.path(), O_RDONLY | O_DIRECTORY, 0);
  ASSERT_GE(dir, 0);
  ASSERT_EQ(env.fstatAt(dir, "b.txt", &st, AT_SYMLINK_NOFOLLOW), 0);
  const int file = env.openAt(dir, "b.txt", O_RDONLY, 0);
  ASSERT_GE(file, 0);
  close(file);
  names = env.readDirectory(dir);
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, std::vector<std::string>{"b.txt"});
  names = env.readDirectory(dir);
  ASSERT_TRUE(names);
  EXPECT_TRUE(names->empty()) << "read to its end";
  close(dir);
  close(held);
}

}  // namespace
}  // namespace zephlore
