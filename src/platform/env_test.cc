#include "platform/env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/proc_file_users.h"
#include "platform/volume_description.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::readFile;
using testkit::ScratchDir;
using testkit::writeFile;
using testkit::HoldingChild;

TEST(Env, AttributesLiveInTheUserNamespaceAndListWithoutThePrefix) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "data");
  Env& env = Env::system();
  const FileRef ref = FileRef::atPath(file);

  ASSERT_EQ(env.setxattr(ref, "com.apple.decmpfs", "abc", 3, 0), 0);
  char raw[8];
  ASSERT_EQ(::getxattr(file.c_str(), "user.com.apple.decmpfs", raw, sizeof raw), 3);
  EXPECT_EQ(std::string(raw, 3), "abc");

  // Other namespaces are not ours and stay out of the list.
  ASSERT_EQ(::setxattr(file.c_str(), "trusted.other", "x", 1, 0), 0) << strerror(errno);
  ASSERT_EQ(::setxattr(file.c_str(), "user.plain", "", 0, 0), 0);
  auto names = env.listxattr(ref);
  ASSERT_TRUE(names);
  std::sort(names->begin(), names->end());
  EXPECT_EQ(*names, (std::vector<std::string>{"com.apple.decmpfs", "plain"}));
  EXPECT_GT(env.xattrListSize(ref), static_cast<ssize_t>(strlen("user.com.apple.decmpfs")));

  // The same through a descriptor; removal; absent reads ENODATA.
  UniqueFd fd(env.open(file, O_RDONLY));
  ASSERT_TRUE(fd);
  EXPECT_EQ(env.getxattrValue(FileRef::descriptor(fd.get()), "com.apple.decmpfs"),
            (std::vector<uint8_t>{'a', 'b', 'c'}));
  EXPECT_EQ(env.getxattrValue(ref, "plain"), std::vector<uint8_t>{});
  EXPECT_EQ(env.removexattr(FileRef::descriptor(fd.get()), "plain"), 0);
  EXPECT_EQ(env.getxattr(ref, "plain", nullptr, 0), -1);
  EXPECT_EQ(errno, ENODATA);
  EXPECT_EQ(env.setxattr(ref, "", "x", 1, 0), -1);
  EXPECT_EQ(errno, EINVAL);

  // A symbolic link is followed only when asked.
  const std::string link = dir / "link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_LT(env.getxattr(FileRef::atPath(link), "com.apple.decmpfs", nullptr, 0), 0);
  EXPECT_EQ(env.getxattr(FileRef::atPath(link, true), "com.apple.decmpfs", nullptr, 0), 3);
  EXPECT_LT(env.setxattr(FileRef::atPath(link), "x", "1", 1, 0), 0);
  EXPECT_TRUE(env.listxattr(FileRef::atPath(link))->empty());
}

