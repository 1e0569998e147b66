// The engine beside other people's programs: in a folder that others may
// write, another user's writer is never cut off by a conversion, and a file
// another user swaps in is never converted. Real users, real processes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "engine/compressed_file_info.h"
#include "engine/content_for_tests.h"
#include "engine/file_repair.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "testing/files.h"
#include "testing/appending_writer.h"
#include "testing/local_user.h"
#include "testing/private_tmpfs.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::StartsWith;
using Rep = QVHFSCompressedFileRepresentation;


std::string outcome(bool ok, const Error& error) {
  return ok ? "done" : std::to_string(error.code) + " " + error.message;
}

// The engine's conversions run as `user`: "done", or the error's code and message.
std::string compressAs(const LocalUser& user, const std::string& path) {
  return user.run([&] {
    Error error;
    return outcome(Rep::compressInPlacePath(Env::system(), path, &error), error);
  }).value_or("died");
}

std::string expandAs(const LocalUser& user, const std::string& path) {
  return user.run([&] {
    Error error;
    return outcome(QVHFSUncompressor::expandInPlacePath(Env::system(), path, &error), error);
  }).value_or("died");
}

// The repair's outcome number, then the error's code and message.
std::string repairAs(const LocalUser& user, const std::string& path) {
  return user.run([&] {
    Error error;
    const int result = static_cast<int>(QVFileRepair::repairFile(Env::system(), path, &error));
    return std::to_string(result) + " " + std::to_string(error.code) + " " + error.message;
  }).value_or("died");
}

bool hasDecmpfs(const std::string& path) {
  return lgetxattr(path.c_str(), "user.com.apple.decmpfs", nullptr, 0) >= 0;
}

struct stat statOf(const std::string& path) {
  struct stat st{};
  lstat(path.c_str(), &st);
  return st;
}

class OtherUsersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: creates local users and acts as them";
    if (!tmpfs_.mounted()) GTEST_SKIP() << "needs root: mounts a tmpfs of its own";
    owner_ = std::make_unique<LocalUser>();
    other_ = std::make_unique<LocalUser>();
    if (!owner_->created() || !other_->created()) {
      GTEST_SKIP() << "cannot create local users: " << owner_->problem() << other_->problem();
    }
    // A folder that anyone may write, as a shared folder is.
    ASSERT_EQ(mkdir(folder_.c_str(), 0777), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0777), 0);
  }

  // A file of `user` (root when null) that anyone may write.
  void writeFileOf(const LocalUser* user, const std::string& path, const std::string& data, mode_t mode = 0666) {
    unlink(path.c_str());  // a new file, without the attributes of the last
    writeFile(path, data, mode);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    if (user) {
      ASSERT_EQ(lchown(path.c_str(), user->uid(), user->gid()), 0);
    }
  }

  PrivateTmpfs tmpfs_;
  std::string folder_ = tmpfs_ / "shared";
  std::unique_ptr<LocalUser> owner_, other_;
};

