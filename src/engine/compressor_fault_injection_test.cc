// Every operation the compressor and the expander ask of the system is made
// to fail in turn, at each of its calls (FaultInjectingEnv: the real system
// cannot be made to fail on demand). Whatever fails, the file is either fully
// converted or exactly as it was (content, mode, owner, times, inode, every
// attribute), and nothing is left beside it.
#include <fcntl.h>
#include <sys/acl.h>

#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/content_for_tests.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_uncompressor.h"
#include "platform/fault_env.h"
#include "platform/env_operations.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::Contains;
using ::testing::ElementsAre;
using Fault = FaultInjectingEnv::Fault;

const std::string kData = compressibleData(3 * 65536 + 123);

class CompressorFaultInjectionTest : public ::testing::Test {
 protected:
  // A fresh file with everything a rewrite must keep, alone in the folder.
  FileSnapshot makeFile(bool compressed = false) {
    for (const std::string& name : listFolder(dir_.path())) unlink((dir_ / name).c_str());
    writeFile(path_, kData, 0604);
    lsetxattr(path_.c_str(), "user.note", "kept", 4, 0);
    acl_t acl = acl_from_text("u::rw-,u:4321:rw-,g::---,m::rw-,o::r--");
    acl_set_file(path_.c_str(), ACL_TYPE_ACCESS, acl);
    acl_free(acl);
    const struct timespec times[2] = {{1700000000, 111}, {1600000000, 222}};
    utimensat(AT_FDCWD, path_.c_str(), times, AT_SYMLINK_NOFOLLOW);
    if (compressed) {
      EXPECT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
    }
    env_.clear();
    return FileSnapshot::take(path_);
  }

  // Every single fault for `run`: each call of each operation it made in an
  // undisturbed run fails with EIO; reads and writes also come up short.
  std::vector<Fault> everyFault(const std::function<void()>& run) {
    run();  // learns what the volume can do, which is kept afterwards
    env_.clear();
    run();
    std::vector<Fault> faults;
    for (const char* op : kEnvOperationNames) {
      for (int nth = 1; nth <= env_.calls(op); ++nth) {
        faults.push_back({op, EIO, nth, 1, {}, false});
        if (op == std::string("pread") || op == std::string("pwrite")) faults.push_back({op, EIO, nth, 1, {}, true});
      }
    }
    return faults;
  }

  ScopedRuntimeDir runtime_;
  ScratchDir dir_;
  const std::string path_ = dir_ / "file";
  FaultInjectingEnv env_;
};

TEST_F(CompressorFaultInjectionTest, EveryCompressionFailureLeavesTheFileAsItWas) {
  std::vector<Fault> faults = everyFault([&] {
    makeFile();
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
  });
  std::set<std::string> logged;  // each line with its path cut off
  ScopedLogCapture capture([&](const std::string& line) { logged.insert(line.substr(0, line.find(dir_.path()))); });
  int failures = 0;
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.op + " #" + std::to_string(fault.nth) + (fault.shortTransfer ? " short" : ""));
    const FileSnapshot before = makeFile();
    env_.inject(fault);
    Error error;
    bool ok = QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_, &error);
    env_.clear();
    if (ok) {
      CompressedFileInfo info;
      EXPECT_TRUE(CompressedFileInfo::inspect(env_, path_, &info, &error) && info.state == CompressionState::kCompressed);
      EXPECT_TRUE(contentOf(path_) == kData);
      // Only a failed removal of the original data leaves it beside the file.
      if (fault.op != "unlink") {
        EXPECT_THAT(listFolder(dir_.path()), ElementsAre("file"));
      }
    } else {
      ++failures;
      EXPECT_EQ(error.domain, kHFSErrorDomain);
      EXPECT_EQ(FileSnapshot::take(path_), before);
      EXPECT_THAT(listFolder(dir_.path()), ElementsAre("file")) << error.describe();
    }
    if (HasFailure()) break;
  }
  RecordProperty("faults", static_cast<int>(faults.size()));
  RecordProperty("failures", failures);
  EXPECT_GT(failures, 20);
  // Each way the swap can go wrong was taken.
  for (const char* line : {"*** Error creating resource fork when trying to compress: ",
                           "**** Could not open destination file ", "**** Could not name the compressed copy ",
                           "**** Could not exchange ", "Resource fork could not be found, rolling back ",
                           "Compression attributes could not be found, rolling back ",
                           "Malformed file detected, rolling back temporary copy", "Could not replace file ",
                           "**** Could not remove the original data of "}) {
    EXPECT_THAT(logged, Contains(line));
  }
}

