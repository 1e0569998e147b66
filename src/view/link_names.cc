#include "view/link_names.h"

namespace zephlore::view {

void LinkNames::seen(const std::string& path, const struct stat& st) {
  if (st.st_nlink < 2 || S_ISDIR(st.st_mode)) return;
  std::lock_guard lock(mutex_);
  if (names_.size() >= kMostFiles) names_.clear();
  std::set<std::string>& names = names_[{st.st_dev, st.st_ino}];
  constexpr size_t kMostNames = 64;
  if (names.size() < kMostNames) names.insert(path);
}

std::vector<std::string> LinkNames::namesOf(const struct stat& st, const std::string& except) const {
  if (S_ISDIR(st.st_mode)) return {};
  std::lock_guard lock(mutex_);
  auto found = names_.find({st.st_dev, st.st_ino});
  if (found == names_.end()) return {};
  std::vector<std::string> out;
  for (const std::string& name : found->second) {
    if (name != except) out.push_back(name);
  }
  return out;
}

}  // namespace zephlore::view
