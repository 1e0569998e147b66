#include "helper/history/ht_alias.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "helper/history/history_test_support.h"

namespace zephlore {
namespace {

namespace fs = std::filesystem;
using testkit::ShmFolder;

TEST(HTAliasTest, FollowsAFolderRenamedInPlaceAndMovedWithinTheVolume) {
  SystemClock clock;
  ShmFolder root;
  std::string original = root.make("Photos");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::system(), clock, original);
  ASSERT_TRUE(alias);
  EXPECT_EQ(alias->fullPath(Env::system(), clock), original);
  ASSERT_TRUE(alias->originalAliasInfo());
  EXPECT_EQ(alias->originalAliasInfo()->pathString, original);
  EXPECT_EQ(alias->originalAliasInfo()->targetNameString, "Photos");
  EXPECT_EQ(alias->originalAliasInfo()->volumeNameString, HTAlias::volumeIdentityForPath(Env::system(), clock, original));
  EXPECT_NE(alias->originalAliasInfo()->nodeID, 0u);
  EXPECT_TRUE(alias->sameFolderAs(Env::system(), clock, *HTAlias::aliasWithPath(Env::system(), clock, original)));
  EXPECT_FALSE(alias->sameFolderAs(Env::system(), clock, *HTAlias::aliasWithPath(Env::system(), clock, root.path())));

  // Bytes stored and read back (as the history keeps them).
  HTAlias stored = HTAlias::aliasWithData(alias->aliasData());

  std::string renamed = root.path() + "/Pictures";
  fs::rename(original, renamed);
  EXPECT_EQ(stored.fullPath(Env::system(), clock), renamed);

  std::string moved = root.make("a/b/c") + "/Pictures";
  fs::rename(renamed, moved);
  EXPECT_EQ(stored.fullPath(Env::system(), clock), moved);
}

TEST(HTAliasTest, AFolderRecreatedUnderItsNameIsNotTheSameFolder) {
  SystemClock clock;
  ShmFolder root;
  std::string path = root.make("Work");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::system(), clock, path);
  ASSERT_TRUE(alias);
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(alias->fullPath(Env::system(), clock), std::nullopt);
  // Unresolvable aliases equal nothing, themselves included.
  EXPECT_FALSE(alias->sameFolderAs(Env::system(), clock, *alias));
}

TEST(HTAliasTest, EmptyGarbageOrMissingGiveNone) {
  SystemClock clock;
  EXPECT_EQ(HTAlias::aliasWithData({}).fullPath(Env::system(), clock), std::nullopt);
  EXPECT_EQ(HTAlias::aliasWithData({'b', 'p', 'l', 'i', 's', 't', 0, 0, 1}).fullPath(Env::system(), clock),
            std::nullopt);
  EXPECT_FALSE(HTAlias::aliasInfoForAliasData({0xff, 0x00, 0x13}));

  Error error;
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::system(), clock, "/dev/shm/zephlore-no-such-folder", &error));
  EXPECT_EQ(error.domain, kOSStatusErrorDomain);
  EXPECT_EQ(error.code, kFileNotFoundStatus);
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::system(), clock, "relative/path"));
}

}  // namespace
}  // namespace zephlore
