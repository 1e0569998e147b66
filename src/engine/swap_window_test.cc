// A program that opens a file while the engine swaps it must not lose its
// writes. The opener comes in through the fault layer's hook at the exact
// call where the window is widest: just before the names are exchanged, or
// just before the copy is named.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"
#include "platform/fault_env.h"

namespace zephlore {
namespace {

using namespace testkit;

const std::string kData = compressibleData(3 * 65536 + 123);
const std::string kAppendedByWriter = "23 bytes from a writer\n";

// Whether some descriptor of this process holds an unbroken write lease on a
// file named `path`.
bool writeLeaseUnbroken(const std::string& path) {
  bool unbroken = false;
  DIR* fds = opendir("/proc/self/fd");
  while (struct dirent* entry = readdir(fds)) {
    char target[4096];
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    ssize_t n = readlink(link.c_str(), target, sizeof target);
    if (n <= 0 || std::string(target, static_cast<size_t>(n)) != path) continue;
    unbroken = unbroken || fcntl(atoi(entry->d_name), F_GETLEASE) == F_WRLCK;
  }
  closedir(fds);
  return unbroken;
}

class SwapWindowTest : public ::testing::Test {
 protected:
  void SetUp() override { writeFile(path_, kData); }

  // At the first call of `op` on our copy, another program opens the file to
  // append; the engine goes on once the opener is waiting on the lease.
  void openerAt(const std::string& op) {
    env_.beforeCall(op, [this](const std::string& subject) {
      if (subject.find(".zephlore-") == std::string::npos || subject.find("-exchange-") != std::string::npos ||
          opener_.joinable()) {
        return;
      }
      ASSERT_TRUE(writeLeaseUnbroken(path_)) << "no write lease in the window";
      opener_ = std::thread([this] {
        int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, kAppendedByWriter.data(), kAppendedByWriter.size()), static_cast<ssize_t>(kAppendedByWriter.size()));
        ::close(fd);
      });
      while (writeLeaseUnbroken(path_)) std::this_thread::yield();
    });
  }

  void joinOpener() {
    ASSERT_TRUE(opener_.joinable());
    opener_.join();
  }

  bool onlyTheFileIsLeft() { return listFolder(dir_.path()) == std::vector<std::string>{"file"}; }

  ScratchDir dir_;
  ScopedRuntimeDir runtime_;
  const std::string path_ = dir_ / "file";
  FaultInjectingEnv env_;
  std::thread opener_;
};

// Compressing, the writer's bytes stay in the plain file; expanding, they go
// into the compressed file at the name (written after compression).
TEST_F(SwapWindowTest, AnOpenerInTheWindowKeepsItsWritesAtTheName) {
  const struct {
    const char* op;
    bool expand;
    CompressionState state;
    std::string content;
  } cases[] = {
      {"exchange", false, CompressionState::kPlain, kData + kAppendedByWriter},
      {"linkTmpFile", false, CompressionState::kPlain, kData + kAppendedByWriter},
      {"exchange", true, CompressionState::kMixed, kAppendedByWriter},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.op) + (c.expand ? " expanding" : " compressing"));
    unlink(path_.c_str());
    writeFile(path_, kData);
    if (c.expand) {
      ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
    }
    openerAt(c.op);
    Error error;
    EXPECT_FALSE(c.expand ? QVHFSUncompressor::expandInPlacePath(env_, path_, &error)
                          : QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error));
    joinOpener();
    env_.clear();
    EXPECT_EQ(error.code, kHFSErrorOpenedDuringSwap) << error.message;
    EXPECT_EQ(readFile(path_), c.content);
    CompressedFileInfo info;
    ASSERT_TRUE(CompressedFileInfo::inspect(env_, path_, &info, nullptr, false));
    EXPECT_EQ(info.state, c.state);
    EXPECT_TRUE(onlyTheFileIsLeft());
  }
}

TEST_F(SwapWindowTest, WithoutTheWindowUndisturbedTheFileEndsCompressedWithNothingAfterTheSwap) {
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
  CompressedFileInfo info;
  ASSERT_TRUE(CompressedFileInfo::inspect(env_, path_, &info, nullptr, false));
  EXPECT_EQ(info.state, CompressionState::kCompressed);
  EXPECT_TRUE(onlyTheFileIsLeft());

  // Where the kernel refuses leases, the older checks alone decide.
  unlink(path_.c_str());
  writeFile(path_, kData);
  env_.failOn("takeWriteLease", EINVAL);
  EXPECT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
}

// A file system without leases: /proc can clear a file only when every
// process that could write it is one of the caller's, which it shows.
TEST_F(SwapWindowTest, WithoutLeasesProcIsTrustedOnlyWhereNobodyElseMayWrite) {
  for (const char* op : {"takeWriteLease", "hasWriters"}) {
    FaultInjectingEnv::Fault noLease;
    noLease.op = op;
    noLease.error = EINVAL;
    noLease.times = 0;
    env_.inject(noLease);
  }
  Error error;
  ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error));
  EXPECT_EQ(error.code, kHFSErrorOpenForWriting);
  EXPECT_THAT(error.message,
              ::testing::HasSubstr("grants no lease: Invalid argument, and others may write its folder"));
  ASSERT_EQ(chmod(dir_.path().c_str(), 0700), 0);
  ASSERT_EQ(chmod(path_.c_str(), 0664), 0);
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error));
  EXPECT_THAT(error.message, ::testing::HasSubstr("others may write it"));
  ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
  {
    const int writer = ::open(path_.c_str(), O_WRONLY | O_APPEND);  // ours, seen in /proc
    EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error));
    EXPECT_THAT(error.message, ::testing::HasSubstr(" writes it"));
    ::close(writer);
  }
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error)) << error.describe();
  ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
  EXPECT_FALSE(QVHFSUncompressor::expandInPlacePath(env_, path_, &error));
  EXPECT_EQ(error.code, kHFSErrorOpenForWriting);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0700), 0);
  EXPECT_TRUE(QVHFSUncompressor::expandInPlacePath(env_, path_, &error)) << error.describe();
  EXPECT_EQ(readFile(path_), kData);
}

}  // namespace
}  // namespace zephlore
