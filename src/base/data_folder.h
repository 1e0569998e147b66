// The helper's private data folder, where its settings, exclusion lists,
// history and in-process record live. Below the helper because the platform
// layer keeps its temporary files there when no runtime folder exists.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "base/error.h"
#include "base/shared_instance.h"

namespace zephlore {

class DataFolder {
 public:
  // Folders of earlier installations, taken in this order when present so
  // that their data is reused where it is rather than moved.
  static constexpr const char* kEarlierNames[] = {"Krimble", "Krimbler"};
  static constexpr const char* kName = "Zephlore";
  static constexpr const char* kExclusionPathsFileName = "excludedPaths.plist";
  static constexpr const char* kExclusionExtensionsFileName = "excludedExtensions.plist";

  // The process's folder, found on first use; see path().
  static DataFolder& shared() { return sharedInstance().get(); }
  static SharedInstance<DataFolder>& sharedInstance();

  DataFolder() = default;
  DataFolder(const DataFolder&) = delete;
  DataFolder& operator=(const DataFolder&) = delete;

  // Inside the user's data home the first existing earlier folder, else
  // "Zephlore", created with mode 0700 when missing. Once found the path is
  // kept for the life of this object, also if the folder is removed later.
  // None when it could not be made; then nothing is kept and the next call
  // tries again.
  std::optional<std::string> path(Error* error = nullptr);

  // The choice inside `base` (no cache, no parents made).
  static std::optional<std::string> chooseIn(const std::string& base, Error* error);

 private:
  std::mutex mutex_;
  std::optional<std::string> path_;
};

}  // namespace zephlore
