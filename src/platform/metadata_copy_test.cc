#include "platform/metadata_copy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/fault_env.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

std::string aclText(const std::string& path, acl_type_t type = ACL_TYPE_ACCESS) {
  acl_t acl = acl_get_file(path.c_str(), type);
  if (!acl) return "";
  char* text = acl_to_any_text(acl, nullptr, ',', TEXT_ABBREVIATE | TEXT_NUMERIC_IDS);
  std::string out = text ? text : "";
  acl_free(text);
  acl_free(acl);
  return out;
}

void setAclText(const std::string& path, const char* text, acl_type_t type = ACL_TYPE_ACCESS) {
  acl_t acl = acl_from_text(text);
  ASSERT_TRUE(acl) << text;
  ASSERT_EQ(acl_set_file(path.c_str(), type, acl), 0) << strerror(errno);
  acl_free(acl);
}

TEST(MetadataCopy, KeepsModeOwnerTimesAclAndUserAttributes) {
  ScratchDir dir;
  const std::string from = dir / "from";
  writeFile(from, "old");
  setAclText(from, "u::rw-,u:65534:r--,g::r--,m::r--,o::---");
  ASSERT_EQ(chmod(from.c_str(), 02640), 0);
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(chown(from.c_str(), 65534, 65534), 0);
  }
  const struct timespec times[2] = {{1000000000, 123456789}, {1200000000, 987654321}};
  ASSERT_EQ(utimensat(AT_FDCWD, from.c_str(), times, 0), 0);
  Env& env = Env::system();
  const FileRef fromRef = FileRef::atPath(from);
  ASSERT_EQ(env.setxattr(fromRef, "com.example.tag", "blue", 4, 0), 0);
  ASSERT_EQ(env.setxattr(fromRef, "Com.Quorvane.Zephlore.Signature", "sig", 3, 0), 0);
  ASSERT_EQ(env.setxattr(fromRef, "com.apple.ResourceFork", "f0", 2, 0), 0);
  ASSERT_EQ(env.setxattr(fromRef, "com.apple.ResourceFork.1", "f1", 2, 0), 0);

  // The new copy is made in a folder whose default ACL it would inherit.
  const std::string sub = dir / "sub";
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  setAclText(sub, "u::rwx,u:65533:rwx,g::r-x,m::rwx,o::r-x", ACL_TYPE_DEFAULT);
  const std::string to = sub + "/to";
  writeFile(to, "new");

  UniqueFd fromFd(::open(from.c_str(), O_RDONLY));
  UniqueFd toFd(::open(to.c_str(), O_RDONLY));
  Error error;
  auto snapshot = MetadataCopy::capture(Env::system(), fromFd.get(), &error);
  ASSERT_TRUE(snapshot) << error.message;
  ASSERT_TRUE(MetadataCopy::apply(Env::system(), *snapshot, toFd.get(), &error)) << error.message;
  ASSERT_TRUE(MetadataCopy::copyUserAttributes(Env::system(),
      fromRef, FileRef::descriptor(toFd.get()),
      {"com.quorvane.zephlore.signature", "COM.APPLE.RESOURCEFORK"}, &error))
      << error.message;

  struct stat st;
  ASSERT_EQ(stat(to.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 02640u);
  EXPECT_EQ(st.st_atim.tv_sec, times[0].tv_sec);
  EXPECT_EQ(st.st_atim.tv_nsec, times[0].tv_nsec);
  EXPECT_EQ(st.st_mtim.tv_sec, times[1].tv_sec);
  EXPECT_EQ(st.st_mtim.tv_nsec, times[1].tv_nsec);
  if (root) {
    EXPECT_EQ(st.st_uid, 65534u);
    EXPECT_EQ(st.st_gid, 65534u);
  }
  EXPECT_EQ(aclText(to), aclText(from));
  EXPECT_NE(aclText(to).find("u:65534:r--"), std::string::npos) << aclText(to);
  auto names = env.listxattr(FileRef::atPath(to));
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, std::vector<std::string>{"com.example.tag"});

  // A source with nothing beyond its mode bits drops the inherited ACL.
  const std::string plain = dir / "plain";
  writeFile(plain, "p", 0604);
  ASSERT_EQ(chmod(plain.c_str(), 0604), 0);
  const std::string to2 = sub + "/to2";
  writeFile(to2, "n");
  EXPECT_NE(aclText(to2).find("65533"), std::string::npos);
  UniqueFd plainFd(::open(plain.c_str(), O_RDONLY));
  UniqueFd to2Fd(::open(to2.c_str(), O_RDONLY));
  snapshot = MetadataCopy::capture(Env::system(), plainFd.get(), &error);
  ASSERT_TRUE(snapshot);
  EXPECT_TRUE(snapshot->acl.empty());
  ASSERT_TRUE(MetadataCopy::apply(Env::system(), *snapshot, to2Fd.get(), &error)) << error.message;
  EXPECT_EQ(aclText(to2), "u::rw-,g::---,o::r--");
}

TEST(MetadataCopy, EveryAttributeIsTriedAndTheFirstFailureReported) {
  ScratchDir dir;
  writeFile(dir / "from", "");
  writeFile(dir / "to", "");
  Env& env = Env::system();
  // Names with a dot: the fault matches by substring, and a random temporary
  // folder name never holds a dot.
  for (const char* name : {"x.one", "x.two", "x.three"}) {
    ASSERT_EQ(env.setxattr(FileRef::atPath(dir / "from"), name, "v", 1, 0), 0);
  }
  FaultInjectingEnv faults;
  faults.inject({.op = "setxattr", .error = ENOSPC, .match = "x.two"});
  faults.inject({.op = "futimens", .error = EPERM});
  Error error;
  EXPECT_FALSE(MetadataCopy::copyUserAttributes(faults, FileRef::atPath(dir / "from"),
                                                FileRef::atPath(dir / "to"), {}, &error));
  EXPECT_EQ(error.code, ENOSPC);
  EXPECT_NE(error.message.find("attribute x.two"), std::string::npos) << error.message;
  auto names = env.listxattr(FileRef::atPath(dir / "to"));
  std::sort(names->begin(), names->end());
  EXPECT_EQ(*names, (std::vector<std::string>{"x.one", "x.three"}));

  UniqueFd fd(::open((dir / "to").c_str(), O_RDONLY));
  auto snapshot = MetadataCopy::capture(faults, fd.get(), &error);
  ASSERT_TRUE(snapshot);
  EXPECT_FALSE(MetadataCopy::apply(faults, *snapshot, fd.get(), &error));
  EXPECT_EQ(error.code, EPERM);
  EXPECT_NE(error.message.find("times"), std::string::npos);
}

}  // namespace
}  // namespace zephlore
