// zephlore mount / unmount: real FUSE views over compressed trees on tmpfs,
// driven by the programs a user would run through them.
#include <fcntl.h>
#include <pwd.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "testing/zephlore_command.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"
#include "view/mount_table.h"
#include "view/underlying_tree.h"

namespace zephlore::cli {
namespace {

using testkit::Child;
using testkit::compressibleData;
using testkit::readFile;
using testkit::runZephlore;
using testkit::ScratchDir;
using testkit::writeFile;

bool fuseUsable() { return access("/dev/fuse", R_OK | W_OK) == 0; }

// Runs a shell command line; its exit status.
int sh(const std::string& command) {
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

bool hasAttribute(const std::string& path, const char* name) {
  return lgetxattr(path.c_str(), name, nullptr, 0) >= 0;
}

// A view in the foreground, as a child process. However the test ends, the
// view is unmounted and its process reaped: nothing stays mounted.
class MountedView {
 public:
  // The mount point is the last argument.
  explicit MountedView(std::vector<std::string> args) : mountPoint_(args.back()) {
    args.insert(args.begin(), {"mount", "-f"});
    child_ = std::make_unique<Child>(testkit::zephloreCommand(args));
    ready_ = child_->waitForLine();  // printed once the view is mounted
  }
  ~MountedView() {
    if (!stopped_) {
      runZephlore({"unmount", "--force", "-z", mountPoint_});
      child_->finish();
    }
  }
  bool ready() const { return ready_; }
  Child& child() { return *child_; }
  // The status of the view process after a clean unmount (compressed
  // files stay compressed beneath).
  int unmount() {
    // The kernel hands a file's release to the view after close() returns:
    // a view asked to unmount at once may still count the file as open for
    // a moment. Each try is a process start; a view that stays busy is
    // detached, so that waiting for its process always ends.
    testkit::ProcessResult r;
    for (int attempt = 0; attempt < 20; ++attempt) {
      r = runZephlore({"unmount", "--force", mountPoint_});
      if (r.status == 0) break;
    }
    EXPECT_EQ(r.status, 0) << r.err;
    if (r.status != 0) runZephlore({"unmount", "--force", "-z", mountPoint_});
    stopped_ = true;
    return child_->finish();
  }
  void killHard() {
    kill(child_->pid(), SIGKILL);
    child_->finish();
  }

 private:
  std::string mountPoint_;
  std::unique_ptr<Child> child_;
  bool ready_ = false;
  bool stopped_ = false;
};

// A view run in the background is taken down lazily whatever happens.
struct LazyUnmount {
  std::string at;
  ~LazyUnmount() { runZephlore({"unmount", "--force", "-z", at}); }
};

class MountCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fuseUsable()) GTEST_SKIP() << "/dev/fuse is missing or not usable: FUSE views cannot be tested here";
    setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1);
    setenv("XDG_DATA_HOME", runtime_.path().c_str(), 1);
    source_ = dir_ / "source";
    mountPoint_ = dir_ / "view";
    mkdir(source_.c_str(), 0755);
    mkdir(mountPoint_.c_str(), 0755);
  }
  // A view of the source at the mount point, or over the source itself.
  void mountView(bool overTheSource = false) {
    view_ = std::make_unique<MountedView>(overTheSource ? std::vector<std::string>{"--over", source_}
                                                        : std::vector<std::string>{source_, mountPoint_});
    ASSERT_TRUE(view_->ready()) << view_->child().err();
  }
  void compress(const std::string& path) {
    auto r = runZephlore({"compress", "-r", "-q", path});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  ScratchDir runtime_;
  ScratchDir dir_;  // declared before any view, so views go first
  std::string source_, mountPoint_;
  std::unique_ptr<MountedView> view_;
};

constexpr bool kOverTheSource = true;

