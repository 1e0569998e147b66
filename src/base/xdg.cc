#include "base/xdg.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"

namespace zephlore {
namespace {

bool isAbsolute(const char* path) { return path && path[0] == '/'; }

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool failWithErrno(Error* error, int err, const std::string& what) {
  return fail(error, kPosixErrorDomain, err, what + ": " + std::strerror(err));
}

// The user database's home for this user; it does not change while we run.
const std::string& userDatabaseHome() {
  static const std::string* home = [] {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) != 0 || !found ||
        !isAbsolute(found->pw_dir)) {
      return new std::string;
    }
    return new std::string(found->pw_dir);
  }();
  return *home;
}

// `variable` when absolute, else home + `underHome`, else the private
// runtime folder.
std::optional<std::string> baseFolder(const char* variable, const char* underHome) {
  const char* value = getenv(variable);
  if (value && *value) {
    if (isAbsolute(value)) return std::string(value);
    KRLog("ignoring %s \"%s\": not an absolute path", variable, value);
  }
  std::string home = homeFolder();
  if (!home.empty()) return home + underHome;
  Error error;
  std::optional<std::string> runtime = privateRuntimeFolder(&error);
  if (runtime) {
    KRLog("no home folder known; keeping files in the private folder %s", runtime->c_str());
  } else {
    KRLog("*** no home folder known and no private runtime folder: %s", error.message.c_str());
  }
  return runtime;
}

}  // namespace

std::string homeFolder() {
  const char* home = getenv("HOME");
  if (isAbsolute(home)) return home;
  return userDatabaseHome();
}

std::optional<std::string> dataHome() { return baseFolder("XDG_DATA_HOME", "/.local/share"); }

std::string configHome() { return baseFolder("XDG_CONFIG_HOME", "/.config").value_or(""); }

std::optional<std::string> privateRuntimeFolder(Error* error) {
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (!isAbsolute(runtime)) {
    fail(error, kPosixErrorDomain, ENOENT, "XDG_RUNTIME_DIR is not set to a full path");
    return std::nullopt;
  }
  if (!isSafeParent(runtime, error)) return std::nullopt;
  return makePrivateDirectory(std::string(runtime) + "/zephlore", error);
}

bool makeFolders(const std::string& path, Error* error) {
  if (isDirectory(path)) return true;
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string prefix = path.substr(0, pos);
    if (mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      return failWithErrno(error, errno, "cannot create the folder " + prefix);
    }
  }
  if (!isDirectory(path)) return fail(error, kPosixErrorDomain, ENOTDIR, path + " is not a folder");
  return true;
}

std::optional<std::string> makePrivateDirectory(const std::string& path, Error* error) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    failWithErrno(error, errno, "cannot create " + path);
    return std::nullopt;
  }
  // lstat: a symlink planted in a shared folder must not redirect us.
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    failWithErrno(error, errno, "cannot read " + path);
    return std::nullopt;
  }
  const char* problem = nullptr;
  if (S_ISLNK(st.st_mode)) {
    problem = "is a symbolic link";
  } else if (!S_ISDIR(st.st_mode)) {
    problem = "is not a folder";
  } else if (st.st_uid != geteuid()) {
    problem = "belongs to another user";
  } else if (st.st_mode & 077) {
    problem = "is open to other users";
  }
  if (problem) {
    fail(error, kPosixErrorDomain, EPERM, path + " " + problem);
    return std::nullopt;
  }
  return path;
}

bool isSafeParent(const std::string& path, Error* error) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return failWithErrno(error, errno, "cannot read " + path);
  if (!S_ISDIR(st.st_mode) || (st.st_uid != geteuid() && st.st_uid != 0) ||
      (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fail(error, kPosixErrorDomain, EPERM,
                path + " is not a private folder of this user");
  }
  return true;
}

}  // namespace zephlore
