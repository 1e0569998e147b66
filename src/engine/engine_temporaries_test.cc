// What a killed run leaves beside the user's files and in the data folder,
// settled by the next run: repaired where needed, removed when nobody holds it.
#include <sys/file.h>
#include <sys/xattr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/engine_temporaries.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/in_process_record.h"
#include "engine/process_records.h"
#include "engine/sibling_temp_file.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::UnorderedElementsAre;

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Compressed, then without its flag: a kill inside the swap.
void compressHalfway(const std::string& path) {
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path));
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
}

TEST(EngineTemporariesTest, NamesOfTheEnginesTemporaries) {
  EXPECT_TRUE(EngineTemporaries::isTemporaryName(baseName(copyNameOf("/x/file"))));
  EXPECT_TRUE(EngineTemporaries::isTemporaryName(".zephlore-0123456789abcdef.x"));
  EXPECT_TRUE(EngineTemporaries::isTemporaryName(".zephlore-exchange-Ab3xYz"));
  EXPECT_TRUE(EngineTemporaries::isTemporaryName(".zephlore-probe-Ab3xYz"));
  EXPECT_FALSE(EngineTemporaries::isTemporaryName(".zephlore-0123456789abcdef.c.bak"));
  EXPECT_FALSE(EngineTemporaries::isTemporaryName(".zephlore-notes"));
  EXPECT_FALSE(EngineTemporaries::isTemporaryName("zephlore-0123456789abcdef.c"));
}

TEST(EngineTemporariesTest, LeftoversAreSettledThroughTheirFileAndNeverTakenFromALiveRun) {
  ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(200000);

  // Killed after the swap, before the original data was removed.
  const std::string done = dir / "done";
  writeFile(done, data);
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), done));
  writeFile(copyNameOf(done), data);

  // Killed inside the swap: the file has its fork but no flag.
  const std::string half = dir / "half";
  writeFile(half, data);
  compressHalfway(half);
  writeFile(copyNameOf(half), data);

  // A copy whose file was renamed away meanwhile: may be the only whole copy.
  writeFile(dir / ".zephlore-00000000000000ff.c", data);
  // Probes of a run killed while it learned what the volume can do.
  writeFile(dir / ".zephlore-exchange-AAAAAA", "");
  writeFile(dir / ".zephlore-exchange-BBBBBB", "");

  // A copy a live run holds is left alone.
  const std::string busy = dir / "busy";
  writeFile(busy, data);
  writeFile(copyNameOf(busy), data);
  int held = open(copyNameOf(busy).c_str(), O_RDONLY);
  ASSERT_EQ(flock(held, LOCK_EX), 0);

  EXPECT_EQ(EngineTemporaries::cleanFolder(Env::system(), dir.path()), 4);
  close(held);
  EXPECT_THAT(listFolder(dir.path()),
              UnorderedElementsAre("done", "half", "busy", baseName(copyNameOf(busy)), ".zephlore-00000000000000ff.c"));
  EXPECT_EQ(stateOf(done), CompressionState::kCompressed);
  EXPECT_EQ(stateOf(half), CompressionState::kPlain);
  EXPECT_EQ(readFile(half), data);

  // Once the run is gone its copy goes too.
  EXPECT_EQ(EngineTemporaries::cleanFolder(Env::system(), dir.path()), 1);
}

TEST(ProcessInProcessRecordTest, RecordsOfGoneRunsAreRepairedAndRemovedLiveOnesKept) {
  ScopedRuntimeDir runtime;
  ScratchDir data;
  ScratchDir files;
  const std::string content = compressibleData(100000);
  const std::string half = files / "half";
  writeFile(half, content);
  compressHalfway(half);

  // A run that was killed, and one that is alive (its lock held here).
  writeFile(ProcessInProcessRecord::filenameFor(data.path(), 4000001),
            InProcessRecordFile::format(half, content.size()));
  const std::string live = ProcessInProcessRecord::filenameFor(data.path(), 4000002);
  writeFile(live, InProcessRecordFile::format(files / "elsewhere", 5));
  int held = open(live.c_str(), O_RDONLY);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  writeFile(data / "inprocess.kr", "");

  EXPECT_EQ(ProcessInProcessRecord::repairRecordsOfGoneProcesses(Env::system(), data.path()), 1);
  EXPECT_EQ(stateOf(half), CompressionState::kPlain);
  EXPECT_EQ(readFile(half), content);
  EXPECT_THAT(listFolder(data.path()), UnorderedElementsAre("inprocess.kr", baseName(live)));

  {
    // This run's own record: present while it runs, holding one file at a
    // time, and gone when it ends.
    ProcessInProcessRecord own(Env::system(), data.path());
    own.willProcessFile(half);
    EXPECT_EQ(readFile(own.filename()), InProcessRecordFile::format(half, content.size()));
    own.didProcessFile();
    EXPECT_EQ(readFile(own.filename()), "");
    EXPECT_EQ(ProcessInProcessRecord::repairRecordsOfGoneProcesses(Env::system(), data.path()), 0);
  }
  EXPECT_THAT(listFolder(data.path()), UnorderedElementsAre("inprocess.kr", baseName(live)));
  close(held);
}

}  // namespace
}  // namespace zephlore
