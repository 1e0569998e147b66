#include "platform/file_flags.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cerrno>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

TEST(FileFlags, AFourByteLittleEndianWordThatReadsZeroWhenAbsent) {
  testkit::ScratchDir dir;
  const std::string path = dir / "f";
  testkit::writeFile(path, "x");
  const FileRef file = FileRef::atPath(path);

  EXPECT_EQ(FileFlags::get(Env::system(), file), 0u);
  ASSERT_TRUE(FileFlags::set(Env::system(), file, FileFlags::kUFCompressed | 0x01000000));
  unsigned char raw[8];
  ASSERT_EQ(getxattr(path.c_str(), "user.com.quorvane.zephlore.flags", raw, sizeof raw), 4);
  EXPECT_EQ(raw[0], 0x20);
  EXPECT_EQ(raw[3], 0x01);
  EXPECT_EQ(FileFlags::get(Env::system(), file), 0x01000020u);

  ASSERT_TRUE(FileFlags::set(Env::system(), file, 0));  // no flags: no attribute
  EXPECT_EQ(getxattr(path.c_str(), "user.com.quorvane.zephlore.flags", nullptr, 0), -1);
  EXPECT_TRUE(FileFlags::set(Env::system(), file, 0));  // and none to remove again

  for (const char* bad : {"", "abc", "abcde"}) {
    ASSERT_EQ(setxattr(path.c_str(), "user.com.quorvane.zephlore.flags", bad, strlen(bad), 0), 0);
    EXPECT_FALSE(FileFlags::get(Env::system(), file)) << bad;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_FALSE(FileFlags::get(Env::system(), FileRef::atPath(dir / "missing")));
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace zephlore
