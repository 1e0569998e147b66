#include "helper/history/ht_alias.h"

#include <dirent.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstdlib>
#include <deque>
#include <memory>

#include "base/clock.h"
#include "helper/settings/plist_file.h"
#include "platform/volume_description.h"

namespace zephlore {
namespace {

constexpr uint64_t kRecordVersion = 1;

// What resolution compares a candidate with.
struct NodeFacts {
  dev_t device = 0;
  uint64_t inode = 0;
  int64_t birthTimeNs = 0;
};

std::optional<NodeFacts> directoryFacts(Env& env, const std::string& path) {
  struct statx sx;
  if (env.statxAt(AT_FDCWD, path, 0, STATX_TYPE | STATX_INO | STATX_BTIME, &sx) != 0) {
    return std::nullopt;
  }
  if (!S_ISDIR(sx.stx_mode)) return std::nullopt;
  NodeFacts facts;
  facts.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  facts.inode = sx.stx_ino;
  if (sx.stx_mask & STATX_BTIME) {
    facts.birthTimeNs = sx.stx_btime.tv_sec * 1'000'000'000LL + sx.stx_btime.tv_nsec;
  }
  return facts;
}

std::string parentOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return path.size() > 1 ? "/" : "";
  return path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string join(const std::string& dir, const std::string& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

// A scan of /dev/disk/by-uuid for the block device `device`.
std::string uuidOfDevice(Env& env, dev_t device) {
  const std::string folder = "/dev/disk/by-uuid";
  for (const std::string& name : env.listDirectory(folder).value_or(std::vector<std::string>{})) {
    if (name[0] == '.') continue;
    struct stat st;
    if (env.stat(folder + "/" + name, &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == device) return name;
  }
  return "";
}

std::string computeVolumeIdentity(Env& env, dev_t device, const std::string& path) {
  std::string uuid = uuidOfDevice(env, device);
  if (!uuid.empty()) return "uuid:" + uuid;
  const std::string resolved = env.realPath(path).value_or(path);
  std::optional<MountEntry> mount = mountEntryFor(device, resolved);
  if (!mount) mount = mountEntryFor(device, "/");  // any mount of the device
  if (!mount) return "";
  return mount->source + " " + mount->fsType;
}

bool matches(Env& env, const Clock& clock, FolderAliases& aliases, const AliasInfo& info,
             const std::string& path) {
  std::optional<NodeFacts> facts = directoryFacts(env, path);
  if (!facts || facts->inode != info.nodeID) return false;
  if (info.birthTimeNs != 0 && facts->birthTimeNs != 0 && facts->birthTimeNs != info.birthTimeNs) {
    return false;
  }
  return aliases.volumeIdentity(env, clock.now(), facts->device, path) == info.volumeNameString;
}

// The subdirectories of `dir` (never through a link) whose inode is `inode`,
// or all of them, with their lstat.
void subdirectories(Env& env, const std::string& dir, std::optional<uint64_t> inode,
                    std::vector<std::pair<std::string, struct stat>>* out) {
  for (const std::string& name : env.listDirectory(dir).value_or(std::vector<std::string>{})) {
    std::string child = join(dir, name);
    struct stat st;
    if (env.lstat(child, &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    if (inode && st.st_ino != *inode) continue;
    out->emplace_back(std::move(child), st);
  }
}

std::optional<std::string> searchBelow(Env& env, const Clock& clock, FolderAliases& aliases,
                                       const std::string& root, const AliasInfo& info) {
  std::optional<NodeFacts> rootFacts = directoryFacts(env, root);
  if (!rootFacts) return std::nullopt;
  std::deque<std::string> queue{root};
  size_t visited = 0;
  while (!queue.empty() && visited < HTAlias::kMaxSearchedDirectories) {
    std::string dir = std::move(queue.front());
    queue.pop_front();
    ++visited;
    std::vector<std::pair<std::string, struct stat>> children;
    subdirectories(env, dir, std::nullopt, &children);
    for (auto& [child, st] : children) {
      // Never onto another volume.
      if (st.st_dev != rootFacts->device) continue;
      if (st.st_ino == info.nodeID && matches(env, clock, aliases, info, child)) return child;
      queue.push_back(std::move(child));
    }
  }
  return std::nullopt;
}

std::vector<uint8_t> encode(const AliasInfo& info) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "version", plist_new_uint(kRecordVersion));
  plist_dict_set_item(dict, "pathString", plist_new_string(info.pathString.c_str()));
  plist_dict_set_item(dict, "volumeNameString", plist_new_string(info.volumeNameString.c_str()));
  plist_dict_set_item(dict, "targetNameString", plist_new_string(info.targetNameString.c_str()));
  plist_dict_set_item(dict, "nodeID", plist_new_uint(info.nodeID));
  plist_dict_set_item(dict, "parentDirID", plist_new_uint(info.parentDirID));
  plist_dict_set_item(dict, "birthTimeNs", plist_new_uint(static_cast<uint64_t>(info.birthTimeNs)));
  PlistPtr owner(dict);
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(dict, &bin, &length);
  std::vector<uint8_t> bytes(bin, bin + length);
  free(bin);
  return bytes;
}

std::optional<std::string> stringItem(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  char* text = nullptr;
  plist_get_string_val(node, &text);
  std::string value = text ? text : "";
  free(text);
  return value;
}

}  // namespace

std::string FolderAliases::volumeIdentity(Env& env, TimePoint now, dev_t device, const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = identities_.find(device);
    if (it != identities_.end() && it->second.first > now) return it->second.second;
  }
  std::string identity = computeVolumeIdentity(env, device, path);
  std::lock_guard<std::mutex> lock(mutex_);
  identities_[device] = {now + seconds(kIdentitySeconds), identity};
  return identity;
}

bool FolderAliases::recentlyMissed(TimePoint now, const std::vector<uint8_t>& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = misses_.find(bytes);
  return it != misses_.end() && it->second > now;
}

void FolderAliases::rememberMiss(TimePoint now, const std::vector<uint8_t>& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (misses_.size() > 256) misses_.clear();
  misses_[bytes] = now + seconds(kMissSeconds);
}

HTAlias::HTAlias(std::vector<uint8_t> bytes) { setAliasData(std::move(bytes)); }

void HTAlias::setAliasData(std::vector<uint8_t> bytes) {
  bytes_ = std::move(bytes);
  info_ = aliasInfoForAliasData(bytes_);
}

std::optional<AliasInfo> HTAlias::aliasInfoForAliasData(const std::vector<uint8_t>& bytes) {
  if (bytes.empty() || bytes.size() > 64 * 1024) return std::nullopt;
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
                 &root);
  PlistPtr owner(root);
  if (!root || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  std::optional<uint64_t> version = plistUnsignedValue(plist_dict_get_item(root, "version"));
  if (version != kRecordVersion) return std::nullopt;
  AliasInfo info;
  std::optional<std::string> path = stringItem(root, "pathString");
  std::optional<std::string> volume = stringItem(root, "volumeNameString");
  std::optional<uint64_t> node = plistUnsignedValue(plist_dict_get_item(root, "nodeID"));
  if (!path || !volume || !node) return std::nullopt;
  info.pathString = *path;
  info.volumeNameString = *volume;
  info.nodeID = *node;
  info.targetNameString = stringItem(root, "targetNameString").value_or(nameOf(*path));
  info.parentDirID = plistUnsignedValue(plist_dict_get_item(root, "parentDirID")).value_or(0);
  info.birthTimeNs = static_cast<int64_t>(
      plistUnsignedValue(plist_dict_get_item(root, "birthTimeNs")).value_or(0));
  return info;
}

std::optional<HTAlias> HTAlias::aliasWithPath(Env& env, const Clock& clock, FolderAliases& aliases,
                                              const std::string& path, Error* error) {
  std::optional<NodeFacts> facts;
  struct stat st;
  if (!path.empty() && path[0] == '/' && env.stat(path, &st) == 0) {
    facts = directoryFacts(env, path);
    if (!facts) {
      // Not a folder: still an item; record what stat gives.
      facts = NodeFacts{st.st_dev, st.st_ino, 0};
    }
  }
  if (!facts) {
    fail(error, kOSStatusErrorDomain, kFileNotFoundStatus, "File not found: " + path);
    return std::nullopt;
  }
  AliasInfo info;
  info.pathString = path;
  info.targetNameString = nameOf(path);
  info.volumeNameString = aliases.volumeIdentity(env, clock.now(), facts->device, path);
  info.nodeID = facts->inode;
  info.birthTimeNs = facts->birthTimeNs;
  struct stat parent;
  if (env.stat(parentOf(path), &parent) == 0) info.parentDirID = parent.st_ino;
  return HTAlias(encode(info));
}

std::optional<std::string> HTAlias::fullPath(Env& env, const Clock& clock, FolderAliases& aliases) const {
  if (!info_ || info_->pathString.empty() || info_->pathString[0] != '/') return std::nullopt;
  const AliasInfo& info = *info_;
  if (matches(env, clock, aliases, info, info.pathString)) return info.pathString;

  // Renamed in place: the parent still holds it under another name.
  const std::string parent = parentOf(info.pathString);
  std::vector<std::pair<std::string, struct stat>> candidates;
  if (!parent.empty()) subdirectories(env, parent, info.nodeID, &candidates);
  for (const auto& [candidate, st] : candidates) {
    if (matches(env, clock, aliases, info, candidate)) return candidate;
  }

  // Moved: search below the nearest ancestor that still exists.
  if (aliases.recentlyMissed(clock.now(), bytes_)) return std::nullopt;
  std::string ancestor = parent;
  while (!ancestor.empty() && !directoryFacts(env, ancestor)) ancestor = parentOf(ancestor);
  std::optional<std::string> found =
      ancestor.empty() ? std::nullopt : searchBelow(env, clock, aliases, ancestor, info);
  if (!found) aliases.rememberMiss(clock.now(), bytes_);
  return found;
}

bool HTAlias::sameFolderAs(Env& env, const Clock& clock, FolderAliases& aliases, const HTAlias& other) const {
  std::optional<std::string> mine = fullPath(env, clock, aliases);
  return mine && mine == other.fullPath(env, clock, aliases);
}

std::string HTAlias::volumeIdentityForPath(Env& env, const Clock& clock, FolderAliases& aliases,
                                           const std::string& path) {
  struct stat st;
  if (env.stat(path, &st) != 0) return "";
  return aliases.volumeIdentity(env, clock.now(), st.st_dev, path);
}

}  // namespace zephlore
