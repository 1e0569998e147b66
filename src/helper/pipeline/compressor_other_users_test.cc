// The helper's compressor beside another user's program: in a folder that
// others may write, a file another user holds open for appending is left
// alone, and the writer's lines stay in the file. The compressor runs as the
// file's owner, an ordinary user, who cannot see the other user's
// descriptors in /proc: only the kernel's answer may decide.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "engine/extended_attributes_helper.h"
#include "engine/file_content_reader.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/pipeline_test_support.h"
#include "testing/appending_writer.h"
#include "testing/files.h"
#include "testing/local_user.h"
#include "testing/private_tmpfs.h"

namespace zephlore {
namespace {

using namespace testkit;

// One batch of the helper's compressor over `path`, run as `user`: the
// refusal's code ("0" when none), then "compressed" or "plain".
std::string compressAs(const LocalUser& user, const std::string& path, const std::string& dataFolder) {
  return user.run([&] {
    ManualClock clock;
    FixedLoad load{clock};
    RunLoop loop{clock};
    NotificationCenter center;
    NotificationRecorder recorder{clock, center};
    OperationQueue queue{1};
    KRFileInProcessWatchdog watchdog{Env::system(), dataFolder};
    KRCompressor compressor{loop, Env::shared(), center, {.compressionQueue = &queue, .load = &load, .record = &watchdog}};
    compressor.setFolderWatchTest([](const std::string&) { return true; });
    compressor.addFiles({path});
    loop.runUntilIdle();
    clock.advance(seconds(KRCompressor::kTickDelay));
    loop.runUntilIdle();
    queue.waitUntilAllOperationsAreFinished();
    loop.runUntilIdle();
    const std::vector<PostedNotification> done = recorder.named(kFileCompressedNotification);
    const bool compressed = KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env::shared(), path);
    return (done.empty() ? std::string("none") : std::to_string(done[0].errorCode)) +
           (compressed ? " compressed" : " plain");
  }).value_or("died");
}

TEST(CompressorOtherUsers, AnotherUsersWriterKeepsTheFileOutOfTheConversionUntilItLetsGo) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: creates local users and a tmpfs";
  PrivateTmpfs tmpfs;
  if (!tmpfs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs";
  LocalUser owner, other;
  if (!owner.created() || !other.created()) {
    GTEST_SKIP() << "cannot create local users: " << owner.problem() << other.problem();
  }
  const std::string dataFolder = tmpfs / "data";
  ASSERT_EQ(mkdir(dataFolder.c_str(), 0700), 0);
  ASSERT_EQ(chown(dataFolder.c_str(), owner.uid(), owner.gid()), 0);
  const std::string folder = tmpfs / "shared";
  ASSERT_EQ(mkdir(folder.c_str(), 0777), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  const std::string log = folder + "/app.log";
  const std::string data = compressibleData(200000, 5);
  writeFile(log, data);
  ASSERT_EQ(chmod(log.c_str(), 0666), 0);
  ASSERT_EQ(chown(log.c_str(), owner.uid(), owner.gid()), 0);

  {
    AppendingWriter logger(other, log);
    ASSERT_TRUE(logger.ready());
    EXPECT_EQ(compressAs(owner, log, dataFolder), "712 plain");
    // The logger's line lands in the file at the name, not in a replaced one.
    ASSERT_TRUE(logger.append());
    EXPECT_TRUE(readFile(log) == data + kAppended);
  }
  // Once the logger has let go, the file is compressed whole.
  EXPECT_EQ(compressAs(owner, log, dataFolder), "0 compressed");
  Error error;
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(Env::shared(), log, &error);
  ASSERT_TRUE(reader) << error.message;
  const std::string expected = data + kAppended;
  std::string content(expected.size() + 1, '\0');
  size_t got = 0;
  ASSERT_TRUE(reader->read(0, content.data(), content.size(), &got, &error)) << error.message;
  content.resize(got);
  EXPECT_TRUE(content == expected);
}

}  // namespace
}  // namespace zephlore
