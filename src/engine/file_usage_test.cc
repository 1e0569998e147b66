#include "engine/file_usage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/fault_env.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::HoldingChild;
using testkit::ScratchDir;
using testkit::writeFile;

TEST(QVFileUsage, OwnWritersCanBeExcludedButOtherUsersCount) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "x");
  bool forWriting = true;
  EXPECT_FALSE(QVFileUsage::isFileOpen(Env::shared(), file));
  EXPECT_FALSE(QVFileUsage::isFileOpenForWriting(Env::shared(), file, &forWriting));
  EXPECT_FALSE(forWriting);

  {
    // Only this process, writing: open, and a writer unless we exclude ourselves.
    UniqueFd own(::open(file.c_str(), O_RDWR));
    EXPECT_TRUE(QVFileUsage::isFileOpen(Env::shared(), file));
    EXPECT_FALSE(QVFileUsage::isFileOpenExcludingOwnProcess(Env::shared(), file, true));
    EXPECT_TRUE(QVFileUsage::isFileOpenForWritingExcludingOwnProcess(Env::shared(), file, &forWriting, false));
    EXPECT_TRUE(forWriting);
    EXPECT_TRUE(QVFileUsage::isFileOpenForWritingExcludingOwnProcess(Env::shared(), file, &forWriting, true));
    EXPECT_FALSE(forWriting);
  }

  {
    // Another process reading it: open, not for writing.
    HoldingChild reader([&] { return ::open(file.c_str(), O_RDONLY) >= 0; });
    ASSERT_TRUE(reader.ready());
    EXPECT_TRUE(QVFileUsage::isFileOpenExcludingOwnProcess(Env::shared(), file, true));
    EXPECT_TRUE(QVFileUsage::isFileOpenForWritingExcludingOwnProcess(Env::shared(), file, &forWriting, true));
    EXPECT_FALSE(forWriting);
    auto users = QVFileUsage::usersOfFile(Env::shared(), file);
    ASSERT_TRUE(users);
    ASSERT_EQ(users->size(), 1u);
    EXPECT_EQ((*users)[0].pid, reader.pid());
    EXPECT_EQ((*users)[0].mode, 0u);
  }

  // A process whose current directory is the path counts as a writer.
  HoldingChild resident([&] { return chdir(dir.path().c_str()) == 0; });
  ASSERT_TRUE(resident.ready());
  EXPECT_TRUE(QVFileUsage::isFileOpenForWritingExcludingOwnProcess(Env::shared(), dir.path(), &forWriting, true));
  EXPECT_TRUE(forWriting);
}

TEST(QVFileUsage, UnreadableAnswersNo) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  UniqueFd own(::open((dir / "f").c_str(), O_RDWR));
  EXPECT_FALSE(QVFileUsage::usersOfFile(Env::shared(), dir / "missing"));
  EXPECT_FALSE(QVFileUsage::isFileOpen(Env::shared(), dir / "missing"));

  FaultInjectingEnv faults;
  ScopedSharedEnv use(&faults);
  faults.failOn("fileUsers", EACCES);
  bool forWriting = true;
  EXPECT_FALSE(QVFileUsage::isFileOpenForWriting(Env::shared(), dir / "f", &forWriting));
  EXPECT_FALSE(forWriting);
}

}  // namespace
}  // namespace zephlore