TEST(Env, OpenNeverFollowsAFinalSymlinkAndLocksFailAtOnce) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "data");
  const std::string link = dir / "link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  Env& env = Env::system();

  EXPECT_EQ(env.open(link, O_RDONLY), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(env.open(link, O_WRONLY | O_CREAT | O_TRUNC, 0644), -1);
  EXPECT_EQ(readFile(file), "data");

  UniqueFd first(env.openLocked(file, O_RDONLY | O_NONBLOCK));
  ASSERT_TRUE(first);
  EXPECT_EQ(env.openLocked(file, O_WRONLY | O_NONBLOCK), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  first.reset();
  UniqueFd again(env.openLocked(file, O_WRONLY | O_NONBLOCK));
  EXPECT_TRUE(again);
  again.reset();

  // Held by another process.
  HoldingChild holder([&] {
    int fd = ::open(file.c_str(), O_RDONLY);
    return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
  });
  ASSERT_TRUE(holder.ready());
  EXPECT_EQ(env.openLocked(file, O_RDONLY | O_NONBLOCK), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST(Env, ExchangeSwapsNamesAndUnnamedFilesAreLinkedOnlyWhenDone) {
  ScratchDir dir;
  Env& env = Env::system();
  writeFile(dir / "a", "old contents");
  writeFile(dir / "b", "new");
  ASSERT_EQ(env.exchange(dir / "a", dir / "b"), 0);
  EXPECT_EQ(readFile(dir / "a"), "new");
  EXPECT_EQ(readFile(dir / "b"), "old contents");
  EXPECT_EQ(env.exchange(dir / "a", dir / "missing"), -1);
  EXPECT_EQ(errno, ENOENT);

  UniqueFd tmp(env.openTmpFile(dir.path(), 0600));
  ASSERT_TRUE(tmp) << strerror(errno);
  ASSERT_TRUE(env.pwriteFully(tmp.get(), "prepared", 8, 0));
  EXPECT_EQ(env.linkTmpFile(tmp.get(), dir / "a"), -1);  // never replaces
  EXPECT_EQ(errno, EEXIST);
  ASSERT_EQ(env.linkTmpFile(tmp.get(), dir / "c"), 0);
  EXPECT_EQ(readFile(dir / "c"), "prepared");
  EXPECT_EQ(env.fsyncParentDirectory(dir / "c"), 0);

  char buf[16];
  EXPECT_EQ(env.preadFully(tmp.get(), buf, sizeof buf, 3), 5);
  EXPECT_EQ(std::string(buf, 5), "pared");
  EXPECT_EQ(parentDirectory("/a/b/"), "/a");
  EXPECT_EQ(parentDirectory("/a"), "/");
  EXPECT_EQ(parentDirectory("a"), ".");
}

TEST(Env, FileUsersFindOpenDescriptorsWithTheirModeAndCurrentDirectories) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "data");
  Env& env = Env::system();
  struct stat st, dirSt;
  ASSERT_EQ(env.lstat(file, &st), 0);
  ASSERT_EQ(env.lstat(dir.path(), &dirSt), 0);

  auto users = env.fileUsers(st.st_dev, st.st_ino);
  ASSERT_TRUE(users);
  EXPECT_TRUE(users->empty());

  HoldingChild reader([&] { return ::open(file.c_str(), O_RDWR) >= 0; });
  // Reads first, writes later: the later writable descriptor must count.
  HoldingChild lateWriter([&] { return ::open(file.c_str(), O_RDONLY) >= 0 && ::open(file.c_str(), O_WRONLY) >= 0; });
  HoldingChild resident([&] { return chdir(dir.path().c_str()) == 0; });
  ASSERT_TRUE(reader.ready() && resident.ready() && lateWriter.ready());
  UniqueFd writer(::open(file.c_str(), O_WRONLY | O_APPEND));  // after the forks: not inherited

  users = env.fileUsers(st.st_dev, st.st_ino);
  ASSERT_TRUE(users);
  auto find = [&](const std::vector<FileUser>& list, pid_t pid) -> const FileUser* {
    for (const FileUser& user : list) {
      if (user.pid == pid) return &user;
    }
    return nullptr;
  };
  ASSERT_TRUE(find(*users, getpid()));
  EXPECT_EQ(find(*users, getpid())->mode, static_cast<uint32_t>(O_WRONLY));
  ASSERT_TRUE(find(*users, reader.pid()));
  EXPECT_EQ(find(*users, reader.pid())->mode, static_cast<uint32_t>(O_RDWR));
  EXPECT_FALSE(find(*users, resident.pid()));
  ASSERT_TRUE(find(*users, lateWriter.pid()));
  EXPECT_EQ(find(*users, lateWriter.pid())->mode, static_cast<uint32_t>(O_WRONLY));

  auto dirUsers = env.fileUsers(dirSt.st_dev, dirSt.st_ino);
  ASSERT_TRUE(dirUsers);
  ASSERT_TRUE(find(*dirUsers, resident.pid()));
  EXPECT_EQ(find(*dirUsers, resident.pid())->mode, kFileUserCurrentDirectory);

  EXPECT_EQ(parseFdInfoFlags("pos:\t0\nflags:\t0100002\nmnt_id:\t1\n"), 0100002u);
  EXPECT_EQ(parseFdInfoFlags("pos:\t0\n"), std::nullopt);
}

TEST(Env, HasWritersCountsEveryWritableDescriptorAndLeavesNoLeaseBehind) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "data");
  Env& env = Env::system();
  UniqueFd probe(::open(file.c_str(), O_RDONLY));
  std::optional<bool> writers = env.hasWriters(probe.get());
  if (!writers) GTEST_SKIP() << "file leases are turned off here: " << std::strerror(errno);
  EXPECT_FALSE(*writers);
  {
    HoldingChild reader([&] { return ::open(file.c_str(), O_RDONLY) >= 0; });
    ASSERT_TRUE(reader.ready());
    EXPECT_EQ(env.hasWriters(probe.get()), false);
  }
  {
    UniqueFd own(::open(file.c_str(), O_WRONLY));
    EXPECT_EQ(env.hasWriters(probe.get()), true);
  }
  {
    HoldingChild writer([&] { return ::open(file.c_str(), O_RDWR) >= 0; });
    ASSERT_TRUE(writer.ready());
    EXPECT_EQ(env.hasWriters(probe.get()), true);
  }
  // No lease is left: another process opens the file for writing at once
  // (a lease would hold it back for the kernel's break time and signal us).
  EXPECT_EQ(env.hasWriters(probe.get()), false);
  HoldingChild later([&] { return ::open(file.c_str(), O_WRONLY | O_NONBLOCK) >= 0; });
  EXPECT_TRUE(later.ready());
}

TEST(Env, VolumesAreDescribedFromStatfsTheMountTableAndSysfs) {
  auto volume = Env::system().describeVolume("/dev/shm");
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->fileSystemType, "tmpfs");
  EXPECT_EQ(volume->mountPoint, "/dev/shm");
  EXPECT_TRUE(volume->writable);
  EXPECT_FALSE(volume->removable || volume->ejectable || volume->internal || volume->external);
  EXPECT_FALSE(Env::system().describeVolume("/dev/shm/no such file"));

  EXPECT_EQ(fileSystemTypeName(0xEF53), "ext4");
  EXPECT_EQ(fileSystemTypeName(0x58465342), "xfs");
  EXPECT_EQ(fileSystemTypeName(0x12345), "Unknown");
}

}  // namespace
}  // namespace zephlore
