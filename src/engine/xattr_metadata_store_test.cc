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
  EXPECT_TRUE(Store::allKeysAtPath(file, false).empty());
  EXPECT_TRUE(Store::allKeysAtPath(dir / "missing", false).empty());

  Error error;
  ASSERT_TRUE(Store::setData(std::vector<uint8_t>{0, 1, 2}, "raw", file, false, &error));
  EXPECT_EQ(Store::dataForKey("raw", file, false), (std::vector<uint8_t>{0, 1, 2}));
  EXPECT_FALSE(Store::dataForKey("absent", file, false));
  ASSERT_TRUE(Store::setString("gr\xc3\xbc\xc3\x9f", "text", file, false, &error));
  EXPECT_EQ(Store::stringForKey("text", file, false), "gr\xc3\xbc\xc3\x9f");

  PlistPtr dict(plist_new_dict());
  plist_dict_set_item(dict.get(), "answer", plist_new_uint(42));
  ASSERT_TRUE(Store::setObject(dict.get(), "object", file, false, &error));
  auto stored = Store::stringForKey("object", file, false);
  ASSERT_TRUE(stored);
  EXPECT_NE(stored->find("<plist"), std::string::npos);  // kept as XML
  PlistPtr read = Store::objectForKey("object", file, false);
  ASSERT_TRUE(read);
  uint64_t answer = 0;
  plist_get_uint_val(plist_dict_get_item(read.get(), "answer"), &answer);
  EXPECT_EQ(answer, 42u);

  std::vector<std::string> keys = Store::allKeysAtPath(file, false);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"object", "raw", "text"}));
  ASSERT_TRUE(Store::removeKey("raw", file, false, &error));
  EXPECT_FALSE(Store::removeKey("raw", file, false, &error));
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

  ASSERT_TRUE(Store::setString("<plist><dict><key>x", "broken", file, false, &error));
  EXPECT_FALSE(Store::objectForKey("broken", file, false));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("RZXattrMetastoreCantUnserialize"), std::string::npos);
  EXPECT_NE(lines[0].find("broken"), std::string::npos);
  EXPECT_FALSE(Store::objectForKey("absent", file, false));
  EXPECT_EQ(lines.size(), 1u);  // an absent value is no parse error

  EXPECT_FALSE(Store::setString("bad \xff byte", "text", file, false, &error));
  EXPECT_EQ(lines.back(), "Couldn't convert string to UTF8 for xattr storage.");
  EXPECT_FALSE(Store::dataForKey("text", file, false));
  ASSERT_TRUE(Store::setData("\xff", 1, "text", file, false, &error));
  EXPECT_FALSE(Store::stringForKey("text", file, false));

  EXPECT_FALSE(Store::setObject(nullptr, "object", file, false, &error));
  EXPECT_NE(lines.back().find("RZXattrMetastoreCantSerialize"), std::string::npos);

  EXPECT_FALSE(Store::setData("x", 1, "k", dir / "missing", false, &error));
  EXPECT_EQ(error.domain, kXattrErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(error.message.empty());
}

}  // namespace
}  // namespace zephlore
