// The helper's private data folder, where its settings, exclusion lists,
// history and in-process record live. Each main finds it once and hands the
// path to the parts that keep files there; nothing here keeps state, so a
// folder removed under a running process stays removed. Below the helper
// because the platform layer keeps its temporary files there when no runtime
// folder exists.
#pragma once

#include <optional>
#include <string>

#include "base/error.h"

namespace zephlore {

// Folders of earlier installations, taken in this order when present so
// that their data is reused where it is rather than moved.
inline constexpr const char* kEarlierDataFolderNames[] = {"Krimble", "Krimbler"};
inline constexpr const char* kDataFolderName = "Zephlore";
inline constexpr const char* kExclusionPathsFileName = "excludedPaths.plist";
inline constexpr const char* kExclusionExtensionsFileName = "excludedExtensions.plist";

// Inside the user's data home the first existing earlier folder, else
// "Zephlore", created with mode 0700 (and the data home with it) when
// missing. None when it could not be made.
std::optional<std::string> findDataFolder(Error* error = nullptr);

// What a main found, handed to parts that say why they go on without it.
struct FoundDataFolder {
  std::string path;     // "" when there is none
  std::string whyNone;  // findDataFolder()'s error then
};

// The folder findDataFolder() would take, only when it is there now: nothing
// is made, so a folder removed after a main found it is not made anew.
std::optional<std::string> existingDataFolder();

// The choice inside `base` (no parents made).
std::optional<std::string> chooseDataFolderIn(const std::string& base, Error* error);

// The user's exclusion lists in `dataFolder`; "" when there is no folder ("").
std::string exclusionPathsFileIn(const std::string& dataFolder);
std::string exclusionExtensionsFileIn(const std::string& dataFolder);

}  // namespace zephlore
