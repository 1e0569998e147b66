#include "platform/normal_path.h"

#include <unistd.h>

#include <climits>
#include <vector>

namespace zephlore {
namespace {

std::string workingFolder() {
  char buf[PATH_MAX];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string("/");
}

}  // namespace

std::string lexicallyNormalPath(const std::string& path, const std::string& base) {
  const std::string whole = !path.empty() && path[0] == '/' ? path : base + "/" + path;
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= whole.size()) {
    size_t end = whole.find('/', start);
    if (end == std::string::npos) end = whole.size();
    const std::string part = whole.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  std::string normal;
  for (const std::string& part : parts) normal += "/" + part;
  return normal.empty() ? "/" : normal;
}

std::string resolvedUserPath(Env& env, const std::string& path) {
  const std::string absolute = !path.empty() && path[0] == '/' ? path : workingFolder() + "/" + path;
  // The existing head is resolved by the system, so a ".." after a link
  // goes where the kernel would take it; the missing tail has no links.
  std::string head = absolute;
  std::string tail;
  for (;;) {
    while (head.size() > 1 && head.back() == '/') head.pop_back();
    if (std::optional<std::string> resolved = env.realPath(head)) {
      return lexicallyNormalPath(tail, *resolved);
    }
    const size_t slash = head.rfind('/');
    if (slash == std::string::npos || head.size() <= 1) break;
    tail = head.substr(slash + 1) + (tail.empty() ? "" : "/" + tail);
    head = slash == 0 ? "/" : head.substr(0, slash);
  }
  return lexicallyNormalPath(absolute);
}

}  // namespace zephlore
