#include "base/version_comparator.h"

#include <algorithm>
#include <limits>

namespace zephlore {
namespace {

// The part's value; numbers too long for 64 bits saturate rather than wrap.
int64_t numberValue(const std::string& part) {
  int64_t value = 0;
  for (char c : part) {
    if (c < '0' || c > '9') break;
    const int digit = c - '0';
    if (value > (std::numeric_limits<int64_t>::max() - digit) / 10) {
      return std::numeric_limits<int64_t>::max();
    }
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace

KRVersionComparator& KRVersionComparator::defaultComparator() {
  static KRVersionComparator* comparator = new KRVersionComparator;
  return *comparator;
}

VersionPartKind KRVersionComparator::typeOfCharacter(std::string_view character) const {
  if (character == ".") return VersionPartKind::kPeriod;
  if (!character.empty() && character[0] >= '0' && character[0] <= '9') {
    return VersionPartKind::kNumber;
  }
  return VersionPartKind::kString;
}

std::vector<std::string> KRVersionComparator::splitVersionString(std::string_view version) const {
  // Byte by byte: the bytes of a multi-byte UTF-8 character are all of the
  // string kind, so they stay together in one part.
  std::vector<std::string> parts;
  if (version.empty()) return parts;
  std::string current(1, version[0]);
  VersionPartKind current_kind = typeOfCharacter(current);
  for (size_t i = 1; i < version.size(); ++i) {
    const std::string_view c = version.substr(i, 1);
    const VersionPartKind kind = typeOfCharacter(c);
    if (kind == current_kind && kind != VersionPartKind::kPeriod) {
      current += c;
    } else {
      parts.push_back(std::move(current));
      current = std::string(c);
      current_kind = kind;
    }
  }
  parts.push_back(std::move(current));
  return parts;
}

int KRVersionComparator::compareVersion(std::string_view a, std::string_view b) const {
  const std::vector<std::string> parts_a = splitVersionString(a);
  const std::vector<std::string> parts_b = splitVersionString(b);
  const size_t shared = std::min(parts_a.size(), parts_b.size());
  for (size_t i = 0; i < shared; ++i) {
    const VersionPartKind kind_a = typeOfCharacter(parts_a[i]);
    const VersionPartKind kind_b = typeOfCharacter(parts_b[i]);
    if (kind_a == kind_b) {
      if (kind_a == VersionPartKind::kNumber) {
        const int64_t va = numberValue(parts_a[i]), vb = numberValue(parts_b[i]);
        if (va != vb) return va > vb ? 1 : -1;
      } else if (kind_a == VersionPartKind::kString) {
        const int order = parts_a[i].compare(parts_b[i]);
        if (order != 0) return order > 0 ? 1 : -1;
      }
      continue;
    }
    // Different kinds decide at once: text is a pre-release, so anything
    // else beats it; a number beats a period.
    if (kind_b == VersionPartKind::kString) return 1;
    if (kind_a == VersionPartKind::kString) return -1;
    return kind_a == VersionPartKind::kNumber ? 1 : -1;
  }
  if (parts_a.size() == parts_b.size()) return 0;
  if (parts_a.size() < parts_b.size()) {
    return typeOfCharacter(parts_b[shared]) == VersionPartKind::kString ? 1 : -1;
  }
  return typeOfCharacter(parts_a[shared]) == VersionPartKind::kString ? -1 : 1;
}

}  // namespace zephlore
