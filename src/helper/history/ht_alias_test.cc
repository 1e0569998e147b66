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
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::shared(), original);
  ASSERT_TRUE(alias);
  EXPECT_EQ(alias->fullPath(Env::shared()), original);
  ASSERT_TRUE(alias->originalAliasInfo());
  EXPECT_EQ(alias->originalAliasInfo()->pathString, original);
  EXPECT_EQ(alias->originalAliasInfo()->targetNameString, "Photos");
  EXPECT_EQ(alias->originalAliasInfo()->volumeNameString, HTAlias::volumeIdentityForPath(Env::shared(), original));
  EXPECT_NE(alias->originalAliasInfo()->nodeID, 0u);
  EXPECT_TRUE(alias->sameFolderAs(Env::shared(), *HTAlias::aliasWithPath(Env::shared(), original)));
  EXPECT_FALSE(alias->sameFolderAs(Env::shared(), *HTAlias::aliasWithPath(Env::shared(), root.path())));

  // Bytes stored and read back (as the history keeps them).
  HTAlias stored = HTAlias::aliasWithData(alias->aliasData());

  std::string renamed = root.path() + "/Pictures";
  fs::rename(original, renamed);
  EXPECT_EQ(stored.fullPath(Env::shared()), renamed);

  std::string moved = root.make("a/b/c") + "/Pictures";
  fs::rename(renamed, moved);
  EXPECT_EQ(stored.fullPath(Env::shared()), moved);
}

TEST(HTAliasTest, AFolderRecreatedUnderItsNameIsNotTheSameFolder) {
  ShmFolder root;
  std::string path = root.make("Work");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::shared(), path);
  ASSERT_TRUE(alias);
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(alias->fullPath(Env::shared()), std::nullopt);
  // Unresolvable aliases equal nothing, themselves included.
  EXPECT_FALSE(alias->sameFolderAs(Env::shared(), *alias));
}

TEST(HTAliasTest, EmptyGarbageOrMissingGiveNone) {
  EXPECT_EQ(HTAlias::aliasWithData({}).fullPath(Env::shared()), std::nullopt);
  EXPECT_EQ(HTAlias::aliasWithData({'b', 'p', 'l', 'i', 's', 't', 0, 0, 1}).fullPath(Env::shared()),
            std::nullopt);
  EXPECT_FALSE(HTAlias::aliasInfoForAliasData({0xff, 0x00, 0x13}));

  Error error;
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::shared(), "/dev/shm/zephlore-no-such-folder", &error));
  EXPECT_EQ(error.domain, kOSStatusErrorDomain);
  EXPECT_EQ(error.code, kFileNotFoundStatus);
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::shared(), "relative/path"));
}

}  // namespace
}  // namespace zephlore
