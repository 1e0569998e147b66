#include "engine/xattr_metadata_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "base/log.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;
using Store = RZXattrMetadataStore;

TEST(RZXattrMetadataStore, BytesStringsAndPropertyLists) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "");
  EXPECT_TRUE(Store::allKeysAtPath(Env::shared(), file, false).empty());
  EXPECT_TRUE(Store::allKeysAtPath(Env::shared(), dir / "missing", false).empty());

  Error error;
  ASSERT_TRUE(Store::setData(Env::shared(), std::vector<uint8_t>{0, 1, 2}, "raw", file, false, &error));
  EXPECT_EQ(Store::dataForKey(Env::shared(), "raw", file, false), (std::vector<uint8_t>{0, 1, 2}));
  EXPECT_FALSE(Store::dataForKey(Env::shared(), "absent", file, false));
  ASSERT_TRUE(Store::setString(Env::shared(), "gr\xc3\xbc\xc3\x9f", "text", file, false, &error));
  EXPECT_EQ(Store::stringForKey(Env::shared(), "text", file, false), "gr\xc3\xbc\xc3\x9f");

  PlistPtr dict(plist_new_dict());
  plist_dict_set_item(dict.get(), "answer", plist_new_uint(42));
  ASSERT_TRUE(Store::setObject(Env::shared(), dict.get(), "object", file, false, &error));
  auto stored = Store::stringForKey(Env::shared(), "object", file, false);
  ASSERT_TRUE(stored);
  EXPECT_NE(stored->find("<plist"), std::string::npos);  // kept as XML
  PlistPtr read = Store::objectForKey(Env::shared(), "object", file, false);
  ASSERT_TRUE(read);
  uint64_t answer = 0;
  plist_get_uint_val(plist_dict_get_item(read.get(), "answer"), &answer);
  EXPECT_EQ(answer, 42u);

  std::vector<std::string> keys = Store::allKeysAtPath(Env::shared(), file, false);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"object", "raw", "text"}));
  ASSERT_TRUE(Store::removeKey(Env::shared(), "raw", file, false, &error));
  EXPECT_FALSE(Store::removeKey(Env::shared(), "raw", file, false, &error));
  EXPECT_EQ(error.domain, kXattrErrorDomain);
  EXPECT_EQ(error.code, ENODATA);
}

TEST(RZXattrMetadataStore, BadValuesAreLoggedNeverThrown) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  Error error;

  ASSERT_TRUE(Store::setString(Env::shared(), "<plist><dict><key>x", "broken", file, false, &error));
  EXPECT_FALSE(Store::objectForKey(Env::shared(), "broken", file, false));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("RZXattrMetastoreCantUnserialize"), std::string::npos);
  EXPECT_NE(lines[0].find("broken"), std::string::npos);
  EXPECT_FALSE(Store::objectForKey(Env::shared(), "absent", file, false));
  EXPECT_EQ(lines.size(), 1u);  // an absent value is no parse error

  EXPECT_FALSE(Store::setString(Env::shared(), "bad \xff byte", "text", file, false, &error));
  EXPECT_EQ(lines.back(), "Couldn't convert string to UTF8 for xattr storage.");
  EXPECT_FALSE(Store::dataForKey(Env::shared(), "text", file, false));
  ASSERT_TRUE(Store::setData(Env::shared(), "\xff", 1, "text", file, false, &error));
  EXPECT_FALSE(Store::stringForKey(Env::shared(), "text", file, false));

  EXPECT_FALSE(Store::setObject(Env::shared(), nullptr, "object", file, false, &error));
  EXPECT_NE(lines.back().find("RZXattrMetastoreCantSerialize"), std::string::npos);

  EXPECT_FALSE(Store::setData(Env::shared(), "x", 1, "k", dir / "missing", false, &error));
  EXPECT_EQ(error.domain, kXattrErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(error.message.empty());
}

}  // namespace
}  // namespace zephlore