TEST_F(MountCommands, RealTreeReadsAndCopiesOutAsTheOriginal) {
  const std::string original = dir_ / "original";
  // Thousands of headers and package documents (text, gzip, HTML, images,
  // links), nested: most of what the whole of /usr would show, in a third of
  // the bytes.
  ASSERT_EQ(sh("mkdir -p " + original + " && cp -a /usr/include/linux /usr/share/doc/lib* " + original +
               "/ 2>/dev/null; cp -a " + original + "/. " + source_),
            0);
  compress(source_);
  auto info = runZephlore({"info", "-r", "--json", source_});
  ASSERT_NE(info.out.find("\"compressed\""), std::string::npos);

  ASSERT_NO_FATAL_FAILURE(mountView());
  // Every file reads at full content and every size is the original's.
  EXPECT_EQ(sh("diff -r --no-dereference " + original + " " + mountPoint_), 0);
  EXPECT_EQ(sh("cd " + original + " && find . -type f -printf '%p %s\\n' | sort > ../sizes.orig && cd " +
               mountPoint_ + " && find . -type f -printf '%p %s\\n' | sort > ../sizes.view && cmp ../sizes.orig "
               "../sizes.view"),
            0);
  // Copies out of the view are plain files with no trace of the layout.
  const std::string byCp = dir_ / "by-cp", byRsync = dir_ / "by-rsync";
  EXPECT_EQ(sh("cp -a " + mountPoint_ + " " + byCp), 0);
  EXPECT_EQ(sh("rsync -aX " + mountPoint_ + "/ " + byRsync + "/"), 0);
  for (const std::string& copy : {byCp, byRsync}) {
    EXPECT_EQ(sh("diff -r --no-dereference " + original + " " + copy), 0) << copy;
    EXPECT_NE(sh("getfattr -R -h -d -m - " + copy + " 2>/dev/null | grep -q -e com.apple -e zephlore.flags"), 0)
        << copy;
  }
  EXPECT_EQ(view_->unmount(), 0);
}

TEST_F(MountCommands, WritersSeeTheContentAndLeavePlainFiles) {
  const std::string text = compressibleData(200000, 3);
  for (const char* name : {"appended", "edited", "cut", "replaced"}) writeFile(source_ + "/" + name, text);
  compress(source_);
  ASSERT_TRUE(hasAttribute(source_ + "/appended", "user.com.apple.decmpfs"));

  ASSERT_NO_FATAL_FAILURE(mountView());
  const std::string m = mountPoint_;
  EXPECT_EQ(sh("echo tail >> " + m + "/appended"), 0);
  EXPECT_EQ(sh("sed -i s/alpha/ALPHA/g " + m + "/edited"), 0);
  EXPECT_EQ(sh("truncate -s 70000 " + m + "/cut"), 0);
  EXPECT_EQ(sh("echo new > " + m + "/replaced"), 0);

  std::string edited = text;
  for (size_t at = 0; (at = edited.find("alpha", at)) != std::string::npos;) edited.replace(at, 5, "ALPHA");
  struct Expected {
    const char* name;
    std::string content;
  };
  for (const Expected& e : {Expected{"appended", text + "tail\n"}, Expected{"edited", edited},
                            Expected{"cut", text.substr(0, 70000)}, Expected{"replaced", "new\n"}}) {
    const std::string beneath = source_ + "/" + e.name;
    EXPECT_TRUE(readFile(m + "/" + e.name) == e.content) << e.name;
    EXPECT_TRUE(readFile(beneath) == e.content) << e.name;
    EXPECT_FALSE(hasAttribute(beneath, "user.com.apple.decmpfs")) << e.name;
    EXPECT_FALSE(hasAttribute(beneath, "user.com.apple.ResourceFork")) << e.name;
  }
  EXPECT_EQ(view_->unmount(), 0);
}