// A converter handed an Env of its own makes its swap through that one, not
// through the process's: a fault there fails the swap and the file stays.
TEST_F(CompressorFaultInjectionTest, AnEnvHandedInCarriesTheSwap) {
  makeFile(true);  // the volume's abilities are probed once, through the fixture's Env
  FaultInjectingEnv own;
  own.inject({"exchange", EIO, 1, 1, {}, false});
  const FileSnapshot plain = makeFile();
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(own, path_));
  EXPECT_EQ(own.calls("exchange"), 1);
  EXPECT_EQ(env_.calls("exchange"), 0);
  EXPECT_EQ(FileSnapshot::take(path_), plain);

  // The expander falls back to a rename when the exchange fails.
  makeFile(true);
  own.clear();
  own.inject({"exchange", EIO, 1, 1, {}, false});
  EXPECT_TRUE(QVHFSUncompressor::expandInPlacePath(own, path_));
  EXPECT_EQ(own.calls("exchange"), 1);
  EXPECT_EQ(own.calls("rename"), 1);
  EXPECT_EQ(env_.calls("exchange") + env_.calls("rename"), 0);
  EXPECT_EQ(readFile(path_), kData);
}

// A doubtful swap whose swap back fails too: the original comes back by a
// rename instead, the very same file.
TEST_F(CompressorFaultInjectionTest, AFailedSwapBackStillRestoresTheOriginal) {
  everyFault([&] {
    makeFile();
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_));
  });
  int restoredByRename = 0;
  const int reads = env_.calls("getxattr"), checks = reads + env_.calls("lstat");
  for (int i = 1; i <= checks; ++i) {
    const std::string op = i <= reads ? "getxattr" : "lstat";
    const int nth = i <= reads ? i : i - reads;
    SCOPED_TRACE(op + " #" + std::to_string(nth));
    const FileSnapshot before = makeFile();
    env_.inject({op, EIO, nth, 1, {}, false});
    env_.inject({"exchange", EIO, 2, 1, {}, false});
    bool ok = QVHFSCompressedFileRepresentation::compressInPlacePath(env_, path_);
    restoredByRename += !ok && env_.calls("exchange") == 2;
    env_.clear();
    if (!ok) {
      EXPECT_EQ(FileSnapshot::take(path_), before);
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(restoredByRename, 0);
}

TEST_F(CompressorFaultInjectionTest, EveryExpansionFailureLeavesTheFileCompressed) {
  const FileSnapshot plain = makeFile();
  std::vector<Fault> faults = everyFault([&] {
    makeFile(true);
    ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(env_, path_));
  });
  int failures = 0;
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.op + " #" + std::to_string(fault.nth) + (fault.shortTransfer ? " short" : ""));
    const FileSnapshot before = makeFile(true);
    env_.inject(fault);
    Error error;
    bool ok = QVHFSUncompressor::expandInPlacePath(env_, path_, &error, nullptr, nullptr, false, {2});
    env_.clear();
    failures += !ok;
    if (ok) {
      EXPECT_TRUE(FileSnapshot::take(path_).sameExceptInode(plain));
    } else {
      EXPECT_EQ(FileSnapshot::take(path_), before);
    }
    // After the swap the output's name holds the compressed version; when
    // removing it fails, the next run in this folder removes it.
    if (!(ok && fault.op == "unlink")) {
      EXPECT_THAT(listFolder(dir_.path()), ElementsAre("file"));
    }
    if (HasFailure()) break;
  }
  EXPECT_GT(failures, 10);
}

}  // namespace
}  // namespace zephlore
