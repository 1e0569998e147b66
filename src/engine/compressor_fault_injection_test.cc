// Every operation the compressor and the expander ask of the system is made
// to fail in turn, at each of its calls (FaultInjectingEnv: the real system
// cannot be made to fail on demand). Whatever fails, the file is either
// fully converted or exactly as it was: content, mode, owner, times, inode
// and every attribute; and nothing is left beside it.
#include <sys/acl.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/file_content_reader.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_uncompressor.h"
#include "platform/fault_env.h"

namespace zephlore {
namespace {

using testing::FileSnapshot;
using testing::ScratchDir;
using testing::compressibleData;
using testing::listFolder;
using testing::writeFile;

const char* const kOperations[] = {
    "open",     "openLocked", "openTmpFile", "linkTmpFile",    "close",    "pread",      "pwrite",
    "fsync",    "ftruncate",  "fstat",       "fstatfs",        "fchmod",   "fchown",     "futimens",
    "getAcl",   "setAcl",     "lstat",       "stat",           "statfs",   "statvfs",    "rename",
    "exchange", "unlink",     "mkdir",       "fsyncDirectory", "realPath", "getxattr",   "setxattr",
    "removexattr", "listxattr", "xattrListSize", "fileUsers",  "describeVolume"};

const std::string kData = compressibleData(3 * 65536 + 123);

void makeFile(const std::string& path) {
  writeFile(path, kData);
  ASSERT_EQ(chmod(path.c_str(), 0604), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.note", "kept", 4, 0), 0);
  acl_t acl = acl_from_text("u::rw-,u:4321:rw-,g::---,m::rw-,o::r--");
  ASSERT_EQ(acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl), 0);
  acl_free(acl);
  const struct timespec times[2] = {{1700000000, 111}, {1600000000, 222}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

std::string contentOf(const std::string& path) {
  Error error;
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(path, &error);
  if (!reader) return "";
  std::string content(static_cast<size_t>(reader->size()), '\0');
  size_t got = 0;
  if (!reader->read(0, content.data(), content.size(), &got, &error)) return "";
  return content;
}

CompressionState stateOf(const std::string& path) {
  CompressedFileInfo info;
  Error error;
  return CompressedFileInfo::inspect(path, &info, &error) ? info.state : CompressionState::kNotOurs;
}

// Calls of each operation in one undisturbed run of `run`.
std::map<std::string, int> countCalls(FaultInjectingEnv& env, const std::function<void()>& run) {
  env.clear();
  run();
  std::map<std::string, int> counts;
  for (const char* op : kOperations) {
    if (int n = env.calls(op)) counts[op] = n;
  }
  return counts;
}

struct Fault {
  FaultInjectingEnv::Fault fault;
  std::string describe() const {
    return fault.op + " #" + std::to_string(fault.nth) + (fault.shortTransfer ? " (short)" : "");
  }
};

// Every single fault: each call of each operation, failing with EIO; reads
// and writes also coming up short.
std::vector<Fault> everyFault(const std::map<std::string, int>& counts) {
  std::vector<Fault> faults;
  for (const auto& [op, n] : counts) {
    for (int nth = 1; nth <= n; ++nth) {
      faults.push_back({{op, EIO, nth, 1, {}, false}});
      if (op == "pread" || op == "pwrite") faults.push_back({{op, EIO, nth, 1, {}, true}});
    }
  }
  return faults;
}

TEST(CompressorFaultInjectionTest, EveryFailureLeavesTheFileAsItWasOrFullyCompressed) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  FaultInjectingEnv env;
  ScopedSharedEnv use(&env);
  auto compress = [&](Error* error) {
    return QVHFSCompressedFileRepresentation::compressInPlacePath(path, error);
  };

  // A first run learns what the volume can do (kept afterwards), the second
  // counts the calls of a run like every later one.
  makeFile(path);
  ASSERT_TRUE(compress(nullptr));
  unlink(path.c_str());
  makeFile(path);
  std::map<std::string, int> counts = countCalls(env, [&] { ASSERT_TRUE(compress(nullptr)); });
  ASSERT_GT(counts["exchange"], 0);

  std::set<std::string> logged;  // each line with its path cut off
  ScopedLogCapture capture([&](const std::string& line) { logged.insert(line.substr(0, line.find(dir.path()))); });
  int failures = 0;
  const std::vector<Fault> faults = everyFault(counts);
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.describe());
    for (const std::string& name : listFolder(dir.path())) unlink((dir / name).c_str());
    makeFile(path);
    const FileSnapshot before = FileSnapshot::take(path);
    env.clear();
    env.inject(fault.fault);
    Error error;
    bool ok = compress(&error);
    env.clear();
    if (ok) {
      EXPECT_EQ(stateOf(path), CompressionState::kCompressed);
      EXPECT_TRUE(contentOf(path) == kData);
      // Only a failed removal of the original data leaves it beside the file.
      if (fault.fault.op != "unlink") {
        EXPECT_THAT(listFolder(dir.path()), ::testing::ElementsAre("file"));
      }
    } else {
      ++failures;
      EXPECT_EQ(error.domain, kHFSErrorDomain);
      EXPECT_NE(error.code, 0);
      EXPECT_EQ(FileSnapshot::take(path), before);
      EXPECT_THAT(listFolder(dir.path()), ::testing::ElementsAre("file")) << error.describe();
    }
    if (HasFailure()) break;
  }
  EXPECT_GT(failures, 20);
  RecordProperty("faults", static_cast<int>(faults.size()));
  RecordProperty("failures", failures);
  // Each way the swap can go wrong was taken.
  for (const char* line : {"======> compressedDataFile cannot be stated, ignoring file <=======",
                           "*** Error creating resource fork when trying to compress: ",
                           "**** Could not open destination file ", "**** Could not name the compressed copy ",
                           "**** Could not exchange ", "Resource fork could not be found, rolling back ",
                           "Compression attributes could not be found, rolling back ",
                           "Malformed file detected, rolling back temporary copy",
                           "Could not replace file ", "**** Could not remove the original data of "}) {
    EXPECT_THAT(logged, ::testing::Contains(line));
  }
}

// The swap back after a doubtful swap fails too: the original data comes
// back by a rename instead, the same file as before.
TEST(CompressorFaultInjectionTest, AFailedSwapBackStillRestoresTheOriginal) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  FaultInjectingEnv env;
  ScopedSharedEnv use(&env);
  makeFile(path);
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path));
  unlink(path.c_str());
  makeFile(path);
  std::map<std::string, int> counts = countCalls(env, [&] {
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path));
  });

  int rolledBack = 0;
  for (const char* op : {"getxattr", "lstat"}) {
    for (int nth = 1; nth <= counts[op]; ++nth) {
      SCOPED_TRACE(std::string(op) + " #" + std::to_string(nth));
      unlink(path.c_str());
      makeFile(path);
      const FileSnapshot before = FileSnapshot::take(path);
      env.clear();
      env.inject({op, EIO, nth, 1, {}, false});
      env.inject({"exchange", EIO, 2, 1, {}, false});  // the swap back, if it comes to that
      bool ok = QVHFSCompressedFileRepresentation::compressInPlacePath(path);
      bool swappedBack = env.calls("exchange") == 2;
      env.clear();
      if (!ok) {
        EXPECT_EQ(FileSnapshot::take(path), before);
        EXPECT_EQ(listFolder(dir.path()).size(), 1u);
        rolledBack += swappedBack;
      }
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(rolledBack, 0);
}

TEST(CompressorFaultInjectionTest, EveryExpansionFailureLeavesTheFileCompressed) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  FaultInjectingEnv env;
  ScopedSharedEnv use(&env);
  auto compressed = [&] {
    unlink(path.c_str());
    makeFile(path);
    env.clear();
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path));
  };
  compressed();
  const FileSnapshot original = [&] {
    ScratchDir other;
    makeFile(other / "file");
    return FileSnapshot::take(other / "file");
  }();
  std::map<std::string, int> counts = countCalls(env, [&] { ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path)); });

  int failures = 0;
  for (const Fault& fault : everyFault(counts)) {
    SCOPED_TRACE(fault.describe());
    compressed();
    const FileSnapshot before = FileSnapshot::take(path);
    env.inject(fault.fault);
    Error error;
    bool ok = QVHFSUncompressor::expandInPlacePath(path, &error, nullptr, nullptr, false, {2});
    env.clear();
    if (ok) {
      EXPECT_TRUE(FileSnapshot::take(path).sameExceptInode(original));
    } else {
      ++failures;
      EXPECT_EQ(error.domain, kHFSErrorDomain);
      EXPECT_EQ(FileSnapshot::take(path), before);
    }
    EXPECT_EQ(listFolder(dir.path()).size(), 1u);
    if (HasFailure()) break;
  }
  EXPECT_GT(failures, 10);
}

}  // namespace
}  // namespace zephlore
