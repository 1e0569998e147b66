#include "base/data_folder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/xdg.h"

namespace zephlore {
namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::optional<std::string> earlierFolderIn(const std::string& base) {
  for (const char* earlier : kEarlierDataFolderNames) {
    std::string candidate = base + "/" + earlier;
    if (isDirectory(candidate)) return candidate;
  }
  return std::nullopt;
}

std::string fileIn(const std::string& folder, const char* name) {
  return folder.empty() ? "" : folder + "/" + name;
}

}  // namespace

std::optional<std::string> chooseDataFolderIn(const std::string& base, Error* error) {
  if (std::optional<std::string> earlier = earlierFolderIn(base)) return earlier;
  std::string folder = base + "/" + kDataFolderName;
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

std::optional<std::string> findDataFolder(Error* error) {
  std::optional<std::string> base = dataHome();
  if (!base) {
    fail(error, kHelperErrorDomain, ENOENT, "no home folder and no private runtime folder");
    return std::nullopt;
  }
  if (!makeFolders(*base, error)) return std::nullopt;
  return chooseDataFolderIn(*base, error);
}

std::optional<std::string> existingDataFolder() {
  std::optional<std::string> base = dataHome();
  if (!base) return std::nullopt;
  if (std::optional<std::string> earlier = earlierFolderIn(*base)) return earlier;
  std::string folder = *base + "/" + kDataFolderName;
  if (!isDirectory(folder)) return std::nullopt;
  return folder;
}

std::string exclusionPathsFileIn(const std::string& dataFolder) {
  return fileIn(dataFolder, kExclusionPathsFileName);
}

std::string exclusionExtensionsFileIn(const std::string& dataFolder) {
  return fileIn(dataFolder, kExclusionExtensionsFileName);
}

}  // namespace zephlore
