#include "platform/descriptor_paths.h"

#include <cctype>
#include <charconv>

namespace zephlore {
namespace {

constexpr std::string_view kProcRoot = "/proc/";
constexpr std::string_view kDescriptors = "/fd/";

// The decimal number at the start of `text`; none when it does not start
// with a digit. `used` learns how many characters it took.
template <typename Number>
std::optional<Number> leadingNumber(std::string_view text, size_t* used) {
  Number value{};
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (problem != std::errc() || end == text.data()) return std::nullopt;
  *used = static_cast<size_t>(end - text.data());
  return value;
}

}  // namespace

std::string descriptorPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string descriptorPathOf(pid_t pid, int fd) {
  return std::string(kProcRoot) + std::to_string(pid) + std::string(kDescriptors) + std::to_string(fd);
}

std::optional<DescriptorPathParts> splitDescriptorPath(const std::string& path) {
  std::string_view rest = path;
  if (rest.substr(0, kProcRoot.size()) != kProcRoot) return std::nullopt;
  rest.remove_prefix(kProcRoot.size());
  size_t used = 0;
  const std::optional<pid_t> pid = leadingNumber<pid_t>(rest, &used);
  if (!pid || *pid <= 0) return std::nullopt;
  rest.remove_prefix(used);
  if (rest.substr(0, kDescriptors.size()) != kDescriptors) return std::nullopt;
  rest.remove_prefix(kDescriptors.size());
  const std::optional<int> fd = leadingNumber<int>(rest, &used);
  if (!fd || *fd < 0) return std::nullopt;
  rest.remove_prefix(used);
  if (!rest.empty() && rest[0] != '/') return std::nullopt;
  return DescriptorPathParts{*pid, *fd, std::string(rest)};
}

std::string withDescriptorPathsShown(const std::string& text,
                                     const std::vector<std::pair<std::string, std::string>>& shown) {
  std::string out = text;
  for (const auto& [beneath, given] : shown) {
    size_t at = 0;
    while ((at = out.find(beneath, at)) != std::string::npos) {
      const size_t end = at + beneath.size();
      if (end < out.size() && isdigit(static_cast<unsigned char>(out[end]))) {
        at = end;
        continue;
      }
      out.replace(at, beneath.size(), given);
      at += given.size();
    }
  }
  return out;
}

}  // namespace zephlore
