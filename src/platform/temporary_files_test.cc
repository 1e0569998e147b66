#include "platform/temporary_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/data_folder.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::modeOf;
using testkit::readFile;
using testkit::ScratchDir;
using testkit::writeFile;

TEST(TemporaryFiles, ThePrivateDirectoryIsOursAndNeverInASharedOne) {
  ScratchDir runtime, data;
  ASSERT_EQ(chmod(runtime.path().c_str(), 0700), 0);
  testkit::ScopedEnvVar runtime_env("XDG_RUNTIME_DIR", runtime.path());
  testkit::ScopedEnvVar data_env("XDG_DATA_HOME", data.path());
  ASSERT_TRUE(findDataFolder());  // as the process's main does

  Error error;
  auto dir = TemporaryFiles::privateDirectory(&error);
  ASSERT_TRUE(dir) << error.message;
  EXPECT_EQ(*dir, runtime / "zephlore");
  EXPECT_EQ(modeOf(*dir), 0700u);

  auto a = TemporaryFiles::create(Env::system(), "QVS-tmp.", &error);
  auto b = TemporaryFiles::create(Env::system(), "QVS-tmp.", &error);
  ASSERT_TRUE(a && b) << error.message;
  EXPECT_NE(a->path, b->path);
  EXPECT_EQ(a->path.rfind(*dir + "/QVS-tmp.", 0), 0u) << a->path;
  EXPECT_EQ(a->path.size(), (*dir + "/QVS-tmp.").size() + 6);
  EXPECT_EQ(modeOf(a->path), 0600u);
  EXPECT_EQ(write(a->fd.get(), "rw", 2), 2);

  // A runtime directory others may write to is passed over for the data folder.
  ASSERT_EQ(chmod(runtime.path().c_str(), 01777), 0);
  dir = TemporaryFiles::privateDirectory(&error);
  ASSERT_TRUE(dir) << error.message;
  EXPECT_EQ(dir->rfind(data.path() + "/", 0), 0u) << *dir;
  EXPECT_EQ(modeOf(*dir), 0700u);

  // A planted symbolic link where the private directory belongs is refused.
  ASSERT_EQ(chmod(runtime.path().c_str(), 0700), 0);
  unlink(a->path.c_str());
  unlink(b->path.c_str());
  ASSERT_EQ(rmdir((runtime / "zephlore").c_str()), 0);
  ASSERT_EQ(symlink(data.path().c_str(), (runtime / "zephlore").c_str()), 0);
  dir = TemporaryFiles::privateDirectory(&error);
  ASSERT_TRUE(dir);
  EXPECT_NE(*dir, runtime / "zephlore");
}

TEST(TemporaryFiles, OwnLeftoversAreReplacedAndPlantedFilesRefused) {
  ScratchDir dir;
  Env& env = Env::system();
  Error error;

  const std::string leftover = dir / "QVS-tmp-1";
  writeFile(leftover, "from a crash");
  UniqueFd fd(TemporaryFiles::createReplacingOwnLeftover(Env::system(), leftover, O_WRONLY, 0600, true, &error));
  ASSERT_TRUE(fd) << error.message;
  EXPECT_EQ(readFile(leftover), "");
  // It holds the exclusive lock.
  EXPECT_EQ(env.openLocked(leftover, O_RDONLY | O_NONBLOCK), -1);
  fd.reset();

  const std::string victim = dir / "victim";
  writeFile(victim, "precious");
  const std::string linkName = dir / "QVS-tmp-link";
  const std::string hardName = dir / "QVS-tmp-hard";
  const std::string foreignName = dir / "QVS-tmp-foreign";
  const std::string fifoName = dir / "QVS-tmp-fifo";
  ASSERT_EQ(symlink(victim.c_str(), linkName.c_str()), 0);
  ASSERT_EQ(link(victim.c_str(), hardName.c_str()), 0);
  ASSERT_EQ(mkfifo(fifoName.c_str(), 0600), 0);
  writeFile(foreignName, "theirs");
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(chown(foreignName.c_str(), 65534, 65534), 0);
  }

  for (const std::string& name : {linkName, hardName, fifoName}) {
    EXPECT_EQ(TemporaryFiles::createReplacingOwnLeftover(Env::system(), name, O_WRONLY, 0600, false, &error), -1)
        << name;
    EXPECT_EQ(error.code, EEXIST);
    EXPECT_NE(error.message.find("refusing"), std::string::npos);
    struct stat st;
    EXPECT_EQ(lstat(name.c_str(), &st), 0) << name << " was removed";
  }
  if (root) {
    EXPECT_EQ(TemporaryFiles::createReplacingOwnLeftover(Env::system(), foreignName, O_WRONLY, 0600, false, &error),
              -1);
    EXPECT_EQ(readFile(foreignName), "theirs");
  }
  EXPECT_EQ(readFile(victim), "precious");

  // create() in a chosen directory never reuses a name.
  auto made = TemporaryFiles::create(Env::system(), "x.", &error, dir.path());
  ASSERT_TRUE(made) << error.message;
  EXPECT_EQ(made->path.rfind(dir / "x.", 0), 0u);
  EXPECT_FALSE(TemporaryFiles::create(Env::system(), "x.", &error, dir / "missing"));
  EXPECT_EQ(error.code, ENOENT);
}

}  // namespace
}  // namespace zephlore
