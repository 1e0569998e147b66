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
  FolderAliases aliases;
  ShmFolder root;
  std::string original = root.make("Photos");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::system(), clock, aliases, original);
  ASSERT_TRUE(alias);
  EXPECT_EQ(alias->fullPath(Env::system(), clock, aliases), original);
  ASSERT_TRUE(alias->originalAliasInfo());
  EXPECT_EQ(alias->originalAliasInfo()->pathString, original);
  EXPECT_EQ(alias->originalAliasInfo()->targetNameString, "Photos");
  EXPECT_EQ(alias->originalAliasInfo()->volumeNameString, HTAlias::volumeIdentityForPath(Env::system(), clock, aliases, original));
  EXPECT_NE(alias->originalAliasInfo()->nodeID, 0u);
  EXPECT_TRUE(alias->sameFolderAs(Env::system(), clock, aliases, *HTAlias::aliasWithPath(Env::system(), clock, aliases, original)));
  EXPECT_FALSE(alias->sameFolderAs(Env::system(), clock, aliases, *HTAlias::aliasWithPath(Env::system(), clock, aliases, root.path())));

  // Bytes stored and read back (as the history keeps them).
  HTAlias stored = HTAlias::aliasWithData(alias->aliasData());

  std::string renamed = root.path() + "/Pictures";
  fs::rename(original, renamed);
  EXPECT_EQ(stored.fullPath(Env::system(), clock, aliases), renamed);

  std::string moved = root.make("a/b/c") + "/Pictures";
  fs::rename(renamed, moved);
  EXPECT_EQ(stored.fullPath(Env::system(), clock, aliases), moved);
}

TEST(HTAliasTest, AFolderRecreatedUnderItsNameIsNotTheSameFolder) {
  SystemClock clock;
  FolderAliases aliases;
  ShmFolder root;
  std::string path = root.make("Work");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::system(), clock, aliases, path);
  ASSERT_TRUE(alias);
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(alias->fullPath(Env::system(), clock, aliases), std::nullopt);
  // Unresolvable aliases equal nothing, themselves included.
  EXPECT_FALSE(alias->sameFolderAs(Env::system(), clock, aliases, *alias));
}

// A failed search is not repeated for a few seconds of the clock given, by
// the owner of the look-ups only.
TEST(HTAliasTest, AFailedSearchIsRememberedForFiveSecondsByItsOwner) {
  ManualClock clock;
  FolderAliases aliases;
  ShmFolder root;
  std::string path = root.make("a/Work");
  std::optional<HTAlias> alias = HTAlias::aliasWithPath(Env::system(), clock, aliases, path);
  ASSERT_TRUE(alias);
  fs::rename(path, root.make("b") + "/Work");
  EXPECT_EQ(alias->fullPath(Env::system(), clock, aliases), std::nullopt);

  std::string back = root.make("a/deep") + "/Work";
  fs::rename(root.path() + "/b/Work", back);
  clock.advance(seconds(FolderAliases::kMissSeconds - 0.5));
  EXPECT_EQ(alias->fullPath(Env::system(), clock, aliases), std::nullopt);
  FolderAliases fresh;
  EXPECT_EQ(alias->fullPath(Env::system(), clock, fresh), back);
  clock.advance(seconds(0.5));
  EXPECT_EQ(alias->fullPath(Env::system(), clock, aliases), back);
}

TEST(HTAliasTest, EmptyGarbageOrMissingGiveNone) {
  SystemClock clock;
  FolderAliases aliases;
  EXPECT_EQ(HTAlias::aliasWithData({}).fullPath(Env::system(), clock, aliases), std::nullopt);
  EXPECT_EQ(HTAlias::aliasWithData({'b', 'p', 'l', 'i', 's', 't', 0, 0, 1}).fullPath(Env::system(), clock, aliases),
            std::nullopt);
  EXPECT_FALSE(HTAlias::aliasInfoForAliasData({0xff, 0x00, 0x13}));

  Error error;
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::system(), clock, aliases, "/dev/shm/zephlore-no-such-folder", &error));
  EXPECT_EQ(error.domain, kOSStatusErrorDomain);
  EXPECT_EQ(error.code, kFileNotFoundStatus);
  EXPECT_FALSE(HTAlias::aliasWithPath(Env::system(), clock, aliases, "relative/path"));
}

}  // namespace
}  // namespace zephlore
