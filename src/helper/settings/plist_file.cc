#include "helper/settings/plist_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>

#include "platform/config_file.h"

namespace zephlore {
namespace {

constexpr size_t kMaxPlistFileSize = 16u << 20;

std::string errnoText(int err) { return std::strerror(err); }

std::string folderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

PlistReadResult readPlistFile(Env& env, const std::string& path) {
  PlistReadResult result;
  ConfigFileText file = readConfigFile(env, path, kMaxPlistFileSize);
  switch (file.status) {
    case ConfigFileStatus::kOk: break;
    case ConfigFileStatus::kMissing: result.status = PlistReadStatus::kMissing; break;
    case ConfigFileStatus::kNotRegular:
    case ConfigFileStatus::kUnreadable: result.status = PlistReadStatus::kUnreadable; break;
  }
  if (file.status != ConfigFileStatus::kOk) {
    result.problem = file.problem;
    return result;
  }
  const std::string& bytes = file.text;
  if (bytes.empty()) {
    result.status = PlistReadStatus::kEmpty;
    result.problem = "empty file";
    return result;
  }
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  if (!root) {
    result.status = PlistReadStatus::kUnparsable;
    result.problem = "not a property list";
    return result;
  }
  result.status = PlistReadStatus::kOk;
  result.root.reset(root);
  return result;
}

bool writeFileAtomically(Env& env, const std::string& given, const std::string& bytes, std::string* problem,
                         mode_t mode) {
  // Somebody else's FIFO, socket or folder at the name is not replaced.
  std::string refusal;
  std::optional<std::string> target = configWriteTarget(env, given, &refusal);
  if (!target) {
    if (problem) *problem = given + " is " + refusal + "; left alone";
    return false;
  }
  const std::string& path = *target;
  // The temporary file lives beside the target so that the rename stays on
  // one file system and is atomic.
  const std::string folder = folderOf(path);
  const size_t slash = path.rfind('/');
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string tmp;
  int fd = -1;
  std::random_device random;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "%08x", static_cast<unsigned>(random()));
    tmp = folder + "/." + base + "." + suffix;
    fd = env.open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) {
    if (problem) *problem = "cannot create a temporary file in " + folder + ": " + errnoText(errno);
    return false;
  }
  auto give_up = [&](const std::string& what) {
    int err = errno;
    env.close(fd);
    env.unlink(tmp);
    if (problem) *problem = what + ": " + errnoText(err);
    return false;
  };
  if (env.fchmod(fd, mode) != 0) return give_up("cannot set the mode of " + tmp);
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = env.pwrite(fd, bytes.data() + done, bytes.size() - done, done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return give_up("cannot write " + tmp);
    done += static_cast<size_t>(n);
  }
  if (env.fsync(fd) != 0) return give_up("cannot flush " + tmp);
  if (env.close(fd) != 0) {
    int err = errno;
    env.unlink(tmp);
    if (problem) *problem = "cannot close " + tmp + ": " + errnoText(err);
    return false;
  }
  if (env.rename(tmp, path) != 0) {
    int err = errno;
    env.unlink(tmp);
    if (problem) *problem = "cannot rename " + tmp + " to " + path + ": " + errnoText(err);
    return false;
  }
  // The rename itself is only durable once the folder is flushed.
  env.fsyncDirectory(folder);
  return true;
}

bool writePlistFileAtomically(Env& env, const std::string& path, plist_t root, std::string* problem) {
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  if (!xml) {
    if (problem) *problem = "could not encode the property list";
    return false;
  }
  std::string text(xml, length);
  plist_to_xml_free(xml);
  return writeFileAtomically(env, path, text, problem);
}

std::optional<bool> plistBoolValue(plist_t node) {
  if (!node) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return value != 0;
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return value != 0.0;
    }
    case PLIST_STRING: {
      // Like a hand-written "YES", "true" or "1": skip blanks and a sign and
      // leading zeros, then look at the first character.
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      if (!text) return false;
      const char* p = text;
      const char* end = text + length;
      while (p < end && (*p == ' ' || *p == '\t' || *p == '\n')) ++p;
      if (p < end && (*p == '+' || *p == '-')) ++p;
      while (p < end && *p == '0') ++p;
      if (p == end) return false;
      char c = *p;
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default:
      return std::nullopt;
  }
}

std::optional<uint64_t> plistUnsignedValue(plist_t node) {
  if (!node) return std::nullopt;
  if (plist_get_node_type(node) == PLIST_UINT) {
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return value;
  }
  if (plist_get_node_type(node) == PLIST_REAL) {
    double value = 0;
    plist_get_real_val(node, &value);
    if (value >= 0 && value < 18446744073709551616.0 && std::floor(value) == value) {
      return static_cast<uint64_t>(value);
    }
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> plistStringArray(plist_t node, size_t* skipped) {
  if (skipped) *skipped = 0;
  if (!node || plist_get_node_type(node) != PLIST_ARRAY) return std::nullopt;
  std::vector<std::string> strings;
  uint32_t count = plist_array_get_size(node);
  strings.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    plist_t item = plist_array_get_item(node, i);
    if (item && plist_get_node_type(item) == PLIST_STRING) {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(item, &length);
      strings.emplace_back(text ? text : "", text ? length : 0);
    } else if (skipped) {
      ++*skipped;
    }
  }
  return strings;
}

PlistPtr makePlistStringArray(const std::vector<std::string>& strings) {
  PlistPtr array(plist_new_array());
  for (const std::string& s : strings) {
    plist_array_append_item(array.get(), plist_new_string(s.c_str()));
  }
  return array;
}

}  // namespace zephlore
