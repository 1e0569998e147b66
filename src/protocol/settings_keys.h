// The settings the helper shares with the zephlore command: the file in the
// data folder and its keys (KRDefaultsController reads and writes them).
#pragma once

namespace zephlore {

inline constexpr const char* kDefaultsFileName = "defaults.plist";
inline constexpr const char* kFirstRunKey = "firstRun";
inline constexpr const char* kFolderAliasesKey = "folderAliases";
inline constexpr const char* kActiveKey = "active";
inline constexpr const char* kRunAtLoginKey = "runAtLogin";
inline constexpr const char* kCheckUpdatesKey = "checkUpdates";
inline constexpr const char* kVisibleKey = "visible";
// Show watched folders through a view at full content; on by default
// where FUSE is usable.
inline constexpr const char* kTransparentViewKey = "transparentView";

}  // namespace zephlore
