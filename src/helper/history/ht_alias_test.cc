#include "helper/history/ht_alias.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "helper/history/history_test_support.h"

namespace zephlore {
namespace {

namespace fs = std::filesystem;
using testkit::ShmFolder;

TEST(HTAliasTest, FollowsAFolderRenamedInPlaceAndMovedWithinTheVolume) {
  ShmFolder root;
  std::string original = root.make("Photos");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(original);
  ASSERT_TRUE(alias);
  EXPECT_EQ(alias->fullPath(), original);
  ASSERT_TRUE(alias->originalAliasInfo());
  EXPECT_EQ(alias->originalAliasInfo()->pathString, original);
  EXPECT_EQ(alias->originalAliasInfo()->targetNameString, "Photos");
  EXPECT_EQ(alias->originalAliasInfo()->volumeNameString, HTAlias::volumeIdentityForPath(original));
  EXPECT_NE(alias->originalAliasInfo()->nodeID, 0u);

  // Bytes stored and read back (as the history keeps them).
  HTAlias stored = HTAlias::aliasWithData(alias->aliasData());

  std::string renamed = root.path() + "/Pictures";
  fs::rename(original, renamed);
  EXPECT_EQ(stored.fullPath(), renamed);

  std::string moved = root.make("a/b/c") + "/Pictures";
  fs::rename(renamed, moved);
  EXPECT_EQ(stored.fullPath(), moved);
}

TEST(HTAliasTest, AFolderRecreatedUnderItsNameIsNotTheSameFolder) {
  ShmFolder root;
  std::string path = root.make("Work");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(path);
  ASSERT_TRUE(alias);
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(alias->fullPath(), std::nullopt);
  // Unresolvable aliases equal nothing, themselves included.
  EXPECT_FALSE(*alias == *alias);
}

TEST(HTAliasTest, EmptyGarbageOrMissingGiveNone) {
  EXPECT_EQ(HTAlias::aliasWithData({}).fullPath(), std::nullopt);
  EXPECT_EQ(HTAlias::aliasWithData({'b', 'p', 'l', 'i', 's', 't', 0, 0, 1}).fullPath(),
            std::nullopt);
  EXPECT_FALSE(HTAlias::aliasInfoForAliasData({0xff, 0x00, 0x13}));

  Error error;
  EXPECT_FALSE(HTAlias::aliasWithPath("/dev/shm/zephlore-no-such-folder", &error));
  EXPECT_EQ(error.domain, kOSStatusErrorDomain);
  EXPECT_EQ(error.code, kFileNotFoundStatus);
  EXPECT_FALSE(HTAlias::aliasWithPath("relative/path"));
}

TEST(HTAliasTest, TwoAliasesOfOneFolderAreEqual) {
  ShmFolder root;
  std::string path = root.make("x");
  EXPECT_TRUE(*HTAlias::aliasWithPath(path) == *HTAlias::aliasWithPath(path));
  EXPECT_FALSE(*HTAlias::aliasWithPath(path) == *HTAlias::aliasWithPath(root.path()));
}

}  // namespace
}  // namespace zephlore
