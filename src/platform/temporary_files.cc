#include "platform/temporary_files.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <random>

#include "base/data_folder.h"
#include "base/xdg.h"
#include "platform/platform_error.h"

namespace zephlore {
std::optional<std::string> TemporaryFiles::privateDirectory(Error* error) {
  if (auto runtime = privateRuntimeFolder()) return runtime;
  // The folder the process's main found; one removed since is not made anew.
  std::optional<std::string> data = existingDataFolder();
  if (!data) {
    failWithErrno(error, ENOENT, "no private runtime folder and no data folder");
    return std::nullopt;
  }
  if (!isSafeParent(*data, error)) return std::nullopt;
  return makePrivateDirectory(*data + "/tmp", error);
}

std::optional<TemporaryFiles::Created> TemporaryFiles::create(Env& env, const std::string& prefix,
                                                              Error* error,
                                                              const std::string& dir) {
  std::string folder = dir;
  if (folder.empty()) {
    std::optional<std::string> own = privateDirectory(error);
    if (!own) return std::nullopt;
    folder = *own;
  }
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string path = folder + "/" + prefix + randomSuffix(6);
    int fd = env.open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) return Created{std::move(path), UniqueFd(fd)};
    if (errno != EEXIST) {
      failWithErrno(error, errno, "cannot create a temporary file in " + folder);
      return std::nullopt;
    }
  }
  failWithErrno(error, EEXIST, "cannot find a free temporary file name in " + folder);
  return std::nullopt;
}

int TemporaryFiles::createReplacingOwnLeftover(Env& env, const std::string& path, int flags, mode_t mode,
                                               bool lock, Error* error) {
  struct stat st;
  if (env.lstat(path, &st) == 0) {
    const char* problem = nullptr;
    if (S_ISLNK(st.st_mode)) {
      problem = "a symbolic link";
    } else if (!S_ISREG(st.st_mode)) {
      problem = "not a regular file";
    } else if (st.st_uid != geteuid()) {
      problem = "a file of another user";
    } else if (st.st_nlink != 1) {
      problem = "a file with other links";
    }
    if (problem) {
      failWithErrno(error, EEXIST,
                    "refusing to replace " + path + ": it is " + problem + ", not a leftover of ours");
      return -1;
    }
    if (env.unlink(path) != 0 && errno != ENOENT) {
      failWithErrno(error, errno, "cannot remove the leftover " + path);
      return -1;
    }
  } else if (errno != ENOENT) {
    failWithErrno(error, errno, "cannot read " + path);
    return -1;
  }
  // O_EXCL: whatever appeared since the look above makes this fail rather
  // than be written through.
  flags |= O_CREAT | O_EXCL;
  int fd = lock ? env.openLocked(path, flags, mode) : env.open(path, flags, mode);
  if (fd < 0) failWithErrno(error, errno, "cannot create " + path);
  return fd;
}

std::string TemporaryFiles::randomSuffix(size_t length) {
  static constexpr char kChars[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::string bytes(length, '\0');
  if (getrandom(bytes.data(), length, 0) != static_cast<ssize_t>(length)) {
    std::random_device device;  // getrandom is never short for small sizes; just in case
    for (char& c : bytes) c = static_cast<char>(device());
  }
  std::string out;
  for (char c : bytes) out.push_back(kChars[static_cast<unsigned char>(c) % (sizeof kChars - 1)]);
  return out;
}

}  // namespace zephlore
