#include "platform/fault_env.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

TEST(FaultInjectingEnv, FailsTheChosenCallOnlyAndForwardsTheRest) {
  ScratchDir dir;
  writeFile(dir / "a", "0123456789");
  writeFile(dir / "b", "b");
  FaultInjectingEnv env;

  // The second matching open fails, twice in a row; others pass.
  env.inject({.op = "open", .error = EACCES, .nth = 2, .times = 2, .match = "/a"});
  UniqueFd first(env.open(dir / "a", O_RDONLY));
  EXPECT_TRUE(first);
  UniqueFd other(env.open(dir / "b", O_RDONLY));  // does not match, not counted
  EXPECT_TRUE(other);
  EXPECT_EQ(env.open(dir / "a", O_RDONLY), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(env.open(dir / "a", O_RDONLY), -1);
  UniqueFd fourth(env.open(dir / "a", O_RDONLY));
  EXPECT_TRUE(fourth);
  EXPECT_EQ(env.calls("open"), 5);
  EXPECT_EQ(env.fired(), 2);

  // Descriptors match by the name they were opened under; a short transfer
  // moves half the bytes.
  env.inject({.op = "pread", .nth = 1, .match = "/a", .shortTransfer = true});
  char buf[10];
  EXPECT_EQ(env.pread(other.get(), buf, sizeof buf, 0), 1);
  EXPECT_EQ(env.pread(first.get(), buf, sizeof buf, 0), 5);
  EXPECT_EQ(env.preadFully(first.get(), buf, sizeof buf, 0), 10);

  // Always failing from the nth on; the system beneath is untouched.
  env.inject({.op = "setxattr", .error = ENOSPC, .nth = 1, .times = 0});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(env.setxattr(FileRef::atPath(dir / "a"), "n", "v", 1, 0), -1);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_EQ(Env::system().setxattr(FileRef::atPath(dir / "a"), "n", "v", 1, 0), 0);

  env.clear();
  EXPECT_EQ(env.setxattr(FileRef::atPath(dir / "a"), "n", "v", 1, 0), 0);
  EXPECT_EQ(env.calls("open"), 0);
  env.failOn("fileUsers", ENOMEM);
  EXPECT_FALSE(env.fileUsers(0, 0));
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
}  // namespace zephlore
