#include "platform/normal_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

TEST(NormalPath, LexicalFormDropsDotsRepeatedAndTrailingSlashes) {
  const std::pair<const char*, const char*> cases[] = {
      {"/x/w/..", "/x"},      {"/x/w/../", "/x"},  {"/x//w///", "/x/w"}, {"/x/./w/.", "/x/w"},
      {"/..", "/"},           {"/../x", "/x"},     {"/", "/"},           {"//", "/"},
      {"/x/w/../../..", "/"}, {"/x/..w", "/x/..w"}, {"/x/w...", "/x/w..."},
  };
  for (const auto& [given, normal] : cases) EXPECT_EQ(lexicallyNormalPath(given), normal) << given;
  EXPECT_EQ(lexicallyNormalPath("w/../v", "/base"), "/base/v");
  EXPECT_EQ(lexicallyNormalPath("", "/base/"), "/base");
}

// Links are resolved where the path exists; ".." after a link goes where
// the system takes it, not one name back in the text.
TEST(NormalPath, ExistingPartsAreResolvedAndTheMissingRestIsNormalised) {
  testkit::ScratchDir dir;
  Env& env = Env::system();
  const std::string real = *env.realPath(dir.path());
  ASSERT_EQ(mkdir((dir / "a").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((dir / "a/b").c_str(), 0700), 0);
  ASSERT_EQ(symlink("a/b", (dir / "link").c_str()), 0);
  const std::pair<std::string, std::string> cases[] = {
      {dir / "a/b/..", real + "/a"},
      {dir / "link/..", real + "/a"},  // lexically it would be the scratch folder
      {dir / "link/gone/../c", real + "/a/b/c"},
      {dir / "link//gone/", real + "/a/b/gone"},
      {dir / "gone/../a", real + "/a"},
      {dir / "missing/x/..", real + "/missing"},
  };
  for (const auto& [given, resolved] : cases) EXPECT_EQ(resolvedUserPath(env, given), resolved) << given;

  char here[4096];
  ASSERT_NE(getcwd(here, sizeof here), nullptr);
  ASSERT_EQ(chdir((dir / "a").c_str()), 0);
  EXPECT_EQ(resolvedUserPath(env, "b/../gone/."), real + "/a/gone");
  ASSERT_EQ(chdir(here), 0);
}

}  // namespace
}  // namespace zephlore