// The owner compresses, expands and repairs its file while another user's
// logger holds it open for appending: each is refused as busy, and the
// logger's next line lands in the file at the name.
TEST_F(OtherUsersTest, AnotherUsersWriterIsSeenByCompressDecompressAndRepair) {
  const std::string path = folder_ + "/app.log";
  const std::string data = compressibleData(200000, 5);
  writeFileOf(owner_.get(), path, data);
  const std::string busy = std::to_string(kHFSErrorOpenForWriting);

  {
    AppendingWriter logger(*other_, path);
    ASSERT_TRUE(logger.ready());
    EXPECT_THAT(compressAs(*owner_, path), StartsWith(busy));
    ASSERT_TRUE(logger.append());
    EXPECT_TRUE(readFile(path) == data + kAppended);
    EXPECT_EQ(stateOf(path, false), CompressionState::kPlain);
  }

  // Compressed while nobody writes; then the logger opens it again.
  writeFileOf(owner_.get(), path, data);
  ASSERT_EQ(compressAs(*owner_, path), "done");
  {
    AppendingWriter logger(*other_, path);
    ASSERT_TRUE(logger.ready());
    EXPECT_THAT(expandAs(*owner_, path), StartsWith(busy));
    // Its line goes beside the compressed data (a file for repair), not
    // into an unlinked file.
    ASSERT_TRUE(logger.append());
    EXPECT_TRUE(readFile(path) == kAppended);
    EXPECT_EQ(stateOf(path, false), CompressionState::kMixed);
    // Repair would take the compressed form off a file still being written.
    EXPECT_THAT(repairAs(*owner_, path), StartsWith("2 " + busy + " "));
    EXPECT_NE(access(QVFileRepair::recoveredPathFor(path).c_str(), F_OK), 0);
  }

  // Cut short (header and fork without the flag), with the logger at it.
  writeFileOf(owner_.get(), path, data);
  ASSERT_EQ(compressAs(*owner_, path), "done");
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  ASSERT_EQ(stateOf(path, false), CompressionState::kIncomplete);
  {
    AppendingWriter logger(*other_, path);
    ASSERT_TRUE(logger.ready());
    EXPECT_THAT(repairAs(*owner_, path), StartsWith("2 " + busy + " "));
    ASSERT_TRUE(logger.append());
    EXPECT_TRUE(readFile(path) == kAppended);
  }
  // Once the logger is gone, repair goes ahead.
  EXPECT_THAT(repairAs(*owner_, path), StartsWith("1 "));
}

