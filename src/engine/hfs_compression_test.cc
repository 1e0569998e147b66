#include "engine/hfs_compression.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/env.h"
#include "platform/fault_env.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

TEST(HFSCompression, TheCompressedFlagAndTheHeaderTest) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "");
  EXPECT_FALSE(HFSCompression::isFileUFCompressed(Env::shared(), file));
  EXPECT_TRUE(HFSCompression::setFileAsUFCompressed(Env::shared(), file, false));  // already so: no change
  EXPECT_TRUE(Env::shared().listxattr(FileRef::atPath(file))->empty());
  ASSERT_TRUE(HFSCompression::setFileAsUFCompressed(Env::shared(), file, true));
  EXPECT_TRUE(HFSCompression::isFileUFCompressed(Env::shared(), file));
  EXPECT_TRUE(HFSCompression::setFileAsUFCompressed(Env::shared(), file, true));
  UniqueFd fd(::open(file.c_str(), O_RDONLY));
  EXPECT_TRUE(HFSCompression::isFileUFCompressed(Env::shared(), fd.get()));
  ASSERT_TRUE(HFSCompression::setFileAsUFCompressed(Env::shared(), fd.get(), false));
  EXPECT_FALSE(HFSCompression::isFileUFCompressed(Env::shared(), file));
  EXPECT_FALSE(HFSCompression::setFileAsUFCompressed(Env::shared(), dir / "missing", true));

  {
    std::vector<std::string> lines;
    ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
    FaultInjectingEnv faults;
    ScopedSharedEnv use(&faults);
    faults.inject({.op = "setxattr", .error = EROFS, .match = "flags"});
    EXPECT_FALSE(HFSCompression::setFileAsUFCompressed(Env::shared(), file, true));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Could not set UF_COMPRESSED flag for file " + file + ": 30 [" +
                            strerror(EROFS) + "]");
  }

  // The header test follows links.
  ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);
  EXPECT_FALSE(HFSCompression::hasCompressedAttributes(Env::shared(), dir / "link"));
  ASSERT_EQ(Env::shared().setxattr(FileRef::atPath(file), "com.apple.decmpfs", "h", 1, 0), 0);
  EXPECT_TRUE(HFSCompression::hasCompressedAttributes(Env::shared(), dir / "link"));
  EXPECT_FALSE(HFSCompression::isFileUFCompressed(Env::shared(), dir / "link"));
}

}  // namespace
}  // namespace zephlore
