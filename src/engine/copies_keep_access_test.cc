// Every file the engine makes from a user's file (compressed or expanded
// in place, a compressed or expanded copy elsewhere, the recovered version of
// a repair) may be read by whom the original may, and by no one else.
#include <fcntl.h>
#include <sys/acl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <optional>

#include "engine/file_repair.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_uncompressor.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using Rep = QVHFSCompressedFileRepresentation;

// Who may do what with a file, and the attribute that travels with it.
struct Access {
  mode_t mode;
  uid_t uid;
  gid_t gid;
  std::string acl;  // the raw "system.posix_acl_access", empty when none
  std::string note;
  bool operator==(const Access&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Access& a) {
  return os << "mode " << std::oct << a.mode << std::dec << ", owner " << a.uid << ":" << a.gid << ", ACL "
            << a.acl.size() << " bytes, note '" << a.note << "'";
}

Access accessOf(const std::string& path) {
  const FileSnapshot s = FileSnapshot::take(path);
  auto value = [&s](const char* name) {
    auto it = s.attributes.find(name);
    return it == s.attributes.end() ? std::string() : it->second;
  };
  return {s.st.st_mode & 07777, s.st.st_uid, s.st.st_gid, value("system.posix_acl_access"), value("user.note")};
}

void setAcl(const std::string& path, const char* text, acl_type_t type = ACL_TYPE_ACCESS) {
  acl_t acl = acl_from_text(text);
  ASSERT_NE(acl, nullptr) << text;
  ASSERT_EQ(acl_set_file(path.c_str(), type, acl), 0) << path << ": " << text;
  acl_free(acl);
}

TEST(CopiesKeepAccess, EveryFileMadeFromAUserFileHasItsAccessAndNoMore) {
  ScopedRuntimeDir runtime;
  ScratchDir dir;
  const bool root = geteuid() == 0;
  bool skipped = false;
  const std::string data = compressibleData(200000, 9);
  struct Case {
    const char* name;
    mode_t mode;
    const char* acl;     // an access ACL of the file, or none
    bool setgidFolder;   // in a setgid folder of another group, with a default ACL
  };
  const Case cases[] = {{"private", 0600, nullptr, false},
                        {"shared-with-one", 0640, "u::rw-,u:4321:r--,g::r--,m::r--,o::---", false},
                        {"in-setgid-folder", 0640, "u::rw-,g::r--,o::---", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.setgidFolder && !root) {
      skipped = true;  // a folder of another group needs root
      continue;
    }
    std::string folder = dir / c.name;
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    if (c.setgidFolder) {
      // New files here would get the folder's group and an entry for 4322.
      ASSERT_EQ(chown(folder.c_str(), 0, 4300), 0);
      ASSERT_EQ(chmod(folder.c_str(), 02775), 0);
      setAcl(folder, "u::rwx,u:4322:rwx,g::rwx,m::rwx,o::r-x", ACL_TYPE_DEFAULT);
    }
    const std::string file = folder + "/file";
    writeFile(file, data);
    ASSERT_EQ(lsetxattr(file.c_str(), "user.note", "kept", 4, 0), 0);
    // The engine converts only the caller's own files (root's too), so the
    // file stays root's; a group the folder does not give shows the copying.
    if (root) {
      ASSERT_EQ(chown(file.c_str(), 0, c.setgidFolder ? 4311 : 4310), 0);
    }
    if (c.acl) setAcl(file, c.acl);
    ASSERT_EQ(chmod(file.c_str(), c.mode), 0);
    const Access original = accessOf(file);

    Error error;
    ASSERT_TRUE(Rep::compressInPlacePath(Env::system(), file, &error)) << error.describe();
    EXPECT_EQ(accessOf(file), original) << "compressed in place";

    const std::string expanded = folder + "/expanded";
    ASSERT_TRUE(QVHFSUncompressor(Env::system(), file).expandTo(expanded, &error)) << error.describe();
    EXPECT_EQ(accessOf(expanded), original) << "expanded copy";

    const std::string compressedCopy = folder + "/compressed-copy";
    auto representation = Rep::createFromContentsOfFile(Env::system(), expanded, &error);
    ASSERT_NE(representation, nullptr) << error.describe();
    ASSERT_TRUE(representation->saveToHFSCompressedFile(compressedCopy, &error)) << error.describe();
    EXPECT_EQ(accessOf(compressedCopy), original) << "compressed copy";

    ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(Env::system(), compressedCopy, &error)) << error.describe();
    EXPECT_EQ(accessOf(compressedCopy), original) << "expanded in place";
    EXPECT_TRUE(readFile(compressedCopy) == data);

    // Written after compression, then repaired: the old version beside it.
    int fd = open(file.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "new", 3), 3);
    close(fd);
    ASSERT_EQ(QVFileRepair::repairFile(Env::system(), file, &error), QVFileRepair::Outcome::kRepaired) << error.describe();
    const std::string recovered = QVFileRepair::recoveredPathFor(file);
    EXPECT_EQ(accessOf(recovered), original) << "recovered copy";
    EXPECT_TRUE(readFile(recovered) == data);
    EXPECT_EQ(accessOf(file), original) << "repaired file";
  }
  if (skipped) GTEST_SKIP() << "the case of a setgid folder of another group needs root";
}

}  // namespace
}  // namespace zephlore