// Another user swaps files of theirs in at the name the engine works on:
// their own file (exchanged in and out again) and a hard link to a file
// outside the folder. The engine, run as the caller (root, then an ordinary
// user), converts only the caller's own file, never touches the file
// outside, and never loses the other user's file.
TEST_F(OtherUsersTest, FilesAnotherUserSwapsInAreNeverConverted) {
  const std::string outside = tmpfs_ / "outside";
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  ASSERT_EQ(chown(outside.c_str(), other_->uid(), other_->gid()), 0);
  const std::string kept = outside + "/kept";
  const std::string theirData = compressibleData(150000, 9);
  const std::string ourData = compressibleData(150000, 3);
  const std::string target = folder_ + "/target";
  const std::string theirs = folder_ + "/theirs";
  const std::string linked = folder_ + "/linked";
  using Clock = std::chrono::steady_clock;

  // The other user's swaps, as fast as they go, for `span`; returns how many.
  // It says when it started: forked while the engine held a file open, it
  // would hold that file too.
  int started[2];
  ASSERT_EQ(pipe(started), 0);
  const auto swapper = [&](Clock::duration span, ino_t keptInode) {
    return [=] {
      if (write(started[1], "s", 1) != 1) return std::string("died");
      const auto until = Clock::now() + span;
      long rounds = 0;
      while (Clock::now() < until) {
        renameat2(AT_FDCWD, theirs.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE);
        renameat2(AT_FDCWD, theirs.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE);
        if (link(kept.c_str(), linked.c_str()) == 0) {
          renameat2(AT_FDCWD, linked.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE);
          renameat2(AT_FDCWD, linked.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE);
          // Their exchanges race the engine's, so the name may now hold any
          // file of the folder: only their link is theirs to remove.
          struct stat st;
          if (lstat(linked.c_str(), &st) == 0 && st.st_ino == keptInode) unlink(linked.c_str());
        }
        ++rounds;
      }
      return std::to_string(rounds);
    };
  };
  // The caller's conversions meanwhile: compress, or expand what is
  // compressed. Returns the outcomes seen, counted.
  const auto converter = [&](Clock::duration span) {
    return [=] {
      const auto until = Clock::now() + span;
      std::map<std::string, int> seen;
      long rounds = 0;
      while (Clock::now() < until) {
        Error error;
        if (Rep::compressInPlacePath(Env::system(), target, &error)) {
          ++seen["compressed"];
        } else if (error.code != kHFSErrorAlreadyCompressed) {
          ++seen[std::to_string(error.code)];
        } else if (QVHFSUncompressor::expandInPlacePath(Env::system(), target, &error)) {
          ++seen["expanded"];
        } else {
          ++seen[std::to_string(error.code)];
        }
        ++rounds;
      }
      std::string said = std::to_string(rounds);
      for (const auto& [what, times] : seen) said += "|" + what + ":" + std::to_string(times);
      return said;
    };
  };
  // What the engine may say when the file changes under it; anything else
  // (such as a copy it built and could not give the file's owner) means it
  // worked on a file it should have left alone.
  const std::set<std::string> expected = {
      "compressed",
      "expanded",
      std::to_string(kHFSErrorNotOwned),
      std::to_string(kHFSErrorHardLinks),
      std::to_string(kHFSErrorModified),
      std::to_string(kHFSErrorAlreadyCompressed),
      std::to_string(kHFSErrorOpenedDuringSwap),
      std::to_string(kHFSErrorSwapFailed),
      std::to_string(kHFSErrorNotCompressed),  // expanding: their plain file was at the name
      std::to_string(kHFSErrorCouldNotOpen),   // their file, not writable for the caller
  };

  const LocalUser* const root = nullptr;
  for (const LocalUser* caller : {root, static_cast<const LocalUser*>(owner_.get())}) {
    SCOPED_TRACE(caller ? "as an ordinary user" : "as root");
    writeFileOf(caller, target, ourData, 0644);
    // Theirs may be written by anyone, so nothing but its owner stops the caller.
    writeFileOf(other_.get(), theirs, theirData, 0666);
    writeFileOf(other_.get(), kept, theirData, 0666);
    const ino_t theirInode = statOf(theirs).st_ino, keptInode = statOf(kept).st_ino;
    std::string swaps;
    std::thread other([&] { swaps = other_->run(swapper(std::chrono::seconds(1), keptInode)).value_or("died"); });
    char c;
    ASSERT_EQ(read(started[0], &c, 1), 1);
    const auto conversions = converter(std::chrono::seconds(1));
    const std::string converted = caller ? caller->run(conversions).value_or("died") : conversions();
    other.join();
    ASSERT_NE(swaps, "died");
    ASSERT_NE(converted, "died");
    EXPECT_GT(std::stol(swaps), 0);
    EXPECT_GT(std::stol(converted), 0);
    std::vector<std::string> outcomes;
    for (size_t at = converted.find('|'); at != std::string::npos;) {
      const size_t next = converted.find('|', at + 1);
      const std::string one = converted.substr(at + 1, next == std::string::npos ? next : next - at - 1);
      outcomes.push_back(one.substr(0, one.find(':')));
      at = next;
    }
    for (const std::string& said : outcomes) EXPECT_TRUE(expected.count(said)) << said << " in " << converted;
    std::cout << (caller ? "[ordinary user] " : "[root] ") << swaps << " swap rounds, " << converted << "\n";

    // Outside the folder: untouched.
    EXPECT_EQ(statOf(kept).st_ino, keptInode);
    EXPECT_FALSE(hasDecmpfs(kept));
    EXPECT_TRUE(readFile(kept) == theirData);
    // In it: the other user's file, never converted, and the caller's. A
    // swap cut short by their exchanges may keep a file (theirs, their link
    // to the file outside, or ours) under one of Zephlore's temporary
    // names, never lose it.
    int ours = 0, theirsFound = 0;
    for (const std::string& entry : listFolder(folder_)) {
      const std::string name = folder_ + "/" + entry;
      if (entry != "target" && entry != "theirs" && entry != "linked") {
        EXPECT_THAT(entry, StartsWith(".zephlore-"));
      }
      const struct stat st = statOf(name);
      if (st.st_uid == other_->uid()) {
        theirsFound += st.st_ino == theirInode;
        EXPECT_TRUE(st.st_ino == theirInode || st.st_ino == keptInode) << name << " was replaced";
        EXPECT_FALSE(hasDecmpfs(name)) << name;
        EXPECT_TRUE(readFile(name) == theirData) << name;
      } else {
        ++ours;
        EXPECT_EQ(st.st_uid, caller ? caller->uid() : 0u);
        EXPECT_TRUE(contentOf(name) == ourData) << name;
      }
      unlink(name.c_str());
    }
    EXPECT_GE(ours, 1);
    EXPECT_EQ(theirsFound, 1);
  }
  close(started[0]);
  close(started[1]);
}

}  // namespace
}  // namespace zephlore
