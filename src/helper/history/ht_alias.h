// HTAlias: a persistent reference to a folder that survives renames and
// moves within its volume. The bytes are a small versioned record of our own
// (a binary property list): the path at creation, the volume's identity, the
// folder's inode, its parent's inode, its name and, where the file system
// keeps one, its birth time.
//
// Linux has no inode-to-path call for a normal user, so resolution looks in
// turn at the recorded path, at the entries of the recorded parent (a rename
// in place) and then breadth first below the nearest existing ancestor on the
// same volume (a move). A result counts only when it is the same inode on a
// volume of the same identity: a folder recreated under the old name, or the
// same name on another volume, resolves to none. Every look goes through
// the Env given (the helper's reaches the folders beneath their views, so an
// alias names the stored folder whether or not a view covers it).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

// The description of an alias record, under the keys of the platform's alias
// information where Linux has a meaning for them; the rest stay zero/false.
struct AliasInfo {
  std::string targetNameString;
  std::string volumeNameString;  // the volume's identity
  std::string pathString;        // the path at creation
  uint32_t fileType = 0;
  uint32_t fileCreator = 0;
  uint64_t parentDirID = 0;
  uint64_t nodeID = 0;
  uint16_t filesystemID = 0;
  uint16_t signature = 0;
  bool volumeIsBootVolume = false;
  bool volumeIsAutomounted = false;
  bool volumeIsEjectable = false;
  bool volumeHasPersistentFileIDs = false;
  int64_t birthTimeNs = 0;  // 0: the file system keeps none
};

// What alias look-ups remember for a few seconds, owned by whoever resolves
// aliases (the history processor): the identity of each volume (reading the
// mount table on every look-up would make a burst of savings updates slow)
// and the aliases whose search failed (a folder that is gone would be
// searched for on every look-up of the watched folders). Any thread.
class FolderAliases {
 public:
  static constexpr double kIdentitySeconds = 2.0;
  static constexpr double kMissSeconds = 5.0;

  FolderAliases() = default;
  FolderAliases(const FolderAliases&) = delete;
  FolderAliases& operator=(const FolderAliases&) = delete;

  // The identity of the volume `device` that holds `path`.
  std::string volumeIdentity(Env& env, TimePoint now, dev_t device, const std::string& path);
  bool recentlyMissed(TimePoint now, const std::vector<uint8_t>& bytes);
  void rememberMiss(TimePoint now, const std::vector<uint8_t>& bytes);

 private:
  std::mutex mutex_;
  std::map<dev_t, std::pair<TimePoint, std::string>> identities_;
  std::map<std::vector<uint8_t>, TimePoint> misses_;
};

class HTAlias {
 public:
  // Directories a move search visits at most.
  static constexpr size_t kMaxSearchedDirectories = 10000;

  HTAlias() = default;
  explicit HTAlias(std::vector<uint8_t> bytes);

  // None (error -43, file not found, in the OS-status domain) when nothing
  // is at the path.
  static std::optional<HTAlias> aliasWithPath(Env& env, const Clock& clock, FolderAliases& aliases,
                                              const std::string& path, Error* error = nullptr);
  static HTAlias aliasWithData(const std::vector<uint8_t>& bytes) { return HTAlias(bytes); }

  const std::vector<uint8_t>& aliasData() const { return bytes_; }
  void setAliasData(std::vector<uint8_t> bytes);

  // The current path of the folder, or none.
  std::optional<std::string> fullPath(Env& env, const Clock& clock, FolderAliases& aliases) const;

  // The record's description; none when the bytes are not a record.
  const std::optional<AliasInfo>& originalAliasInfo() const { return info_; }
  static std::optional<AliasInfo> aliasInfoForAliasData(const std::vector<uint8_t>& bytes);

  // Both resolve to the same path; an unresolvable alias is the same as
  // nothing, not even itself.
  bool sameFolderAs(Env& env, const Clock& clock, FolderAliases& aliases, const HTAlias& other) const;

  // The identity of the volume holding `path`: "uuid:<UUID>" where the file
  // system has one, else "<source> <type>" from the mount table. "" when the
  // path cannot be examined.
  static std::string volumeIdentityForPath(Env& env, const Clock& clock, FolderAliases& aliases,
                                           const std::string& path);

 private:
  std::vector<uint8_t> bytes_;
  std::optional<AliasInfo> info_;
};

// The OS-status error domain and the status of a missing item.
inline constexpr const char* kOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr int kFileNotFoundStatus = -43;

}  // namespace zephlore