TEST_F(MountCommands, LayoutAttributesAreHiddenAndOthersPassThrough) {
  writeFile(source_ + "/doc", compressibleData(100000));
  ASSERT_EQ(setxattr((source_ + "/doc").c_str(), "user.tag", "blue", 4, 0), 0);
  compress(source_);
  ASSERT_NO_FATAL_FAILURE(mountView());
  const std::string doc = mountPoint_ + "/doc";

  char names[4096];
  ssize_t n = listxattr(doc.c_str(), names, sizeof names);
  ASSERT_GT(n, 0);
  std::vector<std::string> listed;
  for (ssize_t at = 0; at < n; at += static_cast<ssize_t>(strlen(names + at)) + 1) listed.push_back(names + at);
  EXPECT_NE(std::find(listed.begin(), listed.end(), "user.tag"), listed.end());
  for (const std::string& name : listed) EXPECT_EQ(name.find("com.apple"), std::string::npos) << name;
  errno = 0;
  EXPECT_LT(getxattr(doc.c_str(), "user.com.apple.decmpfs", nullptr, 0), 0);
  EXPECT_EQ(errno, ENODATA);
  EXPECT_NE(setxattr(doc.c_str(), "user.com.apple.ResourceFork.1", "x", 1, 0), 0);
  EXPECT_EQ(setxattr(doc.c_str(), "user.more", "1", 1, 0), 0);
  EXPECT_TRUE(hasAttribute(source_ + "/doc", "user.more"));
  struct stat st;
  ASSERT_EQ(stat(doc.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 100000);
  EXPECT_GE(st.st_blocks * 512, 100000);

  // A conversion's copy beside a file is not listed (git add -A through a
  // view once failed on one that was gone when it opened it), but is still
  // reached by its name.
  const std::string copyName = ".zephlore-0123456789abcdef.c";
  writeFile(source_ + "/" + copyName, "a conversion's copy");
  writeFile(source_ + "/.zephlore-notes", "a user's own file");
  const std::string listing = testkit::runProcess({"ls", "-A", mountPoint_}).out;
  EXPECT_EQ(listing.find(copyName), std::string::npos) << listing;
  EXPECT_NE(listing.find(".zephlore-notes"), std::string::npos) << listing;
  EXPECT_EQ(readFile(mountPoint_ + "/" + copyName), "a conversion's copy");
  EXPECT_EQ(view_->unmount(), 0);
}

// The fork's header is big-endian, its block table little-endian.
uint32_t be32(const std::string& b, size_t at) {
  return (uint32_t{uint8_t(b[at])} << 24) | (uint32_t{uint8_t(b[at + 1])} << 16) |
         (uint32_t{uint8_t(b[at + 2])} << 8) | uint8_t(b[at + 3]);
}
uint32_t le32(const std::string& b, size_t at) {
  return uint8_t(b[at]) | (uint32_t{uint8_t(b[at + 1])} << 8) | (uint32_t{uint8_t(b[at + 2])} << 16) |
         (uint32_t{uint8_t(b[at + 3])} << 24);
}

TEST_F(MountCommands, CorruptBlockFailsAloneWithEIO) {
  const std::string file = source_ + "/damaged";
  const std::string text = compressibleData(4 * 65536, 9);
  writeFile(file, text);
  compress(source_);
  // Spoil the middle of block 1 in the fork.
  std::string fork(65536, '\0');
  ssize_t n = lgetxattr(file.c_str(), "user.com.apple.ResourceFork", fork.data(), fork.size());
  ASSERT_GT(n, 0);
  fork.resize(static_cast<size_t>(n));
  const size_t base = be32(fork, 0) + 4;
  ASSERT_EQ(le32(fork, base), 4u);  // block count
  const size_t block1 = base + le32(fork, base + 4 + 8);
  const size_t size1 = le32(fork, base + 4 + 12);
  for (size_t i = size1 / 2; i < size1 / 2 + 32; ++i) fork[block1 + i] = static_cast<char>(~fork[block1 + i]);
  ASSERT_EQ(lsetxattr(file.c_str(), "user.com.apple.ResourceFork", fork.data(), fork.size(), 0), 0);

  ASSERT_NO_FATAL_FAILURE(mountView());
  int fd = open((mountPoint_ + "/damaged").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char buf[4096];
  for (int block = 0; block < 4; ++block) {
    errno = 0;
    ssize_t got = pread(fd, buf, sizeof buf, block * 65536 + 8192);
    if (block == 1) {
      EXPECT_EQ(got, -1);
      EXPECT_EQ(errno, EIO);
    } else {
      ASSERT_EQ(got, static_cast<ssize_t>(sizeof buf)) << block;
      EXPECT_EQ(std::string(buf, sizeof buf), text.substr(block * 65536 + 8192, sizeof buf)) << block;
    }
  }
  close(fd);
  EXPECT_NE(sh("cat " + mountPoint_ + "/damaged > /dev/null 2>&1"), 0);
  EXPECT_EQ(view_->unmount(), 0);
  // One line for the bad block, however often it was asked for.
  size_t lines = 0;
  for (size_t at = 0; (at = view_->child().err().find("Block 1 of", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 1u) << view_->child().err();
}

// The kernel keeps what it read of a compressed file from one open to the
// next only while that file stays the same: a file replaced beneath the view
// by another of the same size and times reads as the new one.
TEST_F(MountCommands, AFileReplacedBeneathReadsAsItsNewContent) {
  const std::string first = compressibleData(150000, 21), second = compressibleData(150000, 22);
  writeFile(source_ + "/doc", first);
  mkdir((dir_ / "next").c_str(), 0755);
  writeFile(dir_ / "next/doc", second);
  compress(source_);
  compress(dir_ / "next");
  ASSERT_EQ(sh("touch -r " + source_ + "/doc " + dir_ / "next/doc"), 0);
  ASSERT_NO_FATAL_FAILURE(mountView());
  const std::string doc = mountPoint_ + "/doc";
  EXPECT_TRUE(readFile(doc) == first);
  EXPECT_TRUE(readFile(doc) == first);
  ASSERT_EQ(rename((dir_ / "next/doc").c_str(), (source_ + "/doc").c_str()), 0);
  EXPECT_TRUE(readFile(doc) == second);
  // Renamed through the view, it keeps its content; what comes to its old
  // name beneath is read afresh.
  ASSERT_EQ(rename(doc.c_str(), (mountPoint_ + "/moved").c_str()), 0);
  writeFile(dir_ / "third", first);
  ASSERT_EQ(rename((dir_ / "third").c_str(), (source_ + "/doc").c_str()), 0);
  EXPECT_TRUE(readFile(mountPoint_ + "/moved") == second);
  EXPECT_TRUE(readFile(doc) == first);
  EXPECT_EQ(view_->unmount(), 0);
}

// A reader racing a writer that truncates and rewrites files through the
// view reads their bytes or a short read, never zeros they never had: the
// kernel must not keep a size, or pages, of another state of the file. The
// compressed file is compressed again beneath (a swap) between rounds.
TEST_F(MountCommands, AReaderRacingATruncatingWriterNeverSeesZeros) {
  const std::vector<std::string> names = {"plain", "packed"};
  for (const std::string& name : names) writeFile(source_ + "/" + name, compressibleData(150000, 41));
  compress(source_ + "/packed");
  ASSERT_NO_FATAL_FAILURE(mountView());

  std::atomic<bool> writing{true};
  std::atomic<int> zeroReads{0};
  std::atomic<uint64_t> bytesRead{0};
  // Each reader holds its file open over several passes, as a program that
  // follows a file does.
  auto readOver = [&](const std::string& name) {
    std::vector<char> buf(48 * 1024);
    for (int opens = 0; opens < 100000 && writing; ++opens) {
      const int fd = open((mountPoint_ + "/" + name).c_str(), O_RDONLY);
      if (fd < 0) continue;
      for (int pass = 0; pass < 8; ++pass) {
        ssize_t n = 0;
        for (off_t at = 0; (n = pread(fd, buf.data(), buf.size(), at)) > 0; at += n) {
          bytesRead += static_cast<uint64_t>(n);
          if (memchr(buf.data(), '\0', static_cast<size_t>(n))) ++zeroReads;
        }
      }
      close(fd);
    }
  };
  std::thread plainReader(readOver, "plain"), packedReader(readOver, "packed");
  std::string last[2];
  {
    struct Joined {
      std::atomic<bool>& writing;
      std::thread &a, &b;
      ~Joined() {
        writing = false;
        a.join();
        b.join();
      }
    } joined{writing, plainReader, packedReader};
    for (int round = 0; round < 60; ++round) {
      for (int i = 0; i < 2; ++i) {
        last[i] = compressibleData(20000 + static_cast<size_t>(round * 7919 * (i + 3)) % 180000,
                                   static_cast<uint32_t>(round));
        const int fd = open((mountPoint_ + "/" + names[static_cast<size_t>(i)]).c_str(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0) << names[static_cast<size_t>(i)] << " round " << round << ": " << strerror(errno);
        for (size_t at = 0; at < last[i].size(); at += 12345) {
          const size_t n = std::min<size_t>(12345, last[i].size() - at);
          ASSERT_EQ(write(fd, last[i].data() + at, n), static_cast<ssize_t>(n));
        }
        close(fd);
      }
      // The reader's opens may break the swap: tried again, a few times.
      for (int attempt = 0; attempt < 5 && runZephlore({"compress", "-q", source_ + "/packed"}).status != 0;) {
        ++attempt;
      }
    }
  }
  EXPECT_EQ(zeroReads, 0) << "reads that saw zero bytes, of " << bytesRead << " bytes read";
  EXPECT_GT(bytesRead, 0u);
  EXPECT_TRUE(readFile(mountPoint_ + "/plain") == last[0]);
  EXPECT_TRUE(readFile(mountPoint_ + "/packed") == last[1]);
  EXPECT_EQ(view_->unmount(), 0) << view_->child().err();
}

TEST_F(MountCommands, KilledViewAnswersENOTCONNUntilUnmountedOrRestarted) {
  const std::string text = compressibleData(150000, 5);
  writeFile(source_ + "/kept", text);
  compress(source_);
  ASSERT_NO_FATAL_FAILURE(mountView());
  view_->killHard();
  struct stat st;
  errno = 0;
  EXPECT_NE(stat((mountPoint_ + "/kept").c_str(), &st), 0);
  EXPECT_EQ(errno, ENOTCONN);
  // The next start takes the place of the dead view.
  MountedView again({source_, mountPoint_});
  ASSERT_TRUE(again.ready()) << again.child().err();
  EXPECT_TRUE(readFile(mountPoint_ + "/kept") == text);
  again.killHard();
  errno = 0;
  EXPECT_NE(stat((mountPoint_ + "/kept").c_str(), &st), 0);
  EXPECT_EQ(errno, ENOTCONN);
  auto r = runZephlore({"unmount", mountPoint_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(stat(mountPoint_.c_str(), &st), 0);
  EXPECT_NE(runZephlore({"unmount", mountPoint_}).status, 0);  // nothing there any more
  EXPECT_TRUE(hasAttribute(source_ + "/kept", "user.com.apple.decmpfs"));
  EXPECT_TRUE(runZephlore({"cat", source_ + "/kept"}).out == text);
}

TEST_F(MountCommands, OverAFolderItsOwnPathsReadFullAndEverythingPassesThrough) {
  const std::string text = compressibleData(120000, 11);
  writeFile(source_ + "/letter", text);
  compress(source_);
  ASSERT_NO_FATAL_FAILURE(mountView(kOverTheSource));
  EXPECT_TRUE(readFile(source_ + "/letter") == text);
  const std::string s = source_;
  EXPECT_EQ(sh("cd " + s + " && mkdir d && mkfifo d/fifo && ln letter d/hard && ln -s letter link && "
               "printf 'x\\ny' > \"$(printf 'new\\nline')\" && printf z > \"$(printf 'bad\\377name')\" && mv d e && chmod 600 e/hard && touch -d 2001-01-01 e && "
               "test \"$(stat -c %h e/hard)\" = 2 && test -p e/fifo && test \"$(cat link | wc -c)\" = 120000"),
            0);
  EXPECT_EQ(view_->unmount(), 0);
  // Beneath, the file is still compressed, under both names.
  EXPECT_TRUE(runZephlore({"cat", source_ + "/e/hard"}).out == text);
  struct stat st;
  ASSERT_EQ(stat((source_ + "/e/hard").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_nlink, 2u);
  EXPECT_EQ(readFile(source_ + "/new\nline"), "x\ny");
  EXPECT_EQ(readFile(source_ + "/bad\377name"), "z");
}

// Without its view a folder's compressed files read as empty, and an edit
// would write an empty file over one: unmounting such a folder is refused
// until its files are expanded, or forced.
TEST_F(MountCommands, UnmountOfAFolderWithCompressedFilesIsRefusedUnlessExpandedOrForced) {
  const std::string text = compressibleData(120000, 51);
  mkdir((source_ + "/sub").c_str(), 0755);
  for (const char* name : {"a", "sub/b"}) writeFile(source_ + "/" + name, text);
  compress(source_);
  writeFile(source_ + "/note", "plain");
  LazyUnmount unmounter{source_};
  ASSERT_EQ(runZephlore({"mount", "--over", source_}).status, 0);
  const std::string beneath = view::pathBeneathViews(source_);
  ASSERT_NE(beneath, source_);

  auto r = runZephlore({"unmount", source_});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("holds 2 compressed files"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("zephlore unmount --expand " + source_), std::string::npos) << r.err;
  EXPECT_TRUE(readFile(source_ + "/sub/b") == text);  // still shown whole
  EXPECT_TRUE(hasAttribute(beneath + "/a", "user.com.apple.decmpfs"));

  r = runZephlore({"unmount", "--expand", source_});
  EXPECT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(view::pathBeneathViews(source_), source_);  // no view any more
  for (const char* name : {"a", "sub/b"}) {
    EXPECT_TRUE(readFile(source_ + "/" + name) == text) << name;
    EXPECT_FALSE(hasAttribute(source_ + "/" + name, "user.com.apple.decmpfs")) << name;
  }
  EXPECT_EQ(readFile(source_ + "/note"), "plain");

  compress(source_);
  ASSERT_EQ(runZephlore({"mount", "--over", source_}).status, 0);
  r = runZephlore({"unmount", "--force", source_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(view::pathBeneathViews(source_), source_);
  EXPECT_TRUE(hasAttribute(source_ + "/a", "user.com.apple.decmpfs"));
  EXPECT_TRUE(runZephlore({"cat", source_ + "/a"}).out == text);
}

// A view over a folder killed hard: every command that touches the folder
// names the one command that puts it back, unmount will not detach it
// blindly, and that command brings back the full content.
TEST_F(MountCommands, AKilledViewIsNamedWithTheCommandThatPutsItBack) {
  const std::string text = compressibleData(120000, 52);
  writeFile(source_ + "/doc", text);
  compress(source_);
  ASSERT_NO_FATAL_FAILURE(mountView(kOverTheSource));
  // A program that keeps a file open in the view when it dies.
  const int held = open((source_ + "/doc").c_str(), O_RDONLY);
  ASSERT_GE(held, 0);
  view_->killHard();
  const std::string advice = "put it back with: zephlore mount --over " + source_;
  for (std::vector<std::string> command : std::vector<std::vector<std::string>>{
           {"info", source_ + "/doc"}, {"compress", "-r", source_}, {"decompress", source_ + "/doc"},
           {"cat", source_ + "/doc"}, {"repair", source_}}) {
    auto r = runZephlore(command);
    EXPECT_EQ(r.status, 1) << command[0];
    EXPECT_NE(r.err.find(advice), std::string::npos) << command[0] << ": " << r.err;
  }
  auto r = runZephlore({"unmount", source_});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("zephlore mount --over " + source_), std::string::npos) << r.err;
  errno = 0;
  EXPECT_LT(open((source_ + "/doc").c_str(), O_RDONLY), 0);
  EXPECT_EQ(errno, ENOTCONN);  // still the stopped view, not the stored files

  LazyUnmount unmounter{source_};
  r = runZephlore({"mount", "--over", source_});
  ASSERT_EQ(r.status, 0) << r.err;
  close(held);
  EXPECT_TRUE(readFile(source_ + "/doc") == text);
  struct stat st;
  ASSERT_EQ(stat((source_ + "/doc").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(text.size()));
  EXPECT_TRUE(hasAttribute(view::pathBeneathViews(source_) + "/doc", "user.com.apple.decmpfs"));

  // Stopped again, unmount --expand puts it back, expands and unmounts.
  std::optional<view::ViewCover> cover = view::viewCovering(source_);
  ASSERT_TRUE(cover);
  const pid_t pid = std::stoi(cover->beneath.substr(strlen("/proc/")));
  // Not our child: its end is awaited through a pidfd, for 10 s at most.
  const int exited = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  ASSERT_GE(exited, 0);
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  pollfd ended{exited, POLLIN, 0};
  EXPECT_EQ(poll(&ended, 1, 10000), 1);
  close(exited);
  ASSERT_TRUE(view::isDeadView(source_ + "/doc"));
  r = runZephlore({"unmount", "--expand", source_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(view::isDeadView(source_));
  EXPECT_TRUE(readFile(source_ + "/doc") == text);
  EXPECT_FALSE(hasAttribute(source_ + "/doc", "user.com.apple.decmpfs"));
}

TEST_F(MountCommands, AFileOpenForWritingThroughTheViewIsNotCompressedBeneathIt) {
  const std::string text = compressibleData(80000, 17);
  writeFile(source_ + "/draft", text);
  ASSERT_NO_FATAL_FAILURE(mountView(kOverTheSource));
  int writer = open((source_ + "/draft").c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(writer, 0);
  auto r = runZephlore({"compress", "-v", source_ + "/draft"});
  EXPECT_NE(r.err.find("open for writing"), std::string::npos) << r.err << r.out;
  ASSERT_EQ(write(writer, "more", 4), 4);
  close(writer);
  EXPECT_TRUE(readFile(source_ + "/draft") == text + "more");
  // Once the writer is gone the file is compressed beneath and reads the same.
  r = runZephlore({"compress", source_ + "/draft"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(readFile(source_ + "/draft") == text + "more");
  EXPECT_EQ(view_->unmount(), 0) << view_->child().err();
  EXPECT_TRUE(hasAttribute(source_ + "/draft", "user.com.apple.decmpfs"));
}

// Through a view every file looks plain: info, cat and repair look at the
// files stored beneath it instead, given the folder's usual paths.
TEST_F(MountCommands, InfoCatAndRepairLookBeneathAView) {
  const std::string text = compressibleData(150000, 23);
  writeFile(source_ + "/doc", text);
  writeFile(source_ + "/written", text);
  compress(source_);
  ASSERT_NO_FATAL_FAILURE(mountView(kOverTheSource));
  const std::string beneath = view::pathBeneathViews(source_);
  ASSERT_NE(beneath, source_);
  // A program that opened the file before the view wrote beside its fork.
  ASSERT_EQ(sh("printf new >> " + beneath + "/written"), 0);

  auto r = runZephlore({"info", source_ + "/doc"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("doc: compressed"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("com.apple.decmpfs"), std::string::npos) << r.out;
  r = runZephlore({"info", "-r", "--json", source_});
  EXPECT_NE(r.out.find("\"compressed_files\":1"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"mixed_files_count\":1"), std::string::npos) << r.out;

  // A relative path under the view is looked at beneath it as well.
  const std::string part = dir_ / "part";
  EXPECT_EQ(sh("cd " + source_ + " && " + testkit::zephloreBinary() + " cat --offset 1000 --length 5000 doc > " + part),
            0);
  EXPECT_TRUE(readFile(part) == text.substr(1000, 5000));

  r = runZephlore({"repair", "-q", source_ + "/written"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(hasAttribute(beneath + "/written", "user.com.apple.decmpfs"));
  EXPECT_EQ(readFile(source_ + "/written"), "new");
  EXPECT_TRUE(readFile(source_ + "/written.zephlore-recovered") == text);
  EXPECT_EQ(view_->unmount(), 0) << view_->child().err();
}

// Debian ships /dev/fuse open to every user, and fusermount3 mounts for
// them. Where it is root's alone (as on the machines the tests run on), one
// unprivileged user is let in for the test's duration by an ACL entry.
class FuseOpenedTo {
 public:
  explicit FuseOpenedTo(std::string user) : user_(std::move(user)) {
    opened_ = sh("setfacl -m u:" + user_ + ":rw /dev/fuse 2>/dev/null") == 0;
  }
  ~FuseOpenedTo() {
    // The mask entry the grant added goes too when no other entry needs it.
    if (opened_) sh("setfacl -x u:" + user_ + " /dev/fuse && { getfacl -cp /dev/fuse | grep -q '^user:[^:]' || setfacl -b /dev/fuse; }");
  }
  bool opened() const { return opened_; }

 private:
  std::string user_;
  bool opened_ = false;
};

TEST_F(MountCommands, AnUnprivilegedUserMountsReadsWritesAndUnmounts) {
  if (geteuid() != 0 || !getpwnam("nobody") || access("/usr/sbin/runuser", X_OK) != 0) {
    GTEST_SKIP() << "needs root, runuser and the user nobody to act as an unprivileged user";
  }
  FuseOpenedTo fuse("nobody");
  if (!fuse.opened()) GTEST_SKIP() << "/dev/fuse takes no ACL entries here";
  const std::string home = dir_ / "home";
  ASSERT_EQ(mkdir(home.c_str(), 0700), 0);
  const std::string text = compressibleData(200000, 21);
  writeFile(source_ + "/doc.txt", text);
  // The user runs a copy of its own: the checkout may lie where only its
  // owner can enter (a home folder of mode 0700).
  const std::string zephlore = dir_ / "zephlore";
  ASSERT_EQ(sh("cp '" + testkit::zephloreBinary() + "' '" + zephlore + "' && chmod 0755 '" + zephlore + "'"), 0);
  ASSERT_EQ(sh("chown -R nobody: '" + dir_.path() + "'"), 0);
  // Everything from here on runs as nobody, in a home of its own.
  auto asNobody = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/sbin/runuser", "-u", "nobody", "--", "env", "HOME=" + home,
                               "XDG_RUNTIME_DIR=" + home, "XDG_DATA_HOME=" + home});
    return testkit::runProcess(args);
  };
  auto r = asNobody({zephlore, "compress", "-q", source_ + "/doc.txt"});
  ASSERT_EQ(r.status, 0) << r.err;
  struct Unmounter {
    std::string at;
    ~Unmounter() { sh("umount -l '" + at + "' 2>/dev/null"); }
  } unmounter{mountPoint_};
  r = asNobody({zephlore, "mount", source_, mountPoint_});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(readFile("/proc/self/mounts").find(mountPoint_ + " fuse.zephlore rw,nosuid,nodev"), std::string::npos);
  EXPECT_EQ(asNobody({"cat", mountPoint_ + "/doc.txt"}).out, text);
  // A write through the view expands the file first, in the user's name.
  r = asNobody({"sh", "-c", "printf more >> '" + mountPoint_ + "/doc.txt'"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(source_ + "/doc.txt"), text + "more");
  struct stat st;
  ASSERT_EQ(stat((source_ + "/doc.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, getpwnam("nobody")->pw_uid);
  r = asNobody({zephlore, "unmount", mountPoint_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile("/proc/self/mounts").find(mountPoint_), std::string::npos);
}

}  // namespace
}  // namespace zephlore::cli
