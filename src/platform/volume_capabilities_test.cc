#include "platform/volume_capabilities.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "platform/attribute_fork.h"
#include "platform/fault_env.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"
#include "platform/temporary_files.h"

namespace zephlore {
namespace {

using testkit::LoopMount;
using testkit::ScratchDir;
using testkit::writeFile;

TEST(VolumeCapabilities, TmpfsHoldsTheCompressedFormAndSwapsNames) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  FaultInjectingEnv counting;

  EXPECT_EQ(VolumeCapabilities::attributePieceSize(counting, FileRef::atPath(dir / "f"), nullptr), 65536u);
  EXPECT_TRUE(VolumeCapabilities::canHoldCompressedForm(counting, dir.path()));
  EXPECT_TRUE(VolumeCapabilities::canHoldCompressedForm(counting, dir / "f"));
  EXPECT_TRUE(VolumeCapabilities::supportsExchange(counting, dir / "f"));
  // Measured once per volume: asking again touches no attribute.
  const int probes = counting.calls("setxattr");
  const int swaps = counting.calls("exchange");
  EXPECT_TRUE(VolumeCapabilities::canHoldCompressedForm(counting, dir.path()));
  EXPECT_TRUE(VolumeCapabilities::supportsExchange(counting, dir.path()));
  EXPECT_EQ(VolumeCapabilities::attributePieceSize(counting, FileRef::atPath(dir / "f"), nullptr), 65536u);
  EXPECT_EQ(counting.calls("setxattr"), probes);
  EXPECT_EQ(counting.calls("exchange"), swaps);
  // The scratch files are gone and the probe attribute was removed.
  EXPECT_TRUE(counting.listxattr(FileRef::atPath(dir / "f"))->empty());
  EXPECT_EQ(testkit::readFile(dir / "f"), "x");

  EXPECT_FALSE(VolumeCapabilities::canHoldCompressedForm(counting, dir / "missing/x"));
}

// A run killed while it measures leaves its scratch files; the next
// measurement there removes them.
TEST(VolumeCapabilities, ScratchFilesOfAKilledMeasurementAreRemovedByTheNext) {
  ScratchDir runtime;
  testkit::ScopedEnvVar runtimeEnv("XDG_RUNTIME_DIR", runtime.path());
  ScratchDir dir;
  writeFile(dir / "f", "x");
  const std::optional<std::string> place = TemporaryFiles::privateDirectory();
  ASSERT_TRUE(place);
  auto leftovers = [&] {
    std::vector<std::string> names = *Env::system().listDirectory(*place);
    return std::count_if(names.begin(), names.end(), [](const std::string& name) {
      return name.starts_with(".zephlore-exchange-");
    });
  };
  // Each run is killed with both its scratch files named: only the last
  // run's stay behind.
  for (int run = 0; run < 3; ++run) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      FaultInjectingEnv hooked;
      hooked.beforeCall("exchange", [](const std::string&) { raise(SIGKILL); });
      VolumeCapabilities::forget();
      VolumeCapabilities::supportsExchange(hooked, dir / "f");
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(leftovers(), 2) << "after run " << run;
  }

  VolumeCapabilities::forget();
  EXPECT_TRUE(VolumeCapabilities::supportsExchange(Env::system(), dir / "f"));
  EXPECT_EQ(leftovers(), 0);
  EXPECT_EQ(Env::system().listDirectory(dir.path()), std::vector<std::string>{"f"});
}

TEST(VolumeCapabilities, AMeasurementThatFailsIsNotKept) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  VolumeCapabilities::forget();  // nothing known about tmpfs yet
  FaultInjectingEnv faults;
  faults.inject({.op = "setxattr", .error = EIO, .match = "probe"});
  Error error;
  EXPECT_FALSE(VolumeCapabilities::attributePieceSize(faults, FileRef::atPath(dir / "f"), &error));
  EXPECT_EQ(error.code, EIO);
  EXPECT_EQ(VolumeCapabilities::attributePieceSize(faults, FileRef::atPath(dir / "f"), &error), 65536u);
}

TEST(VolumeCapabilities, DefaultExt4CannotHoldTheCompressedForm) {
  LoopMount ext4(testkit::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  const std::string path = ext4 / "file";
  writeFile(path, "contents");

  auto volume = Env::system().describeVolume(path);
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->fileSystemType, "ext4");
  EXPECT_EQ(volume->mountPoint, ext4.path());

  EXPECT_FALSE(VolumeCapabilities::canHoldCompressedForm(Env::system(), ext4.path()));
  EXPECT_FALSE(VolumeCapabilities::canHoldCompressedForm(Env::system(), path));
  auto pieceSize = VolumeCapabilities::attributePieceSize(Env::system(), FileRef::atPath(path), nullptr);
  ASSERT_TRUE(pieceSize);
  EXPECT_GT(*pieceSize, 0u);  // it takes attributes, only not many
  EXPECT_LT(*pieceSize, 4096u);
  EXPECT_TRUE(VolumeCapabilities::supportsExchange(Env::system(), path));

  // Writing a fork the volume cannot hold fails cleanly, leaving no piece.
  const std::vector<uint8_t> fork(256 * 1024, 0x11);
  Error error;
  EXPECT_FALSE(AttributeFork::write(Env::system(), FileRef::atPath(path), fork.data(), fork.size(), &error));
  EXPECT_EQ(error.code, ENOSPC) << error.message;
  EXPECT_NE(error.message.find("cannot hold"), std::string::npos) << error.message;
  EXPECT_FALSE(AttributeFork::isPresent(Env::system(), FileRef::atPath(path)));
  EXPECT_TRUE(Env::system().listxattr(FileRef::atPath(path))->empty());
  EXPECT_EQ(testkit::readFile(path), "contents");

  // A small fork still fits.
  EXPECT_TRUE(AttributeFork::write(Env::system(), FileRef::atPath(path), fork.data(), 300, &error))
      << error.message;

  // Large values switched on while mounted count at once, in this process too.
  const std::string largeValues =
      "tune2fs -O ea_inode \"$(findmnt -n -o SOURCE " + ext4.path() + ")\" >/dev/null 2>&1";
  ASSERT_EQ(std::system(largeValues.c_str()), 0);
  EXPECT_TRUE(VolumeCapabilities::canHoldCompressedForm(Env::system(), ext4.path()));
  EXPECT_EQ(VolumeCapabilities::measuredPieceSize(Env::system(), ext4.path()), size_t{65536});
}

TEST(VolumeCapabilities, AnImageMountedInAnothersPlaceIsMeasuredAfresh) {
  {
    LoopMount plain(testkit::kDefaultExt4);
    if (!plain.ok()) GTEST_SKIP() << plain.skipReason();
    EXPECT_FALSE(VolumeCapabilities::canHoldCompressedForm(Env::system(), plain.path()));
  }
  // Likely the same loop device, so the same device number: only the
  // file-system id tells the two apart.
  LoopMount large("mkfs.ext4 -q -F -O ea_inode");
  if (!large.ok()) GTEST_SKIP() << large.skipReason();
  EXPECT_TRUE(VolumeCapabilities::canHoldCompressedForm(Env::system(), large.path()));
  EXPECT_EQ(VolumeCapabilities::attributePieceSize(Env::system(), FileRef::atPath(large.path()), nullptr), 65536u);
}

}  // namespace
}  // namespace zephlore
