// A write through a view to a compressed file on a full volume: the file is
// expanded first, and a writer whose expansion finds no room is told so in
// the system's own words, not as an input/output error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "testing/zephlore_command.h"
#include "testing/files.h"
#include "testing/private_tmpfs.h"
#include "testing/scratch_dir.h"

namespace zephlore::cli {
namespace {

using testkit::runZephlore;

// Writes to `path` until the volume refuses; the errno of that refusal.
int fillVolume(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return errno;
  const std::string chunk(1 << 16, 'x');
  int err = 0;
  while (err == 0) {
    if (write(fd, chunk.data(), chunk.size()) < 0) err = errno;
  }
  close(fd);
  return err;
}

TEST(ViewOnAFullVolume, ExpansionBeforeAWriteFailsWithNoSpaceAndLeavesTheFileWhole) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is missing or not usable";
  testkit::PrivateTmpfs volume("4m");
  if (!volume.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here (needs root)";
  testkit::ScratchDir runtime, views;
  setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
  setenv("XDG_DATA_HOME", runtime.path().c_str(), 1);
  const std::string source = volume / "source", mountPoint = views / "view";
  ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(mountPoint.c_str(), 0755), 0);
  const std::string text = testkit::compressibleData(2 << 20, 7);
  testkit::writeFile(source + "/large", text);
  ASSERT_EQ(runZephlore({"compress", "-q", source + "/large"}).status, 0);
  ASSERT_EQ(fillVolume(volume / "filler"), ENOSPC);

  testkit::Child view(testkit::zephloreCommand({"mount", "-f", source, mountPoint}));
  ASSERT_TRUE(view.waitForLine()) << view.err();
  errno = 0;
  const int fd = open((mountPoint + "/large").c_str(), O_WRONLY | O_APPEND);
  const int err = errno;
  if (fd >= 0) close(fd);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(err, ENOSPC) << std::strerror(err);
  EXPECT_TRUE(testkit::readFile(mountPoint + "/large") == text) << "the file changed";
  EXPECT_EQ(runZephlore({"unmount", mountPoint}).status, 0);
  EXPECT_EQ(view.finish(), 0) << view.err();
}

}  // namespace
}  // namespace zephlore::cli
