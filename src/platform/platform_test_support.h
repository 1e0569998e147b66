// Test support for the platform layer and the services above it: scratch
// folders on /dev/shm (tmpfs holds 64 KiB attribute values), small file
// helpers, and a loop-mounted file-system image for behaviour that only a
// particular file system shows.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace zephlore::testing {

class TempDir {
 public:
  explicit TempDir(const std::string& base = "/dev/shm") {
    std::string templ = base + "/zephlore-platform-XXXXXX";
    if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp " + templ);
    path_ = templ;
  }
  ~TempDir() {
    nftw(
        path_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); },
        16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, const std::string& data, mode_t mode = 0644) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("open " + path);
  if (::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
    ::close(fd);
    throw std::runtime_error("write " + path);
  }
  ::close(fd);
}

inline std::string readFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("open " + path);
  std::string data;
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) data.append(buf, static_cast<size_t>(n));
  ::close(fd);
  return data;
}

// A child process that runs `setup` and then waits until released, so that
// a test can look at it from outside without any sleep.
class Child {
 public:
  template <typename Setup>
  explicit Child(Setup setup) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      ::close(release[1]);
      char ok = setup() ? 1 : 0;
      if (::write(ready[1], &ok, 1) != 1) _exit(2);
      char c;
      while (::read(release[0], &c, 1) < 0 && errno == EINTR) {
      }
      _exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    release_ = release[1];
    char ok = 0;
    ready_ = ::read(ready[0], &ok, 1) == 1 && ok == 1;
    ::close(ready[0]);
  }
  ~Child() {
    ::close(release_);
    int status;
    waitpid(pid_, &status, 0);
  }
  pid_t pid() const { return pid_; }
  bool ready() const { return ready_; }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool ready_ = false;
};

// A file-system image made with `mkfs` (a shell command taking the image
// path as its last word) and loop-mounted at a fresh directory; unmounted
// and removed at the end. ok() is false, with skipReason() saying why, when
// this process may not mount or the tools are missing.
class LoopMount {
 public:
  explicit LoopMount(const std::string& mkfs, const std::string& size = "64M") {
    if (geteuid() != 0) {
      reason_ = "mounting a loop image needs root";
      return;
    }
    image_ = dir_ / "image";
    mountPoint_ = dir_ / "mnt";
    const std::string quiet = " >/dev/null 2>&1";
    if (std::system(("truncate -s " + size + " " + image_ + quiet).c_str()) != 0 ||
        std::system((mkfs + " " + image_ + quiet).c_str()) != 0) {
      reason_ = "cannot make the image with: " + mkfs;
      return;
    }
    ::mkdir(mountPoint_.c_str(), 0755);
    if (std::system(("mount -o loop " + image_ + " " + mountPoint_ + quiet).c_str()) != 0) {
      reason_ = "cannot loop-mount an image here (no loop device?)";
      return;
    }
    mounted_ = true;
  }
  ~LoopMount() {
    if (mounted_) ::umount2(mountPoint_.c_str(), MNT_DETACH);
  }
  LoopMount(const LoopMount&) = delete;
  LoopMount& operator=(const LoopMount&) = delete;

  bool ok() const { return mounted_; }
  const std::string& skipReason() const { return reason_; }
  const std::string& path() const { return mountPoint_; }
  std::string operator/(const std::string& name) const { return mountPoint_ + "/" + name; }

 private:
  TempDir dir_;
  std::string image_;
  std::string mountPoint_;
  std::string reason_;
  bool mounted_ = false;
};

// mkfs command for ext4 as distributions make it: no large attribute values
// (ea_inode), so all of a file's attributes share about one block.
inline const char* kDefaultExt4 = "mkfs.ext4 -q -F -O ^ea_inode";

}  // namespace zephlore::testing
