#include "engine/engine_temporaries.h"

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <vector>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/sibling_temp_file.h"
#include "platform/attribute_fork.h"
#include "platform/env.h"
#include "platform/volume_capabilities.h"

namespace zephlore {
namespace {

constexpr std::string_view kPrefix = ".zephlore-";

bool isHex(std::string_view text) { return text.find_first_not_of("0123456789abcdef") == std::string_view::npos; }

bool isCopyName(std::string_view name) {
  // ".zephlore-" + 16 hex + "." + kind
  if (name.size() != kPrefix.size() + 18 || name.substr(0, kPrefix.size()) != kPrefix) return false;
  const std::string_view rest = name.substr(kPrefix.size());
  return isHex(rest.substr(0, 16)) && rest[16] == '.' && (rest[17] == 'c' || rest[17] == 'x');
}

bool isProbeName(std::string_view name) { return VolumeCapabilities::isProbeName(name); }

std::string join(const std::string& dir, const std::string& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

// The user file whose copy is called `copyName`, among `names`.
std::optional<std::string> ownerOf(const std::string& dir, const std::string& copyName,
                                   const std::vector<std::string>& names) {
  const std::string hash = copyName.substr(0, kPrefix.size() + 16);
  for (const std::string& name : names) {
    if (EngineTemporaries::isTemporaryName(name)) continue;
    const std::string path = join(dir, name);
    const std::string copy = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
    if (copy.compare(copy.size() - copyName.size(), hash.size(), hash) == 0) return path;
  }
  return std::nullopt;
}

// Whether the file at `path` is whole: plain, or compressed and complete.
bool isWhole(Env& env, const std::string& path) {
  CompressedFileInfo info;
  if (!CompressedFileInfo::inspect(env, path, &info, nullptr, false)) return false;
  return info.state == CompressionState::kPlain || info.state == CompressionState::kCompressed;
}

bool removeLeftover(Env& env, const std::string& name) {
  if (!SiblingTempFile::removeOwnLeftover(env, name)) return false;
  KRLog("Removed the temporary file %s a stopped run left behind", name.c_str());
  return true;
}

bool settleCopy(Env& env, const std::string& dir, const std::string& name, const std::vector<std::string>& names) {
  const std::string leftover = join(dir, name);
  struct stat st;
  if (env.lstat(leftover, &st) != 0 || !S_ISREG(st.st_mode) || SiblingTempFile::isHeld(env, leftover)) return false;
  const bool hasFork = AttributeFork::isPresent(env, FileRef::atPath(leftover));
  std::optional<std::string> owner = ownerOf(dir, name, names);
  if (owner) {
    // The size the file had before it was converted: the original data's,
    // when that is what the leftover holds.
    const uint64_t size = hasFork ? 0 : static_cast<uint64_t>(st.st_size);
    QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(env, *owner, size);
    if (env.lstat(leftover, &st) != 0) return true;  // recovery settled it
  }
  // Plain data is kept when it may be the only whole version of a file.
  if (!hasFork && st.st_size > 0 && (!owner || !isWhole(env, *owner))) {
    KRLog("**** Keeping %s: it may hold the only whole copy of a file", leftover.c_str());
    return false;
  }
  return removeLeftover(env, leftover);
}

}  // namespace

bool EngineTemporaries::isTemporaryName(std::string_view name) { return isCopyName(name) || isProbeName(name); }

int EngineTemporaries::cleanFolder(Env& env, const std::string& dir) {
  std::optional<std::vector<std::string>> names = env.listDirectory(dir);
  if (!names) return 0;
  int removed = 0;
  for (const std::string& name : *names) {
    if (isCopyName(name)) {
      removed += settleCopy(env, dir, name, *names);
    } else if (isProbeName(name)) {
      struct stat st;
      const std::string probe = join(dir, name);
      if (env.lstat(probe, &st) == 0 && st.st_size == 0) removed += removeLeftover(env, probe);
    }
  }
  return removed;
}

}  // namespace zephlore
