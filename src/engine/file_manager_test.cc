#include "engine/file_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/data_folder.h"
#include "base/log.h"
#include "platform/env.h"
#include "platform/fault_env.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

class QVFileManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(chmod(runtime_.path().c_str(), 0700), 0); }
  std::string privateDir() const { return runtime_ / "zephlore"; }

  ScratchDir runtime_;  // on /dev/shm
  testkit::ScopedEnvVar runtime_env_{"XDG_RUNTIME_DIR", runtime_.path()};
};

TEST_F(QVFileManagerTest, TemporaryFilesStayPrivateAndOnTheTargetsVolume) {
  int fd = -1;
  auto path = QVFileManager::createTemporaryFile(Env::shared(), &fd);
  ASSERT_TRUE(path);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(path->rfind(privateDir() + "/QVS-tmp.", 0), 0u) << *path;
  UniqueFd owned(fd);

  ScratchDir shm;                // the temporary directory's volume
  ScratchDir other("/var/tmp");  // the root volume, not tmpfs here
  writeFile(shm / "f", "x");
  writeFile(other / "f", "x");
  const std::string hash = std::to_string(QVFileManager::temporaryNameHash(shm / "f"));
  EXPECT_EQ(QVFileManager::getTemporaryFileNameBasedOnExistingPath(Env::shared(), shm / "f"),
            privateDir() + "/QVS-tmp-" + hash);
  const std::string otherHash = std::to_string(QVFileManager::temporaryNameHash(other / "f"));
  EXPECT_EQ(QVFileManager::getTemporaryFileNameBasedOnExistingPath(Env::shared(), other / "f"),
            other / "f.QVS-tmp-" + otherHash);
  const std::string missingHash = std::to_string(QVFileManager::temporaryNameHash(other / "gone"));
  EXPECT_EQ(QVFileManager::getTemporaryFileNameBasedOnExistingPath(Env::shared(), other / "gone"),
            privateDir() + "/QVS-tmp-" + missingHash);
  EXPECT_NE(hash, otherHash);

  // Without any private directory the name is never in a shared one.
  testkit::ScopedEnvVar shared_runtime("XDG_RUNTIME_DIR", "/tmp");
  testkit::ScopedEnvVar no_data_home("XDG_DATA_HOME", "/proc/nowhere");
  ScopedShared<DataFolder> no_data_folder;
  EXPECT_EQ(QVFileManager::getTemporaryFileNameBasedOnExistingPath(Env::shared(), shm / "f"),
            shm / "f.QVS-tmp-" + hash);
  EXPECT_FALSE(QVFileManager::createTemporaryFile(Env::shared(), &fd));
  EXPECT_EQ(fd, -1);
}

TEST_F(QVFileManagerTest, AttributeCopySkipsNamesWithoutRegardToCase) {
  ScratchDir dir;
  writeFile(dir / "from", "");
  writeFile(dir / "to", "");
  Env& env = Env::shared();
  const FileRef from = FileRef::atPath(dir / "from");
  for (const char* name : {"keep.me", "com.quorvane.zephlore.EXCLUDE", "com.apple.decmpfs",
                           "com.apple.ResourceFork", "com.apple.ResourceFork.1"}) {
    ASSERT_EQ(env.setxattr(from, name, name, strlen(name), 0), 0);
  }
  EXPECT_TRUE(QVFileManager::copyExtendedAttributesFromToSkipping(Env::shared(),
      dir / "from", dir / "to",
      {"com.quorvane.zephlore.exclude", "com.apple.resourcefork", "COM.APPLE.DECMPFS"}));
  EXPECT_EQ(*env.listxattr(FileRef::atPath(dir / "to")), std::vector<std::string>{"keep.me"});
  EXPECT_EQ(env.getxattrValue(FileRef::atPath(dir / "to"), "keep.me"),
            (std::vector<uint8_t>{'k', 'e', 'e', 'p', '.', 'm', 'e'}));

  EXPECT_TRUE(QVFileManager::copyExtendedAttributesFromTo(Env::shared(), dir / "to", dir / "from"));
  FaultInjectingEnv faults;
  ScopedSharedEnv use(&faults);
  faults.inject({.op = "setxattr", .error = ENOSPC, .match = "decmpfs"});
  EXPECT_FALSE(QVFileManager::copyExtendedAttributesFromTo(Env::shared(), dir / "from", dir / "to"));
  auto names = env.listxattr(FileRef::atPath(dir / "to"));
  EXPECT_EQ(names->size(), 4u);  // every other one was still copied
}

}  // namespace
}  // namespace zephlore
