#include "engine/xattr_metadata_store.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;
using Store = RZXattrMetadataStore;

TEST(RZXattrMetadataStore, WritesAndRemovesWithTheErrnoAsTheCode) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "");
  Error error;
  ASSERT_TRUE(Store::setData(Env::shared(), std::vector<uint8_t>{0, 1, 2}, "raw", file, false, &error));
  EXPECT_EQ(Env::shared().getxattrValue(FileRef::atPath(file), "raw"), (std::vector<uint8_t>{0, 1, 2}));
  ASSERT_TRUE(Store::removeKey(Env::shared(), "raw", file, false, &error));
  EXPECT_FALSE(Store::removeKey(Env::shared(), "raw", file, false, &error));
  EXPECT_EQ(error.domain, kXattrErrorDomain);
  EXPECT_EQ(error.code, ENODATA);

  EXPECT_FALSE(Store::setData(Env::shared(), "x", 1, "k", dir / "missing", false, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(error.message.empty());
}

}  // namespace
}  // namespace zephlore
