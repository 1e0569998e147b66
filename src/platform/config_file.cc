#include "platform/config_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace zephlore {
namespace {

std::string notRegular(mode_t mode) { return fileTypePhrase(mode) + ", not a regular file"; }

}  // namespace

std::string fileTypePhrase(mode_t mode) {
  if (S_ISREG(mode)) return "a regular file";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  if (S_ISLNK(mode)) return "a symbolic link";
  return "an unknown kind of file";
}

OpenedConfigFile openConfigFile(Env& env, const std::string& path) {
  OpenedConfigFile file;
  // Resolved first, so that the open itself never follows a link: a link put
  // in between fails instead of leading somewhere unchecked.
  std::optional<std::string> resolved = env.realPath(path);
  if (!resolved) {
    file.status = errno == ENOENT ? ConfigFileStatus::kMissing : ConfigFileStatus::kUnreadable;
    file.problem = std::strerror(errno);
    return file;
  }
  // O_NONBLOCK: opening a FIFO for reading would wait for a writer.
  file.fd.reset(env.open(*resolved, O_RDONLY | O_NONBLOCK));
  if (!file.fd) {
    const int err = errno;
    struct stat st;
    if (env.stat(*resolved, &st) == 0 && !S_ISREG(st.st_mode)) {  // a socket: ENXIO
      file.status = ConfigFileStatus::kNotRegular;
      file.problem = notRegular(st.st_mode);
    } else {
      file.status = err == ENOENT ? ConfigFileStatus::kMissing : ConfigFileStatus::kUnreadable;
      file.problem = std::strerror(err);
    }
    return file;
  }
  if (env.fstat(file.fd.get(), &file.st) != 0) {
    file.status = ConfigFileStatus::kUnreadable;
    file.problem = std::strerror(errno);
    file.fd.reset();
    return file;
  }
  if (!S_ISREG(file.st.st_mode)) {
    file.status = ConfigFileStatus::kNotRegular;
    file.problem = notRegular(file.st.st_mode);
    file.fd.reset();
    return file;
  }
  file.status = ConfigFileStatus::kOk;
  return file;
}

ConfigFileText readConfigFile(Env& env, const std::string& path, size_t maxBytes) {
  ConfigFileText result;
  OpenedConfigFile file = openConfigFile(env, path);
  result.status = file.status;
  result.problem = file.problem;
  if (file.status != ConfigFileStatus::kOk) return result;
  const std::string tooLarge = "larger than " + std::to_string(maxBytes) + " bytes";
  if (static_cast<uint64_t>(file.st.st_size) > maxBytes) {
    result.status = ConfigFileStatus::kUnreadable;
    result.problem = tooLarge;
    return result;
  }
  // One byte more than allowed tells a file that grew since fstat.
  result.text.resize(static_cast<size_t>(file.st.st_size) + 1);
  size_t got = 0;
  for (;;) {
    ssize_t n = env.preadFully(file.fd.get(), result.text.data() + got, result.text.size() - got, got);
    if (n < 0) {
      result.status = ConfigFileStatus::kUnreadable;
      result.problem = std::strerror(errno);
      result.text.clear();
      return result;
    }
    got += static_cast<size_t>(n);
    if (got < result.text.size()) break;
    if (got > maxBytes) {
      result.status = ConfigFileStatus::kUnreadable;
      result.problem = tooLarge;
      result.text.clear();
      return result;
    }
    result.text.resize(std::min(result.text.size() * 2, maxBytes + 1));
  }
  result.text.resize(got);
  return result;
}

std::optional<std::string> configWriteTarget(Env& env, const std::string& path, std::string* problem) {
  struct stat st;
  if (env.lstat(path, &st) != 0) return path;
  if (S_ISREG(st.st_mode)) return path;
  if (S_ISLNK(st.st_mode)) {
    struct stat target;
    if (env.stat(path, &target) != 0) return path;  // leads nowhere: replaced
    if (S_ISREG(target.st_mode)) {
      if (std::optional<std::string> resolved = env.realPath(path)) return resolved;
      return path;
    }
    if (problem) *problem = "a link to " + notRegular(target.st_mode);
    return std::nullopt;
  }
  if (problem) *problem = notRegular(st.st_mode);
  return std::nullopt;
}

}  // namespace zephlore
