#include "base/data_folder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/util.h"
#include "base/xdg.h"

namespace zephlore {
namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

SharedInstance<DataFolder>& DataFolder::sharedInstance() {
  static SharedInstance<DataFolder> instance([] { return new DataFolder; });
  return instance;
}

std::optional<std::string> DataFolder::chooseIn(const std::string& base, Error* error) {
  for (const char* earlier : kEarlierNames) {
    std::string candidate = base + "/" + earlier;
    if (isDirectory(candidate)) return candidate;
  }
  std::string folder = base + "/" + kName;
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    fail(error, kHelperErrorDomain, errno,
         "cannot create the data folder " + folder + ": " + std::strerror(errno));
    return std::nullopt;
  }
  if (!isDirectory(folder)) {
    fail(error, kHelperErrorDomain, ENOTDIR, "the data folder " + folder + " is not a folder");
    return std::nullopt;
  }
  return folder;
}

std::optional<std::string> DataFolder::path(Error* error) {
  std::lock_guard lock(mutex_);
  if (path_) return path_;
  std::optional<std::string> base = dataHome();
  if (!base) {
    fail(error, kHelperErrorDomain, ENOENT, "no home folder and no private runtime folder");
    return std::nullopt;
  }
  if (!makeFolders(*base, error)) return std::nullopt;
  path_ = chooseIn(*base, error);
  return path_;
}

// --- The forms the rest of the helper calls ----------------------------------

std::optional<std::string> KRUtil::applicationSupportFolder() {
  return DataFolder::shared().path();
}

std::optional<std::string> KRUtil::applicationSupportFolder(Error* error) {
  return DataFolder::shared().path(error);
}

std::string KRUtil::pathToExclusionPathsFile() {
  std::optional<std::string> folder = applicationSupportFolder();
  return folder ? *folder + "/" + DataFolder::kExclusionPathsFileName : "";
}

std::string KRUtil::pathToExclusionExtensionsFile() {
  std::optional<std::string> folder = applicationSupportFolder();
  return folder ? *folder + "/" + DataFolder::kExclusionExtensionsFileName : "";
}

}  // namespace zephlore
